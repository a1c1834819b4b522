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
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

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
    if (type == Imf::HALF) {
        const std::uint16_t bits = half(static_cast<float>(v)).bits();
        std::memcpy(at, &bits, 2);
    } else if (type == Imf::FLOAT) {
        const float f = static_cast<float>(v);
        std::memcpy(at, &f, 4);
    } else {
        std::uint32_t u = 0;
        if (v >= 4294967295.0)
            u = 0xFFFFFFFFu;
        else if (v > 0)
            u = static_cast<std::uint32_t>(v);
        std::memcpy(at, &u, 4);
    }
}

double loadSample(const unsigned char* at, Imf::PixelType type)
{
    if (type == Imf::HALF) {
        std::uint16_t bits = 0;
        std::memcpy(&bits, at, 2);
        half h;
        h.setBits(bits);
        return static_cast<float>(h);
    }
    if (type == Imf::FLOAT) {
        float f = 0;
        std::memcpy(&f, at, 4);
        return f;
    }
    std::uint32_t u = 0;
    std::memcpy(&u, at, 4);
    return u;
}

// The address OpenEXR takes as pixel (0, 0) of a row-major array over window w.
char* originOf(void* data, const Imath::Box2i& w, std::size_t element)
{
    const std::intptr_t width = w.max.x - w.min.x + 1;
    const std::intptr_t offset = (static_cast<std::intptr_t>(w.min.y) * width + w.min.x) *
                                 static_cast<std::intptr_t>(element);
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

    std::size_t xStride() const { return sampleSize(type); }
    std::size_t yStride() const { return xStride() * static_cast<std::size_t>(columns); }
    unsigned char* sample(int c, int r) { return bytes.data() + r * yStride() + c * xStride(); }
    // Where OpenEXR's sample (0, 0) would lie; only ever offset back into the plane.
    Imf::Slice slice()
    {
        const std::intptr_t origin = reinterpret_cast<std::intptr_t>(bytes.data()) -
                                     static_cast<std::intptr_t>(firstColumn) * static_cast<std::intptr_t>(xStride()) -
                                     static_cast<std::intptr_t>(firstRow) * static_cast<std::intptr_t>(yStride());
        return Imf::Slice(type, reinterpret_cast<char*>(origin), xStride(), yStride(), xSampling, ySampling);
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
            planes.emplace_back(ch.type, ch.xSampling, ch.ySampling, window);
            Plane& p = planes.back();
            for (int r = 0; r < p.rows; ++r)
                for (int c = 0; c < p.columns; ++c)
                    storeSample(p.sample(c, r), ch.type,
                                valueOf(part, ch, (p.firstColumn + c) * ch.xSampling, (p.firstRow + r) * ch.ySampling));
            frameBuffer.insert(ch.name, p.slice());
        }
    }
};

template <class Out>
void writeScanLines(Out& out, const ExrPart& part)
{
    const Imath::Box2i w = part.window();
    FilledFrame frame(part, w);
    out.setFrameBuffer(frame.frameBuffer);
    const int height = w.max.y - w.min.y + 1;
    const int lines = part.writeLimit < 0 ? height : std::min(part.writeLimit, height);
    if (lines > 0) out.writePixels(lines);
}

template <class Out>
void writeTiles(Out& out, const ExrPart& part)
{
    std::vector<std::pair<int, int>> levels;
    if (part.writeLimit >= 0 || part.levelMode == Imf::ONE_LEVEL) {
        levels.emplace_back(0, 0);
    } else if (part.levelMode == Imf::MIPMAP_LEVELS) {
        for (int l = 0; l < out.numLevels(); ++l) levels.emplace_back(l, l);
    } else {
        for (int ly = 0; ly < out.numYLevels(); ++ly)
            for (int lx = 0; lx < out.numXLevels(); ++lx) levels.emplace_back(lx, ly);
    }
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

template <class Out>
void writeDeepScanLines(Out& out, const ExrPart& part)
{
    const Imath::Box2i w = part.window();
    const int width = w.max.x - w.min.x + 1;
    const int height = w.max.y - w.min.y + 1;
    const std::size_t pixels = static_cast<std::size_t>(width) * height;
    std::vector<unsigned int> counts(pixels);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            counts[y * width + x] = static_cast<unsigned int>(std::max(0, part.deepSamples(w.min.x + x, w.min.y + y)));

    Imf::DeepFrameBuffer frameBuffer;
    frameBuffer.insertSampleCountSlice(Imf::Slice(Imf::UINT, originOf(counts.data(), w, sizeof(unsigned int)),
                                                  sizeof(unsigned int), sizeof(unsigned int) * width));
    std::vector<std::vector<unsigned char>> storage(part.channels.size());
    std::vector<std::vector<char*>> pointers(part.channels.size(), std::vector<char*>(pixels, nullptr));
    for (std::size_t i = 0; i < part.channels.size(); ++i) {
        const ExrChannel& ch = part.channels[i];
        const std::size_t size = sampleSize(ch.type);
        std::size_t total = 0;
        for (unsigned int n : counts) total += n;
        storage[i].resize(total * size + 4);
        std::size_t next = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const std::size_t at = static_cast<std::size_t>(y) * width + x;
                pointers[i][at] = reinterpret_cast<char*>(storage[i].data() + next * size);
                const double v = valueOf(part, ch, w.min.x + x, w.min.y + y);
                for (unsigned int s = 0; s < counts[at]; ++s, ++next) storeSample(storage[i].data() + next * size, ch.type, v);
            }
        }
        frameBuffer.insert(ch.name, Imf::DeepSlice(ch.type, originOf(pointers[i].data(), w, sizeof(char*)), sizeof(char*),
                                                   sizeof(char*) * width, size));
    }
    out.setFrameBuffer(frameBuffer);
    const int lines = part.writeLimit < 0 ? height : std::min(part.writeLimit, height);
    if (lines > 0) out.writePixels(lines);
}

void checkDeep(const ExrPart& part)
{
    if (part.deepSamples && part.tiled) throw std::invalid_argument("deep tiled parts are not supported by the builder");
}

// Skips one zero-terminated text; returns the offset after the zero.
std::size_t skipText(const Bytes& file, std::size_t at)
{
    while (at < file.size() && file[at] != 0) ++at;
    if (at >= file.size()) throw std::out_of_range("EXR bytes end inside a header");
    return at + 1;
}

int linesPerChunk(Imf::Compression c)
{
    switch (c) {
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

// Every channel of a deep scan-line part, keeping the first sample of each pixel.
void readDeepScanLines(Imf::MultiPartInputFile& input, int part, DecodedExr& d)
{
    const Imath::Box2i w = d.header.dataWindow();
    const int width = w.max.x - w.min.x + 1;
    const std::size_t count = static_cast<std::size_t>(width) * (w.max.y - w.min.y + 1);
    const Imf::ChannelList& channels = d.header.channels();
    std::vector<unsigned int> counts(count);
    std::vector<std::vector<char*>> pointers;
    Imf::DeepFrameBuffer fb;
    fb.insertSampleCountSlice(Imf::Slice(Imf::UINT, originOf(counts.data(), w, sizeof(unsigned int)),
                                         sizeof(unsigned int), sizeof(unsigned int) * width));
    // The pointer arrays are filled once the sample counts are known.
    for (auto it = channels.begin(); it != channels.end(); ++it) {
        pointers.emplace_back(count, nullptr);
        fb.insert(it.name(), Imf::DeepSlice(it.channel().type, originOf(pointers.back().data(), w, sizeof(char*)),
                                            sizeof(char*), sizeof(char*) * width, sampleSize(it.channel().type)));
    }
    Imf::DeepScanLineInputPart ip(input, part);
    ip.setFrameBuffer(fb);
    ip.readPixelSampleCounts(w.min.y, w.max.y);
    std::size_t total = 0;
    for (unsigned int n : counts) total += n;
    std::vector<std::vector<unsigned char>> storage;
    std::size_t index = 0;
    for (auto it = channels.begin(); it != channels.end(); ++it, ++index) {
        const std::size_t size = sampleSize(it.channel().type);
        storage.emplace_back(total * size + 4);
        std::size_t next = 0;
        for (std::size_t i = 0; i < count; ++i) {
            pointers[index][i] = reinterpret_cast<char*>(storage.back().data() + next * size);
            next += counts[i];
        }
    }
    ip.readPixels(w.min.y, w.max.y);
    index = 0;
    for (auto it = channels.begin(); it != channels.end(); ++it, ++index) {
        DecodedChannel c{it.name(), it.channel().type, 1, 1, w, {}};
        for (std::size_t i = 0; i < count; ++i)
            c.values.push_back(counts[i] ? loadSample(reinterpret_cast<unsigned char*>(pointers[index][i]), c.type) : 0.0);
        d.channels.push_back(std::move(c));
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
    checkDeep(part);
    const Imf::Header h = part.header();
    if (part.deepSamples) {
        Imf::DeepScanLineOutputFile file(out, h, 0);
        writeDeepScanLines(file, part);
    } else if (part.tiled) {
        Imf::TiledOutputFile file(out, h, 0);
        writeTiles(file, part);
    } else {
        Imf::OutputFile file(out, h, 0);
        writeScanLines(file, part);
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
        checkDeep(parts[i]);
        Imf::Header h = parts[i].header();
        h.setName(parts[i].name.empty() ? "part" + std::to_string(i) : parts[i].name);
        if (!parts[i].deepSamples) h.setType(parts[i].tiled ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
        headers.push_back(h);
    }
    MemoryOStream out;
    {
        Imf::MultiPartOutputFile file(out, headers.data(), static_cast<int>(headers.size()), false, 0);
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const int index = static_cast<int>(i);
            if (parts[i].deepSamples) {
                Imf::DeepScanLineOutputPart p(file, index);
                writeDeepScanLines(p, parts[i]);
            } else if (parts[i].tiled) {
                Imf::TiledOutputPart p(file, index);
                writeTiles(p, parts[i]);
            } else {
                Imf::OutputPart p(file, index);
                writeScanLines(p, parts[i]);
            }
        }
    }
    return out.bytes();
}

double DecodedChannel::at(int x, int y) const
{
    const int firstColumn = ceilDiv(window.min.x, xSampling);
    const int firstRow = ceilDiv(window.min.y, ySampling);
    const int columns = floorDiv(window.max.x, xSampling) - firstColumn + 1;
    const int rows = floorDiv(window.max.y, ySampling) - firstRow + 1;
    const int c = floorDiv(x, xSampling) - firstColumn;
    const int r = floorDiv(y, ySampling) - firstRow;
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
    if (!pixels) return d;

    const Imath::Box2i w = d.header.dataWindow();
    const bool deep = d.header.hasType() && Imf::isDeepData(d.header.type());
    if (deep && d.header.type() != Imf::DEEPSCANLINE) return d;  // deep tiles: header only
    if (deep) {
        readDeepScanLines(input, part, d);
        return d;
    }

    std::vector<Plane> planes;
    planes.reserve(64);
    std::vector<std::string> names;
    Imf::FrameBuffer fb;
    for (auto it = d.header.channels().begin(); it != d.header.channels().end(); ++it) {
        const Imf::Channel& ch = it.channel();
        planes.emplace_back(ch.type, ch.xSampling, ch.ySampling, w);
        names.emplace_back(it.name());
    }
    for (std::size_t i = 0; i < planes.size(); ++i) fb.insert(names[i], planes[i].slice());
    Imf::InputPart ip(input, part);
    ip.setFrameBuffer(fb);
    ip.readPixels(w.min.y, w.max.y);
    for (std::size_t i = 0; i < planes.size(); ++i) {
        Plane& p = planes[i];
        DecodedChannel c{names[i], p.type, p.xSampling, p.ySampling, w, {}};
        c.values.reserve(static_cast<std::size_t>(p.columns) * p.rows);
        for (int r = 0; r < p.rows; ++r)
            for (int col = 0; col < p.columns; ++col) c.values.push_back(loadSample(p.sample(col, r), p.type));
        d.channels.push_back(std::move(c));
    }
    return d;
}

std::unique_ptr<ktP::_imgFileBuffer> fileBufferWith(const Bytes& file, long long sizeLoaded, long long fileSize,
                                                    long long capacity)
{
    const long long whole = static_cast<long long>(file.size());
    const long long loaded = sizeLoaded == kWhole ? whole : sizeLoaded;
    const long long total = fileSize == kWhole ? whole : fileSize;
    const long long cap = capacity == kWhole ? std::max(whole, loaded) + 1 : capacity;
    if (loaded < 0 || cap < 0 || cap > 0xFFFFFFFBLL) throw std::invalid_argument("fileBufferWith: bad sizes");
    auto b = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned int>(cap));
    const long long copied = std::min({loaded, whole, cap});
    if (copied > 0) std::memcpy(b->buffer, file.data(), static_cast<std::size_t>(copied));
    // Bytes claimed as loaded beyond the file's end read as zeros.
    const long long claimed = std::min(loaded, cap);
    if (claimed > copied) std::memset(b->buffer + copied, 0, static_cast<std::size_t>(claimed - copied));
    b->setSizeLoaded(loaded);
    b->setFileSize(total);
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
    const long long n = std::max(0LL, std::min(buffer.sizeLoaded, buffer.bufferSize));
    if (n == 0) return {};
    return Bytes(reinterpret_cast<const char*>(buffer.buffer), reinterpret_cast<const char*>(buffer.buffer) + n);
}

Bytes truncated(const Bytes& file, std::size_t length)
{
    return Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(std::min(length, file.size())));
}

Bytes patched(const Bytes& file, std::size_t offset, std::initializer_list<unsigned char> bytes)
{
    if (offset + bytes.size() > file.size()) throw std::out_of_range("patch beyond the end of the file");
    Bytes out = file;
    std::size_t at = offset;
    for (unsigned char b : bytes) out[at++] = static_cast<char>(b);
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
    const int height = h.dataWindow().max.y - h.dataWindow().min.y + 1;
    const int lines = linesPerChunk(h.compression());
    return (height + lines - 1) / lines;
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
    const int n = chunkCount(file, 0);
    std::vector<std::uint64_t> offsets;
    for (int i = 0; i < n; ++i) {
        const std::size_t at = start + 8 * static_cast<std::size_t>(i);
        offsets.push_back(littleEndianAt(file, at, 8));
    }
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
