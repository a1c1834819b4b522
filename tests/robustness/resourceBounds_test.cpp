// Headers that claim far more than their file holds are answered with a code
// before the plug-in, or OpenEXR on its behalf, allocates by the claim.
#include <gtest/gtest.h>

#include <OpenEXR/ImfPreviewImageAttribute.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

// The file with its data window patched to (0, 0)-(width - 1, height - 1).
Bytes withWindow(const Bytes& file, std::uint32_t width, std::uint32_t height)
{
    return withAttributeWords(file, "dataWindow", 0, {0, 0, width - 1, height - 1});
}

Bytes smallFile(Imf::Compression compression = Imf::ZIP_COMPRESSION)
{
    ExrPart part;
    part.compression = compression;
    return makeExr(part);
}

// A file refused before anything is sized by its header: whole, the header
// loader says the file is bad; with one byte more said to follow (still far
// too little), it asks for it; the decoders refuse it.
void expectRefusedUpFront(const Bytes& file, const std::string& what)
{
    SCOPED_TRACE(what);
    loadHeader(smallFile());  // the per-thread metadata record exists before the watch
    LargestAllocation largest;
    std::string text;
    EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 14);
    EXPECT_EQ(text, "Exr  ERR: unable to init exr file!");
    EXPECT_EQ(loadHeader(file, kWhole, static_cast<long long>(file.size()) + 1, &text), 16);
    EXPECT_EQ(text, "Exr  ERR: File buffer too small!");
    for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file), 4) << depth;
    EXPECT_LT(largest.bytes(), kMiB);
}

// An uncompressed scan-line file laid out again with the data of chunk i cut
// to keep[i] bytes (its size field saying so), the offsets moved to match.
Bytes withChunksCut(const Bytes& file, const std::vector<std::uint32_t>& keep)
{
    const std::vector<std::uint64_t> offsets = chunkOffsets(file);
    const std::size_t table = headerEnd(file);
    Bytes out(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(table + 8 * offsets.size()));
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        for (int b = 0; b < 8; ++b) out[table + 8 * i + static_cast<std::size_t>(b)] = static_cast<char>(out.size() >> (8 * b));
        const auto chunk = static_cast<std::ptrdiff_t>(offsets[i]);
        const auto size = std::min<std::uint32_t>(keep[i], static_cast<std::uint32_t>(littleEndianAt(file, offsets[i] + 4)));
        out.insert(out.end(), file.begin() + chunk, file.begin() + chunk + 4);
        for (int b = 0; b < 4; ++b) out.push_back(static_cast<char>(size >> (8 * b)));
        out.insert(out.end(), file.begin() + chunk + 8, file.begin() + chunk + 8 + size);
    }
    return out;
}

}  // namespace

// Allocations the allocator refuses must come back as failures, also under
// AddressSanitizer, which otherwise ends the process on them.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

// Claims far beyond the file: one past the largest data window and tile
// sides, chunks or lines far larger than the file, attribute sizes past its
// end (some of which OpenEXR allocates, and clears, before reading them;
// OpenEXR 3.1 itself checks string vectors and previews, older versions do not).
TEST(ResourceBounds, ClaimsBeyondTheFileAreRefusedBeforeAnythingIsSizedByThem)
{
    constexpr std::uint32_t claim = 1u << 28;
    const Bytes small = smallFile();
    ExrPart part;
    part.tiled = true;
    part.tileWidth = 1 << 16;
    part.attribute("note", std::string("hello")).attribute("list", std::vector<std::string>{"a", "bb"});
    part.attribute("values", std::vector<float>{1, 2, 3}).attribute("blob", std::string("opaque"));
    part.attribute("preview", Imf::PreviewImage(2, 2));
    Bytes file = makeExr(part);
    // "blob" becomes a type OpenEXR does not know, read as opaque bytes.
    file = patched(file, findBytes(file, std::string("blob\0string", 11)) + 5, {'m', 'y', 't', 'y', 'p', 'e'});
    ASSERT_EQ(loadHeader(file), 1);
    ExrPart layers;
    for (int i = 0; i < 3000; ++i) layers.channels.emplace_back("layer" + std::to_string(10000 + i) + ".Z");
    const struct {
        const char* what;
        Bytes file;
        bool openExrAllocates;
    } cases[] = {
        {"2^30 x 2^30", withWindow(small, 1u << 30, 1u << 30), false},
        {"one column past the widest", withWindow(small, (1u << 20) + 1, 12), false},
        {"one line past the tallest", withWindow(small, 16, (1u << 20) + 1), false},
        {"as wide as allowed, one chunk of 12 lines 100 MB", withWindow(small, 1u << 20, 12), false},
        {"3000 channels 2^20 wide, 6 GB a line", withWindow(makeExr(layers), 1u << 20, 8), false},
        {"one tile column wider", withAttributeWords(file, "tiles", 0, {(1u << 16) + 1}), false},  // x size, y size, mode
        {"one tile line taller", withAttributeWords(file, "tiles", 4, {(1u << 16) + 1}), false},
        {"string", withAttributeWords(file, "note", -4, {claim}), true},
        {"float vector", withAttributeWords(file, "values", -4, {claim}), true},
        {"opaque", withAttributeWords(file, "blob", -4, {claim}), true},
        {"string vector", withAttributeWords(file, "list", -4, {claim}), false},
        {"string in a string vector", withAttributeWords(file, "list", 0, {claim}), false},
        {"preview", withAttributeWords(file, "preview", 0, {1u << 13, 1u << 13}), false},
        {"negative size", withAttributeWords(file, "note", -4, {0xFFFFFFF0u}), false},
    };
    for (const auto& c : cases) {
        if (c.openExrAllocates) {  // what OpenEXR asks for by itself, reading the header alone
            LargestAllocation largest;
            EXPECT_ANY_THROW(readExr(c.file, 0, false)) << c.what;
            EXPECT_GE(largest.bytes(), claim) << c.what;
        }
        expectRefusedUpFront(c.file, c.what);
    }
}

// The largest images allowed still decode: 2^20 pixels wide, tiles 2^16
// wide, 3000 channels (with every plane but the four chosen ones left out).
TEST(ResourceBounds, TheLargestImagesAllowedStillDecode)
{
    ExrPart widest;
    widest.displayWindow = box(0, 0, (1 << 20) - 1, 0);
    widest.channels = channelList({"Y"});
    widest.compression = Imf::ZIPS_COMPRESSION;
    widest.value = [](const std::string&, int x, int) { return x < 32 ? x / 32.0 : 0.5; };
    const Bytes wide = makeExr(widest);
    EXPECT_EQ(loadHeader(wide), 1);
    auto out = decodeFloat(wide, 32, 32);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->read(31, 0).r, 31 / 32.0f);
    EXPECT_EQ(out->read(31, 0).a, 31 / 32.0f);  // Y serves every role
    EXPECT_EQ(out->read(31, 1).r, 0.0f);

    ExrPart tiles;
    tiles.displayWindow = box(0, 0, 19, 3);
    tiles.tiled = true;
    tiles.tileWidth = 1 << 16;
    tiles.tileHeight = 2;
    const Bytes tiled = makeExr(tiles);
    EXPECT_EQ(loadHeader(tiled), 1);
    out = decodeFloat(tiled, 20, 4);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->read(19, 3).g, static_cast<float>(readExr(tiled).channel("G").at(19, 3)));

    ExrPart layers;
    layers.displayWindow = box(0, 0, 7, 7);
    for (int i = 0; i < 3000; ++i) layers.channels.emplace_back("layer" + std::to_string(10000 + i) + ".Z");
    const Bytes file = makeExr(layers);
    std::string text;
    EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 1);
    EXPECT_EQ(text.substr(text.size() - 4), "...'");
    LargestAllocation largest;
    out = decodeFloat(file, 8, 8);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->read(7, 7).r, static_cast<float>(patternValue("R", 7, 7)));
    EXPECT_EQ(out->read(7, 7).a, static_cast<float>(patternValue("A", 7, 7)));
    EXPECT_LT(largest.bytes(), 4 * kMiB);  // the file itself is 3000 x 8 x 8 x 2 bytes of samples
}

// Offset tables that fit, with no chunk behind them: 14 before planes are made.
TEST(ResourceBounds, PixelDataTheFileCannotHoldIsAnsweredBeforePlanesAreMade)
{
    for (const Imf::Compression compression : {Imf::NO_COMPRESSION, Imf::ZIP_COMPRESSION}) {
        Bytes file = withWindow(smallFile(compression), 4096, 4096);
        file.resize(headerEnd(file));
        file.resize(file.size() + 8 * (compression == Imf::ZIP_COMPRESSION ? 256 : 4096), 0);
        loadHeader(smallFile());
        LargestAllocation largest;
        std::string text;
        EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 14);
        EXPECT_EQ(text.substr(text.size() - 25), " ERR: file not completed!");
        for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file), 14);
        EXPECT_LT(largest.bytes(), 2 * kMiB) << compression;  // each plane would take 32 MB
    }
}

// An uncompressed file may lack one chunk's bytes, which read as zeros, and no more.
TEST(ResourceBounds, UncompressedFilesMayLackOneChunksBytesAndNoMore)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 15, 7);
    part.compression = Imf::NO_COMPRESSION;
    part.channels = channelList({"Y"});
    const Bytes file = makeExr(part);
    const std::uint32_t l = 16 * 2;  // one chunk: one line of halves
    const auto out = decodeFloat(withChunksCut(file, {l, l, l, l, l, l, l, 0}), 16, 8);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->read(5, 6).g, static_cast<float>(patternValue("Y", 5, 6)));
    EXPECT_EQ(out->read(5, 7).g, 0.0f);
    EXPECT_EQ(decode(32, withChunksCut(file, {l, l, l, l, l, l, l / 2, l / 2})), 1);  // spread over two chunks
    EXPECT_EQ(decode(32, withChunksCut(file, {l, l, l, l, l, l, l - 1, 0})), 14);
    EXPECT_EQ(decode(8, withChunksCut(file, {0, 0, 0, 0, 0, 0, 0, 0})), 14);
}

// One value everywhere compresses as far as each method (some lossy) goes: never refused.
TEST(ResourceBounds, TheMostCompressibleValidFilesAreNeverRefused)
{
    for (int c = Imf::NO_COMPRESSION; c < Imf::NUM_COMPRESSION_METHODS; ++c)
        for (const bool tiled : {false, true}) {
            ExrPart part;
            part.displayWindow = box(0, 0, 511, 511);
            part.compression = static_cast<Imf::Compression>(c);
            part.tiled = tiled;
            part.tileWidth = part.tileHeight = 128;
            part.value = constantValue(0.25);
            const Bytes file = makeExr(part);
            SCOPED_TRACE(std::to_string(c) + (tiled ? " tiled, " : " scan lines, ") + std::to_string(file.size()) + " bytes");
            EXPECT_EQ(loadHeader(file), 1);
            const auto out = decodeFloat(file, 512, 512);
            ASSERT_TRUE(out);
            EXPECT_EQ(out->read(511, 511).b, static_cast<float>(readExr(file).channel("B").at(511, 511)));
        }
}

// OpenEXR 3.1 loses the deep scan-line reader it made when it then cannot
// read the offset table; the sanitizer build's leak check sees it.
TEST(ResourceBounds, DeepFileWithItsOffsetTableNotLoadedLosesNothing)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 11, 7);
    part.compression = Imf::ZIPS_COMPRESSION;
    part.channels = {{"A"}, {"Z", Imf::FLOAT}};
    part.deepSamples = [](int x, int y) { return (x + y) % 3; };
    const Bytes file = makeExr(part);
    const auto insideTable = static_cast<long long>(headerEnd(file) + 12);
    std::string text;
    EXPECT_EQ(loadHeader(file, insideTable, kWhole, &text), 16);
    EXPECT_EQ(text, "Exr  ERR: File buffer too small!");
    for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file, insideTable, kWhole), 4) << depth;
    EXPECT_EQ(decode(32, file), 1);
}
