// Bands of scan lines: the unit in which ktexr reads and writes OpenEXR
// parts directly, so that memory grows with a band, never with the frame.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfCompression.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>

#include "frameScan.h"

namespace ktexr {

// Scan lines per chunk of a scan-line part with this compression.
int linesPerChunk(Imf::Compression compression);
// "zip", "piz", ...: the compression as oiiotool and exrheader name it.
std::string compressionText(Imf::Compression compression);

// Lines per band for a part: whole chunks, about kBandBytes of samples.
constexpr std::size_t kBandBytes = std::size_t{32} << 20;
int bandHeight(const Imf::Header& header, int chunkLines);

int floorDiv(int a, int b);
int ceilDiv(int a, int b);

// A slice whose sample at sampling coordinates (firstColumn, firstRow), that
// is pixel (firstColumn * xSampling, firstRow * ySampling), is at `data`,
// rows `columns` samples long.
Imf::Slice bandSlice(Imf::PixelType type, void* data, int firstColumn, int firstRow, int columns, int xSampling,
                     int ySampling);

// One band's samples of every channel of a part, from column minX to maxX.
// As float (for counting and comparing) or in each channel's own type (for
// copying without change).
class ChannelBand {
public:
    ChannelBand(const Imf::ChannelList& channels, int minX, int maxX, bool nativeTypes = false);

    // Points a frame buffer at the band for lines y0..y1 (zeroed first).
    Imf::FrameBuffer frameBuffer(int y0, int y1);
    template <class Part>
    void attach(Part& part, int y0, int y1)
    {
        part.setFrameBuffer(frameBuffer(y0, y1));
    }
    void attachTiles(Imf::TiledInputPart& part, int y0, int y1);

    // Adds the samples of lines y0..y1 to `stats` (in channel order).
    void count(std::vector<ChannelStats>& stats, int y0, int y1) const;
    // The pixels of lines y0..y1 where any channel holds a sample that is
    // not zero (NaN included, -0 not); an empty box when there is none.
    Imath::Box2i nonZeroBox(int y0, int y1) const;
    // The sample of channel `c` at pixel (x, y) of the band read last, which
    // must lie on the channel's sampling grid.
    float at(std::size_t c, int x, int y) const;
    std::size_t channelCount() const { return channels_.size(); }
    const std::string& name(std::size_t c) const { return channels_[c].name; }

private:
    struct Samples {
        std::string name;
        Imf::PixelType type;
        int xSampling;
        int ySampling;
        int firstColumn;
        int columns;
        std::vector<unsigned char> data;
    };
    std::vector<Samples> channels_;
    int y0_ = 0;
};

}  // namespace ktexr
