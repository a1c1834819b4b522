#include "pfmFile.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace ktexr {

std::vector<unsigned char> encodePfm(unsigned width, unsigned height, int channels, const float* pixels,
                                     std::size_t stride, std::size_t first, std::size_t rowStride)
{
    if (channels != 1 && channels != 3) throw std::invalid_argument("a PFM holds 1 or 3 channels");
    const unsigned short probe = 1;
    unsigned char lowFirst;
    std::memcpy(&lowFirst, &probe, 1);
    // A negative scale marks little-endian data.
    char head[96];
    int headLength = std::snprintf(head, sizeof head, "%s\n%u %u\n%s\n", channels == 3 ? "PF" : "Pf", width, height,
                                   lowFirst ? "-1.0" : "1.0");

    const std::size_t rowBytes = std::size_t{width} * static_cast<std::size_t>(channels) * sizeof(float);
    std::vector<unsigned char> out(static_cast<std::size_t>(headLength) + rowBytes * height);
    std::memcpy(out.data(), head, static_cast<std::size_t>(headLength));
    unsigned char* at = out.data() + headLength;
    std::vector<float> row(std::size_t{width} * static_cast<std::size_t>(channels));
    for (unsigned y = height; y-- > 0;) {
        const float* source = pixels + rowStride * y;
        for (unsigned x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c)
                row[std::size_t{x} * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)] =
                    source[stride * x + first + static_cast<std::size_t>(c)];
        std::memcpy(at, row.data(), rowBytes);
        at += rowBytes;
    }
    return out;
}

}  // namespace ktexr
