// The RGBA pixel buffers: ktP::_imgRGBABuffer8, _imgRGBABuffer16 and
// _imgRGBABufferf on the common base ktP::_imgRGBABuffer_all.
//
// Interleaved R, G, B, A pixels, row-major, pixel (x, y) at number
// x + width * y, in a block whose capacity (maxPixels) is fixed when the
// buffer is built. The image-information record travels at the head of the
// object. Hosts built separately create and read these objects, so there are
// no virtual functions and every byte position is pinned below.
//
// Nothing here throws or reallocates. Writes out of range do nothing, reads
// out of range give a fallback value; see the coordinate tests below.
#pragma once

#include <cstddef>
#include <cstdint>

#include "image/pixelTypes.h"
#include "records/pluginRecords.h"

// One channel of a pixel; any other value selects none.
enum _ktChannel : int {
    ktChannelRed = 0,
    ktChannelGreen = 1,
    ktChannelBlue = 2,
    ktChannelAlpha = 3,
};

namespace ktP {

// Dimensions, capacity and descriptive record shared by the three depths.
// The base owns no pixel memory; each derived class allocates its own.
class _imgRGBABuffer_all {
public:
    // maxPixels pixels of bytesPerPixel bytes, 1 x 1; a capacity of 0 becomes 1.
    _imgRGBABuffer_all(const unsigned int& maxPixels, const signed char& bytesPerPixel);
    // width x height pixels, capacity exactly that product (0 stays 0).
    _imgRGBABuffer_all(const unsigned int& width, const unsigned int& height, const signed char& bytesPerPixel);

    // Whether width * height (32-bit product, wrapping) fits the capacity.
    bool doesImageSizeFit(unsigned int width, unsigned int height) const;

    // Set one dimension, narrowed to the capacity over the other one when
    // the product would not fit; a negative value counts as 0.
    void setWidth(const int& width);
    void setHeight(const int& height);

    // Pixel number of (x, y) for a write: 0 <= x < width, 0 <= y < height
    // and the number below maxPixels.
    bool writeIndex(int x, int y, std::uint32_t& index) const
    {
        if (x < 0 || y < 0 || static_cast<unsigned>(x) >= width || static_cast<unsigned>(y) >= height) return false;
        index = static_cast<std::uint32_t>(x) + width * static_cast<std::uint32_t>(y);
        return index < maxPixels;
    }

    // Pixel number of (x, y) for a read: only x < width and y < height as
    // signed numbers, and the 32-bit number below maxPixels. A negative x on
    // a later row reaches back into an earlier row, never out of the block.
    bool readIndex(int x, int y, std::uint32_t& index) const
    {
        if (x >= static_cast<int>(width) || y >= static_cast<int>(height)) return false;
        index = static_cast<std::uint32_t>(x) + width * static_cast<std::uint32_t>(y);
        return index < maxPixels;
    }

    unsigned char descFlag;    // carried by copyTo, otherwise unused
    imgImageInfo imageInfo;    // filled by the header loader
    unsigned char pixelFlags;  // bit 0: the decoders apply the gamma curve
    unsigned char reserved[4];
    signed char bytesPerPixel; // 4, 8 or 16, fixed by the derived class
    unsigned int maxPixels;    // capacity in pixels
    unsigned int width;
    unsigned int height;
    unsigned int pixelCount;   // width * height
    unsigned char* pixels;     // first pixel, or null when there is no memory

protected:
    // Whether width * height of dimensions of this size exceed the capacity.
    bool exceedsCapacity(unsigned int w, unsigned int h) const
    {
        return static_cast<std::uint64_t>(w) * h > maxPixels;
    }
    // Empty state after a failed allocation: every bounds test fails.
    void becomeEmpty();
};

// 8 bits per channel. Owns its block unless it is a letterbox view on
// another buffer's rows (createLetterBox), which owns nothing.
class _imgRGBABuffer8 : public _imgRGBABuffer_all {
public:
    explicit _imgRGBABuffer8(const unsigned int& maxPixels);
    _imgRGBABuffer8(const unsigned int& width, const unsigned int& height);
    ~_imgRGBABuffer8();
    _imgRGBABuffer8(const _imgRGBABuffer8&) = delete;
    _imgRGBABuffer8& operator=(const _imgRGBABuffer8&) = delete;

    // Every byte of the capacity to 0x60, pixelFlags to 0.
    void clear();
    // One byte of the pixel memory, when index is inside the capacity.
    void writeByte(unsigned int index, unsigned char value);

    KT_INLINE_EXPORT void write(const int& x, const int& y, const unsigned char& value, const _ktChannel& channel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i) && channel >= ktChannelRed && channel <= ktChannelAlpha)
            pixels[std::size_t{i} * 4u + static_cast<unsigned>(channel)] = value;
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const unsigned char& r, const unsigned char& g,
                                const unsigned char& b, const unsigned char& a)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = _Rgba8{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const _Rgba8& pixel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = pixel;
    }
    // Pixel number index, 0 <= index < maxPixels.
    KT_INLINE_EXPORT void write(int index, const unsigned char& r, const unsigned char& g, const unsigned char& b,
                                const unsigned char& a)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = _Rgba8{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(int index, const _Rgba8& pixel)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = pixel;
    }

    // Blends pixel over (x, y) by alpha in red, green and blue: old * (1 -
    // alpha) + new * alpha, truncated, low byte kept (no clamp). Alpha <= 0
    // does nothing; the pixel's own alpha is kept.
    void writeMix(const int& x, const int& y, const _Rgba8& pixel, const float& alpha);

    // Copies count pixels from source to pixel number index on. A run that
    // reaches the last pixel is cut one short of it; nothing happens for an
    // index outside the buffer or a run of fewer than one pixel.
    void writeMulti(int index, const char* source, int count);
    void writeMulti(const int& x, const int& y, const char* source, int count);

    // Pixel (x, y) as a little-endian word (red in the low byte); out of
    // range 0xFFCCCCCC.
    KT_INLINE_EXPORT unsigned int read(const int& x, const int& y) const
    {
        std::uint32_t i;
        return readIndex(x, y, i) ? packed(at(i)) : kOutside;
    }
    KT_INLINE_EXPORT unsigned int read(unsigned int index) const
    {
        return index < maxPixels ? packed(at(index)) : kOutside;
    }
    // The pixel into out; out of range, the first pixel of the buffer.
    KT_INLINE_EXPORT void read(_Rgba8& out, const int& x, const int& y) const
    {
        std::uint32_t i;
        if (readIndex(x, y, i))
            out = at(i);
        else
            readFirst(out);
    }
    KT_INLINE_EXPORT void read(_Rgba8& out, unsigned int index) const
    {
        if (index < maxPixels)
            out = at(index);
        else
            readFirst(out);
    }

    // Copies the size (width first, see copyTo in the source), the
    // descriptive fields and, if asked, the pixels into destination. False,
    // and nothing changed, when the destination's capacity is too small.
    bool copyTo(_imgRGBABuffer8& destination, bool copyPixels);

    // Makes this buffer a view on rowCount rows of source from firstRow on
    // (cut at the source's last row), releasing its own block. width and
    // height are left for the caller to set.
    void createLetterBox(_imgRGBABuffer8* source, const int& firstRow, int rowCount);
    // Ends a view: everything 0, nothing released.
    void freeLetterBox();

    _Rgba8* allocation;  // owned block; pixels begin one pixel into it

private:
    static constexpr unsigned int kOutside = 0xFFCCCCCCu;

    _Rgba8& at(std::uint32_t i) const { return reinterpret_cast<_Rgba8*>(pixels)[i]; }
    static unsigned int packed(const _Rgba8& p)
    {
        return static_cast<unsigned int>(p.r) | static_cast<unsigned int>(p.g) << 8 |
               static_cast<unsigned int>(p.b) << 16 | static_cast<unsigned int>(p.a) << 24;
    }
    void readFirst(_Rgba8& out) const;
    void allocate();
};

// 16 bits per channel; a new buffer is light grey (0xCCCC) and opaque.
class _imgRGBABuffer16 : public _imgRGBABuffer_all {
public:
    explicit _imgRGBABuffer16(unsigned int maxPixels);
    ~_imgRGBABuffer16();
    _imgRGBABuffer16(const _imgRGBABuffer16&) = delete;
    _imgRGBABuffer16& operator=(const _imgRGBABuffer16&) = delete;

    void clear();
    // One 16-bit channel value, when index is inside the capacity.
    void writeShort(unsigned int index, unsigned short value);

    KT_INLINE_EXPORT void write(const int& x, const int& y, const unsigned short& value, const _ktChannel& channel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i) && channel >= ktChannelRed && channel <= ktChannelAlpha)
            channels()[std::size_t{i} * 4u + static_cast<unsigned>(channel)] = value;
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const unsigned short& r, const unsigned short& g,
                                const unsigned short& b, const unsigned short& a)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = _Rgba16{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const _Rgba16& pixel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = pixel;
    }
    KT_INLINE_EXPORT void write(int index, const unsigned short& r, const unsigned short& g, const unsigned short& b,
                                const unsigned short& a)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = _Rgba16{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(int index, const _Rgba16& pixel)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = pixel;
    }

    void writeMulti(int index, const char* source, int count);
    void writeMulti(const int& x, const int& y, const char* source, int count);

    // Pixel (x, y) packed red-lowest into 64 bits; out of range 0xFFFFCCCCCCCCCCCC.
    KT_INLINE_EXPORT std::uint64_t read(const int& x, const int& y) const
    {
        std::uint32_t i;
        return readIndex(x, y, i) ? packed(at(i)) : kOutside;
    }
    KT_INLINE_EXPORT std::uint64_t read(unsigned int index) const
    {
        return index < maxPixels ? packed(at(index)) : kOutside;
    }
    // Points out at the pixel in place; out of range, at the first pixel.
    KT_INLINE_EXPORT void read(_Rgba16*& out, const int& x, const int& y) const
    {
        std::uint32_t i;
        out = readIndex(x, y, i) ? &at(i) : first();
    }
    KT_INLINE_EXPORT void read(_Rgba16*& out, unsigned int index) const
    {
        out = index < maxPixels ? &at(index) : first();
    }

    bool copyTo(_imgRGBABuffer16& destination, bool copyPixels);

private:
    static constexpr std::uint64_t kOutside = 0xFFFFCCCCCCCCCCCCull;

    _Rgba16* first() const { return reinterpret_cast<_Rgba16*>(pixels); }
    _Rgba16& at(std::uint32_t i) const { return first()[i]; }
    unsigned short* channels() const { return &first()->r; }
    static std::uint64_t packed(const _Rgba16& p)
    {
        return static_cast<std::uint64_t>(p.r) | static_cast<std::uint64_t>(p.g) << 16 |
               static_cast<std::uint64_t>(p.b) << 32 | static_cast<std::uint64_t>(p.a) << 48;
    }
};

// 32-bit float per channel; a new buffer is not initialised.
class _imgRGBABufferf : public _imgRGBABuffer_all {
public:
    explicit _imgRGBABufferf(unsigned int maxPixels);
    ~_imgRGBABufferf();
    _imgRGBABufferf(const _imgRGBABufferf&) = delete;
    _imgRGBABufferf& operator=(const _imgRGBABufferf&) = delete;

    void clear();
    // One float channel value, when index is inside the capacity.
    void writeFloat(unsigned int index, float value);

    KT_INLINE_EXPORT void write(const int& x, const int& y, const float& value, const _ktChannel& channel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i) && channel >= ktChannelRed && channel <= ktChannelAlpha)
            channels()[std::size_t{i} * 4u + static_cast<unsigned>(channel)] = value;
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const float& r, const float& g, const float& b,
                                const float& a)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = _Rgbaf{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(const int& x, const int& y, const _Rgbaf& pixel)
    {
        std::uint32_t i;
        if (writeIndex(x, y, i)) at(i) = pixel;
    }
    KT_INLINE_EXPORT void write(int index, const float& r, const float& g, const float& b, const float& a)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = _Rgbaf{r, g, b, a};
    }
    KT_INLINE_EXPORT void write(int index, const _Rgbaf& pixel)
    {
        if (index >= 0 && static_cast<unsigned>(index) < maxPixels) at(static_cast<unsigned>(index)) = pixel;
    }

    void writeMulti(int index, const char* source, int count);
    void writeMulti(const int& x, const int& y, const char* source, int count);

    // Pixel (x, y) by value; out of range four zeros.
    KT_INLINE_EXPORT _Rgbaf read(const int& x, const int& y) const
    {
        std::uint32_t i;
        return readIndex(x, y, i) ? at(i) : _Rgbaf{0.0f, 0.0f, 0.0f, 0.0f};
    }
    KT_INLINE_EXPORT _Rgbaf read(unsigned int index) const
    {
        return index < maxPixels ? at(index) : _Rgbaf{0.0f, 0.0f, 0.0f, 0.0f};
    }
    KT_INLINE_EXPORT void read(_Rgbaf*& out, const int& x, const int& y) const
    {
        std::uint32_t i;
        out = readIndex(x, y, i) ? &at(i) : first();
    }
    KT_INLINE_EXPORT void read(_Rgbaf*& out, unsigned int index) const
    {
        out = index < maxPixels ? &at(index) : first();
    }

    bool copyTo(_imgRGBABufferf& destination, bool copyPixels);

private:
    _Rgbaf* first() const { return reinterpret_cast<_Rgbaf*>(pixels); }
    _Rgbaf& at(std::uint32_t i) const { return first()[i]; }
    float* channels() const { return &first()->r; }
};

}  // namespace ktP

// The layout hosts built separately rely on.
static_assert(offsetof(ktP::_imgRGBABuffer_all, descFlag) == 0);
static_assert(offsetof(ktP::_imgRGBABuffer_all, imageInfo) == 4);
static_assert(offsetof(ktP::_imgRGBABuffer_all, imageInfo.descSize) == 4);
static_assert(offsetof(ktP::_imgRGBABuffer_all, imageInfo.infoText) == 20);
static_assert(offsetof(ktP::_imgRGBABuffer_all, imageInfo.descIndex) == 528);
static_assert(offsetof(ktP::_imgRGBABuffer_all, pixelFlags) == 532);
static_assert(offsetof(ktP::_imgRGBABuffer_all, reserved) == 533);
static_assert(offsetof(ktP::_imgRGBABuffer_all, bytesPerPixel) == 537);
static_assert(offsetof(ktP::_imgRGBABuffer_all, maxPixels) == 540);
static_assert(offsetof(ktP::_imgRGBABuffer_all, width) == 544);
static_assert(offsetof(ktP::_imgRGBABuffer_all, height) == 548);
static_assert(offsetof(ktP::_imgRGBABuffer_all, pixelCount) == 552);
static_assert(offsetof(ktP::_imgRGBABuffer_all, pixels) == 560);
static_assert(sizeof(ktP::_imgRGBABuffer_all) == 568);
static_assert(sizeof(ktP::_imgRGBABuffer16) == 568);
static_assert(sizeof(ktP::_imgRGBABufferf) == 568);
// The 8-bit buffer adds a member to a class that has members of its own, which
// makes offsetof conditionally supported; both compilers support it here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(ktP::_imgRGBABuffer8, pixels) == 560);
static_assert(offsetof(ktP::_imgRGBABuffer8, allocation) == 568);
#pragma GCC diagnostic pop
static_assert(sizeof(ktP::_imgRGBABuffer8) == 576);
