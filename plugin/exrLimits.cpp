#include "plugin/exrLimits.h"

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfTileDescription.h>

#include <algorithm>

namespace kt {

std::uint64_t exrLinesPerChunk(OPENEXR_IMF_NAMESPACE::Compression compression)
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
    case OPENEXR_IMF_NAMESPACE::DWAB_COMPRESSION:
        return 256;
    default:
        return 0;
    }
}

std::uint64_t exrChunkByteBound(const OPENEXR_IMF_NAMESPACE::Header& header)
{
    std::uint64_t bytesPerPixel = 0;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it)
        bytesPerPixel += it.channel().type == OPENEXR_IMF_NAMESPACE::HALF ? 2 : 4;

    const Imath::Box2i& window = header.dataWindow();
    const std::uint64_t width = static_cast<std::uint64_t>(std::int64_t{window.max.x} - window.min.x + 1);
    const std::uint64_t height = static_cast<std::uint64_t>(std::int64_t{window.max.y} - window.min.y + 1);
    const std::uint64_t lines = exrLinesPerChunk(header.compression());
    std::uint64_t columns = width;
    // An unknown compression is given the largest chunks there are.
    std::uint64_t rows = std::min(height, lines == 0 ? exrMostLinesPerChunk : lines);
    if (header.hasTileDescription()) {
        // No level is larger than level 0, and no tile larger than its level.
        const OPENEXR_IMF_NAMESPACE::TileDescription& tiles = header.tileDescription();
        columns = std::min<std::uint64_t>(width, tiles.xSize);
        rows = std::min<std::uint64_t>(height, tiles.ySize);
    }
    return exrSaturatingProduct(exrSaturatingProduct(columns, rows), bytesPerPixel);
}

}  // namespace kt
