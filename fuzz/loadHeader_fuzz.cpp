// imgLoadHeader on any bytes: the whole input as the whole file, then its
// first half with the whole length announced, as a host loading the head of
// a file does.
#include "fuzz/exrFuzzing.h"
#include "plugin/exrMetadata.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto metadata = std::make_unique<ktExrHeaderData>();
    for (const std::size_t loaded : {size, size / 2}) {
        auto buffer = kt::fuzz::fileBuffer(data, size, loaded, size);
        imgImageInfo info{};
        imgCallRecord call{buffer.get(), &info, metadata.get(), nullptr};
        const int code = imgLoadHeader(&call);
        kt::fuzz::require(kt::fuzz::headerCode(code) && (loaded < size || code != 16));
        kt::fuzz::require(info.infoText.length <= 250 && info.infoText.text[info.infoText.length] == 0);
    }
    return 0;
}
