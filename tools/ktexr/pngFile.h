// PNG files through libpng: any PNG read as RGBA of 8 or 16 bits per
// channel, and RGBA images written as PNG. Both work on memory; reading and
// writing the disk is fileIo's job.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct png_struct_def;
struct png_info_def;

namespace ktexr {

// Reads a PNG held in memory. Palette, grey and low-depth images are
// expanded to RGBA (transparency entries become alpha, images without alpha
// get an opaque one); 16-bit images stay 16-bit, all others become 8-bit.
// Failures: exitNotExr (the input is not a usable PNG) naming `name`.
class PngReader {
public:
    PngReader(const std::vector<unsigned char>& bytes, const std::string& name);
    ~PngReader();
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    unsigned width() const { return width_; }
    unsigned height() const { return height_; }
    int depth() const { return depth_; }  // 8 or 16 bits per channel

    // The pixels, rows top first, four channels R, G, B, A per pixel, of
    // depth() bits in the machine's byte order: width() * 4 channels per
    // row, rowStride bytes from one row's start to the next.
    void read(void* pixels, std::size_t rowStride);

private:
    const std::vector<unsigned char>& bytes_;
    std::string name_;
    std::size_t position_ = 0;
    png_struct_def* png_ = nullptr;
    png_info_def* info_ = nullptr;
    unsigned width_ = 0;
    unsigned height_ = 0;
    int depth_ = 8;
    std::string error_;

    friend struct PngCallbacks;
};

// A PNG of RGBA pixels of 8 or 16 bits per channel (machine byte order),
// rows top first, rowStride bytes apart. Throws std::runtime_error only if
// libpng itself fails.
std::vector<unsigned char> encodePng(unsigned width, unsigned height, int depth, const void* pixels,
                                     std::size_t rowStride);

}  // namespace ktexr
