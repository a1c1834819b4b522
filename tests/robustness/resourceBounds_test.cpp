// Headers that claim far more than their file holds are answered with a code
// before the plug-in, or OpenEXR on its behalf, allocates by the claim.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <OpenEXR/ImfOpaqueAttribute.h>
#include <OpenEXR/ImfPreviewImageAttribute.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tests/robustness/robustnessSupport.h"

using namespace kt::test;
using namespace kt::robust;
using testing::AnyOf;

// The file with the words written little-endian from `offset` bytes after the
// value of its first attribute of that name (-4: the size field).
static Bytes withWords(const Bytes& file, const std::string& name, int offset,
                       std::initializer_list<std::uint32_t> words)
{
    const std::size_t type = findBytes(file, name + std::string(1, '\0')) + name.size() + 1;
    auto at = static_cast<std::size_t>(static_cast<long long>(type + std::strlen(&file.at(type)) + 5) + offset);
    Bytes out = file;
    for (std::uint32_t w : words)
        for (int i = 0; i < 4; ++i) out.at(at++) = static_cast<char>(w >> (8 * i));
    return out;
}

// Refused allocations come back as failures, also under AddressSanitizer.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

// Claims one past the largest data window and tile sides, chunks or lines far
// larger than the file, attribute sizes past its end (OpenEXR allocates, and
// clears, some before reading them): header loading refuses the file (14) or
// asks for more while bytes are said to follow (16), the decoders answer 4,
// and nothing near the claim is allocated. Offset tables with nothing behind
// them: 14. A deep file with its offset table not all loaded never reaches
// OpenEXR 3.1, which would lose its reader (the leak check would see it).
// Files at the limits load and decode.
TEST(ResourceBounds, ClaimsBeyondTheFileAreRefusedBeforeAnythingIsSizedByThem)
{
    constexpr std::uint32_t claim = 1u << 28;
    ExrPart part, layers, widest, tiles, lines, deep, flat;
    part.tiled = tiles.tiled = true;
    part.attribute("note", std::string("hello")).attribute("list", std::vector<std::string>{"a", "bb"});
    part.attribute("values", std::vector<float>{1, 2, 3}).attribute("preview", Imf::PreviewImage(2, 2));
    const Imf::OpaqueAttribute unknownType("mytype");  // read as opaque bytes
    part.attribute("blob", static_cast<const Imf::Attribute&>(unknownType));
    const Bytes small = makeExr(ExrPart()), file = makeExr(part);
    auto window = [](const Bytes& f, std::uint32_t width, std::uint32_t height) {
        return withWords(f, "dataWindow", 0, {0, 0, width - 1, height - 1});
    };
    for (int i = 0; i < 3000; ++i) layers.channels.emplace_back("layer" + std::to_string(10000 + i) + ".Z");
    widest.displayWindow = box(0, 0, (1 << 20) - 1, 0);
    widest.compression = deep.compression = Imf::ZIPS_COMPRESSION;
    tiles.tileWidth = 1 << 16;
    deep.channels = {{"A"}, {"Z", Imf::FLOAT}};
    deep.deepSamples = [](int x, int y) { return (x + y) % 3; };
    lines.compression = Imf::NO_COMPRESSION;  // 12 lines of 16 halves, one chunk each
    lines.channels = channelList({"Y"});
    Bytes zipTables = window(small, 4096, 4096), plainTables = window(makeExr(lines), 4096, 4096);
    zipTables.resize(headerEnd(zipTables) + 8 * 256);
    plainTables.resize(headerEnd(plainTables) + 8 * 4096);
    Bytes lastLineMissing = makeExr(lines);
    const std::uint64_t last = chunkOffsets(lastLineMissing)[11], moved = last - 1;
    lastLineMissing.resize(last + 8);
    lastLineMissing[last + 4] = 0;  // its size field
    Bytes oneByteMore = lastLineMissing;  // the line before one byte short too, the last chunk moved up
    oneByteMore[last - 40 + 4] = 31;
    oneByteMore.erase(oneByteMore.begin() + static_cast<std::ptrdiff_t>(moved));
    const std::size_t entry = headerEnd(oneByteMore) + 8 * 11;
    for (std::size_t b = 0; b < 8; ++b) oneByteMore[entry + b] = static_cast<char>(moved >> (8 * b));
    const Bytes deepFile = makeExr(deep);
    struct Case {
        std::string what;
        Bytes file;
        int header, decoded;
        long long loaded = kWhole;
    };
    std::vector<Case> cases = {
        {"as made", file, 1, 1},
        {"2^30 x 2^30", window(small, 1u << 30, 1u << 30), 14, 4},
        {"one column past the widest", window(small, (1u << 20) + 1, 12), 14, 4},
        {"one line past the tallest", window(small, 16, (1u << 20) + 1), 14, 4},
        {"as wide as allowed, one chunk of 12 lines 100 MB", window(small, 1u << 20, 12), 14, 4},
        {"3000 channels 2^20 wide, 6 GB a line", window(makeExr(layers), 1u << 20, 12), 14, 4},
        {"one tile column wider", withWords(file, "tiles", 0, {(1u << 16) + 1}), 14, 4},  // x size, y size
        {"one tile line taller", withWords(file, "tiles", 4, {(1u << 16) + 1}), 14, 4},
        {"string", withWords(file, "note", -4, {claim}), 14, 4},
        {"float vector", withWords(file, "values", -4, {claim}), 14, 4},
        {"opaque", withWords(file, "blob", -4, {claim}), 14, 4},
        {"string vector", withWords(file, "list", -4, {claim}), 14, 4},
        {"string in a string vector", withWords(file, "list", 0, {claim}), 14, 4},
        {"preview", withWords(file, "preview", 0, {1u << 13, 1u << 13}), 14, 4},
        {"negative size", withWords(file, "note", -4, {0xFFFFFFF0u}), 14, 4},
        {"offset tables only, ZIP", zipTables, 14, 14},
        {"offset tables only, uncompressed", plainTables, 14, 14},
        {"deep, offset table not all loaded", deepFile, 16, 4, static_cast<long long>(headerEnd(deepFile) + 12)},
        {"deep", deepFile, 1, 1},
        {"widest", makeExr(widest), 1, 1},
        {"widest tiles", makeExr(tiles), 1, 1},
        {"uncompressed, the last chunk's bytes missing", lastLineMissing, 1, 1},
        {"uncompressed, one byte more missing", oneByteMore, 1, 14},
    };
    flat.displayWindow = box(0, 0, 511, 511);
    flat.tileWidth = flat.tileHeight = 128;
    flat.value = constantValue(0.25);
    for (int c = 0; c < 2 * Imf::NUM_COMPRESSION_METHODS; ++c) {
        flat.compression = static_cast<Imf::Compression>(c / 2);
        flat.tiled = c % 2;
        cases.push_back({"one value everywhere, compression " + std::to_string(c / 2) + (flat.tiled ? ", tiled" : ""),
                         makeExr(flat), 1, 1});
    }
    loadHeader(small);  // the per-thread metadata record exists before the watch
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        largestAllocation = 0;
        EXPECT_EQ(loadHeader(c.file, c.loaded), c.header);
        EXPECT_EQ(loadHeader(c.file, c.loaded, static_cast<long long>(c.file.size() + 1)),
                  c.decoded == 4 ? 16 : c.header);  // with bytes said to follow
        for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, c.file, c.loaded), c.decoded) << depth;
        EXPECT_TRUE(c.decoded == 1 || largestAllocation < std::size_t{1} << 20) << largestAllocation;
    }
}

// Damaged real files, whole and half loaded: a documented code, and none of
// the gigabytes some of them once made OpenEXR and the decoders ask for.
TEST(Corpus, DamagedFilesGetAStatusCodeWithBoundedMemory)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    std::size_t files = 0, largestSeen = 0;
    loadHeader(Bytes());  // the per-thread metadata record exists before the watch
    for (const auto& entry : std::filesystem::directory_iterator(corpusDirectory() + "/Damaged")) {
        if (!entry.is_regular_file() || entry.path().extension() == ".rst") continue;  // no ".exr" on these
        SCOPED_TRACE(entry.path());
        const Bytes bytes = readFileBytes(entry.path());
        largestAllocation = 0;
        EXPECT_THAT(loadHeader(bytes), AnyOf(1, 4, 6, 14));
        EXPECT_THAT(loadHeader(bytes, static_cast<long long>(bytes.size() / 2)), AnyOf(1, 4, 6, 14, 16));
        for (int depth : {8, 16, 32}) EXPECT_THAT(decode(depth, bytes), AnyOf(1, 4, 6, 7, 14)) << depth;
        EXPECT_LT(largestAllocation, std::size_t{64} << 20);
        largestSeen = std::max(largestSeen, largestAllocation.load());
        ++files;
    }
    EXPECT_GT(files, 0u);
    std::printf("[ figures  ] corpus: %zu damaged files, largest allocation %zu bytes\n", files, largestSeen);
}
