// One RGBA pixel in each precision of the pixel buffers: _Rgba8, _Rgba16
// and _Rgbaf.
//
// Plain records with no virtual functions, stored back to back by the
// buffers and shared with hosts built separately, so the layout is fixed.
// The integer pixels convert from float channels: values at or below 0 and
// NaN give 0, values at or above 1 give the top value, the rest is the
// single-precision product with the top value, truncated (0.999 -> 254).
// fromFloatRGBA_sw can show colours brighter than white in false colour.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

// The per-pixel operations are inline for this library's decoders, and still
// emitted where the header is used so that the library exports them too.
#define KT_INLINE_EXPORT inline __attribute__((used))

// The false-colour scale of overbright values: eight stops of red, green and
// blue (white, blue, magenta, red, yellow, green, cyan, white).
extern const float swGradient[8][3];

namespace kt {
namespace pixel {

// The channel rule. The order of the tests keeps NaN, infinities and
// anything out of range away from the float-to-integer conversion.
template <typename Channel, unsigned Top>
inline Channel channelFromFloat(float v)
{
    if (v <= 0.0f) return 0;
    if (std::isnan(v)) return 0;
    if (v >= 1.0f) return static_cast<Channel>(Top);
    return static_cast<Channel>(v * static_cast<float>(Top));
}

// The float whose bit pattern is v's with its four bytes reversed.
inline float swappedFloat(float v)
{
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    bits = __builtin_bswap32(bits);
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

// The low byte of v truncated toward zero. A value no 64-bit integer holds
// (NaN, infinities, beyond +-2^63) gives 0, as the processor's own
// truncating conversion would leave there.
inline unsigned char lowByteOfTruncation(float v)
{
    if (!(v > -0x1p63f && v < 0x1p63f)) return 0;
    return static_cast<unsigned char>(static_cast<std::uint64_t>(static_cast<std::int64_t>(v)) & 0xFFu);
}

// The largest of three channels, NaN left out; 0 when all three are NaN.
inline float brightest(float r, float g, float b)
{
    float m = 0.0f;
    bool found = false;
    for (float v : {r, g, b}) {
        if (std::isnan(v)) continue;
        if (!found || v > m) m = v;
        found = true;
    }
    return m;
}

}  // namespace pixel
}  // namespace kt

// An 8-bit pixel; read as a little-endian 32-bit word, red is the low byte.
struct _Rgba8 {
    unsigned char r;
    unsigned char g;
    unsigned char b;
    unsigned char a;

    KT_INLINE_EXPORT void fromFloatR(const float& v) { r = channel(v); }
    KT_INLINE_EXPORT void fromFloatG(const float& v) { g = channel(v); }
    KT_INLINE_EXPORT void fromFloatB(const float& v) { b = channel(v); }
    KT_INLINE_EXPORT void fromFloatA(const float& v) { a = channel(v); }

    // The same from a float stored in the other byte order when swapped is set.
    KT_INLINE_EXPORT void fromFloatR(float v, const bool& swapped) { r = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatG(float v, const bool& swapped) { g = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatB(float v, const bool& swapped) { b = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatA(float v, const bool& swapped) { a = channel(swapped ? kt::pixel::swappedFloat(v) : v); }

    // All four channels. With showSuperWhite, a colour whose brightest
    // channel exceeds 1 fades to white up to 1.25 and then runs through the
    // false-colour scale, one stop per quarter, repeating every 1.75.
    KT_INLINE_EXPORT void fromFloatRGBA_sw(const float& red, const float& green, const float& blue, const float& alpha,
                                           const bool& showSuperWhite)
    {
        a = channel(alpha);
        if (showSuperWhite) {
            const float m = kt::pixel::brightest(red, green, blue);
            if (m > 1.0f) {
                fromSuperWhite(red, green, blue, m);
                return;
            }
        }
        r = channel(red);
        g = channel(green);
        b = channel(blue);
    }

    // Red, green and blue become trunc(channel * factor), factor clamped to
    // 0..1; alpha is kept. A NaN factor leaves the colour as it is.
    void makeDark(float factor);

    // Red, green and blue move toward grey: trunc(channel * (1 - amount) +
    // grey * amount) in single precision, amount not clamped; a result
    // outside 0..255 keeps its low byte. Alpha is kept.
    void makeGrey(const unsigned char& grey, const float& amount);

private:
    static unsigned char channel(float v) { return kt::pixel::channelFromFloat<unsigned char, 255u>(v); }

    // The overbright part of fromFloatRGBA_sw; m is the brightest channel, above 1.
    void fromSuperWhite(float red, float green, float blue, float m);
};

// A 16-bit pixel with the same conversions, 65535 for white.
struct _Rgba16 {
    unsigned short r;
    unsigned short g;
    unsigned short b;
    unsigned short a;

    KT_INLINE_EXPORT void fromFloatR(const float& v) { r = channel(v); }
    KT_INLINE_EXPORT void fromFloatG(const float& v) { g = channel(v); }
    KT_INLINE_EXPORT void fromFloatB(const float& v) { b = channel(v); }
    KT_INLINE_EXPORT void fromFloatA(const float& v) { a = channel(v); }

    KT_INLINE_EXPORT void fromFloatR(float v, const bool& swapped) { r = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatG(float v, const bool& swapped) { g = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatB(float v, const bool& swapped) { b = channel(swapped ? kt::pixel::swappedFloat(v) : v); }
    KT_INLINE_EXPORT void fromFloatA(float v, const bool& swapped) { a = channel(swapped ? kt::pixel::swappedFloat(v) : v); }

    KT_INLINE_EXPORT void fromFloatRGBA_sw(const float& red, const float& green, const float& blue, const float& alpha,
                                           const bool& showSuperWhite)
    {
        a = channel(alpha);
        if (showSuperWhite) {
            const float m = kt::pixel::brightest(red, green, blue);
            if (m > 1.0f) {
                fromSuperWhite(red, green, blue, m);
                return;
            }
        }
        r = channel(red);
        g = channel(green);
        b = channel(blue);
    }

private:
    static unsigned short channel(float v) { return kt::pixel::channelFromFloat<unsigned short, 65535u>(v); }

    void fromSuperWhite(float red, float green, float blue, float m);
};

// A float pixel, as the float buffers and EXR files hold it.
struct _Rgbaf {
    float r;
    float g;
    float b;
    float a;

    // Reverses the four bytes of each channel in place: from one byte order to the other.
    void swapBytes();
};

static_assert(offsetof(_Rgba8, r) == 0 && offsetof(_Rgba8, g) == 1 && offsetof(_Rgba8, b) == 2 &&
              offsetof(_Rgba8, a) == 3);
static_assert(sizeof(_Rgba8) == 4);
static_assert(offsetof(_Rgba16, r) == 0 && offsetof(_Rgba16, g) == 2 && offsetof(_Rgba16, b) == 4 &&
              offsetof(_Rgba16, a) == 6);
static_assert(sizeof(_Rgba16) == 8);
static_assert(offsetof(_Rgbaf, r) == 0 && offsetof(_Rgbaf, g) == 4 && offsetof(_Rgbaf, b) == 8 &&
              offsetof(_Rgbaf, a) == 12);
static_assert(sizeof(_Rgbaf) == 16);
