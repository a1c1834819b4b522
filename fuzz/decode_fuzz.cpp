// Header loading followed by a decode, as a host reads an image. The input's
// length picks the decoder (8-bit, 16-bit or float), the gamma flag and
// OpenEXR's worker-thread count (none, 2 or 5), so that every combination
// meets every file shape. The buffer has the size the header reported,
// capped at 256 x 256, or for every fourth length one pixel less each way,
// so that the clipping of a data window beyond the buffer is exercised too.
#include <OpenEXR/ImfThreading.h>

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
    const std::size_t depth = size % 3, gamma = size / 3 % 2, threads = size / 6 % 3, smaller = size / 18 % 4 == 0;
    constexpr int threadCounts[] = {0, 2, 5};
    if (Imf::globalThreadCount() != threadCounts[threads]) Imf::setGlobalThreadCount(threadCounts[threads]);

    auto buffer = kt::fuzz::fileBuffer(data, size, size, size);
    imgImageInfo info{};
    imgCallRecord call{buffer.get(), &info, metadata.get(), nullptr};
    const int header = imgLoadHeader(&call);
    kt::fuzz::require(kt::fuzz::headerCode(header) && header != 16);
    if (header != 1) return 0;

    const int width = std::clamp(info.imageWidth - (smaller ? 1 : 0), 1, 256);
    const int height = std::clamp(info.imageHeight - (smaller ? 1 : 0), 1, 256);
    int code = 0;
    switch (depth) {
    case 0: code = decodeInto<ktP::_imgRGBABuffer8>(imgDecode8, buffer.get(), width, height, gamma); break;
    case 1: code = decodeInto<ktP::_imgRGBABuffer16>(imgDecode16, buffer.get(), width, height, gamma); break;
    default: code = decodeInto<ktP::_imgRGBABufferf>(imgDecodef, buffer.get(), width, height, gamma); break;
    }
    kt::fuzz::require(kt::fuzz::decodeCode(code));
    return 0;
}
