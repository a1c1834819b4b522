// Small EXR files of many kinds, the starting points of the truncation and
// mutation sweeps, the concurrency test and the fuzzers' seeds.
#pragma once

#include <string>
#include <vector>

#include "tests/support/exrBuilder.h"

namespace kt::robust {

struct SampleFile {
    std::string name;
    kt::test::Bytes bytes;
};

// Scan-line and tiled (one level, mip-mapped, rip-mapped), every lossless and
// two lossy compressions, half, float and unsigned channels, data windows
// inside and across the display window, metadata, luminance/chroma,
// multi-part and deep files. A few kB each.
std::vector<SampleFile> sampleFiles();

}  // namespace kt::robust
