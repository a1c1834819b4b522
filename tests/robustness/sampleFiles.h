// Small EXR files of many kinds, where the truncation and concurrency tests
// and the fuzzers start: scan lines and tiles (one level, mip- and rip-mapped),
// every lossless and two lossy compressions, half, float and unsigned channels,
// data windows inside and across, metadata, chroma, multi-part, deep.
#pragma once

#include <string>
#include <vector>

#include "tests/support/exrBuilder.h"

namespace kt::robust {

struct SampleFile {
    std::string name;
    kt::test::Bytes bytes;
};

std::vector<SampleFile> sampleFiles();

}  // namespace kt::robust
