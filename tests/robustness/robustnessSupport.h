// The exports called as a host calls them, from buffers whose loaded bytes end at an
// inaccessible page, and a watch on the largest single allocation the process asks for.
#pragma once

#include <atomic>
#include <cstddef>

#include "tests/support/exrBuilder.h"

namespace kt::robust {

using kt::test::Bytes;
using kt::test::kWhole;

// imgLoadHeader on the first sizeLoaded bytes of `file`, with fileSize as the host states it.
int loadHeader(const Bytes& file, long long sizeLoaded = kWhole, long long fileSize = kWhole);
// imgDecode8 (depth 8), imgDecode16 (16) or imgDecodef (32) into a 32 x 32 buffer.
int decode(int depth, const Bytes& file, long long sizeLoaded = kWhole, long long fileSize = kWhole);

// The largest size asked of operator new, OpenEXR's requests included, since it was last set to 0.
extern std::atomic<std::size_t> largestAllocation;

}  // namespace kt::robust
