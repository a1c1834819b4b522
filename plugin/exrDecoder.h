// Decoding an EXR file from the host's file buffer into an RGBA buffer: the
// storage of the channels picked as red, green, blue and alpha, and the
// decoders' building blocks that tests reach directly. The exports
// themselves (imgDecode8, imgDecode16, imgDecodef) are declared in
// plugin/ktImageExr.h.
#pragma once

#include <cmath>
#include <cstdint>

#include <Imath/half.h>
#include <OpenEXR/ImfPixelType.h>

#include "strings/ktString8.h"

// One channel plane of a data window: rows x columns values, row-major.
// Owns values (array new) and releases it with the _singleChannel holding it.
template <class T>
struct _channelPlane {
    std::int64_t rows = 0;
    std::int64_t columns = 0;
    T* values = nullptr;
};

// One EXR channel chosen by a decoder, for the length of one call: its name
// and pixel type, and a plane of its own type holding the data window.
//
// Only the plane of pixelType is ever allocated (the others stay empty);
// dataPointer is that plane's array and sliceBase the address OpenEXR is
// given, so that the data window's top-left sample lands at dataPointer.
// Not copyable: the slot owns its arrays and releases them when destroyed.
struct _singleChannel {
    OPENEXR_IMF_NAMESPACE::PixelType pixelType = OPENEXR_IMF_NAMESPACE::NUM_PIXELTYPES;  // none yet
    _channelPlane<half> halfPlane;
    _channelPlane<float> floatPlane;
    _channelPlane<std::uint32_t> uintPlane;
    void* dataPointer = nullptr;
    std::int64_t originOffset = 0;  // bytes from the plane's start back to the window's origin
    char* sliceBase = nullptr;
    _ktString8_allSize<150> name;
    std::int32_t bytesPerValue = 0;

    _singleChannel() = default;
    ~_singleChannel();
    _singleChannel(const _singleChannel&) = delete;
    _singleChannel& operator=(const _singleChannel&) = delete;

    // The sample at column x, row y of the data window (from its top-left
    // corner) as a float: halves widened exactly, unsigned integers
    // converted unscaled. 0 when the slot has no plane. No bounds check.
    float getValue(const int& x, const int& y) const;

    // The plane's array of pixelType, or null when there is none.
    void* get_dataPointer() const;
};

namespace kt {

// How many channel slots a decoding call has, and how many of the file's
// channels it looks at.
constexpr int exrDecoderSlotCount = 800;

// The value a decoder stores for red, green and blue with the gamma flag:
// value to the power gamma, in double precision, back to float.
inline float exrGammaCorrected(float value, float gamma)
{
    return static_cast<float>(std::pow(static_cast<double>(value), static_cast<double>(gamma)));
}

}  // namespace kt
