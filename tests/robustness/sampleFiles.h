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

// Files that reach the classes of defects OpenEXR fixed after 3.1.5 which
// the plug-in can be handed: each decompressor with a data window far from
// the origin, and a DWA file whose chunks lie in the middle of a large file.
// The fuzzers start from them too, so the instrumented library checks them.
std::vector<SampleFile> knownDefectFiles();

}  // namespace kt::robust
