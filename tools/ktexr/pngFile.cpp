#include "pngFile.h"

#include <png.h>

#include <csetjmp>
#include <cstring>
#include <stdexcept>

#include "exitStatus.h"

namespace ktexr {

struct PngCallbacks {
    static void read(png_structp png, png_bytep out, png_size_t count)
    {
        auto* self = static_cast<PngReader*>(png_get_io_ptr(png));
        if (count > self->bytes_.size() - self->position_) png_error(png, "the file ends inside the image data");
        std::memcpy(out, self->bytes_.data() + self->position_, count);
        self->position_ += count;
    }
    static void error(png_structp png, png_const_charp message)
    {
        auto* self = static_cast<PngReader*>(png_get_error_ptr(png));
        self->error_ = message ? message : "libpng error";
        png_longjmp(png, 1);
    }
    static void warning(png_structp, png_const_charp) {}
};

namespace {
struct PngSink {
    std::vector<unsigned char> bytes;
    std::string error;
};

void sinkWrite(png_structp png, png_bytep data, png_size_t count)
{
    auto* sink = static_cast<PngSink*>(png_get_io_ptr(png));
    sink->bytes.insert(sink->bytes.end(), data, data + count);
}
void sinkFlush(png_structp) {}
void sinkError(png_structp png, png_const_charp message)
{
    static_cast<PngSink*>(png_get_error_ptr(png))->error = message ? message : "libpng error";
    png_longjmp(png, 1);
}
void sinkWarning(png_structp, png_const_charp) {}

bool hostIsLittleEndian()
{
    const unsigned short probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}
}  // namespace

PngReader::PngReader(const std::vector<unsigned char>& bytes, const std::string& name) : bytes_(bytes), name_(name)
{
    if (bytes.size() < 8 || png_sig_cmp(bytes.data(), 0, 8) != 0) throw Failure(exitNotExr, name, "not a PNG file");
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, this, PngCallbacks::error, PngCallbacks::warning);
    if (png_) info_ = png_create_info_struct(png_);
    if (!png_ || !info_) {
        png_destroy_read_struct(&png_, &info_, nullptr);
        throw Failure(exitUnreadable, name, "not enough memory to read the PNG");
    }
    png_set_read_fn(png_, this, PngCallbacks::read);
    // Images up to the pixel buffers' own limits; libpng's default stops at 1,000,000 on a side.
    png_set_user_limits(png_, 0x7FFFFFFF, 0x7FFFFFFF);

    if (setjmp(png_jmpbuf(png_))) {
        std::string message = error_;
        png_destroy_read_struct(&png_, &info_, nullptr);
        throw Failure(exitNotExr, name, "not a readable PNG: " + message);
    }
    {
        png_read_info(png_, info_);
        png_uint_32 w = 0, h = 0;
        int bitDepth = 0, colourType = 0;
        png_get_IHDR(png_, info_, &w, &h, &bitDepth, &colourType, nullptr, nullptr, nullptr);
        width_ = w;
        height_ = h;
        depth_ = bitDepth == 16 ? 16 : 8;
        png_set_expand(png_);
        png_set_gray_to_rgb(png_);
        if (!(colourType & PNG_COLOR_MASK_ALPHA) && !png_get_valid(png_, info_, PNG_INFO_tRNS))
            png_set_add_alpha(png_, 0xFFFF, PNG_FILLER_AFTER);
        if (depth_ == 16 && hostIsLittleEndian()) png_set_swap(png_);
        png_set_interlace_handling(png_);
        png_read_update_info(png_, info_);
        if (png_get_rowbytes(png_, info_) != static_cast<png_size_t>(width_) * 4 * (depth_ / 8))
            png_error(png_, "unexpected pixel layout after conversion to RGBA");
    }
}

PngReader::~PngReader() { png_destroy_read_struct(&png_, &info_, nullptr); }

void PngReader::read(void* pixels, std::size_t rowStride)
{
    // Row pointers are set up before the jump point: nothing with a
    // destructor may be created between setjmp and a libpng call.
    std::vector<png_bytep> rows(height_);
    for (unsigned y = 0; y < height_; ++y) rows[y] = static_cast<png_bytep>(pixels) + rowStride * y;
    png_bytepp rowTable = rows.data();
    if (setjmp(png_jmpbuf(png_))) throw Failure(exitNotExr, name_, "not a readable PNG: " + error_);
    png_read_image(png_, rowTable);
}

std::vector<unsigned char> encodePng(unsigned width, unsigned height, int depth, const void* pixels,
                                     std::size_t rowStride)
{
    PngSink sink;
    std::vector<png_bytep> rows(height);
    for (unsigned y = 0; y < height; ++y)
        rows[y] = const_cast<png_bytep>(static_cast<const unsigned char*>(pixels) + rowStride * y);
    png_bytepp rowTable = rows.data();

    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &sink, sinkError, sinkWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("not enough memory to write a PNG");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("cannot encode the PNG: " + sink.error);
    }
    {
        png_set_write_fn(png, &sink, sinkWrite, sinkFlush);
        png_set_IHDR(png, info, width, height, depth == 16 ? 16 : 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        if (depth == 16 && hostIsLittleEndian()) png_set_swap(png);
        png_write_image(png, rowTable);
        png_write_end(png, nullptr);
    }
    png_destroy_write_struct(&png, &info);
    return std::move(sink.bytes);
}

}  // namespace ktexr
