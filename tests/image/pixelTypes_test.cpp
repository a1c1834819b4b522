#include "image/pixelTypes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// v with its four bytes in the other order.
float reversed(float v)
{
    unsigned char bytes[4];
    std::memcpy(bytes, &v, 4);
    std::swap(bytes[0], bytes[3]);
    std::swap(bytes[1], bytes[2]);
    std::memcpy(&v, bytes, 4);
    return v;
}

template <class P, unsigned Top>
struct Depth {
    using Pixel = P;
    static constexpr unsigned top = Top;
};

template <typename D>
class PixelTypes : public ::testing::Test {};
using Depths = ::testing::Types<Depth<_Rgba8, 255>, Depth<_Rgba16, 65535>>;
TYPED_TEST_SUITE(PixelTypes, Depths);

// The channel rule, worked out by hand: 0 and below, and NaN, give 0; 1 and
// above give the top value; in between the single-precision product, truncated.
// The swapped forms read a float stored in the other byte order.
TYPED_TEST(PixelTypes, EachChannelSetterFollowsTheRuleAndTouchesOnlyItsChannel)
{
    const struct { float in; unsigned out8, out16; } cases[] = {
        {0.0f, 0, 0},           {-0.1f, 0, 0},          {-kInf, 0, 0},           {kNaN, 0, 0},
        {1.0f / 512, 0, 127},   {1.0f / 255, 1, 257},   {0.5f, 127, 32767},      {0.999f, 254, 65469},
        {0.99999994f, 254, 65534},  // the largest float below 1
        {1.0f, 255, 65535},     {7.3f, 255, 65535},     {kInf, 255, 65535},
    };
    for (const auto& c : cases) {
        const unsigned want = TypeParam::top == 255 ? c.out8 : c.out16;
        typename TypeParam::Pixel p{11, 22, 33, 44}, q{11, 22, 33, 44};
        p.fromFloatR(c.in);
        EXPECT_TRUE(p.r == want && p.g == 22 && p.b == 33 && p.a == 44) << c.in;
        p.fromFloatG(c.in);
        EXPECT_TRUE(p.r == want && p.g == want && p.b == 33 && p.a == 44) << c.in;
        p.fromFloatB(c.in);
        p.fromFloatA(c.in);
        EXPECT_TRUE(p.b == want && p.a == want) << c.in;
        q.fromFloatR(reversed(c.in), true);
        q.fromFloatG(reversed(c.in), true);
        q.fromFloatB(c.in, false);
        q.fromFloatA(reversed(c.in), true);
        EXPECT_EQ(std::memcmp(&p, &q, sizeof p), 0) << "swapped " << c.in;
    }
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
        {1.875f, 0.0f, 0.0f, 1.0f, true, {235, 0, 108, 255}, {60619, 0, 27852, 65535}},  // between two stops
        // An infinite channel has no place on the scale and shows black.
        {kInf, 0.0f, 0.0f, 1.0f, true, {0, 0, 0, 255}, {0, 0, 0, 65535}},
        // (m - 1.25) * 4 beyond the float range still has its remainder: 2^129 = 1 (mod 7), blue.
        {0x1p127f, 0.0f, 0.0f, 1.0f, true, {0, 0, 255, 255}, {0, 0, 65535, 65535}},
    };
    for (const auto& c : cases) {
        typename TypeParam::Pixel p{9, 9, 9, 9};
        p.fromFloatRGBA_sw(c.r, c.g, c.b, c.a, c.show);
        const auto want = [&](int i) { return TypeParam::top == 255 ? unsigned{c.out8[i]} : unsigned{c.out16[i]}; };
        EXPECT_TRUE(p.r == want(0) && p.g == want(1) && p.b == want(2) && p.a == want(3))
            << "(" << c.r << ", " << c.g << ", " << c.b << ") gives " << +p.r << " " << +p.g << " " << +p.b;
    }
}

// makeDark clamps its factor to 0..1; makeGrey does not clamp and keeps the
// low byte of what it computes; both keep alpha.
TEST(Rgba8, MakeDarkAndMakeGrey)
{
    const struct { bool dark; unsigned char grey; float factor; _Rgba8 out; } cases[] = {
        {true, 0, 0.5f, {100, 50, 25, 77}},     {true, 0, 2.0f, {200, 100, 51, 77}},  {true, 0, -1.0f, {0, 0, 0, 77}},
        {true, 0, kNaN, {200, 100, 51, 77}},    {true, 0, 0.65f, {130, 65, 33, 77}},
        {false, 128, 0.5f, {164, 114, 89, 77}}, {false, 128, 1.0f, {128, 128, 128, 77}},
        {false, 128, 2.0f, {56, 156, 205, 77}},  // -200, -100, -51, each + 256
        {false, 128, -1.0f, {16, 72, 230, 77}},  // 400 - 128 = 272 -> 16, 72, -26 -> 230
        {false, 255, kNaN, {0, 0, 0, 77}},      {false, 255, 1e30f, {0, 0, 0, 77}},  // nothing left in the low byte
    };
    for (const auto& c : cases) {
        _Rgba8 p{200, 100, 51, 77};
        c.dark ? p.makeDark(c.factor) : p.makeGrey(c.grey, c.factor);
        EXPECT_EQ(std::memcmp(&p, &c.out, 4), 0) << c.dark << " " << c.factor << ": " << +p.r << " " << +p.g;
    }
    _Rgba8 p{200, 0, 100, 1};
    p.makeGrey(p.r, 0.5f);  // toward its own red channel: the value before the change
    EXPECT_TRUE(p.r == 200 && p.g == 100 && p.b == 150 && p.a == 1);
}

// A NaN's payload and denormals come through bit for bit.
TEST(Rgbaf, SwapBytesReversesEachChannel)
{
    const unsigned char in[16] = {0x34, 0x12, 0xC0, 0x7F, 0x3F, 0x80, 0, 0, 1, 0, 0, 0x80, 0xD4, 0xC3, 0xB2, 0xA1};
    _Rgbaf q;
    std::memcpy(&q, in, 16);
    q.swapBytes();
    for (int i = 0; i < 16; ++i) EXPECT_EQ(reinterpret_cast<const unsigned char*>(&q)[i], in[i ^ 3]) << i;
}

}  // namespace
