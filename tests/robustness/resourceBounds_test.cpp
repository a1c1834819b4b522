// Headers that claim far more than their file holds are answered with a code
// before the plug-in, or OpenEXR on its behalf, allocates by the claim.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <OpenEXR/ImfPreviewImageAttribute.h>

#include <cstdint>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/pluginCalls.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;
const std::string kUnableToInit = "Exr  ERR: unable to init exr file!";
const std::string kBufferTooSmall = "Exr  ERR: File buffer too small!";

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

// The answers of all four calls for a file that must be refused before
// anything is sized by its header: whole, the header loader says the file
// is bad; with more of the file said to follow, it asks for it.
void expectRefusedUpFront(const Bytes& file, long long claimedFileSize, const std::string& what)
{
    SCOPED_TRACE(what);
    loadHeader(smallFile());  // the per-thread metadata record exists before the watch
    LargestAllocation largest;
    std::string text;
    EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 14);
    EXPECT_EQ(text, kUnableToInit);
    EXPECT_EQ(loadHeader(file, kWhole, claimedFileSize, &text), 16);
    EXPECT_EQ(text, kBufferTooSmall);
    for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file), 4) << depth;
    EXPECT_LT(largest.bytes(), kMiB);
}

std::uint32_t le32(const Bytes& file, std::size_t at)
{
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(file[at + static_cast<std::size_t>(i)]);
    return v;
}

// An uncompressed scan-line file laid out again with the data of chunk i cut
// to keep[i] bytes (its size field saying so), the offsets moved to match.
Bytes withChunksCut(const Bytes& file, const std::vector<std::uint32_t>& keep)
{
    const std::vector<std::uint64_t> offsets = chunkOffsets(file);
    const std::size_t tableStart = headerEnd(file);
    Bytes out(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(tableStart + 8 * offsets.size()));
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        const std::uint64_t at = out.size();
        for (int b = 0; b < 8; ++b) out[tableStart + 8 * i + static_cast<std::size_t>(b)] = static_cast<char>(at >> (8 * b));
        const std::size_t chunk = offsets[i];
        const std::uint32_t size = std::min(keep[i], le32(file, chunk + 4));
        out.insert(out.end(), file.begin() + static_cast<std::ptrdiff_t>(chunk), file.begin() + static_cast<std::ptrdiff_t>(chunk + 4));
        for (int b = 0; b < 4; ++b) out.push_back(static_cast<char>(size >> (8 * b)));
        out.insert(out.end(), file.begin() + static_cast<std::ptrdiff_t>(chunk + 8),
                   file.begin() + static_cast<std::ptrdiff_t>(chunk + 8 + size));
    }
    return out;
}

}  // namespace

// Allocations the allocator refuses must come back as failures, also under
// AddressSanitizer, which otherwise ends the process on them.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

TEST(ResourceBounds, AbsurdDataWindowsAreRefusedBeforeAnythingIsSizedByThem)
{
    const Bytes file = smallFile();
    const struct {
        const char* what;
        std::uint32_t width, height;
    } cases[] = {
        {"2^30 x 2^30", 1u << 30, 1u << 30},
        {"one column past the widest", (1u << 20) + 1, 12},
        {"one line past the tallest", 16, (1u << 20) + 1},
        // Within the limits, but one chunk of 16 lines needs 128 MB from a few hundred bytes.
        {"as wide as allowed", 1u << 20, 12},
    };
    // One byte more than the file said to follow: still far too little.
    for (const auto& c : cases) {
        const Bytes patchedFile = withWindow(file, c.width, c.height);
        expectRefusedUpFront(patchedFile, static_cast<long long>(patchedFile.size()) + 1, c.what);
    }
}

TEST(ResourceBounds, TheWidestImageAllowedStillDecodes)
{
    ExrPart part;
    part.displayWindow = box(0, 0, (1 << 20) - 1, 0);
    part.channels = channelList({"Y"});
    part.compression = Imf::ZIPS_COMPRESSION;
    part.value = [](const std::string&, int x, int) { return x < 32 ? x / 32.0 : 0.5; };
    const Bytes file = makeExr(part);
    EXPECT_EQ(loadHeader(file), 1);
    ktP::_imgRGBABufferf out(32 * 32);
    out.setWidth(32);
    out.setHeight(32);
    auto buffer = fileBufferWith(file);
    imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
    ASSERT_EQ(imgDecodef(&call), 1);
    EXPECT_EQ(out.read(31, 0).r, 31 / 32.0f);
    EXPECT_EQ(out.read(31, 0).a, 31 / 32.0f);  // Y serves every role
    EXPECT_EQ(out.read(31, 1).r, 0.0f);

    expectRefusedUpFront(withWindow(file, (1u << 20) + 1, 1), 1LL << 31, "one column more");
}

TEST(ResourceBounds, TilesAtAndPastTheLargestSide)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 19, 3);
    part.tiled = true;
    part.tileWidth = 1 << 16;
    part.tileHeight = 2;
    const Bytes file = makeExr(part);
    EXPECT_EQ(loadHeader(file), 1);
    const DecodedExr oracle = readExr(file);
    ktP::_imgRGBABufferf out(32 * 32);
    out.setWidth(20);
    out.setHeight(4);
    auto buffer = fileBufferWith(file);
    imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
    ASSERT_EQ(imgDecodef(&call), 1);
    EXPECT_EQ(out.read(19, 3).g, static_cast<float>(oracle.channel("G").at(19, 3)));

    // tiledesc: x size, y size, mode.
    expectRefusedUpFront(withAttributeWords(file, "tiles", 0, {(1u << 16) + 1}), 1LL << 31, "one column wider");
    expectRefusedUpFront(withAttributeWords(file, "tiles", 4, {(1u << 16) + 1}), 1LL << 31, "one line taller");
}

TEST(ResourceBounds, AttributeSizesBeyondTheFileAreRefusedBeforeOpenExrAllocates)
{
    constexpr std::uint32_t claim = 1u << 28;
    ExrPart part;
    part.attribute("note", std::string("hello"));
    part.attribute("list", std::vector<std::string>{"a", "bb"});
    part.attribute("values", std::vector<float>{1, 2, 3});
    part.attribute("blob", std::string("opaque"));
    part.attribute("preview", Imf::PreviewImage(2, 2));
    Bytes file = makeExr(part);
    // "blob" becomes a type OpenEXR does not know, read as opaque bytes.
    const std::size_t type = findBytes(file, std::string("blob\0string", 11)) + 5;
    file = patched(file, type, {'m', 'y', 't', 'y', 'p', 'e'});
    ASSERT_EQ(loadHeader(file), 1);

    // OpenEXR 3.1 itself checks the sizes inside string vectors and
    // previews; older versions allocate by them too.
    const struct {
        const char* what;
        Bytes file;
        bool openExrAllocates;
    } cases[] = {
        {"string", withAttributeWords(file, "note", -4, {claim}), true},
        {"float vector", withAttributeWords(file, "values", -4, {claim}), true},
        {"opaque", withAttributeWords(file, "blob", -4, {claim}), true},
        {"string vector", withAttributeWords(file, "list", -4, {claim}), false},
        {"string in a string vector", withAttributeWords(file, "list", 0, {claim}), false},
        {"preview", withAttributeWords(file, "preview", 0, {1u << 13, 1u << 13}), false},
    };
    for (const auto& c : cases) {
        if (c.openExrAllocates) {
            // What OpenEXR asks for by itself, reading the header alone.
            LargestAllocation largest;
            EXPECT_ANY_THROW(readExr(c.file, 0, false)) << c.what;
            EXPECT_GE(largest.bytes(), claim) << c.what;
        }
        expectRefusedUpFront(c.file, static_cast<long long>(c.file.size()) + claim, c.what);
    }
    expectRefusedUpFront(withAttributeWords(file, "note", -4, {0xFFFFFFF0u}), 1LL << 31, "negative size");
}

TEST(ResourceBounds, ThousandsOfChannels)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 7, 7);
    part.channels = channelList({"A", "B", "G", "R"});
    for (int i = 0; i < 3000; ++i) part.channels.emplace_back("layer" + std::to_string(10000 + i) + ".Z");
    const Bytes file = makeExr(part);
    std::string text;
    EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 1);
    EXPECT_THAT(text, ::testing::EndsWith("...'"));

    LargestAllocation largest;
    ktP::_imgRGBABufferf out(8 * 8);
    out.setWidth(8);
    out.setHeight(8);
    auto buffer = fileBufferWith(file);
    imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
    ASSERT_EQ(imgDecodef(&call), 1);
    EXPECT_EQ(out.read(7, 7).r, static_cast<float>(patternValue("R", 7, 7)));
    EXPECT_EQ(out.read(7, 7).a, static_cast<float>(patternValue("A", 7, 7)));
    // The file itself is 3000 x 8 x 8 x 2 bytes of samples.
    EXPECT_LT(largest.bytes(), 4 * kMiB);

    // 3000 channels a million pixels wide: 6 GB per line.
    expectRefusedUpFront(withWindow(file, 1u << 20, 8), 1LL << 31, "3000 channels, 2^20 wide");
}

TEST(ResourceBounds, PixelDataTheFileCannotHoldIsAnsweredBeforePlanesAreMade)
{
    // Offset tables that fit, with no chunk behind them.
    for (const Imf::Compression compression : {Imf::NO_COMPRESSION, Imf::ZIP_COMPRESSION}) {
        const Bytes small = smallFile(compression);
        const std::uint32_t chunks = compression == Imf::ZIP_COMPRESSION ? 256 : 4096;
        Bytes file = withWindow(small, 4096, 4096);
        file.resize(headerEnd(file));
        file.resize(file.size() + 8 * chunks, 0);

        loadHeader(small);
        LargestAllocation largest;
        std::string text;
        EXPECT_EQ(loadHeader(file, kWhole, kWhole, &text), 14);
        EXPECT_THAT(text, ::testing::EndsWith(" ERR: file not completed!"));
        for (int depth : {8, 16, 32}) {
            ktP::_imgRGBABuffer8 out(32 * 32);
            out.setWidth(32);
            out.setHeight(32);
            std::fill(out.pixels, out.pixels + 32 * 32 * 4, 0x60);
            auto buffer = fileBufferWith(file);
            imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
            if (depth == 8) {
                EXPECT_EQ(imgDecode8(&call), 14);
                EXPECT_EQ(std::count(out.pixels, out.pixels + 32 * 32 * 4, 0), 32 * 32 * 4);
            } else {
                EXPECT_EQ(decode(depth, file), 14);
            }
        }
        // Each plane would take 32 MB.
        EXPECT_LT(largest.bytes(), 2 * kMiB) << compression;
    }
}

TEST(ResourceBounds, UncompressedFilesMayLackOneChunksBytesAndNoMore)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 15, 7);
    part.compression = Imf::NO_COMPRESSION;
    part.channels = channelList({"Y"});
    const Bytes file = makeExr(part);
    const std::uint32_t line = 16 * 2;  // one chunk: one line of halves

    // The last line's bytes all gone: it reads as zeros.
    const Bytes lastEmpty = withChunksCut(file, {line, line, line, line, line, line, line, 0});
    ASSERT_EQ(lastEmpty.size(), file.size() - line);
    ktP::_imgRGBABufferf out(16 * 8);
    out.setWidth(16);
    out.setHeight(8);
    auto buffer = fileBufferWith(lastEmpty);
    imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
    ASSERT_EQ(imgDecodef(&call), 1);
    EXPECT_EQ(out.read(5, 6).g, static_cast<float>(patternValue("Y", 5, 6)));
    EXPECT_EQ(out.read(5, 7).g, 0.0f);
    // The same shortfall spread over two chunks is still one chunk's worth.
    EXPECT_EQ(decode(32, withChunksCut(file, {line, line, line, line, line, line, line / 2, line / 2})), 1);

    // One byte more missing: the file cannot hold its pixels.
    EXPECT_EQ(decode(32, withChunksCut(file, {line, line, line, line, line, line, line - 1, 0})), 14);
    EXPECT_EQ(decode(8, withChunksCut(file, {0, 0, 0, 0, 0, 0, 0, 0})), 14);
}

TEST(ResourceBounds, TheMostCompressibleValidFilesAreNeverRefused)
{
    // One value everywhere compresses as far as each method goes.
    for (int c = Imf::NO_COMPRESSION; c < Imf::NUM_COMPRESSION_METHODS; ++c) {
        for (const bool tiled : {false, true}) {
            ExrPart part;
            part.displayWindow = box(0, 0, 511, 511);
            part.compression = static_cast<Imf::Compression>(c);
            part.tiled = tiled;
            part.tileWidth = part.tileHeight = 128;
            part.value = constantValue(0.25);
            const Bytes file = makeExr(part);
            SCOPED_TRACE(std::to_string(c) + (tiled ? " tiled" : " scan lines") + ", " + std::to_string(file.size()) +
                         " bytes");
            EXPECT_EQ(loadHeader(file), 1);
            ktP::_imgRGBABufferf out(512 * 512);
            out.setWidth(512);
            out.setHeight(512);
            auto buffer = fileBufferWith(file);
            imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
            ASSERT_EQ(imgDecodef(&call), 1);
            EXPECT_EQ(out.read(511, 511).b, static_cast<float>(readExr(file).channel("B").at(511, 511)));
        }
    }
}

TEST(ResourceBounds, DeepFileWithItsOffsetTableNotLoadedLosesNothing)
{
    // OpenEXR 3.1 loses the deep scan-line reader it made when it then
    // cannot read the offset table; the sanitizer build's leak check sees it.
    ExrPart part;
    part.displayWindow = box(0, 0, 11, 7);
    part.compression = Imf::ZIPS_COMPRESSION;
    part.channels = {{"A"}, {"Z", Imf::FLOAT}};
    part.deepSamples = [](int x, int y) { return (x + y) % 3; };
    const Bytes file = makeExr(part);
    const auto insideTable = static_cast<long long>(headerEnd(file) + 12);
    std::string text;
    EXPECT_EQ(loadHeader(file, insideTable, kWhole, &text), 16);
    EXPECT_EQ(text, kBufferTooSmall);
    for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file, insideTable, kWhole), 4) << depth;
    EXPECT_EQ(decode(32, file), 1);
}
