// What the plug-in knows about the size of an EXR file's chunks, in one
// place: the scan lines each compression puts in a chunk, the largest number
// of bytes one chunk can unpack to, and the saturating arithmetic that sizes
// taken from a file's header are worked out with (a damaged header must not
// make them wrap).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>

#include <OpenEXR/ImfCompression.h>
#include <OpenEXR/ImfHeader.h>

namespace kt {

constexpr std::uint64_t exrSaturated = std::numeric_limits<std::uint64_t>::max();

inline std::uint64_t exrSaturatingProduct(std::uint64_t a, std::uint64_t b)
{
    return a != 0 && b > exrSaturated / a ? exrSaturated : a * b;
}

inline std::uint64_t exrSaturatingSum(std::uint64_t a, std::uint64_t b)
{
    return a > exrSaturated - b ? exrSaturated : a + b;
}

// No single block beyond this is asked for: the sizes come from the file,
// and the allocator's own refusal of absurd sizes is not to be relied on.
constexpr std::uint64_t exrLargestAllocation = std::uint64_t{1} << 39;

// Array new of count elements; std::bad_alloc when that cannot be had.
template <class T>
T* exrNewArray(std::uint64_t count)
{
    if (count > exrLargestAllocation / sizeof(T)) throw std::bad_alloc();
    T* values = new (std::nothrow) T[static_cast<std::size_t>(count)];
    if (!values) throw std::bad_alloc();
    return values;
}

// The most scan lines any compression OpenEXR knows puts in one chunk.
constexpr std::uint64_t exrMostLinesPerChunk = 256;

// Scan lines per chunk of a scan-line file with this compression; 0 for a
// compression OpenEXR does not know (each caller decides what to assume).
std::uint64_t exrLinesPerChunk(OPENEXR_IMF_NAMESPACE::Compression compression);

// An upper bound of the bytes one chunk of the header's image can hold when
// uncompressed (a line buffer of a scan-line file, one tile of a tiled
// file), counting every channel without subsampling; saturates instead of
// wrapping.
std::uint64_t exrChunkByteBound(const OPENEXR_IMF_NAMESPACE::Header& header);

}  // namespace kt
