#include "image/pixelTypes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

float fromBits(std::uint32_t bits)
{
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

std::uint32_t bitsOf(float v)
{
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

// Per-depth expectations, worked out by hand from the truncated product.
struct Depth8 {
    using Pixel = _Rgba8;
    static constexpr unsigned top = 255;
};
struct Depth16 {
    using Pixel = _Rgba16;
    static constexpr unsigned top = 65535;
};

struct ChannelCase {
    float in;
    unsigned out8;
    unsigned out16;
};

const ChannelCase kChannelCases[] = {
    {0.0f, 0, 0},
    {-0.0f, 0, 0},
    {-0.1f, 0, 0},
    {-kInf, 0, 0},
    {kNaN, 0, 0},
    {-kNaN, 0, 0},
    {1e-45f, 0, 0},                // smallest denormal
    {1e-30f, 0, 0},
    {1.0f / 512.0f, 0, 127},
    {1.0f / 255.0f, 1, 257},
    {0.1f, 25, 6553},
    {0.25f, 63, 16383},
    {0.5f, 127, 32767},
    {0.75f, 191, 49151},
    {0.999f, 254, 65469},          // truncated, not rounded
    {0.99999994f, 254, 65534},     // largest float below 1
    {1.0f, 255, 65535},
    {1.0000001f, 255, 65535},
    {7.3f, 255, 65535},
    {std::numeric_limits<float>::max(), 255, 65535},
    {kInf, 255, 65535},
};

template <typename D>
unsigned expected(const ChannelCase& c)
{
    return D::top == 255 ? c.out8 : c.out16;
}

template <typename D>
class PixelChannelRule : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16>;
TYPED_TEST_SUITE(PixelChannelRule, Depths);

TYPED_TEST(PixelChannelRule, EachChannelSetterFollowsTheRuleAndTouchesOnlyItsChannel)
{
    using Pixel = typename TypeParam::Pixel;
    for (const auto& c : kChannelCases) {
        SCOPED_TRACE(::testing::Message() << "v = " << c.in);
        const unsigned want = expected<TypeParam>(c);
        Pixel p{11, 22, 33, 44};
        p.fromFloatR(c.in);
        EXPECT_EQ(p.r, want);
        EXPECT_EQ(p.g, 22u);
        p.fromFloatG(c.in);
        EXPECT_EQ(p.g, want);
        EXPECT_EQ(p.b, 33u);
        p.fromFloatB(c.in);
        EXPECT_EQ(p.b, want);
        EXPECT_EQ(p.a, 44u);
        p.fromFloatA(c.in);
        EXPECT_EQ(p.a, want);
        EXPECT_EQ(p.r, want);
    }
}

TYPED_TEST(PixelChannelRule, SwappedFormReadsTheOtherByteOrder)
{
    using Pixel = typename TypeParam::Pixel;
    const float reversedOne = fromBits(0x0000803Fu);    // 1.0f = 3F 80 00 00
    const float reversedHalf = fromBits(0x0000003Fu);   // 0.5f = 3F 00 00 00
    Pixel p{1, 2, 3, 4};
    p.fromFloatA(reversedOne, true);
    EXPECT_EQ(p.a, TypeParam::top);
    p.fromFloatR(reversedHalf, true);
    EXPECT_EQ(p.r, TypeParam::top / 2);
    p.fromFloatG(reversedOne, true);
    EXPECT_EQ(p.g, TypeParam::top);
    p.fromFloatB(reversedHalf, true);
    EXPECT_EQ(p.b, TypeParam::top / 2);
    // Unswapped, the same patterns are tiny denormals.
    p.fromFloatA(reversedOne, false);
    p.fromFloatR(reversedHalf, false);
    p.fromFloatG(reversedOne, false);
    p.fromFloatB(reversedHalf, false);
    EXPECT_EQ(p.r + p.g + p.b + p.a, 0u);
    // 0.75f = 3F 40 00 00 stored the other way round.
    p.fromFloatG(fromBits(0x0000403Fu), true);
    EXPECT_EQ(p.g, TypeParam::top == 255 ? 191u : 49151u);
}

// Over a spread of floats in (0, 1): never above the product, never a whole
// step below it, and never decreasing.
TYPED_TEST(PixelChannelRule, TruncatesMonotonicallyAcrossTheUnitRange)
{
    using Pixel = typename TypeParam::Pixel;
    const std::uint32_t oneBits = 0x3F800000u;
    unsigned previous = 0;
    for (std::uint32_t bits = 1; bits < oneBits; bits += 4099) {
        const float v = fromBits(bits);
        Pixel p{};
        p.fromFloatR(v);
        const double exact = static_cast<double>(v) * TypeParam::top;
        const double halfUlp = exact * 0x1p-24;   // the single-precision product's own rounding
        ASSERT_LE(p.r, TypeParam::top - 1) << v;
        ASSERT_LE(static_cast<double>(p.r), exact + halfUlp) << v;
        ASSERT_GT(static_cast<double>(p.r) + 1.0, exact - halfUlp) << v;
        ASSERT_GE(p.r, previous) << v;
        previous = p.r;
    }
}

struct SuperWhiteCase {
    float r, g, b, a;
    bool show;
    unsigned char out8[4];
    unsigned short out16[4];
};

const SuperWhiteCase kSuperWhiteCases[] = {
    // Not overbright, or not asked: the channel rule alone.
    {0.5f, 2.0f, 0.0f, 1.0f, false, {127, 255, 0, 255}, {32767, 65535, 0, 65535}},
    {1.0f, 0.5f, 0.25f, 0.5f, true, {255, 127, 63, 127}, {65535, 32767, 16383, 32767}},
    {-1.0f, -2.0f, -3.0f, 7.0f, true, {0, 0, 0, 255}, {0, 0, 0, 65535}},
    {kNaN, kNaN, kNaN, kNaN, true, {0, 0, 0, 0}, {0, 0, 0, 0}},
    {kInf, 0.0f, 0.0f, 1.0f, false, {255, 0, 0, 255}, {65535, 0, 0, 65535}},
    // Fade to white between 1 and 1.25.
    {0.5f, 0.5f, 1.125f, 1.0f, true, {191, 191, 255, 255}, {49151, 49151, 65535, 65535}},
    {0.0f, 0.5f, 1.0625f, 0.0f, true, {63, 159, 255, 0}, {16383, 40959, 65535, 0}},
    {kNaN, 0.5f, 1.0625f, 1.0f, true, {0, 159, 255, 255}, {0, 40959, 65535, 65535}},
    {0.0f, kNaN, 1.25f, 1.0f, true, {255, 255, 255, 255}, {65535, 65535, 65535, 65535}},
    // The stops of the scale; the pixel's own colour does not matter.
    {1.5f, 0.2f, 0.9f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
    {0.0f, 1.75f, 0.0f, 1.0f, true, {216, 0, 216, 255}, {55704, 0, 55704, 65535}},
    {0.5f, 2.0f, 0.0f, 1.0f, true, {255, 0, 0, 255}, {65535, 0, 0, 65535}},
    {0.0f, 0.0f, 2.25f, 1.0f, true, {216, 216, 0, 255}, {55704, 55704, 0, 65535}},
    {2.5f, 2.5f, 2.5f, 1.0f, true, {0, 255, 0, 255}, {0, 65535, 0, 65535}},
    {2.75f, kNaN, 0.0f, 1.0f, true, {0, 255, 255, 255}, {0, 65535, 65535, 65535}},
    {3.0f, 0.0f, 0.0f, 0.25f, true, {255, 255, 255, 63}, {65535, 65535, 65535, 16383}},
    // The scale repeats every 1.75.
    {3.25f, 0.0f, 0.0f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
    {0.0f, 4.75f, 0.0f, 1.0f, true, {255, 255, 255, 255}, {65535, 65535, 65535, 65535}},
    {0.0f, 0.0f, 5.75f, 1.0f, true, {216, 216, 0, 255}, {55704, 55704, 0, 65535}},
    // Halfway between stops.
    {1.375f, 0.0f, 0.0f, 1.0f, true, {127, 127, 255, 255}, {32767, 32767, 65535, 65535}},
    {1.3125f, 0.0f, 0.0f, 1.0f, true, {191, 191, 255, 255}, {49151, 49151, 65535, 65535}},
    {1.875f, 0.0f, 0.0f, 1.0f, true, {235, 0, 108, 255}, {60619, 0, 27852, 65535}},
    {2.125f, 0.0f, 0.0f, 1.0f, true, {235, 108, 0, 255}, {60619, 27852, 0, 65535}},
    {2.875f, 0.0f, 0.0f, 1.0f, true, {127, 255, 255, 255}, {32767, 65535, 65535, 65535}},
    // An infinite channel has no place on the scale and shows black.
    {kInf, 0.0f, 0.0f, 1.0f, true, {0, 0, 0, 255}, {0, 0, 0, 65535}},
    // (m - 1.25) * 4 beyond the float range still has its remainder: 2^129 = 1 (mod 7), blue.
    {0x1p127f, 0.0f, 0.0f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
};

template <typename D>
class PixelSuperWhite : public ::testing::Test {};
TYPED_TEST_SUITE(PixelSuperWhite, Depths);

TYPED_TEST(PixelSuperWhite, MatchesHandWorkedPixels)
{
    using Pixel = typename TypeParam::Pixel;
    for (const auto& c : kSuperWhiteCases) {
        SCOPED_TRACE(::testing::Message() << "(" << c.r << ", " << c.g << ", " << c.b << ", " << c.a
                                          << ") show=" << c.show);
        Pixel p{9, 9, 9, 9};
        p.fromFloatRGBA_sw(c.r, c.g, c.b, c.a, c.show);
        const auto want = [&](int i) {
            return TypeParam::top == 255 ? unsigned{c.out8[i]} : unsigned{c.out16[i]};
        };
        EXPECT_EQ(p.r, want(0));
        EXPECT_EQ(p.g, want(1));
        EXPECT_EQ(p.b, want(2));
        EXPECT_EQ(p.a, want(3));
    }
}

TEST(Rgba8, MakeDarkClampsTheFactorAndKeepsAlpha)
{
    struct Case {
        float factor;
        _Rgba8 out;
    } const cases[] = {
        {0.5f, {100, 50, 25, 77}},  {2.0f, {200, 100, 51, 77}}, {1.0f, {200, 100, 51, 77}},
        {0.0f, {0, 0, 0, 77}},      {-1.0f, {0, 0, 0, 77}},     {-kInf, {0, 0, 0, 77}},
        {kInf, {200, 100, 51, 77}}, {kNaN, {200, 100, 51, 77}}, {0.65f, {130, 65, 33, 77}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.factor);
        _Rgba8 p{200, 100, 51, 77};
        p.makeDark(c.factor);
        EXPECT_EQ(std::memcmp(&p, &c.out, 4), 0)
            << int(p.r) << "," << int(p.g) << "," << int(p.b) << "," << int(p.a);
    }
}

TEST(Rgba8, MakeGreyBlendsUnclampedAndKeepsTheLowByte)
{
    struct Case {
        unsigned char grey;
        float amount;
        _Rgba8 out;
    } const cases[] = {
        {128, 0.5f, {114, 164, 64, 9}},
        {128, 0.0f, {100, 200, 0, 9}},
        {128, 1.0f, {128, 128, 128, 9}},
        {0, 0.25f, {75, 150, 0, 9}},
        {128, 2.0f, {156, 56, 0, 9}},    // -100 + 256, -200 + 256, 256 -> low byte 0
        {128, -1.0f, {72, 16, 128, 9}},  // 200 - 128, 400 - 128 = 272, -128 -> 0x80
        {255, kNaN, {0, 0, 0, 9}},
        {255, 1e30f, {0, 0, 0, 9}},      // far beyond any integer: nothing left in the low byte
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.grey) << " " << c.amount);
        _Rgba8 p{100, 200, 0, 9};
        p.makeGrey(c.grey, c.amount);
        EXPECT_EQ(std::memcmp(&p, &c.out, 4), 0)
            << int(p.r) << "," << int(p.g) << "," << int(p.b) << "," << int(p.a);
    }
}

TEST(Rgba8, MakeGreyTowardItsOwnChannelUsesTheValueBeforeTheChange)
{
    _Rgba8 p{200, 0, 100, 1};
    p.makeGrey(p.r, 0.5f);
    EXPECT_EQ(p.r, 200);
    EXPECT_EQ(p.g, 100);
    EXPECT_EQ(p.b, 150);
}

TEST(Rgbaf, SwapBytesReversesEachChannel)
{
    _Rgbaf p{1.0f, -2.0f, 0.5f, 0.0f};
    p.swapBytes();
    EXPECT_EQ(bitsOf(p.r), 0x0000803Fu);
    EXPECT_EQ(bitsOf(p.g), 0x000000C0u);
    EXPECT_EQ(bitsOf(p.b), 0x0000003Fu);
    EXPECT_EQ(bitsOf(p.a), 0x00000000u);

    _Rgbaf q{fromBits(0x7FC01234u), fromBits(0x12345678u), fromBits(0x80000001u), fromBits(0xA1B2C3D4u)};
    q.swapBytes();
    EXPECT_EQ(bitsOf(q.r), 0x3412C07Fu);
    EXPECT_EQ(bitsOf(q.g), 0x78563412u);
    EXPECT_EQ(bitsOf(q.b), 0x01000080u);
    EXPECT_EQ(bitsOf(q.a), 0xD4C3B2A1u);
    q.swapBytes();
    EXPECT_EQ(bitsOf(q.r), 0x7FC01234u);
    EXPECT_EQ(bitsOf(q.a), 0xA1B2C3D4u);
}

}  // namespace
