// Every beginning of files of many kinds, as a host that loads the head of a
// file first sees it, and as a disk that filled up leaves it: the exports
// answer with the code the cut calls for, every time.
#include <gtest/gtest.h>

#include <OpenEXR/ImfPartType.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

std::uint64_t le(const Bytes& file, std::size_t at, int bytes)
{
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(file.at(at + static_cast<std::size_t>(i)));
    return v;
}

// Where the last chunk of the first part's full-resolution level ends: the
// decoders read every chunk of it and nothing else.
std::size_t decodingEnd(const Bytes& file)
{
    const DecodedExr info = readExr(file, 0, false);
    const bool multiPart = (info.version & 0x1000) != 0;
    const bool tiled = info.header.hasTileDescription();
    const bool deep = info.header.hasType() && Imf::isDeepData(info.header.type());
    const std::size_t table = headerEnd(file);
    std::size_t end = 0;
    for (int i = 0; i < chunkCount(file, 0); ++i) {
        std::size_t at = le(file, table + 8 * static_cast<std::size_t>(i), 8) + (multiPart ? 4 : 0);
        // tile x, y, level x, level y, size | y, table size, data size, unpacked size | y, size
        if (tiled && (le(file, at + 8, 4) != 0 || le(file, at + 12, 4) != 0)) continue;
        const std::size_t chunkEnd = tiled ? at + 20 + le(file, at + 16, 4)
                                     : deep ? at + 28 + le(file, at + 4, 8) + le(file, at + 12, 8)
                                            : at + 8 + le(file, at + 4, 4);
        end = std::max(end, chunkEnd);
    }
    return end;
}

// The codes expected for one cut of one file. Opening needs the headers and
// the offset tables (`opening` bytes); decoding needs the chunks of the
// first part's full-resolution level (up to `decoding`).
struct Expected {
    std::size_t opening = 0;
    std::size_t decoding = 0;
    int wholeDecode = 1;  // what the complete file decodes to

    int headerPartial(std::size_t cut) const { return cut >= opening ? 1 : 16; }
    int headerTruncated(std::size_t cut) const { return cut >= opening ? 1 : 14; }
    bool decodeOk(std::size_t cut, int code) const
    {
        if (cut >= decoding) return code == wholeDecode;
        if (cut < opening) return code == 4;
        // Cut inside the pixel data; a file the decoders refuse whole may be
        // refused for that reason first.
        return code == 14 || (wholeDecode != 1 && code == wholeDecode);
    }
};

// Every cut up to the end of the offset tables and a little beyond, then
// about 1500 more spread over the pixel data.
std::vector<std::size_t> cutsOf(std::size_t opening, std::size_t whole)
{
    std::vector<std::size_t> cuts;
    const std::size_t dense = std::min(whole, opening + 64);
    for (std::size_t c = 0; c <= dense; ++c) cuts.push_back(c);
    const std::size_t step = std::max<std::size_t>(1, (whole - dense) / 1500);
    for (std::size_t c = dense + step; c < whole; c += step) cuts.push_back(c);
    if (cuts.back() != whole) cuts.push_back(whole);
    return cuts;
}

}  // namespace

TEST(Truncation, EveryCutGetsTheCodeItCallsFor)
{
    long long files = 0, cutsTried = 0, calls = 0;
    for (const SampleFile& sample : sampleFiles()) {
        SCOPED_TRACE(sample.name);
        const Bytes& file = sample.bytes;
        Expected expected;
        expected.opening = offsetTableEnd(file);
        expected.decoding = decodingEnd(file);
        expected.wholeDecode = decode(32, file);
        ASSERT_TRUE(expected.wholeDecode == 1 || expected.wholeDecode == 6) << expected.wholeDecode;
        ASSERT_EQ(loadHeader(file), 1);

        std::vector<std::string> wrong;
        auto check = [&wrong](bool ok, const char* what, std::size_t cut, int code) {
            if (!ok && wrong.size() < 10) {
                std::ostringstream s;
                s << what << " cut at " << cut << ": " << code;
                wrong.push_back(s.str());
            }
        };
        const std::vector<std::size_t> cuts = cutsOf(expected.opening, file.size());
        for (const std::size_t cut : cuts) {
            const auto length = static_cast<long long>(cut);
            std::string text;
            // The head of the file, the rest still on disk.
            int code = loadHeader(file, length, kWhole, &text);
            check(code == expected.headerPartial(cut), "header, partial", cut, code);
            if (code == 16) check(text == "Exr  ERR: File buffer too small!", text.c_str(), cut, code);
            // The same bytes as all there is.
            code = loadHeader(file, length, length, &text);
            check(code == expected.headerTruncated(cut), "header, truncated", cut, code);
            if (code == 14) check(text == "Exr  ERR: unable to init exr file!", text.c_str(), cut, code);
            // The three decoders share one procedure: each takes every third cut.
            const int depth = cut % 3 == 0 ? 8 : cut % 3 == 1 ? 16 : 32;
            code = decode(depth, file, length, length);
            check(expected.decodeOk(cut, code), "decode, truncated", cut, code);
            if (cut < file.size()) {
                code = decode(depth, file, length, kWhole);
                check(cut < expected.opening ? code == 4 : expected.decodeOk(cut, code), "decode, partial", cut, code);
            }
            calls += cut < file.size() ? 4 : 3;
        }
        for (const std::string& w : wrong) ADD_FAILURE() << w;
        ++files;
        cutsTried += static_cast<long long>(cuts.size());
    }
    std::printf("[ figures  ] truncation: %lld files, %lld cuts, %lld calls\n", files, cutsTried, calls);
}
