// The encoders' quick way to a file: half-float R, G, B, A in scan-line
// chunks of one line each, deflated by the ChunkDeflater on OpenEXR's global
// thread pool. OpenEXR itself serialises the header, so the file's header
// bytes are the ones its own output file would write; the chunks hold the
// same bytes before compression, arranged as OpenEXR arranges them, and
// decode to the same pixels.
#pragma once

#include <functional>

#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfRgba.h>

namespace kt {

enum class ExrWriteOutcome {
    written,        // the file is complete
    headerRefused,  // nothing of the pixels was written; the stream holds what the header got to
    pixelsFailed,   // the stream holds the header and part of the chunks, and no offset table
};

// Writes the file of `header` (its data window, ZIPS compression, increasing
// lines; the R, G, B, A half channels are added) into `out`: the magic number,
// the version, the header, the offset table, then every line of the data
// window, whose halves `row(y, pixels)` provides (pixels has room for the
// window's width; `row` is called from several threads at once, for
// different lines). Finally seeks back to fill in the offset table.
// `threads` pool tasks help the calling thread. Throws nothing itself;
// exceptions of `out` end the write with the outcome of the phase they came
// in.
ExrWriteOutcome exrWriteRgbaZipsLines(OPENEXR_IMF_NAMESPACE::OStream& out, const OPENEXR_IMF_NAMESPACE::Header& header,
                                      int threads,
                                      const std::function<void(int y, OPENEXR_IMF_NAMESPACE::Rgba* pixels)>& row);

}  // namespace kt
