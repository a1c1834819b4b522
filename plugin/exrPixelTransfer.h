// The decoders' last step: the planes of the four chosen channels placed
// into the host's RGBA buffer relative to the display window, with the
// gamma curve and the conversion to the buffer's pixel type. Rows are shared
// between the calling thread and OpenEXR's pool; half channels go through
// lookup tables built with the same conversion as pixel by pixel.
#pragma once

#include <cstdint>

#include "image/rgbaBuffer.h"
#include "plugin/exrDecoder.h"

namespace kt {

enum ExrRole : int { kRed, kGreen, kBlue, kAlpha, kRoleCount };

// What the transfer reads: the slot of each role (a slot without a plane
// reads 0), the data window's size and where its top-left pixel lands in the
// buffer, and the gamma setting.
struct ExrPlanesToPlace {
    const _singleChannel* source[kRoleCount] = {};
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t columnShift = 0;  // buffer column of data column 0
    std::int64_t rowShift = 0;     // buffer row of data row 0
    bool gamma = false;
    float gammaValue = 1.0f;
};

// Fills the whole buffer: converted pixels where the data lands, zeros
// everywhere else (the capacity beyond the image included). `threads`
// pool tasks may help. Buffers whose size fields disagree with their
// capacity are filled pixel by pixel through their own bounds-checked write.
void exrPlacePixels(ktP::_imgRGBABuffer8& out, const ExrPlanesToPlace& planes, int threads);
void exrPlacePixels(ktP::_imgRGBABuffer16& out, const ExrPlanesToPlace& planes, int threads);
void exrPlacePixels(ktP::_imgRGBABufferf& out, const ExrPlanesToPlace& planes, int threads);

// Sets the whole pixel memory to zero bytes.
void exrClearPixels(ktP::_imgRGBABuffer_all& out);

}  // namespace kt
