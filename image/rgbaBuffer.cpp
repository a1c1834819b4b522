#include "image/rgbaBuffer.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

// The record's own size, which hosts check before they trust the record.
constexpr unsigned short kImageInfoSize = sizeof(imgImageInfo);

// Byte size of n pixels of the given size.
std::size_t bytes(std::uint64_t n, std::size_t pixelBytes)
{
    return static_cast<std::size_t>(n) * pixelBytes;
}

// Every byte of the capacity to 0x60, whatever the depth.
void fillCapacity(ktP::_imgRGBABuffer_all& buffer, std::size_t pixelBytes)
{
    if (buffer.pixels) std::memset(buffer.pixels, 0x60, bytes(buffer.maxPixels, pixelBytes));
    buffer.pixelFlags = 0;
}

// Copies a run of pixels to pixel number index on. A run reaching the last
// pixel is cut one short of it: the last pixel is never written this way.
void copyRun(ktP::_imgRGBABuffer_all& buffer, std::size_t pixelBytes, std::int64_t index, const char* source,
             int count)
{
    if (!buffer.pixels || !source || index < 0 || index >= buffer.maxPixels) return;
    const std::int64_t run = index + count < buffer.maxPixels ? count : buffer.maxPixels - 1 - index;
    if (run < 1) return;
    std::memmove(buffer.pixels + bytes(static_cast<std::uint64_t>(index), pixelBytes), source,
                 bytes(static_cast<std::uint64_t>(run), pixelBytes));
}

void copyRunAt(ktP::_imgRGBABuffer_all& buffer, std::size_t pixelBytes, int x, int y, const char* source, int count)
{
    std::uint32_t index;
    if (buffer.writeIndex(x, y, index)) copyRun(buffer, pixelBytes, index, source, count);
}

// copyTo for every depth. The width is settled first, against the
// destination's old height, and only then the height: a destination that was
// tall before may end up narrower than the source although the source fits.
bool copyBuffer(const ktP::_imgRGBABuffer_all& from, ktP::_imgRGBABuffer_all& to, bool copyPixels,
                std::size_t pixelBytes)
{
    if (to.maxPixels < from.pixelCount) return false;

    to.width = from.width;
    if (std::uint64_t{to.width} * to.height > to.maxPixels) to.width = to.maxPixels / to.height;
    to.pixelCount = to.width * to.height;

    to.height = from.height;
    if (std::uint64_t{to.width} * to.height > to.maxPixels) to.height = to.maxPixels / to.width;
    to.pixelCount = to.width * to.height;

    to.descFlag = from.descFlag;
    to.imageInfo = from.imageInfo;
    to.pixelFlags = from.pixelFlags;

    if (copyPixels && &to != &from && from.pixels && to.pixels) {
        // pixelCount beyond the source's own capacity would read past its block.
        const std::uint32_t n = std::min(from.pixelCount, from.maxPixels);
        std::memmove(to.pixels, from.pixels, bytes(n, pixelBytes));
    }
    return true;
}

}  // namespace

namespace ktP {

_imgRGBABuffer_all::_imgRGBABuffer_all(const unsigned int& capacity, const signed char& pixelBytes)
    : descFlag(0),
      imageInfo(),
      pixelFlags(0),
      reserved{},
      bytesPerPixel(pixelBytes),
      maxPixels(capacity == 0 ? 1u : capacity),
      width(1),
      height(1),
      pixelCount(1),
      pixels(nullptr)
{
    imageInfo.descSize = kImageInfoSize;
    imageInfo.bitsPerChannel = 8;
    imageInfo.descIndex = -1;
}

_imgRGBABuffer_all::_imgRGBABuffer_all(const unsigned int& columns, const unsigned int& rows,
                                       const signed char& pixelBytes)
    : _imgRGBABuffer_all(1u, pixelBytes)
{
    width = columns;
    height = rows;
    maxPixels = pixelCount = columns * rows;
}

bool _imgRGBABuffer_all::doesImageSizeFit(unsigned int columns, unsigned int rows) const
{
    // The 32-bit product wraps, as the host computes it.
    return columns * rows <= maxPixels;
}

void _imgRGBABuffer_all::setWidth(const int& columns)
{
    width = columns < 0 ? 0u : static_cast<unsigned int>(columns);
    if (exceedsCapacity(width, height)) width = maxPixels / height;
    pixelCount = width * height;
}

void _imgRGBABuffer_all::setHeight(const int& rows)
{
    height = rows < 0 ? 0u : static_cast<unsigned int>(rows);
    if (exceedsCapacity(width, height)) height = maxPixels / width;
    pixelCount = width * height;
}

void _imgRGBABuffer_all::becomeEmpty()
{
    maxPixels = width = height = 0;
    pixels = nullptr;
}

// ---- 8 bits per channel

_imgRGBABuffer8::_imgRGBABuffer8(const unsigned int& capacity)
    : _imgRGBABuffer_all(capacity, static_cast<signed char>(sizeof(_Rgba8))), allocation(nullptr)
{
    allocate();
}

_imgRGBABuffer8::_imgRGBABuffer8(const unsigned int& columns, const unsigned int& rows)
    : _imgRGBABuffer_all(columns, rows, static_cast<signed char>(sizeof(_Rgba8))), allocation(nullptr)
{
    allocate();
}

_imgRGBABuffer8::~_imgRGBABuffer8() { delete[] allocation; }

void _imgRGBABuffer8::allocate()
{
    // One spare pixel ahead of the image and three behind it.
    allocation = new (std::nothrow) _Rgba8[std::size_t{maxPixels} + 4];
    if (allocation)
        pixels = reinterpret_cast<unsigned char*>(allocation + 1);
    else
        becomeEmpty();
}

void _imgRGBABuffer8::clear() { fillCapacity(*this, sizeof(_Rgba8)); }

void _imgRGBABuffer8::writeByte(unsigned int index, unsigned char value)
{
    if (pixels && index < std::uint64_t{maxPixels} * sizeof(_Rgba8)) pixels[index] = value;
}

void _imgRGBABuffer8::writeMix(const int& x, const int& y, const _Rgba8& pixel, const float& alpha)
{
    if (alpha <= 0.0f) return;
    std::uint32_t i;
    if (!writeIndex(x, y, i)) return;
    const _Rgba8 over = pixel;
    const float weight = alpha;
    const float keep = 1.0f - weight;
    _Rgba8& old = at(i);
    // Alpha above 1 overshoots 0..255; the low byte is what the host expects.
    old.r = kt::pixel::lowByteOfTruncation(static_cast<float>(old.r) * keep + static_cast<float>(over.r) * weight);
    old.g = kt::pixel::lowByteOfTruncation(static_cast<float>(old.g) * keep + static_cast<float>(over.g) * weight);
    old.b = kt::pixel::lowByteOfTruncation(static_cast<float>(old.b) * keep + static_cast<float>(over.b) * weight);
}

void _imgRGBABuffer8::writeMulti(int index, const char* source, int count)
{
    copyRun(*this, sizeof(_Rgba8), index, source, count);
}

void _imgRGBABuffer8::writeMulti(const int& x, const int& y, const char* source, int count)
{
    copyRunAt(*this, sizeof(_Rgba8), x, y, source, count);
}

void _imgRGBABuffer8::readFirst(_Rgba8& out) const
{
    if (pixels && maxPixels)
        out = at(0);
    else
        out = _Rgba8{0xCC, 0xCC, 0xCC, 0xFF};
}

bool _imgRGBABuffer8::copyTo(_imgRGBABuffer8& destination, bool copyPixels)
{
    return copyBuffer(*this, destination, copyPixels, sizeof(_Rgba8));
}

void _imgRGBABuffer8::createLetterBox(_imgRGBABuffer8* source, const int& firstRow, int rowCount)
{
    if (!source || source == this || !source->pixels || firstRow < 0 || rowCount < 0) return;
    // Rows the source has, and that its block really holds.
    std::uint64_t rows = source->height;
    if (source->width) rows = std::min<std::uint64_t>(rows, source->maxPixels / source->width);
    const auto first = static_cast<std::uint64_t>(firstRow);
    if (first > rows) return;
    const std::uint64_t count = std::min(static_cast<std::uint64_t>(rowCount), rows - first);

    maxPixels = pixelCount = static_cast<unsigned int>(count * source->width);
    pixels = source->pixels + bytes(first * source->width, sizeof(_Rgba8));
    // A view must never release the source's pixels.
    delete[] allocation;
    allocation = nullptr;
}

void _imgRGBABuffer8::freeLetterBox()
{
    maxPixels = width = height = pixelCount = 0;
    pixels = nullptr;
}

// ---- 16 bits per channel

_imgRGBABuffer16::_imgRGBABuffer16(unsigned int capacity)
    : _imgRGBABuffer_all(capacity, static_cast<signed char>(sizeof(_Rgba16)))
{
    // A capacity of 0 still counts one pixel, so one is allocated.
    const std::size_t n = std::max(capacity, 1u);
    _Rgba16* block = new (std::nothrow) _Rgba16[n];
    if (!block) {
        becomeEmpty();
        return;
    }
    std::fill(block, block + n, _Rgba16{0xCCCC, 0xCCCC, 0xCCCC, 0xFFFF});
    pixels = reinterpret_cast<unsigned char*>(block);
}

_imgRGBABuffer16::~_imgRGBABuffer16() { delete[] first(); }

void _imgRGBABuffer16::clear() { fillCapacity(*this, sizeof(_Rgba16)); }

void _imgRGBABuffer16::writeShort(unsigned int index, unsigned short value)
{
    if (pixels && index < std::uint64_t{maxPixels} * 4) channels()[index] = value;
}

void _imgRGBABuffer16::writeMulti(int index, const char* source, int count)
{
    copyRun(*this, sizeof(_Rgba16), index, source, count);
}

void _imgRGBABuffer16::writeMulti(const int& x, const int& y, const char* source, int count)
{
    copyRunAt(*this, sizeof(_Rgba16), x, y, source, count);
}

bool _imgRGBABuffer16::copyTo(_imgRGBABuffer16& destination, bool copyPixels)
{
    return copyBuffer(*this, destination, copyPixels, sizeof(_Rgba16));
}

// ---- 32-bit float per channel

_imgRGBABufferf::_imgRGBABufferf(unsigned int capacity)
    : _imgRGBABuffer_all(capacity, static_cast<signed char>(sizeof(_Rgbaf)))
{
    // Left uninitialised: the decoders overwrite every pixel.
    _Rgbaf* block = new (std::nothrow) _Rgbaf[std::max(capacity, 1u)];
    if (!block) {
        becomeEmpty();
        return;
    }
    pixels = reinterpret_cast<unsigned char*>(block);
}

_imgRGBABufferf::~_imgRGBABufferf() { delete[] first(); }

void _imgRGBABufferf::clear() { fillCapacity(*this, sizeof(_Rgbaf)); }

void _imgRGBABufferf::writeFloat(unsigned int index, float value)
{
    if (pixels && index < std::uint64_t{maxPixels} * 4) channels()[index] = value;
}

void _imgRGBABufferf::writeMulti(int index, const char* source, int count)
{
    copyRun(*this, sizeof(_Rgbaf), index, source, count);
}

void _imgRGBABufferf::writeMulti(const int& x, const int& y, const char* source, int count)
{
    copyRunAt(*this, sizeof(_Rgbaf), x, y, source, count);
}

bool _imgRGBABufferf::copyTo(_imgRGBABufferf& destination, bool copyPixels)
{
    return copyBuffer(*this, destination, copyPixels, sizeof(_Rgbaf));
}

}  // namespace ktP
