// The plug-in's exports called as a host calls them, for tests that feed
// them many broken files, and a watch on the largest single allocation the
// process asks for.
#pragma once

#include <cstddef>
#include <string>

#include "tests/support/exrBuilder.h"

namespace kt::robust {

using kt::test::Bytes;

// imgLoadHeader on the first sizeLoaded bytes of `file`, with fileSize as the
// host states it (kWhole: the file's length). The description is put into
// *text when given.
int loadHeader(const Bytes& file, long long sizeLoaded = kt::test::kWhole, long long fileSize = kt::test::kWhole,
               std::string* text = nullptr);

// imgDecode8 (depth 8), imgDecode16 (16) or imgDecodef (32) into a 32 x 32
// buffer, from a buffer loaded as for loadHeader.
int decode(int depth, const Bytes& file, long long sizeLoaded = kt::test::kWhole,
           long long fileSize = kt::test::kWhole);

// The codes each export may answer.
bool isHeaderCode(int code);  // 1, 4, 6, 14, 16
bool isDecodeCode(int code);  // 1, 4, 6, 7, 14

// The largest size passed to operator new (any form but the aligned ones)
// since the watch was made, on any thread. One watch at a time.
class LargestAllocation {
public:
    LargestAllocation();
    std::size_t bytes() const;
};

// A file patched at its first attribute of the given name: the words
// written little-endian from `offset` bytes after the value's start (-4 is
// the size field).
Bytes withAttributeWords(const Bytes& file, const std::string& name, int offset,
                         std::initializer_list<std::uint32_t> words);

}  // namespace kt::robust
