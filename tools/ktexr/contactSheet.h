// Contact sheets: small previews of many frames in one PNG.
#pragma once

#include <string>
#include <vector>

namespace ktexr {

struct ContactOptions {
    std::vector<std::string> files;  // paths and sequence patterns
    std::string frames;
    std::string output;
    int columns = 8;
    int size = 192;                  // thumbnail width in pixels
    float exposure = 0.0f;           // stops
    std::string curve = "srgb";      // "srgb", "gamma" (1/2.2) or "linear"
    unsigned jobs = 0;
    bool quiet = false;
};
int runContact(const ContactOptions& options);

// A linear value as shown: scaled by 2^exposure, clamped to 0..1 (NaN and
// negatives black), then the sRGB transfer curve, a 1/2.2 gamma, or nothing.
float displayValue(float linear, float exposureStops, const std::string& curve);

// A frame's colour shrunk to `width` pixels across (its display window's
// aspect kept), each pixel the average of its cell (zero outside the data
// window, non-finite samples as zero). Throws what OpenEXR throws.
struct Thumbnail {
    int width = 0;
    int height = 0;
    std::vector<double> rgb;  // linear, three per pixel
};
Thumbnail makeThumbnail(const std::string& path, int width);

}  // namespace ktexr
