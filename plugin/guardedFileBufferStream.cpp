#include "plugin/guardedFileBufferStream.h"

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfCompression.h>
#include <OpenEXR/ImfTileDescription.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace kt {

namespace {

// Beyond this a tail copy is refused outright: no chunk OpenEXR can read is
// anywhere near as large, and the allocator need not be asked.
constexpr std::uint64_t kLargestCopy = std::uint64_t{1} << 38;

std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b)
{
    if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a) return std::numeric_limits<std::uint64_t>::max();
    return a * b;
}

// Scan lines per chunk of each compression; unknown ones get the largest.
std::uint64_t linesPerChunk(OPENEXR_IMF_NAMESPACE::Compression compression)
{
    switch (compression) {
    case OPENEXR_IMF_NAMESPACE::NO_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::RLE_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::ZIPS_COMPRESSION:
        return 1;
    case OPENEXR_IMF_NAMESPACE::ZIP_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::PXR24_COMPRESSION:
        return 16;
    case OPENEXR_IMF_NAMESPACE::PIZ_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::B44_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::B44A_COMPRESSION:
    case OPENEXR_IMF_NAMESPACE::DWAA_COMPRESSION:
        return 32;
    default:
        return 256;
    }
}

}  // namespace

std::uint64_t exrChunkByteBound(const OPENEXR_IMF_NAMESPACE::Header& header)
{
    std::uint64_t bytesPerPixel = 0;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it)
        bytesPerPixel += it.channel().type == OPENEXR_IMF_NAMESPACE::HALF ? 2 : 4;

    const Imath::Box2i& window = header.dataWindow();
    const std::uint64_t width = static_cast<std::uint64_t>(std::int64_t{window.max.x} - window.min.x + 1);
    const std::uint64_t height = static_cast<std::uint64_t>(std::int64_t{window.max.y} - window.min.y + 1);
    std::uint64_t columns = width;
    std::uint64_t rows = std::min(height, linesPerChunk(header.compression()));
    if (header.hasTileDescription()) {
        // No level is larger than level 0, and no tile larger than its level.
        const OPENEXR_IMF_NAMESPACE::TileDescription& tiles = header.tileDescription();
        columns = std::min<std::uint64_t>(width, tiles.xSize);
        rows = std::min<std::uint64_t>(height, tiles.ySize);
    }
    return saturatingProduct(saturatingProduct(columns, rows), bytesPerPixel);
}

_imgGuardedFileBufferStream::_imgGuardedFileBufferStream(ktP::_imgFileBuffer* buffer)
    : _imgFileBufferStream(buffer), source(buffer)
{
}

_imgGuardedFileBufferStream::~_imgGuardedFileBufferStream() = default;

void _imgGuardedFileBufferStream::FreeDeleter::operator()(char* p) const { std::free(p); }

void _imgGuardedFileBufferStream::setGuard(std::uint64_t guardBytes) { guard = guardBytes; }

char* _imgGuardedFileBufferStream::readMemoryMapped(int n)
{
    char* direct = _imgFileBufferStream::readMemoryMapped(n);
    if (guard == 0) return direct;

    const long long start = direct - reinterpret_cast<char*>(source->buffer);
    const long long end = source->sizeLoaded;
    const std::uint64_t behind = static_cast<std::uint64_t>(end - start);
    if (behind >= guard) return direct;

    if (!tailCopy) {
        // The last `guard` loaded bytes (or all of them), then `guard` zeros:
        // every request starting in that tail has its guard's bytes behind it.
        // calloc leaves large blocks to the system's zero pages, so the
        // padding costs address space, not memory.
        const std::uint64_t tail = std::min(static_cast<std::uint64_t>(end), guard);
        if (guard > kLargestCopy) throw std::bad_alloc();
        void* block = std::calloc(static_cast<std::size_t>(tail + guard), 1);
        if (!block) throw std::bad_alloc();
        tailCopy.reset(static_cast<char*>(block));
        tailStart = end - static_cast<long long>(tail);
        std::memcpy(tailCopy.get(), source->buffer + tailStart, static_cast<std::size_t>(tail));
    }
    return tailCopy.get() + (start - tailStart);
}

}  // namespace kt
