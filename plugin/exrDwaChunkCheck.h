// The check of DWA chunks that keeps a flaw of OpenEXR 3.1's DWA decoder
// away from it.
//
// Each DWA chunk may carry its own channel rules: which channel suffixes
// are coded how, and which three channels of a layer form a colour set that
// is decoded together. The decoder sizes its buffer of DC values by the
// number of lossily coded channels, but reads one run of DC values per
// member of each colour set. Rules that place one channel at two or three
// places of a set (as the red, green and blue of a layer) therefore make it
// read past the end of that buffer: up to twice its size, and on a wide
// image far enough to fault.
#pragma once

#include <cstdint>
#include <vector>

#include <OpenEXR/ImfHeader.h>

#include "image/fileBuffer.h"

namespace kt {

// How each part's chunks are laid out, as far as walking over them needs.
struct ExrPartLayout {
    bool tiled = false;
    bool deep = false;
};

// Whether every DWA chunk of the first part (the one the decoders read)
// that OpenEXR would uncompress has colour sets of three distinct channels.
// `header` is the first part's header, `parts` the layout of every part in
// file order, `multiPart` whether chunks start with their part's number,
// `tableStart` where the first part's offset table begins and `chunkCount`
// its number of entries, `chunksStart` where the chunks begin
// (after all offset tables). The chunks are found both through the offset
// table and by walking them one after the other from `chunksStart`, as
// OpenEXR does when it rebuilds a damaged table. Chunks stored without
// compression, chunks of older versions (fixed rules) and chunks OpenEXR
// refuses before it decodes anything are passed. Bytes beyond the loaded
// data read as zeros. Does not throw and does not move the buffer's cursor.
bool exrDwaColourSetsDistinct(const ktP::_imgFileBuffer& file, const OPENEXR_IMF_NAMESPACE::Header& header,
                              const std::vector<ExrPartLayout>& parts, bool multiPart, std::uint64_t tableStart,
                              std::uint64_t chunkCount, std::uint64_t chunksStart);

}  // namespace kt
