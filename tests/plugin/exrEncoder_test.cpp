// imgEncode8, imgEncode16 and imgEncodef: every file read back with OpenEXR
// and checked against expectations worked out here (windows, header,
// attributes, every pixel's half bits), the console report, the float
// image's painting, and the failures.
#include <gtest/gtest.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfFloatVectorAttribute.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMatrixAttribute.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfThreading.h>
#include <OpenEXR/ImfVecAttribute.h>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrEncoder.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

namespace {

using kt::test::Bytes;
using Bits = std::array<std::uint16_t, 4>;  // R, G, B, A as stored

// ---- oracles ---------------------------------------------------------------------

// The half nearest to `value` (ties to even), worked out in double precision
// from the float's exact value rather than through any half type. NaN gives
// 0x7E00; compare NaNs by class.
std::uint16_t nearestHalf(float value)
{
    if (std::isnan(value)) return 0x7E00;
    const std::uint16_t sign = std::signbit(value) ? 0x8000 : 0;
    const double a = std::fabs(static_cast<double>(value));
    if (a >= 65520.0) return sign | 0x7C00;  // halfway to 2^16 and beyond: infinity
    if (a < std::ldexp(1.0, -14)) return static_cast<std::uint16_t>(sign | static_cast<int>(std::nearbyint(std::ldexp(a, 24))));
    int e = 0;
    std::frexp(a, &e);  // a in [2^(e-1), 2^e)
    const int exponent = e - 1;
    const int mantissa = static_cast<int>(std::nearbyint(std::ldexp(a, 10 - exponent)));  // 1024..2048
    return static_cast<std::uint16_t>(sign | (((exponent + 15) << 10) + mantissa - 1024));
}

bool isHalfNan(std::uint16_t bits) { return (bits & 0x7C00) == 0x7C00 && (bits & 0x03FF) != 0; }

std::uint32_t bitsOf(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

// A file as OpenEXR reads it: the header and every pixel's half bits.
struct ExrFile {
    Imf::Header header;
    bool complete = false;
    Imath::Box2i window;
    std::vector<Bits> pixels;  // the data window, rows top to bottom

    const Bits& at(int x, int y) const
    {
        const int w = window.max.x - window.min.x + 1;
        return pixels.at(static_cast<std::size_t>((y - window.min.y) * w + (x - window.min.x)));
    }
    std::string text(const char* name) const
    {
        const auto* a = header.findTypedAttribute<Imf::StringAttribute>(name);
        return a ? a->value() : std::string("<absent>");
    }
};

ExrFile readBack(const Bytes& file)
{
    kt::test::MemoryIStream in(file);
    Imf::InputFile input(in);
    ExrFile out;
    out.header = input.header();
    out.complete = input.isComplete();
    out.window = input.header().dataWindow();
    const int w = out.window.max.x - out.window.min.x + 1;
    const int h = out.window.max.y - out.window.min.y + 1;
    out.pixels.assign(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), Bits{});
    // The frame buffer addresses pixels by absolute coordinates.
    const std::uintptr_t origin = reinterpret_cast<std::uintptr_t>(out.pixels.data()) -
                                  (static_cast<std::uintptr_t>(out.window.min.y) * static_cast<std::uintptr_t>(w) +
                                   static_cast<std::uintptr_t>(out.window.min.x)) *
                                      sizeof(Bits);
    Imf::FrameBuffer frame;
    const char* names[] = {"R", "G", "B", "A"};
    for (int c = 0; c < 4; ++c)
        frame.insert(names[c], Imf::Slice(Imf::HALF, reinterpret_cast<char*>(origin + 2u * static_cast<unsigned>(c)),
                                           sizeof(Bits), sizeof(Bits) * static_cast<std::size_t>(w)));
    input.setFrameBuffer(frame);
    input.readPixels(out.window.min.y, out.window.max.y);
    return out;
}

std::string narrow(const _ktString<250>& text)
{
    std::string s;
    for (int i = 0; i < text.length; ++i) s += static_cast<char>(text.text[i]);
    return s;
}

// ---- the three depths --------------------------------------------------------------

struct Depth8 {
    using Buffer = ktP::_imgRGBABuffer8;
    using Value = unsigned char;
    static int encode(imgCallRecord* call) { return imgEncode8(call); }
    static constexpr Value kOn = 200;
    static std::uint16_t expected(Value v) { return nearestHalf(static_cast<float>(v) / 255.0f); }
    static constexpr bool isFloat = false;
    static constexpr const char* clientAttribute = "KT/clientname";
};

struct Depth16 {
    using Buffer = ktP::_imgRGBABuffer16;
    using Value = unsigned short;
    static int encode(imgCallRecord* call) { return imgEncode16(call); }
    static constexpr Value kOn = 50000;
    static std::uint16_t expected(Value v) { return nearestHalf(static_cast<float>(v) / 65535.0f); }
    static constexpr bool isFloat = false;
    static constexpr const char* clientAttribute = "KT/clientname";
};

struct DepthF {
    using Buffer = ktP::_imgRGBABufferf;
    using Value = float;
    static int encode(imgCallRecord* call) { return imgEncodef(call); }
    static constexpr Value kOn = 0.75f;
    static std::uint16_t expected(Value v) { return nearestHalf(v); }
    static constexpr bool isFloat = true;
    static constexpr const char* clientAttribute = "clientname";
};

// One encode: a zeroed image, job settings, an empty metadata record and a
// file buffer with room for the image uncompressed.
template <class D>
struct Job {
    Job(int w, int h) : width(w), height(h)
    {
        image = std::make_unique<typename D::Buffer>(static_cast<unsigned>(w * h));
        image->setWidth(w);
        image->setHeight(h);
        std::memset(image->pixels, 0, static_cast<std::size_t>(w * h) * static_cast<std::size_t>(image->bytesPerPixel));
        file = kt::test::emptyFileBuffer(static_cast<unsigned>(w * h * 8 + 65536));
    }

    void set(int x, int y, typename D::Value r, typename D::Value g, typename D::Value b, typename D::Value a)
    {
        image->write(x, y, r, g, b, a);
    }
    // As the buffer held it when the encode began (the float export paints it afterwards).
    typename D::Value channel(int x, int y, int c) const
    {
        return original.at(static_cast<std::size_t>(4 * (x + width * y) + c));
    }
    Bits expected(int x, int y) const
    {
        if (x >= width || y >= height) return Bits{};
        return Bits{D::expected(channel(x, y, 0)), D::expected(channel(x, y, 1)), D::expected(channel(x, y, 2)),
                    D::expected(channel(x, y, 3))};
    }
    int encode()
    {
        const auto* values = reinterpret_cast<const typename D::Value*>(image->pixels);
        original.assign(values, values + 4 * width * height);
        imgCallRecord call{file.get(), image.get(), metadata.get(), &settings};
        return D::encode(&call);
    }
    Bytes bytes() const { return kt::test::contentOf(*file); }
    std::string info() const { return narrow(image->imageInfo.infoText); }

    int width, height;
    std::unique_ptr<typename D::Buffer> image;
    std::unique_ptr<ktP::_imgFileBuffer> file;
    std::unique_ptr<ktExrHeaderData> metadata = std::make_unique<ktExrHeaderData>();
    imgJobSettings settings{};
    std::vector<typename D::Value> original;
};

// Every pixel of the file's data window against the buffer's values.
template <class D>
void expectPixels(const Job<D>& job, const ExrFile& file)
{
    int mismatches = 0;
    for (int y = file.window.min.y; y <= file.window.max.y; ++y)
        for (int x = file.window.min.x; x <= file.window.max.x; ++x) {
            const Bits want = job.expected(x, y);
            const Bits& got = file.at(x, y);
            for (int c = 0; c < 4; ++c) {
                const bool same = isHalfNan(want[c]) ? isHalfNan(got[c]) : want[c] == got[c];
                if (!same && ++mismatches <= 5)
                    ADD_FAILURE() << "pixel (" << x << ", " << y << ") channel " << c << ": file " << std::hex << got[c]
                                  << ", expected " << want[c];
            }
        }
    EXPECT_EQ(mismatches, 0);
}

template <class D>
class EncoderDepth : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16, DepthF>;
TYPED_TEST_SUITE(EncoderDepth, Depths);

// ---- crop boxes ------------------------------------------------------------------------

enum class Fill { All, AlphaOnly, ColourOnly };

struct CropCase {
    const char* what;
    int width, height;
    std::vector<std::array<int, 2>> occupied;
    Fill fill;
    Imath::Box2i integerDepths;  // 8-bit and 16-bit
    Imath::Box2i floatDepth;
};

const std::vector<CropCase>& cropCases()
{
    using kt::test::box;
    static const std::vector<CropCase> cases = {
        {"single pixel", 100, 100, {{50, 40}}, Fill::All, box(47, 37, 53, 43), box(47, 37, 53, 43)},
        {"pixel at (1, 1)", 100, 100, {{1, 1}}, Fill::All, box(0, 0, 4, 4), box(0, 0, 4, 4)},
        {"pixel at (3, 3)", 100, 100, {{3, 3}}, Fill::All, box(0, 0, 6, 6), box(0, 0, 6, 6)},
        {"pixel at (4, 4)", 100, 100, {{4, 4}}, Fill::All, box(1, 1, 7, 7), box(1, 1, 7, 7)},
        {"last column and row", 100, 100, {{99, 99}}, Fill::All, box(96, 96, 99, 99), box(96, 96, 99, 99)},
        {"two opposite corners", 100, 100, {{0, 0}, {99, 99}}, Fill::All, box(0, 0, 99, 99), box(0, 0, 99, 99)},
        {"other two corners", 64, 32, {{63, 0}, {0, 31}}, Fill::All, box(0, 0, 63, 31), box(0, 0, 63, 31)},
        {"top right and bottom left", 100, 100, {{80, 10}, {20, 70}}, Fill::All, box(17, 7, 83, 73), box(17, 7, 83, 73)},
        {"widest row in the middle", 90, 60, {{45, 5}, {2, 30}, {88, 31}, {45, 50}}, Fill::All, box(0, 2, 89, 53),
         box(0, 2, 89, 53)},
        {"first row reaches furthest right", 90, 60, {{80, 10}, {20, 11}, {30, 40}}, Fill::All, box(17, 7, 83, 43),
         box(17, 7, 83, 43)},
        {"last row reaches furthest left", 90, 60, {{50, 10}, {60, 20}, {5, 40}}, Fill::All, box(2, 7, 63, 43),
         box(2, 7, 63, 43)},
        {"one row", 100, 100, {{10, 50}, {60, 50}}, Fill::All, box(7, 47, 63, 53), box(7, 47, 63, 53)},
        {"zero colour, alpha set", 100, 100, {{30, 60}}, Fill::AlphaOnly, box(27, 57, 33, 63), box(27, 57, 33, 63)},
        {"colour set, zero alpha", 100, 100, {{30, 60}}, Fill::ColourOnly, box(27, 57, 33, 63), box(27, 57, 33, 63)},
        {"empty", 100, 100, {}, Fill::All, box(0, 0, 8, 8), box(0, 0, 99, 99)},
        {"empty, smaller than the start box", 4, 3, {}, Fill::All, box(0, 0, 5, 5), box(0, 0, 3, 2)},
        {"empty, one pixel", 1, 1, {}, Fill::All, box(0, 0, 5, 5), box(0, 0, 0, 0)},
        {"empty, 7 x 7", 7, 7, {}, Fill::All, box(0, 0, 6, 6), box(0, 0, 6, 6)},
        {"tiny, occupied", 2, 2, {{1, 0}}, Fill::All, box(0, 0, 1, 1), box(0, 0, 1, 1)},
        {"one row image", 50, 1, {{25, 0}}, Fill::All, box(22, 0, 28, 0), box(22, 0, 28, 0)},
    };
    return cases;
}

TYPED_TEST(EncoderDepth, CropBoxesAndEveryPixelOfTheWindow)
{
    using D = TypeParam;
    for (const CropCase& c : cropCases()) {
        SCOPED_TRACE(c.what);
        Job<D> job(c.width, c.height);
        const auto on = D::kOn;
        const typename D::Value off{};
        for (const auto& p : c.occupied) {
            if (c.fill == Fill::All) job.set(p[0], p[1], on, on / 2, on / 4, on);
            if (c.fill == Fill::AlphaOnly) job.set(p[0], p[1], off, off, off, on);
            if (c.fill == Fill::ColourOnly) job.set(p[0], p[1], off, on, off, off);
        }
        ASSERT_EQ(job.encode(), 1);
        const ExrFile file = readBack(job.bytes());
        const Imath::Box2i want = D::isFloat ? c.floatDepth : c.integerDepths;
        EXPECT_EQ(file.window, want);
        EXPECT_EQ(file.header.displayWindow(), kt::test::box(0, 0, c.width - 1, c.height - 1));
        EXPECT_TRUE(file.complete);
        expectPixels(job, file);
    }
}

TYPED_TEST(EncoderDepth, EveryOccupiedPixelOfAFullImage)
{
    using D = TypeParam;
    Job<D> job(37, 23);
    for (int y = 0; y < 23; ++y)
        for (int x = 0; x < 37; ++x) job.set(x, y, D::kOn, typename D::Value{}, typename D::Value{}, typename D::Value{});
    ASSERT_EQ(job.encode(), 1);
    const ExrFile file = readBack(job.bytes());
    EXPECT_EQ(file.window, file.header.displayWindow());
    expectPixels(job, file);
}

TEST(FloatEncoder, NegativeZeroIsEmptyAndNanOccupied)
{
    Job<DepthF> job(30, 30);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    job.set(2, 2, -0.0f, -0.0f, -0.0f, -0.0f);
    job.set(20, 21, 0.0f, 0.0f, nan, 0.0f);
    ASSERT_EQ(job.encode(), 1);
    const ExrFile file = readBack(job.bytes());
    EXPECT_EQ(file.window, kt::test::box(17, 18, 23, 24));
    EXPECT_TRUE(isHalfNan(file.at(20, 21)[2]));
    EXPECT_EQ(file.at(20, 21)[0], 0u);

    Job<DepthF> onlyNegativeZero(30, 30);
    onlyNegativeZero.set(12, 12, -0.0f, -0.0f, -0.0f, -0.0f);
    ASSERT_EQ(onlyNegativeZero.encode(), 1);
    const ExrFile whole = readBack(onlyNegativeZero.bytes());
    EXPECT_EQ(whole.window, kt::test::box(0, 0, 29, 29));
    EXPECT_EQ(whole.at(12, 12), (Bits{0x8000, 0x8000, 0x8000, 0x8000})) << "the sign of zero is kept";
}

TYPED_TEST(EncoderDepth, OccupiedPixelInEveryColumnOfAWideRow)
{
    using D = TypeParam;
    const int w = 45;
    for (int x = 0; x < w; ++x) {
        const int other = (x * 7 + 3) % w;  // a second pixel on a later row, somewhere else
        Job<D> job(w, 9);
        job.set(x, 2, D::kOn, typename D::Value{}, typename D::Value{}, typename D::Value{});
        job.set(other, 6, typename D::Value{}, typename D::Value{}, typename D::Value{}, D::kOn);
        ASSERT_EQ(job.encode(), 1);
        const int lo = std::min(x, other), hi = std::max(x, other);
        EXPECT_EQ(readBack(job.bytes()).window, kt::test::box(std::max(0, lo - 3), 0, std::min(w - 1, hi + 3), 8))
            << "pixels at " << x << " and " << other;
    }
}

// ---- values ------------------------------------------------------------------------------

TEST(Encoder8, FullScaleIsOne)
{
    Job<Depth8> job(4, 4);
    job.set(1, 1, 255, 128, 1, 255);
    ASSERT_EQ(job.encode(), 1);
    EXPECT_EQ(readBack(job.bytes()).at(1, 1), (Bits{0x3C00, 0x3804, 0x1C04, 0x3C00}));
}

TEST(Encoder16, FullScaleIsOne)
{
    Job<Depth16> job(4, 4);
    job.set(1, 1, 65535, 32768, 1, 65535);
    ASSERT_EQ(job.encode(), 1);
    EXPECT_EQ(readBack(job.bytes()).at(1, 1), (Bits{0x3C00, 0x3800, 0x0100, 0x3C00}));
}

// Regions far wider than tall: the row store must still hold whole rows.
TYPED_TEST(EncoderDepth, WideShallowRegion)
{
    using D = TypeParam;
    Job<D> job(700, 40);
    for (int x = 0; x < 700; ++x) job.set(x, 20, D::kOn, D::kOn, typename D::Value{}, D::kOn);
    ASSERT_EQ(job.encode(), 1);
    const ExrFile file = readBack(job.bytes());
    EXPECT_EQ(file.window, kt::test::box(0, 17, 699, 23));
    expectPixels(job, file);
}

// Both ways of converting, on every integer value and on floats around
// every rounding boundary of the half range.
template <class T>
void expectConversions(const std::vector<T>& values, const std::function<std::uint16_t(T)>& oracle)
{
    std::vector<T> src(values);
    while (src.size() % 4 != 0) src.push_back(T{});
    const int pixels = static_cast<int>(src.size() / 4);
    std::vector<Imf::Rgba> fast(static_cast<std::size_t>(pixels)), portable(static_cast<std::size_t>(pixels));
    kt::exr::toHalfPixels(src.data(), pixels, fast.data());
    kt::exr::toHalfPixelsPortable(src.data(), pixels, portable.data());
    int mismatches = 0;
    for (std::size_t i = 0; i < src.size(); ++i) {
        const Imf::Rgba& f = fast[i / 4];
        const Imf::Rgba& p = portable[i / 4];
        const half fh[] = {f.r, f.g, f.b, f.a}, ph[] = {p.r, p.g, p.b, p.a};
        const std::uint16_t a = fh[i % 4].bits(), b = ph[i % 4].bits(), want = oracle(src[i]);
        const bool ok = a == b && (isHalfNan(want) ? isHalfNan(a) : a == want);
        if (!ok && ++mismatches <= 5)
            ADD_FAILURE() << "value " << static_cast<double>(src[i]) << " (index " << i << "): " << std::hex << a << " / "
                          << b << ", expected " << want;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(HalfConversion, EveryByteAndWordValue)
{
    std::vector<unsigned char> bytes;
    for (int i = 0; i < 256 + 4; ++i) bytes.push_back(static_cast<unsigned char>(i * 7));  // an odd number of pixels
    expectConversions<unsigned char>(bytes, [](unsigned char v) { return nearestHalf(static_cast<float>(v) / 255.0f); });
    std::vector<unsigned short> words;
    for (int i = 0; i < 65536 + 4; ++i) words.push_back(static_cast<unsigned short>(i * 40503));
    expectConversions<unsigned short>(words, [](unsigned short v) { return nearestHalf(static_cast<float>(v) / 65535.0f); });
}

std::vector<float> floatsAroundEveryBoundary()
{
    std::vector<float> values;
    auto add = [&](std::uint32_t bits) {
        float f;
        std::memcpy(&f, &bits, 4);
        values.push_back(f);
        bits ^= 0x80000000u;
        std::memcpy(&f, &bits, 4);
        values.push_back(f);
    };
    // Exponents from far below the smallest half subnormal to past the largest half.
    for (std::uint32_t e = 90; e <= 145; ++e)
        for (std::uint32_t high = 0; high < 1024; high += 31)
            for (std::uint32_t low : {0x0000u, 0x0001u, 0x0FFFu, 0x1000u, 0x1001u, 0x1FFFu, 0x17FFu, 0x1800u, 0x0800u}) {
                add(e << 23 | high << 13 | low);
                add(e << 23 | (1023 - high) << 13 | (low ^ 0x1FFFu));
            }
    for (std::uint32_t bits : {0x00000000u, 0x00000001u, 0x007FFFFFu, 0x7F7FFFFFu, 0x7F800000u, 0x7FC00000u, 0x7F800001u,
                               0x7FA00000u, 0x7FFFFFFFu, 0x7F802000u, 0x477FEFFFu, 0x477FF000u, 0x33000000u, 0x33000001u,
                               0x387FE000u, 0x387FF000u})
        add(bits);
    return values;
}

TEST(HalfConversion, FloatsAroundEveryRoundingBoundary)
{
    expectConversions<float>(floatsAroundEveryBoundary(), [](float v) { return nearestHalf(v); });
}

TEST(HalfConversion, NanBitsAreTheHalfTypes)
{
    // Signalling and quiet NaNs with payloads: the file keeps what the half type makes of them.
    std::vector<float> values;
    for (std::uint32_t bits : {0x7F800001u, 0x7F802000u, 0x7FA00000u, 0x7FC00000u, 0xFF800001u, 0xFFFFFFFFu, 0x7F801FFFu, 0x7FBFE000u}) {
        float f;
        std::memcpy(&f, &bits, 4);
        values.push_back(f);
    }
    expectConversions<float>(values, [](float v) { return half(v).bits(); });
}

#if defined(__x86_64__)
// Render hosts often run with flush-to-zero and denormals-are-zero set; a
// denormal float then counts as zero, and its half is a zero either way.
TEST(HalfConversion, FlushToZeroModeOfTheCaller)
{
    const unsigned int saved = _mm_getcsr();
    _mm_setcsr(saved | 0x8040u);
    expectConversions<float>(floatsAroundEveryBoundary(), [](float v) { return nearestHalf(v); });
    _mm_setcsr(saved);
}
#endif

// ---- header -------------------------------------------------------------------------------

TYPED_TEST(EncoderDepth, HeaderOfTheWrittenFile)
{
    using D = TypeParam;
    Job<D> job(40, 30);
    job.set(10, 10, D::kOn, D::kOn, D::kOn, D::kOn);
    ASSERT_EQ(job.encode(), 1);
    const Bytes bytes = job.bytes();
    EXPECT_EQ(job.file->fileSize, static_cast<long long>(bytes.size()));
    EXPECT_EQ(job.file->sizeLoaded, job.file->fileSize);
    const ExrFile file = readBack(bytes);
    const Imf::Header& h = file.header;  // typedAttribute throws on a missing or retyped one
    EXPECT_EQ(h.compression(), Imf::ZIPS_COMPRESSION);
    EXPECT_EQ(h.lineOrder(), Imf::INCREASING_Y);
    EXPECT_EQ(h.pixelAspectRatio(), 1.0f);
    EXPECT_EQ(h.screenWindowCenter(), Imath::V2f(0.0f, 0.0f));
    EXPECT_EQ(h.screenWindowWidth(), 1.0f);
    EXPECT_FALSE(h.hasTileDescription());
    std::vector<std::string> channels;
    for (auto c = h.channels().begin(); c != h.channels().end(); ++c) {
        channels.push_back(c.name());
        EXPECT_EQ(c.channel().type, Imf::HALF) << c.name();
        EXPECT_EQ(c.channel().xSampling, 1);
        EXPECT_EQ(c.channel().ySampling, 1);
    }
    EXPECT_EQ(channels, (std::vector<std::string>{"A", "B", "G", "R"}));
    EXPECT_EQ(file.text("KT/application"), "-");
    EXPECT_NE(file.text("KT/dateWritten"), "<absent>");
    EXPECT_EQ(h.findTypedAttribute<Imf::StringAttribute>("KT/clientname"), nullptr);
    EXPECT_EQ(h.findTypedAttribute<Imf::StringAttribute>("clientname"), nullptr);
}

struct ClientCase {
    const char* appName;
    bool written;
};

TYPED_TEST(EncoderDepth, ClientNameAttributeOnlyForClientPrograms)
{
    using D = TypeParam;
    const ClientCase cases[] = {
        {"ktClient", true}, {"ktClientMonitor", true}, {"KTCLIENT x", true}, {"ktClien", false},
        {"", false},        {"myktClient", false},     {"ktExrCropRegion", false},
    };
    for (const ClientCase& c : cases) {
        SCOPED_TRACE(c.appName);
        Job<D> job(20, 20);
        job.set(5, 5, D::kOn, D::kOn, D::kOn, D::kOn);
        job.settings.appName = c.appName;
        std::strcpy(job.settings.clientName, "Studio \xC3\xA9t\xC3\xA9 / Client 7");
        ASSERT_EQ(job.encode(), 1);
        const ExrFile file = readBack(job.bytes());
        const char* other = D::isFloat ? "KT/clientname" : "clientname";
        EXPECT_EQ(file.text(D::clientAttribute), c.written ? "Studio \xC3\xA9t\xC3\xA9 / Client 7" : "<absent>");
        EXPECT_EQ(file.text(other), "<absent>");
    }
}

TEST(Encoder8, ClientNameWithoutTerminatorIsCutAtTheField)
{
    Job<Depth8> job(8, 8);
    job.settings.appName = "ktClient";
    std::memset(job.settings.clientName, 'c', sizeof job.settings.clientName);
    ASSERT_EQ(job.encode(), 1);
    EXPECT_EQ(readBack(job.bytes()).text("KT/clientname"), std::string(255, 'c'));
}

// ---- console report and the float encoder's marks -------------------------------------------

struct ReportCase {
    unsigned char verbose;
    const char* appName;
    bool printed;
};

const ReportCase kReportCases[] = {
    {1, "ktExrCropRegion", true},    {1, "ktAssembleTiles", true},     {7, "KTEXRCROPREGION tool", true},
    {1, "ktassembletiles2", true},   {0, "ktExrCropRegion", false},    {1, "ktExrCrop", false},
    {1, "", false},                  {1, "ktClient", false},           {1, " ktAssembleTiles", false},
};

TYPED_TEST(EncoderDepth, RegionReportOnStandardOutput)
{
    using D = TypeParam;
    for (const ReportCase& c : kReportCases) {
        SCOPED_TRACE(c.appName);
        Job<D> job(100, 100);
        job.set(50, 40, D::kOn, D::kOn, D::kOn, D::kOn);
        job.settings.verbose = c.verbose;
        job.settings.appName = c.appName;
        job.image->imageInfo.infoText = "ZIPS";
        ::testing::internal::CaptureStdout();
        const int result = job.encode();
        const std::string out = ::testing::internal::GetCapturedStdout();
        ASSERT_EQ(result, 1);
        EXPECT_EQ(out, c.printed ? "    EXR region:    min:   47   37    max:   53   43     0.5%\n" : "");
        const bool suffixed = D::isFloat && !c.printed;
        EXPECT_EQ(job.info(), suffixed ? "ZIPS region" : "ZIPS");
    }
}

TYPED_TEST(EncoderDepth, RegionReportShares)
{
    using D = TypeParam;
    struct Case {
        int width, height;
        std::vector<std::array<int, 2>> occupied;
        const char* line;
    };
    const Case cases[] = {
        {100, 100, {{10, 10}, {89, 89}}, "    EXR region:    min:    7    7    max:   92   92    74.0%\n"},
        {100, 100, {{0, 0}, {99, 99}}, "    EXR region:    min:    0    0    max:   99   99   100.0%\n"},
        {1500, 1000, {{1234, 900}}, "    EXR region:    min: 1231  897    max: 1237  903     0.0%\n"},
        {30, 3, {{0, 1}}, "    EXR region:    min:    0    0    max:    3    2    13.3%\n"},
    };
    for (const Case& c : cases) {
        Job<D> job(c.width, c.height);
        for (const auto& p : c.occupied) job.set(p[0], p[1], D::kOn, D::kOn, D::kOn, D::kOn);
        job.settings.verbose = 1;
        job.settings.appName = "ktAssembleTiles";
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(job.encode(), 1);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.line);
    }
}

TEST(FloatEncoder, RegionSuffixStopsAtTheTextCapacity)
{
    struct Case {
        std::size_t before;
        std::string added;
    };
    const Case cases[] = {{0, " region"}, {243, " region"}, {244, " regio"}, {249, " "}, {250, ""}};
    for (const Case& c : cases) {
        Job<DepthF> job(10, 10);
        job.image->imageInfo.infoText = std::string(c.before, 'i').c_str();
        ASSERT_EQ(job.encode(), 1);
        EXPECT_EQ(job.info(), std::string(c.before, 'i') + c.added) << c.before;
    }
}

TEST(FloatEncoder, PaintsOutsideTheRegionAndTheRegionsLastRow)
{
    const int w = 20, h = 12;
    Job<DepthF> job(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) job.set(x, y, 0.0f, 0.0f, 0.0f, static_cast<float>(x + y) / 64.0f);
    // The alpha ramp occupies everything; carve out a region by clearing all but a block.
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (x < 9 || x > 11 || y < 5 || y > 6) job.image->write(x, y, 0.0f, 0.0f, 0.0f, 0.0f);
    job.image->write(10, 5, 2.0f, 3.0f, 4.0f, 0.5f);
    std::vector<_Rgbaf> before;
    for (int i = 0; i < w * h; ++i) before.push_back(job.image->read(static_cast<unsigned>(i)));

    ASSERT_EQ(job.encode(), 1);
    const ExrFile file = readBack(job.bytes());
    ASSERT_EQ(file.window, kt::test::box(6, 2, 14, 9));
    // The file holds the image as it was: the region's last row unpainted.
    EXPECT_EQ(file.at(10, 9), (Bits{0, 0, 0, 0}));
    EXPECT_EQ(file.at(10, 5), (Bits{0x4000, 0x4200, 0x4400, 0x3800}));

    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool painted = x < 6 || x > 14 || y < 2 || y >= 9;
            const _Rgbaf was = before[static_cast<std::size_t>(x + w * y)];
            const _Rgbaf now = job.image->read(x, y);
            SCOPED_TRACE(::testing::Message() << "(" << x << ", " << y << ")");
            if (painted) {
                EXPECT_EQ(bitsOf(now.r), 0x3D23D70Au);
                EXPECT_EQ(bitsOf(now.g), 0x3D23D70Au);
                EXPECT_EQ(bitsOf(now.b), 0x3D23D70Au);
            } else {
                EXPECT_EQ(bitsOf(now.r), bitsOf(was.r));
                EXPECT_EQ(bitsOf(now.g), bitsOf(was.g));
                EXPECT_EQ(bitsOf(now.b), bitsOf(was.b));
            }
            EXPECT_EQ(bitsOf(now.a), bitsOf(was.a));
        }
}

TEST(FloatEncoder, EmptyImageIsWrittenWholeAndItsLastRowPainted)
{
    Job<DepthF> job(6, 4);
    ASSERT_EQ(job.encode(), 1);
    EXPECT_EQ(readBack(job.bytes()).window, kt::test::box(0, 0, 5, 3));
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x)
            EXPECT_EQ(bitsOf(job.image->read(x, y).g), y == 3 ? 0x3D23D70Au : 0u) << x << ", " << y;
}

TEST(FloatEncoder, NoCropModeWritesTheWholeImageAndLeavesTheBufferAlone)
{
    for (unsigned char verbose : {0, 1}) {
        Job<DepthF> job(50, 30);
        job.set(25, 15, 1.0f, 1.0f, 1.0f, 1.0f);
        job.settings.verbose = verbose;
        job.settings.appName = "ktExrCropRegion_UNDO";
        job.image->imageInfo.infoText = "text";
        std::vector<float> before(reinterpret_cast<float*>(job.image->pixels),
                                  reinterpret_cast<float*>(job.image->pixels) + 50 * 30 * 4);
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(job.encode(), 1);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), verbose ? "    EXR NO CROP" : "");
        EXPECT_EQ(job.info(), "text");
        EXPECT_EQ(0, std::memcmp(before.data(), job.image->pixels, before.size() * sizeof(float)));
        const ExrFile file = readBack(job.bytes());
        EXPECT_EQ(file.window, kt::test::box(0, 0, 49, 29));
        expectPixels(job, file);
    }
}

TEST(Encoder16, NoCropNameStillCropsInTheIntegerDepths)
{
    Job<Depth16> job(50, 30);
    job.set(25, 15, 1, 1, 1, 1);
    job.settings.verbose = 1;
    job.settings.appName = "ktexrcropregion_undo";
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(job.encode(), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "    EXR region:    min:   22   12    max:   28   18     3.3%\n");
    EXPECT_EQ(readBack(job.bytes()).window, kt::test::box(22, 12, 28, 18));
}

// ---- the bytes of the file --------------------------------------------------------------------

// Sets OpenEXR's global thread count for one scope.
class ThreadCount {
public:
    explicit ThreadCount(int n) : previous(Imf::globalThreadCount()) { Imf::setGlobalThreadCount(n); }
    ~ThreadCount() { Imf::setGlobalThreadCount(previous); }

private:
    int previous;
};

// What OpenEXR itself writes for the same header and pixels, one scan line
// per writePixels call, without worker threads.
Bytes writtenLineByLine(const Imf::Header& header, const std::function<Bits(int, int)>& pixel)
{
    kt::test::MemoryOStream out;
    auto file = std::make_unique<Imf::RgbaOutputFile>(out, header, Imf::WRITE_RGBA, 0);
    const Imath::Box2i w = header.dataWindow();
    const int width = w.max.x - w.min.x + 1;
    std::vector<Imf::Rgba> row(static_cast<std::size_t>(width));
    for (int y = w.min.y; y <= w.max.y; ++y) {
        for (int x = w.min.x; x <= w.max.x; ++x) {
            const Bits b = pixel(x, y);
            Imf::Rgba& p = row[static_cast<std::size_t>(x - w.min.x)];
            p.r.setBits(b[0]), p.g.setBits(b[1]), p.b.setBits(b[2]), p.a.setBits(b[3]);
        }
        const std::uintptr_t origin = reinterpret_cast<std::uintptr_t>(row.data()) -
                                      (static_cast<std::uintptr_t>(y) * static_cast<std::uintptr_t>(width) +
                                       static_cast<std::uintptr_t>(w.min.x)) *
                                          sizeof(Imf::Rgba);
        file->setFrameBuffer(reinterpret_cast<const Imf::Rgba*>(origin), 1, static_cast<std::size_t>(width));
        file->writePixels(1);
    }
    file.reset();  // writes the line-offset table
    return out.bytes();
}

TYPED_TEST(EncoderDepth, BytesEqualOpenExrWritingOneLinePerCall)
{
    using D = TypeParam;
    for (int threads : {0, 1, 2, 3, 8}) {
        SCOPED_TRACE(::testing::Message() << threads << " threads");
        ThreadCount count(threads);
        Job<D> job(61, 157);
        std::mt19937 random(static_cast<unsigned>(threads));
        for (int y = 4; y < 150; ++y)
            for (int x = 5; x < 55; ++x)
                if (random() % 5 != 0) {
                    const auto v = static_cast<typename D::Value>(random() % 200);
                    job.set(x, y, v, static_cast<typename D::Value>(v / 2), typename D::Value{}, D::kOn);
                }
        ASSERT_EQ(job.encode(), 1);
        const Bytes plugin = job.bytes();
        const ExrFile file = readBack(plugin);
        ASSERT_EQ(file.window, kt::test::box(2, 1, 57, 152));
        const Bytes reference = writtenLineByLine(file.header, [&](int x, int y) { return job.expected(x, y); });
        ASSERT_EQ(plugin.size(), reference.size());
        const auto firstDifference = static_cast<std::size_t>(
            std::mismatch(plugin.begin(), plugin.end(), reference.begin()).first - plugin.begin());
        EXPECT_EQ(firstDifference, plugin.size()) << "header ends at " << kt::test::headerEnd(plugin);
    }
}

// ---- buffers too small, and failures --------------------------------------------------------------

// The file as written into a buffer of `capacity` bytes: the result, the bytes, the text.
template <class D>
struct Attempt {
    int result;
    Bytes bytes;
    std::string info;
};

template <class D>
Attempt<D> encodeInto(unsigned capacity, const std::function<void(Job<D>&)>& fill)
{
    Job<D> job(40, 30);
    fill(job);
    job.file = kt::test::emptyFileBuffer(capacity);
    const int result = job.encode();
    return {result, job.bytes(), job.info()};
}

// The value of the "KT/dateWritten" attribute blanked, so that files written
// in different seconds compare equal.
Bytes withoutDate(Bytes file)
{
    const std::size_t at = kt::test::findBytes(file, std::string("KT/dateWritten\0string\0", 22));
    if (at == std::string::npos) return file;
    const std::size_t sizeAt = at + 22;
    std::uint32_t size = 0;
    for (int i = 3; i >= 0; --i) size = size << 8 | static_cast<unsigned char>(file.at(sizeAt + static_cast<unsigned>(i)));
    for (std::size_t i = 0; i < size; ++i) file.at(sizeAt + 4 + i) = '#';
    return file;
}

TYPED_TEST(EncoderDepth, BufferTooSmallIsReportedNeverTruncated)
{
    using D = TypeParam;
    auto fill = [](Job<D>& job) {
        for (int y = 3; y < 27; ++y)
            for (int x = 2; x < 39; ++x)
                job.set(x, y, static_cast<typename D::Value>(x * 3), static_cast<typename D::Value>(y), D::kOn, D::kOn);
    };
    const Attempt<D> roomy = encodeInto<D>(1u << 20, fill);
    ASSERT_EQ(roomy.result, 1);
    const unsigned length = static_cast<unsigned>(roomy.bytes.size());

    // The smallest buffer that takes the whole file, found by trying.
    unsigned smallest = 0;
    for (unsigned capacity = length + 16; capacity > length - 16; --capacity) {
        const Attempt<D> a = encodeInto<D>(capacity, fill);
        if (a.result == 1) {
            ASSERT_EQ(smallest, 0u) << "a larger buffer failed before: capacity " << capacity;
            EXPECT_EQ(withoutDate(a.bytes), withoutDate(roomy.bytes)) << "capacity " << capacity;
        } else {
            EXPECT_EQ(a.result, 4) << "capacity " << capacity;
            const std::string suffix = " ERR: File buffer too small!";
            ASSERT_GE(a.info.size(), suffix.size());
            EXPECT_EQ(a.info.substr(a.info.size() - suffix.size()), suffix) << "capacity " << capacity;
            if (smallest == 0) smallest = capacity + 1;
        }
    }
    // The last byte of a buffer never holds data, and the line-offset table
    // is rewritten in 8-byte entries against the full length.
    EXPECT_GT(smallest, length);
    EXPECT_LE(smallest, length + 9);
    for (unsigned capacity : {smallest - 1, length / 2, 200u}) EXPECT_EQ(encodeInto<D>(capacity, fill).result, 4) << capacity;
}

TEST(FloatEncoder, TooSmallBufferLeavesTheImageUnpaintedAndTheTextWithinItsCapacity)
{
    Job<DepthF> job(40, 30);
    job.set(20, 20, 1.0f, 1.0f, 1.0f, 1.0f);
    job.image->imageInfo.infoText = std::string(230, 't').c_str();
    job.file = kt::test::emptyFileBuffer(300);
    ASSERT_EQ(job.encode(), 4);
    EXPECT_EQ(job.info(), std::string(230, 't') + " region ERR: File bu");
    EXPECT_EQ(bitsOf(job.image->read(0, 0).r), 0u);
}

TEST(Encoder8, MetadataThatCannotBecomeAnAttributeFailsWithSix)
{
    struct Case {
        const char* name;
        ktExrAttrType type;
    };
    const Case cases[] = {{"dataWindow", ktExrAttrType::Int}, {"compression", ktExrAttrType::Float}, {"", ktExrAttrType::String}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Job<Depth8> job(10, 10);
        job.file->writeString("old content");
        job.metadata->magic = ktExrHeaderMagic;
        job.metadata->count = 1;
        job.metadata->entries[0].name = c.name;
        job.metadata->entries[0].type = c.type;
        EXPECT_EQ(job.encode(), 6);
        EXPECT_EQ(job.file->fileSize, 0) << "the buffer is emptied and nothing is written";
        EXPECT_EQ(job.info(), "");
    }
}

// OpenEXR refuses a header without pixels: a failure of the library, not of the output.
TYPED_TEST(EncoderDepth, ImageWithoutWidthOrHeightFailsInTheHeader)
{
    using D = TypeParam;
    for (bool noWidth : {true, false}) {
        Job<D> job(10, 10);
        job.file->writeString("old content");
        if (noWidth) job.image->setWidth(0);
        else job.image->setHeight(0);
        EXPECT_EQ(job.encode(), 6);
        EXPECT_EQ(job.file->fileSize, 0);
    }
}

TEST(Encoder8, ImageLargerThanItsMemoryIsRefusedUntouched)
{
    Job<Depth8> job(10, 10);
    job.file->writeString("kept");
    job.image->height = 11;  // a host record out of step with its capacity
    EXPECT_EQ(job.encode(), 4);
    EXPECT_EQ(job.file->fileSize, 4);
}

TEST(Encoder8, MissingRecords)
{
    EXPECT_EQ(imgEncode8(nullptr), 4);
    EXPECT_EQ(imgEncode16(nullptr), 4);
    EXPECT_EQ(imgEncodef(nullptr), 4);

    Job<Depth8> job(10, 10);
    job.set(1, 1, 9, 9, 9, 9);
    imgCallRecord noFile{nullptr, job.image.get(), job.metadata.get(), &job.settings};
    EXPECT_EQ(imgEncode8(&noFile), 4);
    imgCallRecord noImage{job.file.get(), nullptr, job.metadata.get(), &job.settings};
    EXPECT_EQ(imgEncode8(&noImage), 4);

    // Without settings or metadata the file is still written, with the stamps only.
    imgCallRecord bare{job.file.get(), job.image.get(), nullptr, nullptr};
    ASSERT_EQ(imgEncode8(&bare), 1);
    const ExrFile file = readBack(job.bytes());
    EXPECT_EQ(file.text("KT/application"), "-");
    EXPECT_EQ(file.window, kt::test::box(0, 0, 4, 4));
}

// ---- render metadata ------------------------------------------------------------------------------

TEST(EncoderMetadata, EveryEntryOfEveryTypeSurvivesLoadEncodeLoad)
{
    using kt::test::box;
    kt::test::ExrPart part;
    part.displayWindow = box(0, 0, 31, 23);
    Imath::M44f matrix;
    for (int i = 0; i < 16; ++i) matrix[i / 4][i % 4] = static_cast<float>(i) * 0.5f - 3.0f;
    part.attribute("KT/scenename", std::string("Scene \xC3\xA9t\xC3\xA9 12"))
        .attribute("KT/jobID", std::string("{ABCde}"))
        .attribute("notes", std::string(1500, 'n'))
        .attribute("frame", -42)
        .attribute("exposure", 1.25f)
        .attribute("camera.matrix", matrix)
        .attribute("weights", std::vector<float>{0.5f, -1.0f, 2.25f, 3.0f, 1e-3f})
        .attribute("nothing", std::vector<float>{})
        .attribute("offset", Imath::V2f(1.5f, -2.0f))
        .attribute("position", Imath::V3f(0.25f, 8.0f, -16.5f))
        .attribute("KT/dateWritten", std::string("01.01.2000 00:00:00"))
        .attribute("KT/application", std::string("Renderer 5"));
    const Bytes source = kt::test::makeExr(part);

    auto load = [](const Bytes& file, ktExrHeaderData& record) {
        auto buffer = kt::test::fileBufferWith(file);
        ktP::_imgRGBABuffer8 image(1u);
        imgCallRecord call{buffer.get(), &image.imageInfo, &record, nullptr};
        return imgLoadHeader(&call);
    };
    auto first = std::make_unique<ktExrHeaderData>();
    ASSERT_EQ(load(source, *first), 1);
    ASSERT_EQ(first->magic, ktExrHeaderMagic);
    ASSERT_EQ(first->count, 12u);

    Job<Depth16> job(32, 24);
    job.set(4, 4, 1000, 2000, 3000, 65535);
    std::memcpy(static_cast<void*>(job.metadata.get()), first.get(), sizeof(ktExrHeaderData));
    job.settings.appName = "ktClient";
    std::strcpy(job.settings.clientName, "Client B");
    ASSERT_EQ(job.encode(), 1);
    const Bytes written = job.bytes();

    // OpenEXR sees every attribute with its own type and value.
    const ExrFile file = readBack(written);
    const Imf::Header& h = file.header;  // typedAttribute throws on a missing or retyped one
    EXPECT_EQ(file.text("KT/scenename"), "Scene \xC3\xA9t\xC3\xA9 12");
    EXPECT_EQ(file.text("KT/jobID"), "{ABCde}");
    EXPECT_EQ(file.text("notes"), std::string(1500, 'n'));
    EXPECT_EQ(file.text("KT/clientname"), "Client B");
    EXPECT_EQ(file.text("KT/application"), "-") << "the new stamp wins over the record";
    EXPECT_NE(file.text("KT/dateWritten"), "01.01.2000 00:00:00");
    EXPECT_EQ(h.typedAttribute<Imf::M44fAttribute>("camera.matrix").value(), matrix);
    EXPECT_EQ(h.typedAttribute<Imf::FloatVectorAttribute>("weights").value().size(), 5u);
    EXPECT_EQ(h.typedAttribute<Imf::V3fAttribute>("position").value(), Imath::V3f(0.25f, 8.0f, -16.5f));

    // And loading the new file gives back every entry of the first record.
    auto second = std::make_unique<ktExrHeaderData>();
    ASSERT_EQ(load(written, *second), 1);
    for (std::uint32_t i = 0; i < first->count; ++i) {
        const ktExrHeaderEntry& a = first->entries[i];
        const std::string name(a.name.text, a.name.length);
        if (name == "KT/dateWritten" || name == "KT/application") continue;  // replaced by the new stamps
        SCOPED_TRACE(name);
        const ktExrHeaderEntry* b = nullptr;
        for (std::uint32_t k = 0; k < second->count; ++k)
            if (std::string(second->entries[k].name.text, second->entries[k].name.length) == name) b = &second->entries[k];
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->type, a.type);
        switch (a.type) {
            case ktExrAttrType::String:
                EXPECT_EQ(std::string(b->text.text, b->text.length), std::string(a.text.text, a.text.length));
                break;
            case ktExrAttrType::Int: EXPECT_EQ(b->values[0].i, a.values[0].i); break;
            case ktExrAttrType::FloatVector:
                EXPECT_EQ(b->valueCount, a.valueCount);
                for (int k = 0; k < a.valueCount; ++k) EXPECT_EQ(b->values[k].f, a.values[k].f) << k;
                break;
            default: {
                const int n = a.type == ktExrAttrType::M44f ? 16 : a.type == ktExrAttrType::V3f ? 3 : a.type == ktExrAttrType::V2f ? 2 : 1;
                for (int k = 0; k < n; ++k) EXPECT_EQ(b->values[k].f, a.values[k].f) << k;
            }
        }
    }
}

}  // namespace
