// EXR files made in memory for tests, read back independently, put into file
// buffers (plain or ending at an inaccessible page), and cut or damaged on
// purpose. Everything goes through OpenEXR's own C++ API over vector-backed
// streams, never through the plug-in's stream adapters, so that it can serve
// as an oracle for them.
//
// Every channel sample comes from the channel's own `value` function if set,
// else from the part's `value` (at absolute pixel coordinates; level
// coordinates for lower mip- and rip-map levels). HALF stores half(float(v)),
// FLOAT float(v), UINT the value truncated and clamped to [0, 2^32 - 1].
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <OpenEXR/ImfAttribute.h>
#include <OpenEXR/ImfBoxAttribute.h>
#include <OpenEXR/ImfCompression.h>
#include <OpenEXR/ImfDoubleAttribute.h>
#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfFloatVectorAttribute.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfLineOrder.h>
#include <OpenEXR/ImfMatrixAttribute.h>
#include <OpenEXR/ImfPixelType.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfStringVectorAttribute.h>
#include <OpenEXR/ImfTileDescription.h>
#include <OpenEXR/ImfVecAttribute.h>

#include "image/fileBuffer.h"

namespace kt::test {

using Bytes = std::vector<char>;

using SampleFunction = std::function<double(const std::string& channel, int x, int y)>;

// The default pattern: k / 16 with k in 0..60 from the coordinates and the
// channel name, so that every value is exact in half, float and differs
// between neighbours and channels.
double patternValue(const std::string& channel, int x, int y);

SampleFunction constantValue(double value);

Imath::Box2i box(int minX, int minY, int maxX, int maxY);

struct ExrChannel {
    ExrChannel(std::string channelName, Imf::PixelType pixelType = Imf::HALF, int x = 1, int y = 1)
        : name(std::move(channelName)), type(pixelType), xSampling(x), ySampling(y)
    {
    }

    std::string name;
    Imf::PixelType type = Imf::HALF;
    int xSampling = 1;
    int ySampling = 1;
    std::function<double(int x, int y)> value;  // overrides the part's value when set
};

std::vector<ExrChannel> channelList(std::initializer_list<std::string> names, Imf::PixelType type = Imf::HALF);

// One image: a single-part file by itself, or one part of a multi-part file.
struct ExrPart {
    Imath::Box2i displayWindow = box(0, 0, 15, 11);
    std::optional<Imath::Box2i> dataWindow;  // the display window when unset
    std::vector<ExrChannel> channels = channelList({"A", "B", "G", "R"});
    SampleFunction value = patternValue;
    Imf::Compression compression = Imf::ZIP_COMPRESSION;
    Imf::LineOrder lineOrder = Imf::INCREASING_Y;

    bool tiled = false;
    int tileWidth = 8;
    int tileHeight = 8;
    Imf::LevelMode levelMode = Imf::ONE_LEVEL;
    Imf::LevelRoundingMode roundingMode = Imf::ROUND_DOWN;

    // Deep data when set: the number of samples of each pixel, every sample
    // of a pixel holding the pixel's value. Scan-line parts only (a tiled
    // deep part throws std::invalid_argument); no subsampling; compression
    // NO, RLE, ZIPS or ZIP.
    std::function<int(int x, int y)> deepSamples;

    // Multi-part files only; "part<index>" when empty.
    std::string name;

    // Extra header attributes, in insertion order (a later one of the same
    // name replaces the earlier one).
    std::vector<std::pair<std::string, std::shared_ptr<Imf::Attribute>>> attributes;

    // How much pixel data is written: scan lines for scan-line parts, tiles of
    // level 0 in row order for tiled parts; negative writes everything. Fewer
    // leaves an incomplete file (zeros in its offset table).
    int writeLimit = -1;

    template <class T>
    ExrPart& attribute(const std::string& attributeName, const T& attributeValue)
    {
        attributes.emplace_back(attributeName, std::make_shared<Imf::TypedAttribute<T>>(attributeValue));
        return *this;
    }
    // Any attribute, copied (an Imf::OpaqueAttribute for an unknown type, say).
    ExrPart& attribute(const std::string& attributeName, const Imf::Attribute& attributeValue);

    Imath::Box2i window() const { return dataWindow.value_or(displayWindow); }
    // The header as written, without the multi-part name and type.
    Imf::Header header() const;
};

// The bytes of a single-part file, of a multi-part file (one part per entry),
// or a single-part file written into any stream.
Bytes makeExr(const ExrPart& part);
Bytes makeMultiPartExr(const std::vector<ExrPart>& parts);
void writeExr(Imf::OStream& out, const ExrPart& part);

// What OpenEXR reads from a file, all samples widened to double. Deep parts
// keep the first sample of each pixel (0 for pixels without samples).
struct DecodedChannel {
    std::string name;
    Imf::PixelType type = Imf::HALF;
    int xSampling = 1;
    int ySampling = 1;
    Imath::Box2i window;         // the data window
    std::vector<double> values;  // one per sample, rows top to bottom

    // The sample at pixel (x, y), which must lie on the sampling grid.
    double at(int x, int y) const;
};

struct DecodedExr {
    Imf::Header header;
    int version = 0;        // the version field, flags included
    bool complete = false;  // OpenEXR's own completeness test
    std::vector<DecodedChannel> channels;  // in the file's channel order

    const DecodedChannel& channel(const std::string& name) const;  // throws std::out_of_range
    bool hasChannel(const std::string& name) const;
};

// Reads part `part` of a file (or any input stream): header, then every pixel
// (level 0 for tiled files). Throws what OpenEXR throws. With pixels false
// only the header, version and completeness are taken.
DecodedExr readExr(const Bytes& file, int part = 0, bool pixels = true);
DecodedExr readExr(Imf::IStream& in, int part = 0, bool pixels = true);

constexpr long long kWhole = -1;
// A buffer holding the first `sizeLoaded` bytes of `file` (all of it by
// default), with fileSize saying how long the whole file is (its length by
// default). The capacity defaults to one byte more than the larger of the
// two lengths, since the last byte of a buffer never holds data.
std::unique_ptr<ktP::_imgFileBuffer> fileBufferWith(const Bytes& file, long long sizeLoaded = kWhole,
                                                    long long fileSize = kWhole, long long capacity = kWhole);
// An empty buffer to encode into, and the valid data (first sizeLoaded bytes) of one.
std::unique_ptr<ktP::_imgFileBuffer> emptyFileBuffer(unsigned int capacity);
Bytes contentOf(const ktP::_imgFileBuffer& buffer);

// A buffer as fileBufferWith makes it, whose loaded bytes end right where an
// inaccessible page begins: any read past them ends the process, also from
// code the sanitizers do not see into (OpenEXR).
class GuardPagedFileBuffer {
public:
    explicit GuardPagedFileBuffer(const Bytes& file, long long sizeLoaded = kWhole, long long fileSize = kWhole);
    ~GuardPagedFileBuffer();
    GuardPagedFileBuffer(const GuardPagedFileBuffer&) = delete;
    GuardPagedFileBuffer& operator=(const GuardPagedFileBuffer&) = delete;
    ktP::_imgFileBuffer* get() const { return buffer.get(); }

private:
    std::unique_ptr<ktP::_imgFileBuffer> buffer;
    unsigned char* owned = nullptr;
    void* mapping = nullptr;
    std::size_t mappedBytes = 0;
};

// The characters of a host text (8-bit or 16-bit units) as bytes.
template <class Text>
std::string textOf(const Text& text)
{
    std::string out;
    for (int i = 0; i < text.length; ++i) out += static_cast<char>(text.text[i]);
    return out;
}

// Cutting and damaging files.
Bytes truncated(const Bytes& file, std::size_t length);
Bytes patched(const Bytes& file, std::size_t offset, std::initializer_list<unsigned char> bytes);
// The little-endian number of `bytes` bytes (at most 8) at `at`.
std::uint64_t littleEndianAt(const Bytes& file, std::size_t at, int bytes = 4);
// The first offset at or after `from` where `needle` occurs; npos if none.
std::size_t findBytes(const Bytes& file, const std::string& needle, std::size_t from = 0);
// Where the header(s) end, just after the terminating zero(s): the start of
// the offset table(s).
std::size_t headerEnd(const Bytes& file);
// The number of chunks of a part, as its offset table lists them.
int chunkCount(const Bytes& file, int part = 0);
// Where the offset tables end; the stored chunk offsets of a single-part file.
std::size_t offsetTableEnd(const Bytes& file);
std::vector<std::uint64_t> chunkOffsets(const Bytes& file);

// The real-world EXR corpus beside the checkout: its folder, or "" when it
// is absent (tests then skip, saying so).
std::string corpusDirectory();
// The .exr files of one corpus folder ("ScanLines", "Damaged", ...), sorted
// by name; empty when the folder is absent.
std::vector<std::string> corpusFiles(const std::string& folder);
// A whole file from disk; throws std::runtime_error when it cannot be read.
Bytes readFileBytes(const std::string& path);

// A growing in-memory output stream.
class MemoryOStream : public Imf::OStream {
public:
    MemoryOStream();
    void write(const char src[], int n) override;
    uint64_t tellp() override;
    void seekp(uint64_t pos) override;
    const Bytes& bytes() const { return data; }

private:
    Bytes data;
    std::size_t position = 0;
};

}  // namespace kt::test
