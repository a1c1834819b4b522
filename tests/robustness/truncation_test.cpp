// Every beginning of files of many kinds, as a host that loads the head of a
// file first sees it, and as a disk that filled up leaves it: the exports
// answer with the code the cut calls for, every time.
#include <gtest/gtest.h>

#include <OpenEXR/ImfPartType.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

// Where the last chunk of the first part's full-resolution level ends: the
// decoders read every chunk of it and nothing else.
std::size_t decodingEnd(const Bytes& file)
{
    const DecodedExr info = readExr(file, 0, false);
    const bool tiled = info.header.hasTileDescription(), deep = info.header.hasType() && Imf::isDeepData(info.header.type());
    std::size_t end = 0;
    for (int i = 0; i < chunkCount(file, 0); ++i) {
        const std::size_t at = littleEndianAt(file, headerEnd(file) + 8 * static_cast<std::size_t>(i), 8) + (info.version & 0x1000 ? 4 : 0);
        // tile x, y, level x, level y, size | y, table size, data size, unpacked size | y, size
        if (tiled && (littleEndianAt(file, at + 8) != 0 || littleEndianAt(file, at + 12) != 0)) continue;
        end = std::max(end, tiled  ? at + 20 + littleEndianAt(file, at + 16)
                            : deep ? at + 28 + littleEndianAt(file, at + 4, 8) + littleEndianAt(file, at + 12, 8)
                                   : at + 8 + littleEndianAt(file, at + 4));
    }
    return end;
}

// Every cut up to a little beyond the end of the offset tables (`opening`);
// then, for each chunk of every part, the cuts around its start and inside
// its own header, and a few dozen more spread over the pixel data.
std::vector<std::size_t> cutsOf(const Bytes& file, std::size_t opening, std::size_t decoding)
{
    std::vector<std::size_t> cuts;
    for (std::size_t c = 0; c <= opening + 64; ++c) cuts.push_back(c);
    for (std::size_t entry = headerEnd(file); entry < opening; entry += 8)
        for (const std::size_t d : {0, 1, 2, 5, 9, 13}) cuts.push_back(littleEndianAt(file, entry, 8) + d - 1);
    for (std::size_t c = opening; c < file.size(); c += file.size() / 48 + 1) cuts.push_back(c);
    cuts.insert(cuts.end(), {decoding - 1, decoding, file.size()});
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    while (cuts.back() > file.size()) cuts.pop_back();
    return cuts;
}

}  // namespace

// Opening needs the headers and the offset tables: before them, a partial
// buffer asks for more (16) and a truncated file is refused (14 header, 4
// decoders); decoding needs the first part's full-resolution chunks: a cut
// among them is 14, unless the whole file is refused anyway for its kind.
TEST(Truncation, EveryCutGetsTheCodeItCallsFor)
{
    long long files = 0, cutsTried = 0, calls = 0;
    for (const SampleFile& sample : sampleFiles()) {
        SCOPED_TRACE(sample.name);
        const Bytes& file = sample.bytes;
        const std::size_t opening = offsetTableEnd(file), decoding = decodingEnd(file);
        const int whole = decode(32, file);
        ASSERT_TRUE(whole == 1 || whole == 6) << whole;
        ASSERT_EQ(loadHeader(file), 1);
        int wrong = 0;
        auto check = [&](bool ok, const char* what, std::size_t cut, int code, const std::string& text = "") {
            if (!ok && wrong++ < 10) ADD_FAILURE() << what << " cut at " << cut << ": " << code << " " << text;
        };
        const std::vector<std::size_t> cuts = cutsOf(file, opening, decoding);
        for (const std::size_t cut : cuts) {
            const auto length = static_cast<long long>(cut);
            const bool opens = cut >= opening;
            auto decodeOk = [&](int code) { return cut >= decoding ? code == whole : !opens ? code == 4 : code == 14 || (whole != 1 && code == whole); };
            std::string text;
            int code = loadHeader(file, length, kWhole, &text);  // the head of the file, the rest still on disk
            check(opens ? code == 1 : code == 16 && text == "Exr  ERR: File buffer too small!", "header, partial", cut, code, text);
            code = loadHeader(file, length, length, &text);  // the same bytes as all there is
            check(opens ? code == 1 : code == 14 && text == "Exr  ERR: unable to init exr file!", "header, truncated", cut, code, text);
            // The three decoders share one procedure: each takes every third cut.
            const int depth = cut % 3 == 0 ? 8 : cut % 3 == 1 ? 16 : 32;
            code = decode(depth, file, length, length);
            check(decodeOk(code), "decode, truncated", cut, code);
            if (cut < file.size()) {
                code = decode(depth, file, length, kWhole);
                check(opens ? decodeOk(code) : code == 4, "decode, partial", cut, code);
            }
            calls += cut < file.size() ? 4 : 3;
        }
        ++files;
        cutsTried += static_cast<long long>(cuts.size());
    }
    std::printf("[ figures  ] truncation: %lld files, %lld cuts, %lld calls\n", files, cutsTried, calls);
}
