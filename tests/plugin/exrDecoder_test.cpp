// The decoding exports against expectations computed here, pixel by pixel,
// from what OpenEXR itself reads out of the same file: placement, channel
// choice, gamma, every pixel type, layout and compression, and the result
// codes of broken files.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrDecoder.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

using Rgba = std::array<float, 4>;

// Each export with its buffer and the channel rule it stores by, written
// out here: <= 0 and NaN give 0, >= 1 the top, else the truncated product.
template <class Buffer, class Pixel, int (*Export)(imgCallRecord*), unsigned Top>
struct Depth {
    using BufferType = Buffer;
    static int decode(imgCallRecord* call) { return Export(call); }
    static double stored(float v)
    {
        if constexpr (Top == 0) {
            return v;
        } else {
            if (v <= 0.0f || std::isnan(v)) return 0;
            if (v >= 1.0f) return Top;
            return std::trunc(v * static_cast<float>(Top));
        }
    }
    static Rgba pixelAt(const Buffer& b, std::size_t i)
    {
        const Pixel& p = reinterpret_cast<const Pixel*>(b.pixels)[i];
        return {static_cast<float>(p.r), static_cast<float>(p.g), static_cast<float>(p.b), static_cast<float>(p.a)};
    }
};
using Depth8 = Depth<ktP::_imgRGBABuffer8, _Rgba8, imgDecode8, 255>;
using Depth16 = Depth<ktP::_imgRGBABuffer16, _Rgba16, imgDecode16, 65535>;
using DepthF = Depth<ktP::_imgRGBABufferf, _Rgbaf, imgDecodef, 0>;

// A host-side buffer of w x h pixels (capacity `capacity`), every byte 0x60.
template <class D>
std::unique_ptr<typename D::BufferType> hostBuffer(int w, int h, unsigned capacity = 0)
{
    auto b = std::make_unique<typename D::BufferType>(capacity ? capacity : static_cast<unsigned>(w * h));
    b->setWidth(w);
    b->setHeight(h);
    b->clear();
    return b;
}

template <class D>
int decodeInto(const Bytes& file, typename D::BufferType& out, ktP::_imgFileBuffer* fileBuffer = nullptr)
{
    auto whole = fileBufferWith(file);
    imgCallRecord call{fileBuffer ? fileBuffer : whole.get(), &out, nullptr, nullptr};
    return D::decode(&call);
}

// What must land in the buffer: the oracle's samples of the named channels,
// placed relative to the display window, gamma on colour; zeros elsewhere.
std::vector<Rgba> expectedImage(const DecodedExr& oracle, const std::array<std::string, 4>& roles, int w, int h,
                                unsigned capacity, bool gamma, float gammaValue)
{
    const Imath::Box2i display = oracle.header.displayWindow();
    const Imath::Box2i data = oracle.header.dataWindow();
    std::vector<Rgba> image(capacity, Rgba{0, 0, 0, 0});
    for (int ty = 0; ty < h; ++ty)
        for (int tx = 0; tx < w; ++tx) {
            const int x = tx + display.min.x, y = ty + display.min.y;
            if (x < data.min.x || x > data.max.x || y < data.min.y || y > data.max.y) continue;
            Rgba& p = image[static_cast<std::size_t>(ty) * w + tx];
            for (int c = 0; c < 4; ++c) {
                p[c] = static_cast<float>(oracle.channel(roles[c]).at(x, y));
                if (gamma && c < 3) p[c] = static_cast<float>(std::pow(double{p[c]}, double{gammaValue}));
            }
        }
    return image;
}

template <class D>
void expectImage(const typename D::BufferType& b, const std::vector<Rgba>& want, const std::string& what)
{
    int mismatches = 0;
    for (std::size_t i = 0; i < want.size() && mismatches < 5; ++i) {
        const Rgba got = D::pixelAt(b, i);
        for (int c = 0; c < 4; ++c) {
            const double expected = D::stored(want[i][c]);
            const bool same = std::isnan(expected) ? std::isnan(got[c]) : got[c] == expected;
            if (!same) {
                ADD_FAILURE() << what << ": pixel " << i << " channel " << c << " is " << got[c] << ", expected "
                              << expected << " (from " << want[i][c] << ")";
                ++mismatches;
            }
        }
    }
}

std::string infoTextOf(const ktP::_imgRGBABuffer_all& b)
{
    std::string s;
    for (int i = 0; i < b.imageInfo.infoText.length; ++i) s += static_cast<char>(b.imageInfo.infoText.text[i]);
    return s;
}

template <class D>
class ExrDecoder : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16, DepthF>;
TYPED_TEST_SUITE(ExrDecoder, Depths);

const std::array<std::string, 4> kRgba = {"R", "G", "B", "A"};

// Values spread over -0.5 .. 2.0 in steps exact in half.
double spread(const std::string& channel, int x, int y)
{
    return ((x * 7 + y * 13 + channel[0] * 5) % 41) / 16.0 - 0.5;
}

// A one-channel uncompressed file whose header claims a data window of
// width x height pixels (the bytes of a small file, the offset table cut to
// `offsets` empty entries). Nothing may wrap in the sizes computed from it.
Bytes hugeWindowFile(std::uint32_t width, std::uint32_t height, std::size_t offsets)
{
    ExrPart part;
    part.compression = Imf::NO_COMPRESSION;
    part.channels = channelList({"Y"});
    const Bytes small = makeExr(part);
    auto le = [](std::uint32_t v) {
        return std::array<unsigned char, 4>{static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8),
                                            static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 24)};
    };
    const auto x = le(width - 1), y = le(height - 1);
    const std::size_t value = findBytes(small, "dataWindow") + sizeof("dataWindow") + sizeof("box2i") + 4 + 8;
    Bytes file = patched(small, value, {x[0], x[1], x[2], x[3], y[0], y[1], y[2], y[3]});
    file.resize(headerEnd(small));
    file.resize(file.size() + offsets * 8, 0);
    return file;
}

// The file with the pixel type of its first channel ("A") patched.
Bytes alphaOfType(const Bytes& file, unsigned char type)
{
    return patched(file, findBytes(file, "chlist") + sizeof("chlist") + 4 + sizeof("A"), {type, 0, 0, 0});
}

}  // namespace

// Allocations the allocator refuses must come back as failures, also under
// AddressSanitizer, which otherwise ends the process on them.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

TYPED_TEST(ExrDecoder, PlacesTheDataWindowRelativeToTheDisplayWindow)
{
    struct Case {
        const char* what;
        Imath::Box2i display, data;
        unsigned capacity;  // 0: exactly the display window
    };
    const Case cases[] = {
        {"equal", box(0, 0, 15, 11), box(0, 0, 15, 11), 0},
        {"inside", box(0, 0, 15, 11), box(3, 2, 9, 7), 0},
        {"negative offsets", box(0, 0, 15, 11), box(-4, -3, 5, 6), 0},
        {"beyond the size", box(0, 0, 15, 11), box(10, 8, 20, 15), 0},
        {"all around", box(0, 0, 15, 11), box(-2, -1, 17, 12), 0},
        {"entirely outside", box(0, 0, 15, 11), box(16, 0, 19, 11), 0},
        {"display origin not zero", box(100, -50, 115, -39), box(98, -47, 104, -30), 0},
        {"capacity beyond the image", box(0, 0, 15, 11), box(2, 2, 13, 9), 16 * 12 + 37},
        {"wide enough for the table path", box(0, 0, 299, 199), box(-5, 3, 310, 190), 0},
    };
    for (const Case& c : cases) {
        ExrPart part;
        part.displayWindow = c.display;
        part.dataWindow = c.data;
        part.value = spread;
        const Bytes file = makeExr(part);
        const int w = c.display.max.x - c.display.min.x + 1, h = c.display.max.y - c.display.min.y + 1;
        const unsigned capacity = c.capacity ? c.capacity : static_cast<unsigned>(w * h);
        auto b = hostBuffer<TypeParam>(w, h, capacity);
        b->imageInfo.infoText = "Exr";
        ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1) << c.what;
        expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, w, h, capacity, false, 1.0f), c.what);
        const bool sameSize = c.data.max.x - c.data.min.x + 1 == w && c.data.max.y - c.data.min.y + 1 == h;
        EXPECT_EQ(infoTextOf(*b), sameSize ? "Exr" : "Exr region") << c.what;
    }
}

TYPED_TEST(ExrDecoder, WorkerThreadsGiveTheSameImage)
{
    // Large enough for the rows to be shared among OpenEXR's workers.
    ExrPart part;
    part.displayWindow = box(0, 0, 639, 479);
    part.dataWindow = box(-3, 5, 600, 470);
    part.value = spread;
    const Bytes file = makeExr(part);
    const int saved = Imf::globalThreadCount();
    for (const int threads : {2, 3}) {
        Imf::setGlobalThreadCount(threads);
        for (const bool on : {false, true}) {
            auto b = hostBuffer<TypeParam>(640, 480, 640 * 480 + 5);
            b->pixelFlags = on ? 1 : 0;
            ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1);
            expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, 640, 480, 640 * 480 + 5, on, gammaV),
                                   std::to_string(threads) + " threads" + (on ? " gamma" : ""));
        }
    }
    Imf::setGlobalThreadCount(saved);
}

TYPED_TEST(ExrDecoder, RegionSuffixStopsAtTheTextCapacity)
{
    ExrPart part;
    part.dataWindow = box(1, 1, 4, 4);
    const Bytes file = makeExr(part);
    const struct {
        int before;
        const char* added;
    } cases[] = {{0, " region"}, {243, " region"}, {244, " regio"}, {249, " "}, {250, ""}};
    for (const auto& c : cases) {
        auto b = hostBuffer<TypeParam>(16, 12);
        const std::string before(static_cast<std::size_t>(c.before), 'x');
        b->imageInfo.infoText = before.c_str();
        ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1);
        EXPECT_EQ(infoTextOf(*b), before + c.added) << c.before;
    }
}

TYPED_TEST(ExrDecoder, GammaRaisesColourNotAlpha)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 40, 30);
    part.value = [](const std::string& c, int x, int y) {
        const double special[] = {-0.0, -1.0, 0.0, 1.0, 65504.0, -65504.0, 1e-7};
        if ((x + y) % 9 == 0) return special[(x + c[0]) % 7];
        return spread(c, x, y);
    };
    const Bytes file = makeExr(part);
    const float saved = gammaV;
    for (const float g : {saved, 2.0f, 0.0f}) {
        for (const bool on : {false, true}) {
            gammaV = g;
            auto b = hostBuffer<TypeParam>(41, 31);
            b->pixelFlags = on ? 1 : 0;
            ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1);
            expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, 41, 31, 41 * 31, on, g),
                                   "gamma " + std::to_string(g) + (on ? " on" : " off"));
        }
    }
    gammaV = saved;
}

TYPED_TEST(ExrDecoder, EveryHalfValueMatchesTheDirectFormulaBothWays)
{
    // All 65,536 half patterns in each channel (shifted per channel), once as
    // one image large enough for the table path and once as 16 small ones.
    auto bitsAt = [](const std::string& c, int i) { return static_cast<std::uint16_t>(i + 9973 * (c[0] % 4)); };
    auto channelsFor = [&](int first, int width) {
        std::vector<ExrChannel> channels = channelList({"A", "B", "G", "R"});
        for (ExrChannel& ch : channels)
            ch.value = [=, name = ch.name](int x, int y) {
                return double(half(half::FromBits, bitsAt(name, first + y * width + x)));
            };
        return channels;
    };
    for (const bool on : {false, true}) {
        for (const int size : {256, 64}) {
            for (int first = 0; first < 65536; first += size * size) {
                ExrPart part;
                part.displayWindow = box(0, 0, size - 1, size - 1);
                part.channels = channelsFor(first, size);
                const Bytes file = makeExr(part);
                auto b = hostBuffer<TypeParam>(size, size);
                b->pixelFlags = on ? 1 : 0;
                ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1);
                expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, size, size, size * size, on, gammaV),
                                       "size " + std::to_string(size) + (on ? " gamma" : ""));
            }
        }
    }
}

TYPED_TEST(ExrDecoder, HalfFloatAndUnsignedChannelsInAnyMix)
{
    // UINT samples count unscaled: 1 is already full intensity.
    ExrPart part;
    part.displayWindow = box(0, 0, 299, 119);
    part.channels = {{"A", Imf::HALF}, {"B", Imf::UINT}, {"G", Imf::FLOAT}, {"R", Imf::HALF}};
    part.value = [](const std::string& c, int x, int y) {
        if (c == "B") return double((x + y) % 4 == 0 ? 0 : (x * y) % 3);
        return spread(c, x, y) * 3.0 + (c == "G" ? 1e-3 : 0.0);
    };
    const Bytes file = makeExr(part);
    for (const bool on : {false, true}) {
        auto b = hostBuffer<TypeParam>(300, 120);
        b->pixelFlags = on ? 1 : 0;
        ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1);
        expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, 300, 120, 300 * 120, on, gammaV), "mixed");
    }
}

TYPED_TEST(ExrDecoder, ScanLineAndTiledFilesOfEveryCompression)
{
    for (int compression = 0; compression < Imf::NUM_COMPRESSION_METHODS; ++compression) {
        for (const bool tiled : {false, true}) {
            ExrPart part;
            part.displayWindow = box(0, 0, 70, 40);
            part.dataWindow = box(-3, 2, 75, 39);
            part.compression = static_cast<Imf::Compression>(compression);
            part.tiled = tiled;
            part.tileWidth = 16;
            part.tileHeight = 12;
            part.value = spread;
            const Bytes file = makeExr(part);
            auto b = hostBuffer<TypeParam>(71, 41);
            ASSERT_EQ(decodeInto<TypeParam>(file, *b), 1) << compression << (tiled ? " tiled" : "");
            expectImage<TypeParam>(*b, expectedImage(readExr(file), kRgba, 71, 41, 71 * 41, false, 1.0f),
                                   "compression " + std::to_string(compression) + (tiled ? " tiled" : ""));
        }
    }
}

TEST(ExrDecoderChannels, EachRoleTakesTheChannelTheNamingRulesPick)
{
    struct Case {
        std::vector<std::string> channels;
        std::array<std::string, 4> roles;  // the channels R, G, B and A must come from
    };
    const std::vector<Case> cases = {
        {{"A", "B", "G", "R"}, {"R", "G", "B", "A"}},
        {{"B", "G", "R"}, {"R", "G", "B", "B"}},
        {{"Y"}, {"Y", "Y", "Y", "Y"}},
        {{"a", "b", "g", "r"}, {"r", "g", "b", "a"}},
        {{"beauty.A", "beauty.B", "beauty.G", "beauty.R", "specular.R"},
         {"beauty.R", "beauty.G", "beauty.B", "beauty.A"}},
        // One plain "A" switches the suffixes off: R, G, B fall back to
        // channels 0, 1, 2, and alpha shares slot 0 with red.
        {{"A", "beauty.A", "beauty.B", "beauty.G", "beauty.R", "specular.R"}, {"A", "beauty.A", "beauty.B", "A"}},
        {{"B", "G", "R", "Z", "diffuse.A"}, {"R", "G", "B", "Z"}},
        // color and alpha are suffix candidates; B and A land on slot 0.
        {{"Z", "alpha", "color"}, {"color", "alpha", "alpha", "alpha"}},
        {{"left.G", "left.R", "right.B", "right.R"}, {"left.R", "left.G", "right.B", "right.R"}},
        // "R" and "r" both match; the later one wins and serves every role.
        {{"R", "r"}, {"r", "r", "r", "r"}},
    };
    for (const Case& c : cases) {
        ExrPart part;
        part.channels.clear();
        for (std::size_t i = 0; i < c.channels.size(); ++i) {
            part.channels.emplace_back(c.channels[i], Imf::FLOAT);
            part.channels.back().value = [i](int, int) { return double(i + 1); };
        }
        const Bytes file = makeExr(part);
        auto b = hostBuffer<DepthF>(16, 12);
        ASSERT_EQ(decodeInto<DepthF>(file, *b), 1) << c.channels[0];
        expectImage<DepthF>(*b, expectedImage(readExr(file), c.roles, 16, 12, 16 * 12, false, 1.0f),
                            c.channels.front() + " .. " + c.channels.back());
    }
}

TEST(ExrDecoderChannels, OnlyTheFirst800ChannelsAreLookedAt)
{
    // d.R sorts after every cNNN channel: number 799 still counts, 800 not.
    for (const int others : {799, 800}) {
        ExrPart part;
        part.displayWindow = box(0, 0, 3, 2);
        part.channels.clear();
        for (int i = 0; i < others; ++i) {
            const std::string digits = std::to_string(1000 + i);
            part.channels.emplace_back("c" + digits.substr(1));
            part.channels.back().value = [i](int, int) { return i / 1024.0; };
        }
        part.channels.emplace_back("d.R");
        part.channels.back().value = [](int, int) { return 1000.0; };
        const Bytes file = makeExr(part);
        auto b = hostBuffer<DepthF>(4, 3);
        ASSERT_EQ(decodeInto<DepthF>(file, *b), 1);
        const std::array<std::string, 4> roles = {others == 799 ? "d.R" : "c000", "c001", "c002", "c003"};
        expectImage<DepthF>(*b, expectedImage(readExr(file), roles, 4, 3, 12, false, 1.0f), std::to_string(others));
    }
}

TYPED_TEST(ExrDecoder, BrokenFilesGiveTheirCodesAndLeaveTheBufferCleared)
{
    ExrPart part;
    part.value = spread;
    const Bytes good = makeExr(part);

    ExrPart subsampled = part;
    subsampled.channels = {{"A", Imf::HALF, 2, 2}, {"B"}, {"G"}, {"R"}};
    ExrPart subsampledUnused = part;
    subsampledUnused.channels.emplace_back("Z", Imf::HALF, 2, 2);
    ExrPart incomplete = part;
    incomplete.writeLimit = 5;

    const struct {
        const char* what;
        Bytes file;
        int result;
        bool cleared;
    } cases[] = {
        {"not an EXR file", Bytes(4000, 'x'), 4, false},
        {"header cut short", truncated(good, headerEnd(good) - 20), 4, false},
        {"pixel data cut short", truncated(good, good.size() - 30), 14, true},
        {"chunks missing", makeExr(incomplete), 14, true},
        {"subsampled alpha", makeExr(subsampled), 6, true},
        // OpenEXR refuses the type while opening: 7 is never reached with it.
        {"alpha of an unknown pixel type", alphaOfType(good, 3), 4, false},
        {"alpha patched to FLOAT (control)", alphaOfType(good, 2), 1, false},
        {"subsampled channel not chosen", makeExr(subsampledUnused), 1, false},
        {"2^30 x 2^30", hugeWindowFile(1u << 30, 1u << 30, 16), 4, false},
        {"2^24 lines, 16 offsets", hugeWindowFile(64, 1u << 24, 16), 4, false},
        // Wider than the plug-in reads: refused before anything is sized by it.
        {"2^28 x (2^11 + 1)", hugeWindowFile(1u << 28, (1u << 11) + 1, (1u << 11) + 1), 4, false},
    };
    for (const auto& c : cases) {
        auto b = hostBuffer<TypeParam>(16, 12);
        EXPECT_EQ(decodeInto<TypeParam>(c.file, *b), c.result) << c.what;
        if (c.result == 1) continue;
        const unsigned char fill = c.cleared ? 0 : 0x60;
        const std::size_t bytes = static_cast<std::size_t>(b->bytesPerPixel) * b->maxPixels;
        EXPECT_EQ(std::count(b->pixels, b->pixels + bytes, fill), static_cast<std::ptrdiff_t>(bytes)) << c.what;
    }
}

TEST(ExrDecoderSlots, ValuesComeFromThePlaneOfTheChannelsType)
{
    _singleChannel slot;
    EXPECT_EQ(slot.get_dataPointer(), nullptr);
    EXPECT_EQ(slot.getValue(0, 0), 0.0f);
    slot.pixelType = Imf::UINT;
    slot.uintPlane = {2, 3, new std::uint32_t[6]{0, 1, 2, 3, 4, 4294967295u}};
    slot.floatPlane = {1, 1, new float[1]{7.0f}};  // not of the slot's type: ignored, still released
    EXPECT_EQ(slot.get_dataPointer(), slot.uintPlane.values);
    EXPECT_EQ(slot.getValue(2, 1), 4294967296.0f);
    EXPECT_EQ(slot.getValue(0, 1), 3.0f);
    slot.pixelType = Imf::HALF;
    EXPECT_EQ(slot.get_dataPointer(), nullptr);
}

TEST(ExrDecoderCorpus, RealFilesMatchOpenExrsOwnReading)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no EXR corpus beside the checkout";
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"}) {
        for (const std::string& path : corpusFiles(folder)) {
            const Bytes file = readFileBytes(path);
            const DecodedExr oracle = readExr(file);
            // These files hold A, B, G, R; or B, G, R (alpha then reads B); or one channel.
            std::array<std::string, 4> roles = {"R", "G", "B", oracle.hasChannel("A") ? "A" : "B"};
            if (oracle.channels.size() == 1) roles.fill(oracle.channels[0].name);
            const Imath::Box2i display = oracle.header.displayWindow();
            const int w = display.max.x - display.min.x + 1, h = display.max.y - display.min.y + 1;
            auto f = hostBuffer<DepthF>(w, h);
            ASSERT_EQ(decodeInto<DepthF>(file, *f), 1) << path;
            expectImage<DepthF>(*f, expectedImage(oracle, roles, w, h, w * h, false, 1.0f), path);
            auto b = hostBuffer<Depth8>(w, h);
            b->pixelFlags = 1;
            ASSERT_EQ(decodeInto<Depth8>(file, *b), 1) << path;
            expectImage<Depth8>(*b, expectedImage(oracle, roles, w, h, w * h, true, gammaV), path + " gamma");
        }
    }
}
