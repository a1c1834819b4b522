// Where an EXR image lies: its display window (the frame) and data window
// (the pixels it holds). The plug-in reports only the display size, so the
// host reads these two from the header itself with OpenEXR, from the bytes
// already in memory.
#pragma once

#include <string>

#include "image/fileBuffer.h"

namespace ktexr {

// An inclusive pixel rectangle.
struct PixelBox {
    long long minX = 0;
    long long minY = 0;
    long long maxX = -1;
    long long maxY = -1;

    long long width() const { return maxX >= minX ? maxX - minX + 1 : 0; }
    long long height() const { return maxY >= minY ? maxY - minY + 1 : 0; }
    long long area() const { return width() * height(); }
    bool empty() const { return width() == 0 || height() == 0; }
    bool contains(const PixelBox& other) const
    {
        return other.minX >= minX && other.minY >= minY && other.maxX <= maxX && other.maxY <= maxY;
    }
    bool operator==(const PixelBox& o) const
    {
        return minX == o.minX && minY == o.minY && maxX == o.maxX && maxY == o.maxY;
    }
    bool operator!=(const PixelBox& o) const { return !(*this == o); }
    // "(x0, y0)-(x1, y1)"
    std::string text() const;
};

// The overlap of two boxes (empty when they do not meet).
PixelBox intersection(const PixelBox& a, const PixelBox& b);

struct ExrGeometry {
    PixelBox displayWindow;
    PixelBox dataWindow;
};

// The windows of the first part of the EXR file whose bytes (or whose head)
// lie in `buffer`. Throws a Failure (exitNotExr) naming `file` when OpenEXR
// cannot read the header from them.
ExrGeometry readGeometry(ktP::_imgFileBuffer& buffer, const std::string& file);

}  // namespace ktexr
