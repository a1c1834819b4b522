#include "exrBands.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <OpenEXR/ImfTiledInputPart.h>
#include <Imath/half.h>

namespace ktexr {

namespace {

std::size_t bytesOf(Imf::PixelType type) { return type == Imf::HALF ? 2 : 4; }

}  // namespace

int linesPerChunk(Imf::Compression compression)
{
    switch (compression) {
    case Imf::ZIP_COMPRESSION:
    case Imf::PXR24_COMPRESSION: return 16;
    case Imf::PIZ_COMPRESSION:
    case Imf::B44_COMPRESSION:
    case Imf::B44A_COMPRESSION:
    case Imf::DWAA_COMPRESSION: return 32;
    case Imf::DWAB_COMPRESSION: return 256;
    default: return 1;
    }
}

std::string compressionText(Imf::Compression compression)
{
    switch (compression) {
    case Imf::NO_COMPRESSION: return "none";
    case Imf::RLE_COMPRESSION: return "rle";
    case Imf::ZIPS_COMPRESSION: return "zips";
    case Imf::ZIP_COMPRESSION: return "zip";
    case Imf::PIZ_COMPRESSION: return "piz";
    case Imf::PXR24_COMPRESSION: return "pxr24";
    case Imf::B44_COMPRESSION: return "b44";
    case Imf::B44A_COMPRESSION: return "b44a";
    case Imf::DWAA_COMPRESSION: return "dwaa";
    case Imf::DWAB_COMPRESSION: return "dwab";
    default: return "unknown";
    }
}

int bandHeight(const Imf::Header& header, int chunkLines)
{
    const Imath::Box2i window = header.dataWindow();
    const std::size_t width = static_cast<std::size_t>(window.max.x) - static_cast<std::size_t>(window.min.x) + 1;
    std::size_t lineBytes = 0;
    for (auto c = header.channels().begin(); c != header.channels().end(); ++c) lineBytes += 4 * width;
    const std::size_t lines = std::max<std::size_t>(1, kBandBytes / std::max<std::size_t>(1, lineBytes));
    const std::size_t chunks = std::max<std::size_t>(1, lines / static_cast<std::size_t>(chunkLines));
    return static_cast<int>(std::min<std::size_t>(chunks * static_cast<std::size_t>(chunkLines), 1 << 20));
}

int floorDiv(int a, int b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
int ceilDiv(int a, int b) { return -floorDiv(-a, b); }

Imf::Slice bandSlice(Imf::PixelType type, void* data, int firstColumn, int firstRow, int columns, int xSampling,
                     int ySampling)
{
    const auto xStride = static_cast<std::ptrdiff_t>(bytesOf(type));
    const std::ptrdiff_t yStride = xStride * columns;
    // OpenEXR addresses a sample as base + column * xStride + row * yStride
    // with absolute coordinates; the base itself may lie outside the band,
    // so it is computed as an integer, never as a pointer.
    const auto base = reinterpret_cast<std::intptr_t>(data) - firstColumn * xStride - firstRow * yStride;
    return Imf::Slice(type, reinterpret_cast<char*>(base), static_cast<std::size_t>(xStride),
                      static_cast<std::size_t>(yStride), xSampling, ySampling);
}

ChannelBand::ChannelBand(const Imf::ChannelList& channels, int minX, int maxX, bool nativeTypes)
{
    for (auto c = channels.begin(); c != channels.end(); ++c) {
        const Imf::Channel& channel = c.channel();
        const int first = floorDiv(minX, channel.xSampling);
        const int columns = floorDiv(maxX, channel.xSampling) - first + 1;
        channels_.push_back({c.name(), nativeTypes ? channel.type : Imf::FLOAT, channel.xSampling, channel.ySampling,
                             first, std::max(columns, 0), {}});
    }
}

Imf::FrameBuffer ChannelBand::frameBuffer(int y0, int y1)
{
    y0_ = y0;
    Imf::FrameBuffer buffer;
    for (Samples& s : channels_) {
        const int rows = std::max(0, floorDiv(y1, s.ySampling) - ceilDiv(y0, s.ySampling) + 1);
        const std::size_t bytes =
            static_cast<std::size_t>(rows) * static_cast<std::size_t>(s.columns) * bytesOf(s.type);
        s.data.assign(std::max<std::size_t>(bytes, 4), 0);
        buffer.insert(s.name, bandSlice(s.type, s.data.data(), s.firstColumn, ceilDiv(y0, s.ySampling), s.columns,
                                        s.xSampling, s.ySampling));
    }
    return buffer;
}

void ChannelBand::attachTiles(Imf::TiledInputPart& part, int y0, int y1) { part.setFrameBuffer(frameBuffer(y0, y1)); }

float ChannelBand::at(std::size_t c, int x, int y) const
{
    const Samples& s = channels_[c];
    const std::size_t index = static_cast<std::size_t>(floorDiv(y, s.ySampling) - ceilDiv(y0_, s.ySampling)) *
                                  static_cast<std::size_t>(s.columns) +
                              static_cast<std::size_t>(floorDiv(x, s.xSampling) - s.firstColumn);
    const unsigned char* p = s.data.data() + index * bytesOf(s.type);
    switch (s.type) {
    case Imf::HALF: {
        half h;
        std::memcpy(&h, p, 2);
        return static_cast<float>(h);
    }
    case Imf::UINT: {
        std::uint32_t u = 0;
        std::memcpy(&u, p, 4);
        return static_cast<float>(u);
    }
    default: {
        float f = 0.0f;
        std::memcpy(&f, p, 4);
        return f;
    }
    }
}

Imath::Box2i ChannelBand::nonZeroBox(int y0, int y1) const
{
    Imath::Box2i box;
    for (const Samples& s : channels_) {
        const int firstRow = ceilDiv(y0, s.ySampling);
        const int rows = std::max(0, floorDiv(y1, s.ySampling) - firstRow + 1);
        const std::size_t bytes = bytesOf(s.type);
        // Zero and minus zero differ only in the sign bit, the top bit of
        // the last byte (the samples are little-endian in memory on every
        // machine ktexr runs on, as OpenEXR's own frame buffers are).
        const std::uint32_t mask = s.type == Imf::HALF ? 0x7fffu : s.type == Imf::FLOAT ? 0x7fffffffu : 0xffffffffu;
        for (int r = 0; r < rows; ++r) {
            const unsigned char* row = s.data.data() + static_cast<std::size_t>(r) * static_cast<std::size_t>(s.columns) * bytes;
            int first = -1, last = -1;
            for (int col = 0; col < s.columns; ++col) {
                std::uint32_t bits = 0;
                std::memcpy(&bits, row + static_cast<std::size_t>(col) * bytes, bytes);
                if ((bits & mask) == 0) continue;
                if (first < 0) first = col;
                last = col;
            }
            if (first < 0) continue;
            const int y = (firstRow + r) * s.ySampling;
            box.extendBy(Imath::V2i((s.firstColumn + first) * s.xSampling, y));
            box.extendBy(Imath::V2i((s.firstColumn + last) * s.xSampling + s.xSampling - 1, y + s.ySampling - 1));
        }
    }
    return box;
}

void ChannelBand::count(std::vector<ChannelStats>& stats, int y0, int y1) const
{
    for (std::size_t c = 0; c < channels_.size() && c < stats.size(); ++c) {
        const Samples& s = channels_[c];
        const int rows = std::max(0, floorDiv(y1, s.ySampling) - ceilDiv(y0, s.ySampling) + 1);
        const std::size_t n = static_cast<std::size_t>(rows) * static_cast<std::size_t>(s.columns);
        ChannelStats local;
        if (s.type == Imf::FLOAT) {
            const unsigned char* p = s.data.data();
            for (std::size_t i = 0; i < n; ++i) {
                float f = 0.0f;
                std::memcpy(&f, p + 4 * i, 4);
                local.add(f);
            }
        } else {
            for (int r = 0; r < rows; ++r)
                for (int col = 0; col < s.columns; ++col)
                    local.add(at(c, (s.firstColumn + col) * s.xSampling, (ceilDiv(y0, s.ySampling) + r) * s.ySampling));
        }
        stats[c].merge(local);
    }
}

}  // namespace ktexr
