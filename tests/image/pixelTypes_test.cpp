#include "image/pixelTypes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>

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

struct Depth8 {
    using Pixel = _Rgba8;
    static constexpr unsigned top = 255;
};
struct Depth16 {
    using Pixel = _Rgba16;
    static constexpr unsigned top = 65535;
};

template <typename D>
class PixelTypes : public ::testing::Test {};
using Depths = ::testing::Types<Depth8, Depth16>;
TYPED_TEST_SUITE(PixelTypes, Depths);

// The channel rule, worked out by hand: 0 and below, and NaN, give 0; 1 and
// above give the top value; in between the single-precision product, truncated.
TYPED_TEST(PixelTypes, EachChannelSetterFollowsTheRuleAndTouchesOnlyItsChannel)
{
    const struct { float in; unsigned out8, out16; } cases[] = {
        {0.0f, 0, 0},        {-0.1f, 0, 0},   {-kInf, 0, 0},        {kNaN, 0, 0},
        {1.0f / 512, 0, 127}, {1.0f / 255, 1, 257}, {0.5f, 127, 32767}, {0.999f, 254, 65469},
        {0.99999994f, 254, 65534},  // the largest float below 1
        {1.0f, 255, 65535},  {7.3f, 255, 65535}, {kInf, 255, 65535},
    };
    using Pixel = typename TypeParam::Pixel;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "v = " << c.in);
        const unsigned want = TypeParam::top == 255 ? c.out8 : c.out16;
        Pixel p{11, 22, 33, 44};
        p.fromFloatR(c.in);
        EXPECT_TRUE(p.r == want && p.g == 22 && p.b == 33 && p.a == 44);
        p.fromFloatG(c.in);
        EXPECT_TRUE(p.r == want && p.g == want && p.b == 33 && p.a == 44);
        p.fromFloatB(c.in);
        EXPECT_TRUE(p.r == want && p.g == want && p.b == want && p.a == 44);
        p.fromFloatA(c.in);
        EXPECT_EQ(p.a, want);
    }
}

// The swapped forms read a float stored in the other byte order.
TYPED_TEST(PixelTypes, SwappedFormReadsTheOtherByteOrder)
{
    const float reversedOne = fromBits(0x0000803Fu);   // 1.0f = 3F 80 00 00
    const float reversedHalf = fromBits(0x0000003Fu);  // 0.5f = 3F 00 00 00
    typename TypeParam::Pixel p{1, 2, 3, 4};
    p.fromFloatR(reversedHalf, true);
    p.fromFloatG(reversedOne, true);
    p.fromFloatB(reversedHalf, true);
    p.fromFloatA(reversedOne, true);
    EXPECT_TRUE(p.r == TypeParam::top / 2 && p.g == TypeParam::top && p.b == TypeParam::top / 2 && p.a == TypeParam::top);
    p.fromFloatR(reversedHalf, false);  // unswapped, the same patterns are tiny denormals
    p.fromFloatG(reversedOne, false);
    p.fromFloatB(reversedHalf, false);
    p.fromFloatA(reversedOne, false);
    EXPECT_EQ(p.r + p.g + p.b + p.a, 0u);
}

// Overbright colours, when asked for, fade to white up to 1.25 and then run
// through the false-colour scale, one stop per quarter, repeating every 1.75.
TYPED_TEST(PixelTypes, SuperWhiteMatchesHandWorkedPixels)
{
    const struct { float r, g, b, a; bool show; unsigned char out8[4]; unsigned short out16[4]; } cases[] = {
        // Not overbright, or not asked: the channel rule alone.
        {0.5f, 2.0f, 0.0f, 1.0f, false, {127, 255, 0, 255}, {32767, 65535, 0, 65535}},
        {1.0f, 0.5f, 0.25f, 0.5f, true, {255, 127, 63, 127}, {65535, 32767, 16383, 32767}},
        {kNaN, kNaN, kNaN, kNaN, true, {0, 0, 0, 0}, {0, 0, 0, 0}},
        // Fade to white between 1 and 1.25; a NaN channel is left out of the brightest.
        {0.5f, 0.5f, 1.125f, 1.0f, true, {191, 191, 255, 255}, {49151, 49151, 65535, 65535}},
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
        {3.25f, 0.0f, 0.0f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
        {0.0f, 4.75f, 0.0f, 1.0f, true, {255, 255, 255, 255}, {65535, 65535, 65535, 65535}},
        // Halfway between stops.
        {1.375f, 0.0f, 0.0f, 1.0f, true, {127, 127, 255, 255}, {32767, 32767, 65535, 65535}},
        {1.875f, 0.0f, 0.0f, 1.0f, true, {235, 0, 108, 255}, {60619, 0, 27852, 65535}},
        // An infinite channel has no place on the scale and shows black.
        {kInf, 0.0f, 0.0f, 1.0f, true, {0, 0, 0, 255}, {0, 0, 0, 65535}},
        // (m - 1.25) * 4 beyond the float range still has its remainder: 2^129 = 1 (mod 7), blue.
        {0x1p127f, 0.0f, 0.0f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "(" << c.r << ", " << c.g << ", " << c.b << ", " << c.a << ") show=" << c.show);
        typename TypeParam::Pixel p{9, 9, 9, 9};
        p.fromFloatRGBA_sw(c.r, c.g, c.b, c.a, c.show);
        const auto want = [&](int i) { return TypeParam::top == 255 ? unsigned{c.out8[i]} : unsigned{c.out16[i]}; };
        EXPECT_TRUE(p.r == want(0) && p.g == want(1) && p.b == want(2) && p.a == want(3))
            << +p.r << " " << +p.g << " " << +p.b << " " << +p.a;
    }
}

// makeDark clamps its factor to 0..1; makeGrey does not clamp and keeps the
// low byte of what it computes; both keep alpha.
TEST(Rgba8, MakeDarkAndMakeGrey)
{
    const struct { bool dark; unsigned char grey; float factor; _Rgba8 out; } cases[] = {
        {true, 0, 0.5f, {100, 50, 25, 77}},   {true, 0, 2.0f, {200, 100, 51, 77}}, {true, 0, -1.0f, {0, 0, 0, 77}},
        {true, 0, kNaN, {200, 100, 51, 77}},  {true, 0, 0.65f, {130, 65, 33, 77}},
        {false, 128, 0.5f, {164, 114, 89, 77}},   {false, 128, 1.0f, {128, 128, 128, 77}},
        {false, 128, 2.0f, {56, 156, 205, 77}},   // -200, -100, -51, each + 256
        {false, 128, -1.0f, {16, 72, 230, 77}},   // 400 - 128 = 272 -> 16, 72, -26 -> 230
        {false, 255, kNaN, {0, 0, 0, 77}},        {false, 255, 1e30f, {0, 0, 0, 77}},  // nothing left in the low byte
    };
    for (const auto& c : cases) {
        _Rgba8 p{200, 100, 51, 77};
        c.dark ? p.makeDark(c.factor) : p.makeGrey(c.grey, c.factor);
        EXPECT_EQ(std::memcmp(&p, &c.out, 4), 0)
            << c.dark << " " << c.factor << ": " << int(p.r) << "," << int(p.g) << "," << int(p.b) << "," << int(p.a);
    }
    _Rgba8 p{200, 0, 100, 1};
    p.makeGrey(p.r, 0.5f);  // toward its own red channel: the value before the change
    EXPECT_TRUE(p.r == 200 && p.g == 100 && p.b == 150 && p.a == 1);
}

TEST(Rgbaf, SwapBytesReversesEachChannel)
{
    _Rgbaf q{fromBits(0x7FC01234u), fromBits(0x0000803Fu), fromBits(0x80000001u), fromBits(0xA1B2C3D4u)};
    q.swapBytes();
    EXPECT_EQ(bitsOf(q.r), 0x3412C07Fu);
    EXPECT_EQ(bitsOf(q.g), 0x3F800000u);
    EXPECT_EQ(bitsOf(q.b), 0x01000080u);
    EXPECT_EQ(bitsOf(q.a), 0xD4C3B2A1u);
}

}  // namespace
