// What the fuzz targets share: the host's buffers around one input, and the
// check that an export answered with one of its documented codes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "image/fileBuffer.h"
#include "plugin/ktImageExr.h"

namespace kt::fuzz {

// The input as a host hands it over: the first `loaded` bytes in the
// buffer, `fileSize` said to be the whole file's length.
inline std::unique_ptr<ktP::_imgFileBuffer> fileBuffer(const std::uint8_t* data, std::size_t size, std::size_t loaded,
                                                      std::size_t fileSize)
{
    auto buffer = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(size + 1));
    if (size > 0) std::memcpy(buffer->buffer, data, size);
    buffer->setSizeLoaded(static_cast<long long>(loaded));
    buffer->setFileSize(static_cast<long long>(fileSize));
    return buffer;
}

// An undocumented answer is a finding: stop as a crash does.
inline void require(bool documented)
{
    if (!documented) std::abort();
}

inline bool headerCode(int code) { return code == 1 || code == 4 || code == 6 || code == 14 || code == 16; }
inline bool decodeCode(int code) { return code == 1 || code == 4 || code == 6 || code == 7 || code == 14; }

}  // namespace kt::fuzz
