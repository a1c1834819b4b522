// The decoding exports against what OpenEXR itself reads out of the same
// file, pixel by pixel: placement, channel choice, gamma, every pixel type,
// layout and compression, and the result codes of broken files.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

// Each export with its buffer and the channel rule it stores by, written
// out here: <= 0 and NaN give 0, >= 1 the top, else the truncated product.
template <class Buffer, class Pixel, int (*Export)(imgCallRecord*), unsigned Top>
struct Depth {
    using BufferType = Buffer;
    static int decode(imgCallRecord* call) { return Export(call); }
    static double stored(float v)
    {
        if (Top == 0) return v;
        if (v <= 0.0f || std::isnan(v)) return 0;
        return v >= 1.0f ? Top : std::trunc(v * static_cast<float>(Top));
    }
    static std::array<float, 4> pixelAt(const Buffer& b, std::size_t i)
    {
        const Pixel& p = reinterpret_cast<const Pixel*>(b.pixels)[i];
        return {static_cast<float>(p.r), static_cast<float>(p.g), static_cast<float>(p.b), static_cast<float>(p.a)};
    }
};
using Depth8 = Depth<ktP::_imgRGBABuffer8, _Rgba8, imgDecode8, 255>;
using Depth16 = Depth<ktP::_imgRGBABuffer16, _Rgba16, imgDecode16, 65535>;
using DepthF = Depth<ktP::_imgRGBABufferf, _Rgbaf, imgDecodef, 0>;

// A host-side buffer of w x h pixels (capacity `capacity`, which may be less), every byte 0x60.
template <class D>
std::unique_ptr<typename D::BufferType> hostBuffer(int w, int h, unsigned capacity = 0, bool gamma = false)
{
    auto b = std::make_unique<typename D::BufferType>(capacity ? capacity : static_cast<unsigned>(w * h));
    b->setWidth(w);
    b->setHeight(h);
    b->height = static_cast<unsigned>(h);  // as a host may set it, past the capacity
    b->clear();
    b->pixelFlags = gamma ? 1 : 0;
    return b;
}

template <class D>
int decodeInto(const Bytes& file, typename D::BufferType& out)
{
    auto whole = fileBufferWith(file);
    imgCallRecord call{whole.get(), &out, nullptr, nullptr};
    return D::decode(&call);
}

// Decodes `file` into `b` and compares all of its capacity with the oracle's
// samples of the channels `roles` (red, green, blue, alpha), placed relative
// to the display window, colour raised to gammaV when the buffer asks for
// it, and zeros where no data lands.
template <class D>
void expectDecoded(const Bytes& file, typename D::BufferType& b, const std::string& what,
                   const std::array<std::string, 4>& roles = {"R", "G", "B", "A"})
{
    ASSERT_EQ(decodeInto<D>(file, b), 1) << what;
    const DecodedExr oracle = readExr(file);
    const Imath::Box2i display = oracle.header.displayWindow(), data = oracle.header.dataWindow();
    int mismatches = 0;
    for (std::size_t i = 0; i < b.maxPixels; ++i) {
        const auto got = D::pixelAt(b, i);
        const int x = static_cast<int>(i % b.width) + display.min.x, y = static_cast<int>(i / b.width) + display.min.y;
        const bool inside = i < b.width * b.height && data.intersects(Imath::V2i(x, y));
        for (int c = 0; c < 4; ++c) {
            float v = inside ? static_cast<float>(oracle.channel(roles[c]).at(x, y)) : 0.0f;
            if (inside && (b.pixelFlags & 1) && c < 3) v = static_cast<float>(std::pow(double{v}, double{gammaV}));
            const double expected = D::stored(v);
            if ((std::isnan(expected) ? !std::isnan(got[c]) : got[c] != expected) && ++mismatches <= 5)
                ADD_FAILURE() << what << ": pixel " << i << " channel " << c << " is " << got[c] << ", expected "
                              << expected << " (from " << v << ")";
        }
    }
}

template <class D>
class ExrDecoder : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16, DepthF>;
TYPED_TEST_SUITE(ExrDecoder, Depths);

// Values spread over -0.5 .. 2.0 in steps exact in half.
double spread(const std::string& channel, int x, int y) { return ((x * 7 + y * 13 + channel[0] * 5) % 41) / 16.0 - 0.5; }

}  // namespace

// The data window lands relative to the display window's origin, what lies
// outside the buffer is dropped, the rest of the capacity is zero, and a
// window of another size than the buffer appends " region" (never past 250);
// each case in another compression and layout.
TYPED_TEST(ExrDecoder, PlacesTheDataWindowRelativeToTheDisplayWindow)
{
    const struct {
        Imath::Box2i display, data;
        unsigned capacity;  // 0: exactly the display window
        int textBefore;
    } cases[] = {
        {box(0, 0, 15, 11), box(0, 0, 15, 11), 0, 0},     {box(0, 0, 15, 11), box(3, 2, 9, 7), 0, 0},
        {box(0, 0, 15, 11), box(-4, -3, 5, 6), 0, 243},   {box(0, 0, 15, 11), box(10, 8, 20, 15), 0, 244},
        {box(0, 0, 15, 11), box(16, 0, 19, 11), 0, 250},  {box(100, -50, 115, -39), box(98, -47, 104, -30), 0, 3},
        {box(0, 0, 15, 11), box(2, 2, 13, 9), 16 * 12 + 37, 3},  // capacity beyond the image
        {box(0, 0, 299, 199), box(-5, 3, 310, 190), 0, 3},       // wide enough for the table path
    };
    int layout = 0;
    for (const auto& c : cases)
        for (int compression = 0; compression < Imf::NUM_COMPRESSION_METHODS; ++compression, ++layout) {
            ExrPart part;
            part.displayWindow = c.display;
            part.dataWindow = c.data;
            part.value = spread;
            part.compression = static_cast<Imf::Compression>(compression);
            part.tiled = layout % 2 == 1;
            part.tileHeight = 5;
            const int w = c.display.max.x - c.display.min.x + 1, h = c.display.max.y - c.display.min.y + 1;
            auto b = hostBuffer<TypeParam>(w, h, c.capacity ? c.capacity : static_cast<unsigned>(w * h));
            const std::string before(static_cast<std::size_t>(c.textBefore), 'x');
            b->imageInfo.infoText = before.c_str();
            const std::string what = ::testing::PrintToString(c.data) + " " + std::to_string(layout);
            expectDecoded<TypeParam>(makeExr(part), *b, what);
            const bool sameSize = c.data.max.x - c.data.min.x + 1 == w && c.data.max.y - c.data.min.y + 1 == h;
            EXPECT_EQ(textOf(b->imageInfo.infoText), (before + (sameSize ? "" : " region")).substr(0, 250)) << what;
        }
}

// All 65,536 half patterns in each channel (shifted per channel), once as one
// image large enough for the conversion tables, once in images too small for
// them, and once into buffers a few pixels short of their image (which the
// buffer's own bounds-checked write fills pixel by pixel).
TYPED_TEST(ExrDecoder, EveryHalfValueMatchesTheDirectFormulaAllThreeWays)
{
    const struct {
        int size;
        unsigned capacity;  // 0: exactly the image
    } cases[] = {{256, 0}, {181, 0}, {181, 181 * 181 - 5}};
    for (const bool gamma : {false, true})
        for (const auto& c : cases)
            for (int first = 0, size = c.size; first < 65536; first += size * size) {
                ExrPart part;
                part.displayWindow = box(0, 0, size - 1, size - 1);
                for (ExrChannel& ch : part.channels)
                    ch.value = [first, size, shift = 9973 * (ch.name[0] % 4)](int x, int y) {
                        return double(half(half::FromBits, static_cast<std::uint16_t>(first + y * size + x + shift)));
                    };
                expectDecoded<TypeParam>(makeExr(part), *hostBuffer<TypeParam>(size, size, c.capacity, gamma),
                                         std::to_string(size) + " " + std::to_string(c.capacity));
            }
}

// Any mix of pixel types (UINT samples unscaled: 1 is already full
// intensity), with special values; gamma read from gammaV at every call,
// red, green and blue raised to it (negative values NaN), alpha never; the
// same image whether OpenEXR's worker threads share its rows or not.
TYPED_TEST(ExrDecoder, WorkerThreadsGiveTheSameImageOfAnyMixOfPixelTypes)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 299, 119);
    part.channels = {{"A", Imf::HALF}, {"B", Imf::UINT}, {"G", Imf::FLOAT}, {"R", Imf::HALF}};
    part.value = [](const std::string& c, int x, int y) {
        const double special[] = {-0.0, -1.0, 0.0, 1.0, 65504.0, -65504.0, 1e-7};
        if (c == "B") return double((x + y) % 4 == 0 ? 0 : (x * y) % 3);
        return (x + y) % 9 == 0 ? special[(x + c[0]) % 7] : spread(c, x, y) * 3.0 + (c == "G" ? 1e-3 : 0.0);
    };
    const Bytes file = makeExr(part);
    const float saved = gammaV;
    const int threads = Imf::globalThreadCount();
    for (const float g : {saved, 2.0f, 0.0f})
        for (const bool on : {false, true}) {
            gammaV = g;
            Imf::setGlobalThreadCount(on ? 3 : 0);
            expectDecoded<TypeParam>(file, *hostBuffer<TypeParam>(300, 120, 0, on), std::to_string(g));
        }
    gammaV = saved;
    Imf::setGlobalThreadCount(threads);
}

// Exact names (any case) first; only without any exact name, names ending
// in the letter; a role without a channel reads slot 0; channels past the
// 800th are never looked at.
TEST(ExrDecoderChannels, EachRoleTakesTheChannelTheNamingRulesPick)
{
    std::vector<std::string> tooMany;  // "d.R" sorts after every cNNN: as the 800th it counts, as the 801st not
    for (int i = 0; i < 800; ++i) tooMany.push_back("c" + std::to_string(1000 + i).substr(1));
    std::vector<std::string> many(tooMany.begin(), tooMany.end() - 1);
    many.push_back("d.R"), tooMany.push_back("d.R");
    const struct {
        std::vector<std::string> channels;
        std::array<std::string, 4> roles;  // the channels R, G, B and A must come from
    } cases[] = {
        {{"B", "G", "R"}, {"R", "G", "B", "B"}},
        {{"a", "b", "g", "r"}, {"r", "g", "b", "a"}},
        {{"beauty.A", "beauty.B", "beauty.G", "beauty.R", "specular.R"}, {"beauty.R", "beauty.G", "beauty.B", "beauty.A"}},
        // One plain "A" switches the suffixes off: R, G, B fall back to
        // channels 0, 1, 2, and alpha shares slot 0 with red.
        {{"A", "beauty.A", "beauty.B", "beauty.G", "beauty.R", "specular.R"}, {"A", "beauty.A", "beauty.B", "A"}},
        {{"Z", "alpha", "color"}, {"color", "alpha", "alpha", "alpha"}},  // B and A land on slot 0
        {{"R", "r"}, {"r", "r", "r", "r"}},  // both match; the later one wins and serves every role
        {many, {"d.R", "c001", "c002", "c003"}},
        {tooMany, {"c000", "c001", "c002", "c003"}},
    };
    for (const auto& c : cases) {
        ExrPart part;
        part.displayWindow = box(0, 0, 3, 2);
        part.channels.clear();
        for (std::size_t i = 0; i < c.channels.size(); ++i) {
            part.channels.emplace_back(c.channels[i], Imf::FLOAT);
            part.channels.back().value = [i](int, int) { return double(i + 1); };
        }
        expectDecoded<DepthF>(makeExr(part), *hostBuffer<DepthF>(4, 3), c.channels.back(), c.roles);
    }
}

// Broken files: 4 before anything is touched; 14 and 6 with the buffer cleared.
TYPED_TEST(ExrDecoder, BrokenFilesGiveTheirCodesAndLeaveTheBufferCleared)
{
    ExrPart part, subsampled, subsampledUnused, incomplete;
    const Bytes good = makeExr(part);
    subsampled.channels[0] = {"A", Imf::HALF, 2, 2};
    subsampledUnused.channels.emplace_back("Z", Imf::HALF, 2, 2);
    incomplete.writeLimit = 5;
    // The pixel type of the first channel ("A") patched.
    const std::size_t alphaType = findBytes(good, "chlist") + sizeof("chlist") + 4 + sizeof("A");
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
        {"alpha of an unknown pixel type", patched(good, alphaType, {3}), 4, false},  // OpenEXR refuses it first
        {"alpha patched to FLOAT (control)", patched(good, alphaType, {2}), 1, false},
        {"subsampled channel not chosen", makeExr(subsampledUnused), 1, false},
    };
    for (const auto& c : cases) {
        auto b = hostBuffer<TypeParam>(16, 12);
        EXPECT_EQ(decodeInto<TypeParam>(c.file, *b), c.result) << c.what;
        if (c.result == 1) continue;
        const std::size_t bytes = static_cast<std::size_t>(b->bytesPerPixel) * b->maxPixels;
        EXPECT_EQ(std::count(b->pixels, b->pixels + bytes, c.cleared ? 0 : 0x60), static_cast<std::ptrdiff_t>(bytes))
            << c.what;
    }
}
