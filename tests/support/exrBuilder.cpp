#include "tests/support/exrBuilder.h"

#include <Imath/half.h>
#include <OpenEXR/Iex.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfDeepFrameBuffer.h>
#include <OpenEXR/ImfDeepScanLineInputPart.h>
#include <OpenEXR/ImfDeepScanLineOutputFile.h>
#include <OpenEXR/ImfDeepScanLineOutputPart.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartInputFile.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfTiledInputPart.h>
#include <OpenEXR/ImfTiledOutputFile.h>
#include <OpenEXR/ImfTiledOutputPart.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <type_traits>

#include <sys/mman.h>
#include <unistd.h>

namespace kt::test {
namespace {

// An in-memory input stream that copies (not memory-mapped); throws
// Iex::InputExc at the end of the data.
class MemoryIStream : public Imf::IStream {
public:
    explicit MemoryIStream(const Bytes& bytes) : Imf::IStream("memory"), data(bytes) {}
    bool read(char dst[], int n) override
    {
        if (n < 0 || position > data.size() || static_cast<std::size_t>(n) > data.size() - position)
            throw IEX_NAMESPACE::InputExc("Unexpected end of file.");
        if (n > 0) std::memcpy(dst, data.data() + position, static_cast<std::size_t>(n));
        position += static_cast<std::size_t>(n);
        return position < data.size();
    }
    uint64_t tellg() override { return position; }
    void seekg(uint64_t pos) override { position = static_cast<std::size_t>(pos); }

private:
    const Bytes& data;
    std::size_t position = 0;
};

int floorDiv(int a, int b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0); }
int ceilDiv(int a, int b) { return -floorDiv(-a, b); }

std::size_t sampleSize(Imf::PixelType type) { return type == Imf::HALF ? 2 : 4; }

void storeSample(unsigned char* at, Imf::PixelType type, double v)
{
    const half h(static_cast<float>(v));
    const float f = static_cast<float>(v);
    const std::uint32_t u = v >= 4294967295.0 ? 0xFFFFFFFFu : v > 0 ? static_cast<std::uint32_t>(v) : 0;
    const void* from = type == Imf::HALF    ? static_cast<const void*>(&h)
                       : type == Imf::FLOAT ? static_cast<const void*>(&f)
                                            : &u;
    std::memcpy(at, from, sampleSize(type));
}

double loadSample(const unsigned char* at, Imf::PixelType type)
{
    half h;
    float f = 0;
    std::uint32_t u = 0;
    void* to = type == Imf::HALF ? static_cast<void*>(&h) : type == Imf::FLOAT ? static_cast<void*>(&f) : &u;
    std::memcpy(to, at, sampleSize(type));
    return type == Imf::HALF ? double(float(h)) : type == Imf::FLOAT ? double(f) : double(u);
}

// The address OpenEXR takes as element (0, 0) of a row-major array over window w.
char* originOf(void* data, const Imath::Box2i& w, std::size_t element)
{
    const std::intptr_t width = w.max.x - w.min.x + 1;
    const std::intptr_t offset = (std::intptr_t(w.min.y) * width + w.min.x) * std::intptr_t(element);
    return reinterpret_cast<char*>(reinterpret_cast<std::intptr_t>(data) - offset);
}

// The samples of one channel over one window, in the channel's own type.
struct Plane {
    Imf::PixelType type;
    int xSampling, ySampling;
    int firstColumn, firstRow;  // sample grid indices of the window's first sample
    int columns, rows;
    std::vector<unsigned char> bytes;

    Plane(Imf::PixelType t, int xs, int ys, const Imath::Box2i& w)
        : type(t), xSampling(xs), ySampling(ys), firstColumn(ceilDiv(w.min.x, xs)), firstRow(ceilDiv(w.min.y, ys)),
          columns(std::max(0, floorDiv(w.max.x, xs) - firstColumn + 1)),
          rows(std::max(0, floorDiv(w.max.y, ys) - firstRow + 1)),
          bytes(static_cast<std::size_t>(columns) * rows * sampleSize(t) + 4)
    {
    }

    unsigned char* sample(int c, int r) { return bytes.data() + (std::size_t(r) * columns + c) * sampleSize(type); }
    // Where OpenEXR's sample (0, 0) would lie; only ever offset back into the plane.
    Imf::Slice slice()
    {
        const std::size_t xStride = sampleSize(type), yStride = xStride * static_cast<std::size_t>(columns);
        const std::intptr_t origin = reinterpret_cast<std::intptr_t>(bytes.data()) -
                                     firstColumn * std::intptr_t(xStride) - firstRow * std::intptr_t(yStride);
        return Imf::Slice(type, reinterpret_cast<char*>(origin), xStride, yStride, xSampling, ySampling);
    }
};

double valueOf(const ExrPart& part, const ExrChannel& channel, int x, int y)
{
    if (channel.value) return channel.value(x, y);
    return part.value ? part.value(channel.name, x, y) : 0.0;
}

// Planes filled from the part's values, and a frame buffer over them.
struct FilledFrame {
    std::vector<Plane> planes;
    Imf::FrameBuffer frameBuffer;

    FilledFrame(const ExrPart& part, const Imath::Box2i& window)
    {
        planes.reserve(part.channels.size());
        for (const ExrChannel& ch : part.channels) {
            Plane& p = planes.emplace_back(ch.type, ch.xSampling, ch.ySampling, window);
            for (int r = 0; r < p.rows; ++r)
                for (int c = 0; c < p.columns; ++c)
                    storeSample(p.sample(c, r), ch.type,
                                valueOf(part, ch, (p.firstColumn + c) * ch.xSampling, (p.firstRow + r) * ch.ySampling));
            frameBuffer.insert(ch.name, p.slice());
        }
    }
};

// Deep samples over a window: a count per pixel, and per channel one pointer
// per pixel into that channel's samples (allocated once the counts are known).
struct DeepFrame {
    Imath::Box2i window;
    std::size_t width, pixels;
    std::vector<unsigned int> counts;
    std::vector<Imf::PixelType> types;
    std::vector<std::vector<unsigned char>> storage;
    std::vector<std::vector<char*>> pointers;
    Imf::DeepFrameBuffer frameBuffer;

    explicit DeepFrame(const Imath::Box2i& w)
        : window(w), width(std::size_t(w.max.x - w.min.x + 1)), pixels(width * std::size_t(w.max.y - w.min.y + 1)),
          counts(pixels)
    {
        frameBuffer.insertSampleCountSlice(Imf::Slice(Imf::UINT, originOf(counts.data(), w, sizeof(unsigned int)),
                                                      sizeof(unsigned int), sizeof(unsigned int) * width));
    }
    void insert(const std::string& name, Imf::PixelType type)
    {
        types.push_back(type);
        pointers.emplace_back(pixels, nullptr);
        frameBuffer.insert(name, Imf::DeepSlice(type, originOf(pointers.back().data(), window, sizeof(char*)),
                                                sizeof(char*), sizeof(char*) * width, sampleSize(type)));
    }
    void allocate()
    {
        const std::size_t total = std::accumulate(counts.begin(), counts.end(), std::size_t{0});
        for (std::size_t c = 0; c < types.size(); ++c) {
            storage.emplace_back(total * sampleSize(types[c]) + 4);
            for (std::size_t i = 0, next = 0; i < pixels; next += counts[i++])
                pointers[c][i] = reinterpret_cast<char*>(storage.back().data() + next * sampleSize(types[c]));
        }
    }
    unsigned char* sample(std::size_t channel, std::size_t pixel, unsigned int s)
    {
        return reinterpret_cast<unsigned char*>(pointers[channel][pixel]) + s * sampleSize(types[channel]);
    }
};

template <class Out>
void writePixels(Out& out, const ExrPart& part)
{
    const Imath::Box2i w = part.window();
    const int height = w.max.y - w.min.y + 1;
    const int lines = part.writeLimit < 0 ? height : std::min(part.writeLimit, height);
    if constexpr (std::is_same_v<Out, Imf::DeepScanLineOutputFile> || std::is_same_v<Out, Imf::DeepScanLineOutputPart>) {
        DeepFrame frame(w);
        for (std::size_t i = 0; i < frame.pixels; ++i) {
            const int x = w.min.x + int(i % frame.width), y = w.min.y + int(i / frame.width);
            frame.counts[i] = static_cast<unsigned int>(std::max(0, part.deepSamples(x, y)));
        }
        for (const ExrChannel& ch : part.channels) frame.insert(ch.name, ch.type);
        frame.allocate();
        for (std::size_t c = 0; c < part.channels.size(); ++c)
            for (std::size_t i = 0; i < frame.pixels; ++i)
                for (unsigned int s = 0; s < frame.counts[i]; ++s)
                    storeSample(frame.sample(c, i, s), frame.types[c],
                                valueOf(part, part.channels[c], w.min.x + int(i % frame.width),
                                        w.min.y + int(i / frame.width)));
        out.setFrameBuffer(frame.frameBuffer);
        if (lines > 0) out.writePixels(lines);
    } else {
        FilledFrame frame(part, w);
        out.setFrameBuffer(frame.frameBuffer);
        if (lines > 0) out.writePixels(lines);
    }
}

template <class Out>
void writeTiles(Out& out, const ExrPart& part)
{
    std::vector<std::pair<int, int>> levels;
    for (int ly = 0; ly < out.numYLevels(); ++ly)
        for (int lx = 0; lx < out.numXLevels(); ++lx)
            if ((lx == 0 && ly == 0) || (part.writeLimit < 0 && (part.levelMode == Imf::RIPMAP_LEVELS || lx == ly)))
                levels.emplace_back(lx, ly);
    for (const auto& [lx, ly] : levels) {
        FilledFrame frame(part, out.dataWindowForLevel(lx, ly));
        out.setFrameBuffer(frame.frameBuffer);
        if (part.writeLimit < 0) {
            out.writeTiles(0, out.numXTiles(lx) - 1, 0, out.numYTiles(ly) - 1, lx, ly);
            continue;
        }
        int left = part.writeLimit;
        for (int ty = 0; ty < out.numYTiles(0) && left > 0; ++ty)
            for (int tx = 0; tx < out.numXTiles(0) && left > 0; ++tx, --left) out.writeTile(tx, ty, 0, 0);
    }
}

Imf::Header checkedHeader(const ExrPart& part)
{
    if (part.deepSamples && part.tiled) throw std::invalid_argument("deep tiled parts are not supported by the builder");
    return part.header();
}

// Skips one zero-terminated text; returns the offset after the zero.
std::size_t skipText(const Bytes& file, std::size_t at)
{
    while (at < file.size() && file[at] != 0) ++at;
    if (at >= file.size()) throw std::out_of_range("EXR bytes end inside a header");
    return at + 1;
}

// Every channel of a deep scan-line part, keeping the first sample of each pixel.
void readDeepScanLines(Imf::MultiPartInputFile& input, int part, DecodedExr& d)
{
    const Imath::Box2i w = d.header.dataWindow();
    DeepFrame frame(w);
    for (auto it = d.header.channels().begin(); it != d.header.channels().end(); ++it)
        frame.insert(it.name(), it.channel().type);
    Imf::DeepScanLineInputPart in(input, part);
    in.setFrameBuffer(frame.frameBuffer);
    in.readPixelSampleCounts(w.min.y, w.max.y);
    frame.allocate();
    in.readPixels(w.min.y, w.max.y);
    std::size_t c = 0;
    for (auto it = d.header.channels().begin(); it != d.header.channels().end(); ++it, ++c) {
        DecodedChannel& out = d.channels.emplace_back(DecodedChannel{it.name(), frame.types[c], 1, 1, w, {}});
        for (std::size_t i = 0; i < frame.pixels; ++i)
            out.values.push_back(frame.counts[i] ? loadSample(frame.sample(c, i, 0), out.type) : 0.0);
    }
}

}  // namespace

double patternValue(const std::string& channel, int x, int y)
{
    int c = 0;
    for (unsigned char ch : channel) c = (c * 31 + ch) % 61;
    const int k = ((x * 7 + y * 13 + c * 5) % 61 + 61) % 61;
    return k / 16.0;
}

SampleFunction constantValue(double value)
{
    return [value](const std::string&, int, int) { return value; };
}

Imath::Box2i box(int minX, int minY, int maxX, int maxY) { return Imath::Box2i({minX, minY}, {maxX, maxY}); }

std::vector<ExrChannel> channelList(std::initializer_list<std::string> names, Imf::PixelType type)
{
    std::vector<ExrChannel> list;
    for (const std::string& n : names) list.push_back({n, type});
    return list;
}

ExrPart& ExrPart::attribute(const std::string& attributeName, const Imf::Attribute& attributeValue)
{
    attributes.emplace_back(attributeName, std::shared_ptr<Imf::Attribute>(attributeValue.copy()));
    return *this;
}

Imf::Header ExrPart::header() const
{
    Imf::Header h(displayWindow, window(), 1.0f, Imath::V2f(0, 0), 1.0f, lineOrder, compression);
    for (const ExrChannel& ch : channels)
        h.channels().insert(ch.name, Imf::Channel(ch.type, ch.xSampling, ch.ySampling));
    if (tiled) h.setTileDescription(Imf::TileDescription(tileWidth, tileHeight, levelMode, roundingMode));
    if (deepSamples) h.setType(tiled ? Imf::DEEPTILE : Imf::DEEPSCANLINE);
    for (const auto& [attributeName, attributeValue] : attributes) h.insert(attributeName, *attributeValue);
    return h;
}

void writeExr(Imf::OStream& out, const ExrPart& part)
{
    const Imf::Header h = checkedHeader(part);
    if (part.deepSamples) {
        Imf::DeepScanLineOutputFile file(out, h, 0);
        writePixels(file, part);
    } else if (part.tiled) {
        Imf::TiledOutputFile file(out, h, 0);
        writeTiles(file, part);
    } else {
        Imf::OutputFile file(out, h, 0);
        writePixels(file, part);
    }
}

Bytes makeExr(const ExrPart& part)
{
    MemoryOStream out;
    writeExr(out, part);
    return out.bytes();
}

Bytes makeMultiPartExr(const std::vector<ExrPart>& parts)
{
    std::vector<Imf::Header> headers;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        Imf::Header& h = headers.emplace_back(checkedHeader(parts[i]));
        h.setName(parts[i].name.empty() ? "part" + std::to_string(i) : parts[i].name);
        if (!parts[i].deepSamples) h.setType(parts[i].tiled ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
    }
    MemoryOStream out;
    {
        Imf::MultiPartOutputFile file(out, headers.data(), static_cast<int>(headers.size()), false, 0);
        for (int i = 0; i < static_cast<int>(parts.size()); ++i) {
            if (parts[i].deepSamples) {
                Imf::DeepScanLineOutputPart p(file, i);
                writePixels(p, parts[i]);
            } else if (parts[i].tiled) {
                Imf::TiledOutputPart p(file, i);
                writeTiles(p, parts[i]);
            } else {
                Imf::OutputPart p(file, i);
                writePixels(p, parts[i]);
            }
        }
    }
    return out.bytes();
}

double DecodedChannel::at(int x, int y) const
{
    const int firstColumn = ceilDiv(window.min.x, xSampling), firstRow = ceilDiv(window.min.y, ySampling);
    const int columns = floorDiv(window.max.x, xSampling) - firstColumn + 1;
    const int rows = floorDiv(window.max.y, ySampling) - firstRow + 1;
    const int c = floorDiv(x, xSampling) - firstColumn, r = floorDiv(y, ySampling) - firstRow;
    if (x % xSampling != 0 || y % ySampling != 0 || c < 0 || r < 0 || c >= columns || r >= rows)
        throw std::out_of_range("no sample of channel " + name + " at " + std::to_string(x) + ", " + std::to_string(y));
    return values[static_cast<std::size_t>(r) * columns + c];
}

const DecodedChannel& DecodedExr::channel(const std::string& name) const
{
    for (const DecodedChannel& c : channels)
        if (c.name == name) return c;
    throw std::out_of_range("no channel " + name);
}

bool DecodedExr::hasChannel(const std::string& name) const
{
    return std::any_of(channels.begin(), channels.end(), [&](const DecodedChannel& c) { return c.name == name; });
}

DecodedExr readExr(const Bytes& file, int part, bool pixels)
{
    MemoryIStream in(file);
    return readExr(in, part, pixels);
}

DecodedExr readExr(Imf::IStream& in, int part, bool pixels)
{
    Imf::MultiPartInputFile input(in, 0);
    DecodedExr d;
    d.header = input.header(part);
    d.version = input.version();
    d.complete = input.partComplete(part);
    const bool deep = d.header.hasType() && Imf::isDeepData(d.header.type());
    if (!pixels || (deep && d.header.type() != Imf::DEEPSCANLINE)) return d;  // deep tiles: header only
    if (deep) {
        readDeepScanLines(input, part, d);
        return d;
    }
    const Imath::Box2i w = d.header.dataWindow();
    std::vector<Plane> planes;
    Imf::FrameBuffer fb;
    for (auto it = d.header.channels().begin(); it != d.header.channels().end(); ++it) {
        const Imf::Channel& ch = it.channel();
        fb.insert(it.name(), planes.emplace_back(ch.type, ch.xSampling, ch.ySampling, w).slice());
        d.channels.push_back({it.name(), ch.type, ch.xSampling, ch.ySampling, w, {}});
    }
    Imf::InputPart ip(input, part);
    ip.setFrameBuffer(fb);
    ip.readPixels(w.min.y, w.max.y);
    for (std::size_t i = 0; i < planes.size(); ++i)
        for (int r = 0; r < planes[i].rows; ++r)
            for (int c = 0; c < planes[i].columns; ++c)
                d.channels[i].values.push_back(loadSample(planes[i].sample(c, r), planes[i].type));
    return d;
}

std::unique_ptr<ktP::_imgFileBuffer> fileBufferWith(const Bytes& file, long long sizeLoaded, long long fileSize,
                                                    long long capacity)
{
    const long long whole = static_cast<long long>(file.size());
    const long long loaded = sizeLoaded == kWhole ? whole : sizeLoaded;
    const long long cap = capacity == kWhole ? std::max(whole, loaded) + 1 : capacity;
    if (loaded < 0 || cap < 0 || cap > 0xFFFFFFFBLL) throw std::invalid_argument("fileBufferWith: bad sizes");
    auto b = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(cap));
    // Bytes claimed as loaded beyond the file's end read as zeros.
    const long long copied = std::min({loaded, whole, cap}), claimed = std::min(loaded, cap);
    if (claimed > 0) std::memset(b->buffer, 0, static_cast<std::size_t>(claimed));
    if (copied > 0) std::memcpy(b->buffer, file.data(), static_cast<std::size_t>(copied));
    b->setSizeLoaded(loaded);
    b->setFileSize(fileSize == kWhole ? whole : fileSize);
    return b;
}

std::unique_ptr<ktP::_imgFileBuffer> emptyFileBuffer(unsigned int capacity)
{
    return std::make_unique<ktP::_imgFileBuffer>(capacity);
}

GuardPagedFileBuffer::GuardPagedFileBuffer(const Bytes& file, long long sizeLoaded, long long fileSize)
    : buffer(fileBufferWith(file, sizeLoaded, fileSize))
{
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t loaded = static_cast<std::size_t>(std::max(buffer->sizeLoaded, 0LL));
    const std::size_t dataBytes = (loaded + page - 1) / page * page;
    mappedBytes = dataBytes + page;
    mapping = mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) throw std::bad_alloc();
    if (mprotect(static_cast<char*>(mapping) + dataBytes, page, PROT_NONE) != 0) {
        munmap(mapping, mappedBytes);
        throw std::bad_alloc();
    }
    unsigned char* start = static_cast<unsigned char*>(mapping) + dataBytes - loaded;
    if (loaded > 0) std::memcpy(start, buffer->buffer, loaded);
    owned = buffer->buffer;
    buffer->buffer = start;
}

GuardPagedFileBuffer::~GuardPagedFileBuffer()
{
    buffer->buffer = owned;
    munmap(mapping, mappedBytes);
}

Bytes contentOf(const ktP::_imgFileBuffer& buffer)
{
    const auto* data = reinterpret_cast<const char*>(buffer.buffer);
    return Bytes(data, data + std::max(0LL, std::min(buffer.sizeLoaded, buffer.bufferSize)));
}

Bytes truncated(const Bytes& file, std::size_t length)
{
    return Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(std::min(length, file.size())));
}

Bytes patched(const Bytes& file, std::size_t offset, std::initializer_list<unsigned char> bytes)
{
    if (offset + bytes.size() > file.size()) throw std::out_of_range("patch beyond the end of the file");
    Bytes out = file;
    std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(offset));
    return out;
}

std::uint64_t littleEndianAt(const Bytes& file, std::size_t at, int bytes)
{
    if (bytes < 0 || bytes > 8 || at > file.size() || file.size() - at < static_cast<std::size_t>(bytes))
        throw std::out_of_range("no such bytes in the file");
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(file[at + static_cast<std::size_t>(i)]);
    return v;
}

std::size_t findBytes(const Bytes& file, const std::string& needle, std::size_t from)
{
    if (from > file.size()) return std::string::npos;
    auto it = std::search(file.begin() + static_cast<std::ptrdiff_t>(from), file.end(), needle.begin(), needle.end());
    return it == file.end() ? std::string::npos : static_cast<std::size_t>(it - file.begin());
}

std::size_t headerEnd(const Bytes& file)
{
    const bool multiPart = (littleEndianAt(file, 4) & 0x1000) != 0;
    std::size_t at = 8;
    for (;;) {
        // Attributes: name, type name, 32-bit size, value; a lone zero ends a header.
        while (at < file.size() && file[at] != 0) {
            at = skipText(file, skipText(file, at));
            at += 4 + littleEndianAt(file, at);
        }
        if (at >= file.size()) throw std::out_of_range("EXR bytes end inside a header");
        ++at;
        if (!multiPart) return at;
        if (at < file.size() && file[at] == 0) return at + 1;  // the empty header after the last part
    }
}

int chunkCount(const Bytes& file, int part)
{
    MemoryIStream in(file);
    Imf::MultiPartInputFile input(in, 0);
    const Imf::Header& h = input.header(part);
    if (h.hasChunkCount()) return h.chunkCount();
    if (h.hasTileDescription()) {
        Imf::TiledInputPart t(input, part);
        int n = 0;
        for (int ly = 0; ly < t.numYLevels(); ++ly)
            for (int lx = 0; lx < t.numXLevels(); ++lx)
                if (t.levelMode() != Imf::MIPMAP_LEVELS || lx == ly) n += t.numXTiles(lx) * t.numYTiles(ly);
        return n;
    }
    // Scan lines per chunk: 16 for ZIP and PXR24, 32 for PIZ, B44(A) and DWAA, 256 for DWAB, else 1.
    const int lines[Imf::NUM_COMPRESSION_METHODS] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256};
    const int c = static_cast<int>(h.compression());
    return (h.dataWindow().max.y - h.dataWindow().min.y + lines[c]) / lines[c];
}

std::size_t offsetTableEnd(const Bytes& file)
{
    MemoryIStream in(file);
    const int parts = Imf::MultiPartInputFile(in, 0).parts();
    std::size_t end = headerEnd(file);
    for (int p = 0; p < parts; ++p) end += 8 * static_cast<std::size_t>(chunkCount(file, p));
    return end;
}

std::vector<std::uint64_t> chunkOffsets(const Bytes& file)
{
    const std::size_t start = headerEnd(file);
    std::vector<std::uint64_t> offsets(static_cast<std::size_t>(chunkCount(file, 0)));
    for (std::size_t i = 0; i < offsets.size(); ++i) offsets[i] = littleEndianAt(file, start + 8 * i, 8);
    return offsets;
}

std::string corpusDirectory()
{
    std::error_code ec;
    return std::filesystem::is_directory(KT_CORPUS_DIR, ec) ? std::string(KT_CORPUS_DIR) : std::string();
}

std::vector<std::string> corpusFiles(const std::string& folder)
{
    std::vector<std::string> files;
    const std::string root = corpusDirectory();
    std::error_code ec;
    if (root.empty() || !std::filesystem::is_directory(root + "/" + folder, ec)) return files;
    for (const auto& entry : std::filesystem::directory_iterator(root + "/" + folder, ec))
        if (entry.is_regular_file() && entry.path().extension() == ".exr") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

Bytes readFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw std::runtime_error("cannot read " + path);
    return bytes;
}

MemoryOStream::MemoryOStream() : Imf::OStream("memory") {}

void MemoryOStream::write(const char src[], int n)
{
    if (n <= 0) return;
    if (position + static_cast<std::size_t>(n) > data.size()) data.resize(position + static_cast<std::size_t>(n));
    std::memcpy(data.data() + position, src, static_cast<std::size_t>(n));
    position += static_cast<std::size_t>(n);
}

uint64_t MemoryOStream::tellp() { return position; }

void MemoryOStream::seekp(uint64_t pos) { position = static_cast<std::size_t>(pos); }

}  // namespace kt::test
