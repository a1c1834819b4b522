// Header loading followed by a decode, as a host reads an image: the
// decoder (8-bit, 16-bit or float, chosen by the input's length) into a
// buffer of the size the header reported, capped at 256 x 256, gamma on
// for every other input.
#include <algorithm>

#include "fuzz/exrFuzzing.h"
#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"

namespace {

template <class Buffer>
int decodeInto(int (*decoder)(imgCallRecord*), ktP::_imgFileBuffer* file, int width, int height, bool gamma)
{
    Buffer out(static_cast<unsigned int>(width * height));
    out.setWidth(width);
    out.setHeight(height);
    out.pixelFlags = gamma ? 1 : 0;
    imgCallRecord call{file, &out, nullptr, nullptr};
    return decoder(&call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto metadata = std::make_unique<ktExrHeaderData>();
    auto buffer = kt::fuzz::fileBuffer(data, size, size, size);
    imgImageInfo info{};
    imgCallRecord call{buffer.get(), &info, metadata.get(), nullptr};
    const int header = imgLoadHeader(&call);
    kt::fuzz::require(kt::fuzz::headerCode(header) && header != 16);
    if (header != 1) return 0;

    const int width = std::clamp(info.imageWidth, 1, 256), height = std::clamp(info.imageHeight, 1, 256);
    const bool gamma = size % 2 == 0;
    int code = 0;
    switch (size % 3) {
    case 0: code = decodeInto<ktP::_imgRGBABuffer8>(imgDecode8, buffer.get(), width, height, gamma); break;
    case 1: code = decodeInto<ktP::_imgRGBABuffer16>(imgDecode16, buffer.get(), width, height, gamma); break;
    default: code = decodeInto<ktP::_imgRGBABufferf>(imgDecodef, buffer.get(), width, height, gamma); break;
    }
    kt::fuzz::require(kt::fuzz::decodeCode(code));
    return 0;
}
