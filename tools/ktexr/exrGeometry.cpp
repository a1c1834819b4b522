#include "exrGeometry.h"

#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "exitStatus.h"

namespace ktexr {

namespace {

// The loaded bytes of a file buffer as an OpenEXR input stream, read-only;
// the buffer's own cursor is left alone.
class LoadedBytes : public Imf::IStream {
public:
    explicit LoadedBytes(const ktP::_imgFileBuffer& buffer)
        : Imf::IStream("memory"), data_(buffer.buffer), size_(static_cast<uint64_t>(buffer.sizeLoaded))
    {
    }
    bool read(char dst[], int n) override
    {
        if (n < 0 || static_cast<uint64_t>(n) > size_ - position_)
            throw std::runtime_error("the header reaches beyond the loaded bytes");
        std::memcpy(dst, data_ + position_, static_cast<std::size_t>(n));
        position_ += static_cast<uint64_t>(n);
        return position_ < size_;
    }
    uint64_t tellg() override { return position_; }
    void seekg(uint64_t pos) override { position_ = std::min(pos, size_); }

private:
    const unsigned char* data_;
    uint64_t size_;
    uint64_t position_ = 0;
};

PixelBox boxOf(const Imath::Box2i& b) { return PixelBox{b.min.x, b.min.y, b.max.x, b.max.y}; }

}  // namespace

std::string PixelBox::text() const
{
    return "(" + std::to_string(minX) + ", " + std::to_string(minY) + ")-(" + std::to_string(maxX) + ", " +
           std::to_string(maxY) + ")";
}

PixelBox intersection(const PixelBox& a, const PixelBox& b)
{
    return PixelBox{std::max(a.minX, b.minX), std::max(a.minY, b.minY), std::min(a.maxX, b.maxX),
                    std::min(a.maxY, b.maxY)};
}

ExrGeometry readGeometry(ktP::_imgFileBuffer& buffer, const std::string& file)
{
    try {
        LoadedBytes stream(buffer);
        Imf::InputFile input(stream, 1);
        return ExrGeometry{boxOf(input.header().displayWindow()), boxOf(input.header().dataWindow())};
    } catch (const std::exception& e) {
        throw Failure(exitNotExr, file, std::string("cannot read the image's windows: ") + e.what());
    }
}

}  // namespace ktexr
