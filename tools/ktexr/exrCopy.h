// Writing EXR files with OpenEXR directly, band by band, without loss:
// every part, channel, pixel type and attribute of the source headers is
// kept; the caller decides only the data windows and where the samples of
// each band come from. Crop and assembly are built on this.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfMultiPartInputFile.h>

namespace ktexr {

// Fills lines y0..y1 of part `part`: reads them from the sources into the
// frame buffer (absolute pixel addressing; zero where no source has data).
using BandFiller = std::function<void(int part, const Imf::FrameBuffer& buffer, int y0, int y1)>;

struct BandedPart {
    Imf::Header header;  // as written: the source's header with the new data window
    int bandMinX = 0;    // the columns the band buffer spans: the new data
    int bandMaxX = -1;   // window's and every source's that is read into it
};

// Writes `path` with these parts through OutputFile: a regular file is
// written beside its place and renamed there once complete (keeping the
// permissions, owner, group and extended attributes of the file it
// replaces); standard output ("-"), a pipe or a character device gets the
// file straight through, made first in a private temporary file (TMPDIR),
// since OpenEXR goes back to fill in its offset tables. Throws a Failure
// naming the file. Returns the size of the file written.
std::uint64_t writeBanded(const std::string& path, const std::vector<BandedPart>& parts, const BandFiller& fill);

// The size the file writeBanded would write, without writing it anywhere.
std::uint64_t bandedSize(const std::vector<BandedPart>& parts, const BandFiller& fill);

// Headers that can be written again unchanged but for the data window:
// chunk counts and other bookkeeping OpenEXR redoes are removed. Deep and
// multi-level tiled parts are refused with a Failure naming `file`.
Imf::Header copyableHeader(const Imf::Header& header, const std::string& file, int part);

// Reads lines y0..y1 of a part (scan-line or tiled), where they meet its
// data window, into `buffer`.
void readLines(Imf::MultiPartInputFile& file, int part, const Imf::FrameBuffer& buffer, int y0, int y1);

// The smallest box holding every sample that is not zero (NaN counts) in
// lines y0..y1 of `buffer`'s float copy; used as a running bound.
struct NonZeroBounds {
    Imath::Box2i box;  // empty until a sample is found
    void extend(int x0, int y0, int x1, int y1);
};

}  // namespace ktexr
