// The exports called as a host calls them, from buffers whose loaded bytes
// end at an inaccessible page, for tests that feed them many broken files;
// and a watch on the largest single allocation the process asks for.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "image/rgbaBuffer.h"
#include "tests/support/exrBuilder.h"

namespace kt::robust {

using kt::test::Bytes;

// imgLoadHeader on the first sizeLoaded bytes of `file`, with fileSize as the
// host states it (kWhole: the file's length). The description is put into
// *text and the record into *info when given.
int loadHeader(const Bytes& file, long long sizeLoaded = kt::test::kWhole, long long fileSize = kt::test::kWhole,
               std::string* text = nullptr, imgImageInfo* info = nullptr);

// imgDecode8 (depth 8), imgDecode16 (16) or imgDecodef (32) into a 32 x 32
// buffer, from a buffer loaded as for loadHeader.
int decode(int depth, const Bytes& file, long long sizeLoaded = kt::test::kWhole, long long fileSize = kt::test::kWhole);

// imgDecodef into a width x height buffer from the whole file; null unless it answered 1.
std::unique_ptr<ktP::_imgRGBABufferf> decodeFloat(const Bytes& file, int width, int height);

// The codes each export may answer.
bool isHeaderCode(int code);  // 1, 4, 6, 14, 16
bool isDecodeCode(int code);  // 1, 4, 6, 7, 14

// The largest size asked of operator new (but its aligned forms) since the watch was made, on any thread.
class LargestAllocation {
public:
    LargestAllocation();
    std::size_t bytes() const;
};

// The file with the words written little-endian from `offset` bytes after the
// value of its first attribute of that name (-4: the size field).
Bytes withAttributeWords(const Bytes& file, const std::string& name, int offset, std::initializer_list<std::uint32_t> words);

}  // namespace kt::robust
