// Checks made before OpenEXR is let loose on a file from the host.
//
// OpenEXR sizes its allocations by what a file's headers say: attribute
// sizes, offset-table lengths, data windows, tiles. A damaged or hostile
// header can announce gigabytes in a file of a few hundred bytes, and
// OpenEXR 3.1 allocates (and for some attributes clears) that much before
// it reads far enough to notice. Since the whole file lies in the host's
// buffer, every such claim is measured against the file's size first.
#pragma once

#include <cstdint>

#include "image/fileBuffer.h"

namespace kt {

// The widest and tallest data window the plug-in reads (16 times the widest
// renders in use), and the largest tile side: bounds on the tables and
// buffers that OpenEXR sizes by these numbers.
constexpr std::int64_t exrLargestImageSide = std::int64_t{1} << 20;
constexpr std::int64_t exrLargestTileSide = std::int64_t{1} << 16;

// What a file's headers claim, measured against what the host says the
// file holds.
struct ExrFileClaims {
    // The fewest bytes a file with these headers can have for the pixels of
    // its first part (the one the decoders read): headers, offset tables,
    // that part's chunk headers, and its pixel data at its compression's
    // largest expansion (uncompressed data must all be there but for one
    // chunk, which then reads as zeros).
    std::uint64_t leastBytes = 0;
    // The larger of the buffer's fileSize and sizeLoaded.
    std::uint64_t fileBytes = 0;
    // The first part is DWA-compressed. OpenEXR's DWA decompressor turns the
    // byte order of the counters at the head of each chunk around where they
    // lie: it writes into its input and reads it as 64-bit words wherever the
    // chunk starts. Such chunks must reach it as private, aligned copies,
    // never as pointers into the host's buffer.
    bool chunksRewrittenWhenRead = false;
    // Every DWA chunk of the first part groups three distinct channels into
    // each colour set it decodes together (plugin/exrDwaChunkCheck.h): rules
    // that repeat a channel make OpenEXR's decoder read past its buffers.
    bool colourSetsDistinct = true;

    // Whether the pixel data can be handed to OpenEXR: the file can hold it
    // and no chunk of it would be read out of bounds.
    bool pixelDataFits() const { return leastBytes <= fileBytes && colourSetsDistinct; }
};

// Reads the magic number, the version field and every header of the file in
// `file` as OpenEXR does when it opens a file, checking before each
// attribute is read that its stated size fits in the file; then checks
// that the data windows and tiles stay within the limits above, that no
// chunk of the image is larger than OpenEXR can handle, that the offset
// tables fit in the file, and that a luminance/chroma image is not so wide
// that its conversion buffers exceed the machine's memory.
//
// Throws what OpenEXR throws while reading headers (Iex::IoExc "File size
// smaller than requested" when the loaded data ends inside them), and
// Iex::InputExc when a check fails. Whether the pixel data can fit, and for
// DWA files whether its chunks are safe to decode, is left to the caller
// (pixelDataFits): header loading does not need it. Moves the buffer's
// cursor.
ExrFileClaims exrCheckBeforeOpening(ktP::_imgFileBuffer& file);

}  // namespace kt
