// The encoders on buffers of any contents and dimensions (up to 64 x 64;
// zeros past the input's end, so that cropping has empty borders to find),
// with any render-metadata record and job settings. A file the plug-in says
// it wrote must load again with status 1 and decode with status 1.
#include "fuzz/exrFuzzing.h"
#include "image/rgbaBuffer.h"

namespace {

template <class Buffer>
std::unique_ptr<Buffer> imageOf(int width, int height)
{
    auto image = std::make_unique<Buffer>(static_cast<unsigned int>(width * height));
    image->setWidth(width);
    image->setHeight(height);
    return image;
}

template <class Buffer>
int encodeFrom(int (*encoder)(imgCallRecord*), kt::fuzz::InputReader& in, ktP::_imgFileBuffer& file,
               ktExrHeaderData& metadata, imgJobSettings& settings, int width, int height)
{
    auto image = imageOf<Buffer>(width, height);
    const std::size_t bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                              static_cast<std::size_t>(image->bytesPerPixel);
    std::memset(image->pixels, 0, bytes);
    in.bytes(image->pixels, bytes);
    imgCallRecord call{&file, image.get(), &metadata, &settings};
    return encoder(&call);
}

template <class Buffer>
int decodeInto(int (*decoder)(imgCallRecord*), ktP::_imgFileBuffer& file, int width, int height)
{
    auto image = imageOf<Buffer>(width, height);
    imgCallRecord call{&file, image.get(), nullptr, nullptr};
    return decoder(&call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto metadata = std::make_unique<ktExrHeaderData>();
    kt::fuzz::InputReader in(data, size);
    const int depth = in.byte() % 3, width = 1 + in.byte() % 64, height = 1 + in.byte() % 64;
    imgJobSettings settings;
    kt::fuzz::fillJobSettings(in, settings);
    kt::fuzz::fillMetadata(in, *metadata);

    // Room for the largest header the record can make and the pixels at
    // deflate's worst case; a buffer too small is a separate, checked path.
    const unsigned int capacity = (in.byte() & 7) == 0 ? 1u + in.byte() * 16u
                                                       : 64u * 1024 + 12u * 2100 + 16u * width * height;
    auto file = std::make_unique<ktP::_imgFileBuffer>(capacity);
    int code = 0;
    switch (depth) {
    case 0: code = encodeFrom<ktP::_imgRGBABuffer8>(imgEncode8, in, *file, *metadata, settings, width, height); break;
    case 1: code = encodeFrom<ktP::_imgRGBABuffer16>(imgEncode16, in, *file, *metadata, settings, width, height); break;
    default: code = encodeFrom<ktP::_imgRGBABufferf>(imgEncodef, in, *file, *metadata, settings, width, height); break;
    }
    kt::fuzz::require(code == 1 || code == 4 || code == 6);
    if (code != 1) return 0;

    file->setBufPosition(0);
    imgImageInfo info{};
    imgCallRecord call{file.get(), &info, metadata.get(), nullptr};
    kt::fuzz::require(imgLoadHeader(&call) == 1 && info.imageWidth == width && info.imageHeight == height);
    switch (depth) {
    case 0: code = decodeInto<ktP::_imgRGBABuffer8>(imgDecode8, *file, width, height); break;
    case 1: code = decodeInto<ktP::_imgRGBABuffer16>(imgDecode16, *file, width, height); break;
    default: code = decodeInto<ktP::_imgRGBABufferf>(imgDecodef, *file, width, height); break;
    }
    kt::fuzz::require(code == 1);
    return 0;
}
