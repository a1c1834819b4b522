#include "plugin/exrPrecheck.h"

#include <Imath/ImathBox.h>
#include <OpenEXR/ImfAttribute.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfOpaqueAttribute.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfTileDescription.h>
#include <OpenEXR/ImfVersion.h>

#include <Iex.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "plugin/exrDwaChunkCheck.h"
#include "plugin/exrLimits.h"
#include "plugin/fileBufferStream.h"

namespace {

using u64 = std::uint64_t;
constexpr u64 kSaturated = UINT64_MAX;

// Sizes from a file are added and multiplied without wrapping: a result too
// large for 64 bits stays at the largest value, which every check refuses.
u64 times(u64 a, u64 b) { return kt::exrSaturatingProduct(a, b); }
u64 plus(u64 a, u64 b) { return kt::exrSaturatingSum(a, b); }

const char* const kShortBuffer = "File size smaller than requested";

// The loaded bytes of the file, read at given offsets, little-endian; an
// offset past the loaded data throws as the stream does.
class LoadedBytes {
public:
    explicit LoadedBytes(const ktP::_imgFileBuffer& file)
        : data(file.buffer), loaded(static_cast<u64>(std::max(file.sizeLoaded, 0LL)))
    {
    }
    u64 size() const { return loaded; }
    void need(u64 at, u64 count) const
    {
        if (at > loaded || count > loaded - at) throw Iex::IoExc(kShortBuffer);
    }
    std::uint32_t uint32At(u64 at) const
    {
        need(at, 4);
        return std::uint32_t{data[at]} | std::uint32_t{data[at + 1]} << 8 | std::uint32_t{data[at + 2]} << 16 |
               std::uint32_t{data[at + 3]} << 24;
    }
    std::int32_t int32At(u64 at) const { return static_cast<std::int32_t>(uint32At(at)); }
    // A name as OpenEXR reads it: up to 256 characters, the last a NUL.
    // Returns its length with the NUL.
    u64 nameLength(u64 at) const
    {
        constexpr u64 longest = 256;
        for (u64 i = 0; i < longest; ++i) {
            need(at + i, 1);
            if (data[at + i] == 0) return i + 1;
        }
        throw Iex::InputExc("attribute name or type without its end");
    }
    std::string text(u64 at, u64 length) const { return std::string(reinterpret_cast<const char*>(data + at), length); }

private:
    const unsigned char* data;
    u64 loaded;
};

// A preview image is read into an array of its stated width x height
// pixels, before its pixels are read.
void checkPreview(const LoadedBytes& bytes, u64 value, u64 size)
{
    const u64 width = bytes.uint32At(value);
    const u64 height = bytes.uint32At(value + 4);
    if (plus(times(times(width, height), 4), 8) > size) throw Iex::InputExc("preview larger than its attribute");
}

// Each string of a string vector is allocated at its stated length before
// it is read; the reader stops only once the attribute's size is used up.
void checkStrings(const LoadedBytes& bytes, u64 value, u64 size)
{
    u64 used = 0;
    while (used < size) {
        const u64 at = value + used;
        const std::int32_t length = bytes.int32At(at);
        if (length < 0 || static_cast<u64>(length) > bytes.size() - (at + 4))
            throw Iex::InputExc("string longer than the file");
        used += 4 + static_cast<u64>(length);
    }
}

// Walks the attributes of the header at `start` as Header::readFrom does,
// letting OpenEXR's own reader take each value so that the next attribute
// is looked for where OpenEXR will look for it. Before a value is read, its
// stated size (and what a preview or string vector states inside it) must
// lie within the loaded data: OpenEXR allocates, and for some types
// clears, that much first. Returns where the header ends.
u64 checkAttributes(_imgFileBufferStream& stream, const LoadedBytes& bytes, u64 start, int version)
{
    u64 at = start;
    for (;;) {
        const u64 nameLength = bytes.nameLength(at);
        if (nameLength == 1) return at + 1;
        const u64 typeAt = at + nameLength;
        const u64 typeLength = bytes.nameLength(typeAt);
        const std::string typeName = bytes.text(typeAt, typeLength - 1);
        const std::int32_t size = bytes.int32At(typeAt + typeLength);
        const u64 value = typeAt + typeLength + 4;
        if (size < 0) throw Iex::InputExc("negative attribute size");
        bytes.need(value, static_cast<u64>(size));
        if (typeName == "preview") checkPreview(bytes, value, static_cast<u64>(size));
        if (typeName == "stringvector") checkStrings(bytes, value, static_cast<u64>(size));

        std::unique_ptr<Imf::Attribute> attribute(Imf::Attribute::knownType(typeName.c_str())
                                                      ? Imf::Attribute::newAttribute(typeName.c_str())
                                                      : new Imf::OpaqueAttribute(typeName.c_str()));
        stream.seekg(value);
        attribute->readValueFrom(stream, size, version);
        at = stream.tellg();
    }
}

// Scan lines per chunk of each compression; 1 for values OpenEXR will refuse anyway.
u64 linesPerChunk(Imf::Compression compression) { return std::max<u64>(1, kt::exrLinesPerChunk(compression)); }

// The most pixel bytes one stored byte of each compression can become,
// rounded up: RLE writes a run of 128 bytes as 2; deflate reaches 1032 to 1
// (PIZ's Huffman runs stay below that); PXR24 deflates floats cut to 24 bits;
// B44A stores a flat 4 x 4 block of halves in 3 bytes; DWA keeps one DC
// value per 8 x 8 block and deflates those. 0 for compressions OpenEXR
// does not know.
u64 largestExpansion(Imf::Compression compression)
{
    switch (compression) {
    case Imf::NO_COMPRESSION: return 1;
    case Imf::RLE_COMPRESSION: return 64;
    case Imf::ZIPS_COMPRESSION:
    case Imf::ZIP_COMPRESSION:
    case Imf::PIZ_COMPRESSION: return 1032;
    case Imf::PXR24_COMPRESSION: return 1376;
    case Imf::B44_COMPRESSION:
    case Imf::B44A_COMPRESSION: return 11;
    case Imf::DWAA_COMPRESSION:
    case Imf::DWAB_COMPRESSION: return u64{1} << 17;
    default: return 0;
    }
}

u64 bytesPerSample(Imf::PixelType type) { return type == Imf::HALF ? 2 : 4; }

// Sides of a level of a mip- or rip-mapped image, and how many levels a
// side has, rounded as the tile description says.
u64 levelSide(u64 side, int level, Imf::LevelRoundingMode rounding)
{
    const u64 step = u64{1} << level;
    const u64 levelSize = rounding == Imf::ROUND_UP ? (side + step - 1) / step : side / step;
    return std::max<u64>(levelSize, 1);
}

int levelCount(u64 side, Imf::LevelRoundingMode rounding)
{
    int levels = 1;
    while (levelSide(side, levels - 1, rounding) > 1) ++levels;
    return levels;
}

u64 tilesOf(u64 width, u64 height, const Imf::TileDescription& tiles)
{
    return times((width + tiles.xSize - 1) / tiles.xSize, (height + tiles.ySize - 1) / tiles.ySize);
}

// The fewest chunks an image of this header can have: its stated chunk count,
// or the tiles of all its levels, or the scan-line chunks of its data window.
u64 fewestChunks(const Imf::Header& header, u64 width, u64 height)
{
    u64 chunks = 0;
    if (width > 0 && height > 0) {
        if (header.hasTileDescription()) {
            const Imf::TileDescription& tiles = header.tileDescription();
            const Imf::LevelRoundingMode rounding = tiles.roundingMode;
            if (tiles.xSize == 0 || tiles.ySize == 0) {
                chunks = 0;
            } else if (tiles.mode == Imf::MIPMAP_LEVELS) {
                const int levels = levelCount(std::max(width, height), rounding);
                for (int l = 0; l < levels; ++l)
                    chunks = plus(chunks, tilesOf(levelSide(width, l, rounding), levelSide(height, l, rounding), tiles));
            } else if (tiles.mode == Imf::RIPMAP_LEVELS) {
                const int xLevels = levelCount(width, rounding), yLevels = levelCount(height, rounding);
                for (int ly = 0; ly < yLevels; ++ly)
                    for (int lx = 0; lx < xLevels; ++lx)
                        chunks = plus(chunks, tilesOf(levelSide(width, lx, rounding), levelSide(height, ly, rounding), tiles));
            } else {
                chunks = tilesOf(width, height, tiles);
            }
        } else {
            const u64 lines = linesPerChunk(header.compression());
            chunks = (height + lines - 1) / lines;
        }
    }
    // OpenEXR reads a part's chunkCount attribute only when it does not know
    // the part's type; for every other part both its libraries compute the
    // table from the header and ignore the attribute. So a stale one (carried
    // over with the metadata of another file, say) must not refuse the file.
    if (header.hasChunkCount() && header.chunkCount() > 0 && header.hasType() && !Imf::isSupportedType(header.type()))
        chunks = std::max<u64>(chunks, static_cast<u64>(header.chunkCount()));
    return chunks;
}

// The machine's memory in bytes; no allocation beyond it can succeed.
u64 physicalMemory()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0) return kSaturated;
    return static_cast<u64>(pages) * static_cast<u64>(pageSize);
}

// Opening a luminance/chroma file, RgbaInputFile sets up conversion buffers
// of a few hundred bytes per pixel of the data window's width at once.
bool chromaBuffersFit(const Imf::Header& header, u64 width)
{
    const Imf::ChannelList& channels = header.channels();
    if (!channels.findChannel("RY") && !channels.findChannel("BY")) return true;
    constexpr u64 bytesPerPixel = 512;
    return width <= physicalMemory() / bytesPerPixel;
}

// The bytes of one header's image: the limits and chunk sizes are checked
// here (they throw), the offset table and the least pixel data it must
// store are returned. `fileBytes` bounds the table.
struct PartBytes {
    u64 table = 0;
    u64 leastData = 0;
};

PartBytes checkPart(const Imf::Header& header, bool multiPart, u64 fileBytes)
{
    const Imath::Box2i& window = header.dataWindow();
    const long long signedWidth = static_cast<long long>(window.max.x) - window.min.x + 1;
    const long long signedHeight = static_cast<long long>(window.max.y) - window.min.y + 1;
    if (signedWidth > kt::exrLargestImageSide || signedHeight > kt::exrLargestImageSide)
        throw Iex::InputExc("data window larger than the plug-in reads");
    const u64 width = signedWidth > 0 ? static_cast<u64>(signedWidth) : 0;
    const u64 height = signedHeight > 0 ? static_cast<u64>(signedHeight) : 0;

    const bool tiled = header.hasTileDescription();
    u64 tileWidth = 0, tileHeight = 0;
    if (tiled) {
        tileWidth = header.tileDescription().xSize;
        tileHeight = header.tileDescription().ySize;
        if (tileWidth > static_cast<u64>(kt::exrLargestTileSide) || tileHeight > static_cast<u64>(kt::exrLargestTileSide))
            throw Iex::InputExc("tiles larger than the plug-in reads");
    }
    const bool deep = header.hasType() && Imf::isDeepData(header.type());
    const Imf::Compression compression = header.compression();
    const u64 lines = linesPerChunk(compression);

    // Bytes of one pixel across all channels, of one full-resolution line
    // of samples, and of the whole level-0 image.
    u64 pixelBytes = 0, lineBytes = 0, imageBytes = 0;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
        const u64 size = bytesPerSample(it.channel().type);
        const u64 xSampling = static_cast<u64>(std::max(it.channel().xSampling, 1));
        const u64 ySampling = static_cast<u64>(std::max(it.channel().ySampling, 1));
        pixelBytes = plus(pixelBytes, size);
        lineBytes = plus(lineBytes, times((width + xSampling - 1) / xSampling, size));
        imageBytes = plus(imageBytes, times(times(width / xSampling, height / ySampling), size));
    }

    // OpenEXR keeps the sizes of a chunk's data in ints, and sizes its tile
    // buffers (and, reading tiles line by line, one row of tiles per channel
    // read) by the tile description, however much of a tile the image covers.
    if (!deep) {
        const u64 chunkBytes = tiled ? times(times(tileWidth, tileHeight), pixelBytes)
                                     : times(std::min(lines, height), lineBytes);
        if (chunkBytes > INT_MAX) throw Iex::InputExc("chunks larger than OpenEXR can read");
        if (tiled && times(times(width, tileHeight), 4) > INT_MAX)
            throw Iex::InputExc("rows of tiles larger than OpenEXR can read");
    }

    PartBytes bytes;
    const u64 chunks = fewestChunks(header, width, height);
    // Each offset takes 8 bytes; a sum beyond the file means a damaged header.
    if (chunks > fileBytes / 8) throw Iex::InputExc("chunk offset table larger than the file");
    bytes.table = chunks * 8;
    if (!chromaBuffersFit(header, width)) throw Iex::InputExc("image too wide for the machine's memory");

    // Each chunk starts with its coordinates and sizes (and its part's number).
    u64 chunkHeader = deep ? (tiled ? 40 : 28) : (tiled ? 20 : 8);
    if (multiPart) chunkHeader += 4;

    // Deep images must at least store each pixel's sample count. The
    // largest chunk counts only the lines and columns inside the window.
    const u64 dataBytes = deep ? times(times(width, height), 4) : imageBytes;
    const u64 rows = std::min(height, tiled ? tileHeight : lines);
    const u64 columns = tiled ? std::min(width, tileWidth) : width;
    const u64 oneChunk = deep ? times(times(columns, rows), 4)
                              : (tiled ? times(times(columns, rows), pixelBytes) : times(rows, lineBytes));
    const u64 expansion = largestExpansion(compression);
    // Even one chunk's pixels cannot come out of this file: OpenEXR would
    // still size its buffers by them while opening it.
    if (expansion > 0 && oneChunk > times(expansion, fileBytes)) throw Iex::InputExc("chunks larger than the file");

    u64 leastData = 0;
    if (expansion == 1) {
        // Uncompressed chunks hold all their bytes; one cut short reads as zeros.
        leastData = dataBytes - std::min(oneChunk, dataBytes);
    } else if (expansion > 1) {
        leastData = dataBytes / expansion + (dataBytes % expansion != 0);
    }
    bytes.leastData = plus(times(chunks, chunkHeader), leastData);
    return bytes;
}

}  // namespace

kt::ExrFileClaims kt::exrCheckBeforeOpening(ktP::_imgFileBuffer& file)
{
    _imgFileBufferStream stream(&file);
    const LoadedBytes bytes(file);
    ExrFileClaims claims;
    claims.fileBytes = static_cast<u64>(std::max({file.fileSize, file.sizeLoaded, 0LL}));

    const std::uint32_t magic = bytes.uint32At(0);
    const int version = bytes.int32At(4);
    if (magic != static_cast<std::uint32_t>(Imf::MAGIC)) throw Iex::InputExc("not an EXR file");
    const bool multiPart = Imf::isMultiPart(version);

    u64 at = 8;
    u64 tables = 0;
    u64 leastData = 0;
    std::unique_ptr<Imf::Header> first;  // the part the decoders read
    u64 firstChunks = 0;
    std::vector<kt::ExrPartLayout> parts;
    for (;;) {
        const u64 headerStart = at;
        Imf::Header header;  // registers OpenEXR's attribute types before they are looked up
        at = checkAttributes(stream, bytes, headerStart, version);
        if (at == headerStart + 1) break;  // no attributes: the empty header after the last part
        stream.seekg(headerStart);
        int headerVersion = version;
        header.readFrom(stream, headerVersion);
        const PartBytes part = checkPart(header, multiPart, claims.fileBytes);
        tables = plus(tables, part.table);
        if (tables > claims.fileBytes) throw Iex::InputExc("chunk offset tables larger than the file");
        if (headerStart == 8) {  // the part the decoders read
            leastData = part.leastData;
            claims.chunksRewrittenWhenRead = header.compression() == Imf::DWAA_COMPRESSION ||
                                             header.compression() == Imf::DWAB_COMPRESSION;
            first = std::make_unique<Imf::Header>(header);
            firstChunks = part.table / 8;
        }
        parts.push_back({header.hasTileDescription(), header.hasType() && Imf::isDeepData(header.type())});
        if (!multiPart) break;
    }
    // Opening reads the headers and every offset table. (OpenEXR 3.1 loses
    // the reader it made for a deep scan-line file whose table it cannot
    // read: such a file never reaches it.)
    if (plus(at, tables) > claims.fileBytes) throw Iex::InputExc("chunk offset tables cut short");
    if (plus(at, tables) > bytes.size()) throw Iex::IoExc(kShortBuffer);
    claims.leastBytes = plus(plus(at, tables), leastData);
    if (claims.chunksRewrittenWhenRead)
        claims.colourSetsDistinct = kt::exrDwaColourSetsDistinct(file, *first, parts, multiPart, at, firstChunks,
                                                                 plus(at, tables));
    return claims;
}
