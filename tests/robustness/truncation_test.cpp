// Every beginning of files of many kinds through the exports, from buffers
// that end at an inaccessible page.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "tests/robustness/robustnessSupport.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

// Cuts at every byte up to a little beyond the offset tables, around the
// start of each chunk and inside its header, and a few dozen over the pixel
// data, each as the head of a file whose rest is on disk and as all there is.
// Before the offset tables end, header loading asks for more (16) or refuses
// the file (14), the decoders answer 4; before the shortest head OpenEXR reads
// all of the first part's pixels from, the decoders answer 14.
TEST(Truncation, EveryCutGetsTheCodeItCallsFor)
{
    const char* const calls[] = {"header, partial", "header, truncated", "decode, partial", "decode, truncated"};
    std::size_t cutsTried = 0;
    for (const SampleFile& sample : sampleFiles()) {
        SCOPED_TRACE(sample.name);
        const Bytes& file = sample.bytes;
        const std::size_t opening = offsetTableEnd(file);
        std::size_t decoding = opening;  // the shortest head OpenEXR reads all of the first part's pixels from
        for (std::size_t step = std::size_t{1} << 20; step > 0; step /= 2) {
            try {
                if (decoding + step <= file.size()) readExr(truncated(file, decoding + step - 1));
            } catch (...) {
                decoding += step;
            }
        }
        const int whole = decode(32, file);
        ASSERT_TRUE(whole == 1 || whole == 6) << whole;
        std::vector<std::size_t> cuts{decoding - 1, decoding, file.size()};
        for (std::size_t c = 0; c <= opening + 64; ++c) cuts.push_back(c);
        for (std::size_t entry = headerEnd(file); entry < opening; entry += 8)
            for (const std::size_t d : {0, 1, 2, 5, 9, 13}) cuts.push_back(littleEndianAt(file, entry, 8) + d - 1);
        for (std::size_t c = opening; c < file.size(); c += file.size() / 48 + 1) cuts.push_back(c);
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), std::upper_bound(cuts.begin(), cuts.end(), file.size())), cuts.end());
        int wrong = 0;
        for (const std::size_t cut : cuts) {
            const auto n = static_cast<long long>(cut);
            const bool opens = cut >= opening;
            const int decoded = !opens ? 4 : cut >= decoding ? whole : 14;
            const int depth = 8 << (cut % 3);  // the decoders share one procedure: each takes every third cut
            const int want[] = {opens ? 1 : 16, opens ? 1 : 14, decoded, decoded};
            const int got[] = {loadHeader(file, n), loadHeader(file, n, n), decode(depth, file, n),
                               decode(depth, file, n, n)};
            for (int i = 0; i < 4; ++i)  // a file refused for its kind may say so before its chunks are measured
                if (got[i] != want[i] && !(i >= 2 && opens && whole != 1 && got[i] == whole) && wrong++ < 10)
                    ADD_FAILURE() << calls[i] << " cut at " << cut << ": " << got[i] << ", not " << want[i];
        }
        cutsTried += cuts.size();
    }
    std::printf("[ figures  ] truncation: %zu cuts, %zu calls\n", cutsTried, 4 * cutsTried);
}
