// Writing RGBA buffers as EXR files: the pieces behind imgEncode8,
// imgEncode16 and imgEncodef (declared with the other exports in
// plugin/ktImageExr.h).
//
// An encode crops the buffer to its occupied region plus a margin of three
// pixels, writes that region as half-float R, G, B, A with single-scan-line
// ZIP compression into the call's file buffer, and carries the host's render
// metadata into the header. Nothing here keeps state between calls; the only
// statics are the constant conversion tables of the 8-bit and 16-bit depths.
#pragma once

#include <OpenEXR/ImfRgba.h>

#include "image/rgbaBuffer.h"

namespace kt::exr {

// Inclusive pixel coordinates; the file's data window.
struct CropBox {
    int minX;
    int minY;
    int maxX;
    int maxY;
};

// The bounding box of the buffer's occupied pixels (a pixel is empty when all
// four channel values are zero; in the float buffer when each compares equal
// to 0.0, so -0.0 is empty and NaN occupied). False, and `box` untouched,
// when nothing is occupied. The buffer must hold width x height pixels.
bool findOccupiedBox(const ktP::_imgRGBABuffer8& image, CropBox& box);
bool findOccupiedBox(const ktP::_imgRGBABuffer16& image, CropBox& box);
bool findOccupiedBox(const ktP::_imgRGBABufferf& image, CropBox& box);

// Pixels of four channel values each into halves, as the encoders write
// them: 8-bit values divided by 255 and 16-bit values by 65535 in single
// precision, floats as they are, each then rounded to the nearest half (ties
// to even). toHalfPixels uses the processor's half conversion where there is
// one; toHalfPixelsPortable never does. Both give the same bits.
void toHalfPixels(const unsigned char* src, int pixels, Imf::Rgba* dst);
void toHalfPixels(const unsigned short* src, int pixels, Imf::Rgba* dst);
void toHalfPixels(const float* src, int pixels, Imf::Rgba* dst);
void toHalfPixelsPortable(const unsigned char* src, int pixels, Imf::Rgba* dst);
void toHalfPixelsPortable(const unsigned short* src, int pixels, Imf::Rgba* dst);
void toHalfPixelsPortable(const float* src, int pixels, Imf::Rgba* dst);

// Widens the box by up to three pixels on each side, never below 0 and never
// past width - 1 or height - 1; a maximum already past them stays where it is.
void addCropMargin(CropBox& box, int width, int height);

// How many scan lines one writePixels call hands to OpenEXR: enough to keep
// `threadCount` worker threads compressing, one when there are none, and a
// small bound so that the row store never grows with the image.
int rowsPerWrite(int threadCount);

}  // namespace kt::exr
