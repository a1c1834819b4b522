#include "image/pixelTypes.h"

#include <algorithm>

const float swGradient[8][3] = {
    {1.0f, 1.0f, 1.0f},     // white
    {0.0f, 0.0f, 1.0f},     // blue
    {0.85f, 0.0f, 0.85f},   // magenta
    {1.0f, 0.0f, 0.0f},     // red
    {0.85f, 0.85f, 0.0f},   // yellow
    {0.0f, 1.0f, 0.0f},     // green
    {0.0f, 1.0f, 1.0f},     // cyan
    {1.0f, 1.0f, 1.0f},     // white again
};

namespace {

// Red, green and blue of an overbright colour (m, its brightest channel, is
// above 1), for either integer pixel type.
template <typename Pixel, typename Channel, unsigned Top>
void showSuperWhite(Pixel& pixel, float red, float green, float blue, float m)
{
    const auto rule = kt::pixel::channelFromFloat<Channel, Top>;
    if (m <= 1.25f) {
        // Fade toward white over the first quarter above 1.
        const float t = (m - 1.0f) * 4.0f;
        if (static_cast<int>(t) == 1) {
            pixel.r = pixel.g = pixel.b = rule(1.0f);
            return;
        }
        pixel.r = rule(red * (1.0f - t) + t);
        pixel.g = rule(green * (1.0f - t) + t);
        pixel.b = rule(blue * (1.0f - t) + t);
        return;
    }
    // Beyond, one stop of the scale per quarter, repeating every 1.75; the
    // pixel's own colour is not used.
    const float u = static_cast<float>(std::fmod((static_cast<double>(m) - 1.25) * 4.0, 7.0));
    if (std::isnan(u)) {
        // Only an infinite channel gets here; it has no place on the scale
        // and shows black, like a NaN channel.
        pixel.r = pixel.g = pixel.b = 0;
        return;
    }
    const int i = std::min(static_cast<int>(u), 6);
    const float f = u - static_cast<float>(i);
    float low = 1.0f - f;
    float high = f;
    if (f > 1.0f) {
        low = 0.0f;
        high = 1.0f;
    }
    const float* from = swGradient[i];
    const float* to = swGradient[i + 1];
    pixel.r = rule(low * from[0] + high * to[0]);
    pixel.g = rule(low * from[1] + high * to[1]);
    pixel.b = rule(low * from[2] + high * to[2]);
}

}  // namespace

void _Rgba8::fromSuperWhite(float red, float green, float blue, float m)
{
    showSuperWhite<_Rgba8, unsigned char, 255u>(*this, red, green, blue, m);
}

void _Rgba8::makeDark(float factor)
{
    if (std::isnan(factor)) return;
    factor = std::clamp(factor, 0.0f, 1.0f);
    // channel * factor stays within 0..255, so the conversions are exact truncations.
    r = static_cast<unsigned char>(static_cast<float>(r) * factor);
    g = static_cast<unsigned char>(static_cast<float>(g) * factor);
    b = static_cast<unsigned char>(static_cast<float>(b) * factor);
}

void _Rgba8::makeGrey(const unsigned char& grey, const float& amount)
{
    const float keep = 1.0f - amount;
    const float toward = static_cast<float>(grey) * amount;
    r = kt::pixel::lowByteOfTruncation(static_cast<float>(r) * keep + toward);
    g = kt::pixel::lowByteOfTruncation(static_cast<float>(g) * keep + toward);
    b = kt::pixel::lowByteOfTruncation(static_cast<float>(b) * keep + toward);
}

void _Rgba16::fromSuperWhite(float red, float green, float blue, float m)
{
    showSuperWhite<_Rgba16, unsigned short, 65535u>(*this, red, green, blue, m);
}

void _Rgbaf::swapBytes()
{
    r = kt::pixel::swappedFloat(r);
    g = kt::pixel::swappedFloat(g);
    b = kt::pixel::swappedFloat(b);
    a = kt::pixel::swappedFloat(a);
}
