#include "frameScan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>

#include <OpenEXR/IexBaseExc.h>
#include <OpenEXR/ImfCheckFile.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfDeepFrameBuffer.h>
#include <OpenEXR/ImfDeepScanLineInputPart.h>
#include <OpenEXR/ImfDeepTiledInputPart.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartInputFile.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfTiledInputPart.h>
#include <OpenEXR/openexr.h>

#include "exrBands.h"

namespace ktexr {

namespace {

// A part with this many chunks that cannot be decoded is not read further:
// its verdict is clear, and a damaged offset table could otherwise keep the
// reader busy for hours.
constexpr int kBadChunksCounted = 64;

// A file read with pread, remembering whether OpenEXR ever asked for bytes
// past its end: the difference between a cut-off file and a damaged one.
class TrackedFileStream : public Imf::IStream {
public:
    explicit TrackedFileStream(const std::string& path) : Imf::IStream(path.c_str())
    {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) throw Iex::IoExc(std::string("cannot open: ") + std::strerror(errno));
        struct stat info {};
        if (::fstat(fd_, &info) != 0) throw Iex::IoExc(std::string("cannot read: ") + std::strerror(errno));
        size_ = static_cast<std::uint64_t>(info.st_size);
    }
    ~TrackedFileStream() override
    {
        if (fd_ >= 0) ::close(fd_);
    }
    TrackedFileStream(const TrackedFileStream&) = delete;
    TrackedFileStream& operator=(const TrackedFileStream&) = delete;

    bool read(char c[], int n) override
    {
        const auto count = static_cast<std::uint64_t>(n);
        if (n < 0 || position_ > size_ || count > size_ - position_) {
            pastEnd_ = true;
            throw Iex::InputExc("the file ends before the data it announces");
        }
        std::uint64_t done = 0;
        while (done < count) {
            const ssize_t got = ::pread(fd_, c + done, count - done, static_cast<off_t>(position_ + done));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) throw Iex::IoExc(std::string("cannot read: ") + std::strerror(errno));
            if (got == 0) {
                pastEnd_ = true;
                throw Iex::InputExc("the file ends before the data it announces");
            }
            done += static_cast<std::uint64_t>(got);
        }
        position_ += count;
        return position_ < size_;
    }
    std::uint64_t tellg() override { return position_; }
    void seekg(std::uint64_t position) override { position_ = position; }

    bool pastEnd() const { return pastEnd_; }
    std::uint64_t size() const { return size_; }

private:
    int fd_ = -1;
    std::uint64_t size_ = 0;
    std::uint64_t position_ = 0;
    bool pastEnd_ = false;
};

bool hasExrMagic(const std::string& path, unsigned long long& fileSize, std::string& problem)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        problem = std::strerror(errno);
        return false;
    }
    struct stat info {};
    unsigned char magic[4] = {};
    const bool statOk = ::fstat(fd, &info) == 0;
    const ssize_t got = statOk && S_ISREG(info.st_mode) ? ::pread(fd, magic, 4, 0) : -1;
    ::close(fd);
    if (!statOk || !S_ISREG(info.st_mode)) {
        problem = "not a regular file";
        return false;
    }
    fileSize = static_cast<unsigned long long>(info.st_size);
    if (got != 4 || magic[0] != 0x76 || magic[1] != 0x2f || magic[2] != 0x31 || magic[3] != 0x01) {
        problem = got == 0 ? "the file is empty" : "no EXR magic number at its start";
        return false;
    }
    return true;
}


// Why a file OpenEXR's own check rejects is bad: cut off (some chunk, or the
// header itself, reaches past the end) or damaged. Only the low-level
// reader is used here, which validates everything before it trusts it;
// nothing is decompressed.
struct ProbeState {
    int fd = -1;
    std::uint64_t size = 0;
    std::string firstError;
};

std::int64_t probeRead(exr_const_context_t, void* userData, void* buffer, std::uint64_t count, std::uint64_t offset,
                       exr_stream_error_func_ptr_t)
{
    auto* state = static_cast<ProbeState*>(userData);
    if (offset >= state->size) return 0;
    const ssize_t got = ::pread(state->fd, buffer, std::min<std::uint64_t>(count, state->size - offset),
                                static_cast<off_t>(offset));
    return got < 0 ? -1 : got;
}

std::int64_t probeSize(exr_const_context_t, void* userData)
{
    return static_cast<std::int64_t>(static_cast<ProbeState*>(userData)->size);
}

void probeError(exr_const_context_t context, exr_result_t, const char* message)
{
    void* userData = nullptr;
    if (exr_get_user_data(context, &userData) == EXR_ERR_SUCCESS && userData) {
        auto* state = static_cast<ProbeState*>(userData);
        if (state->firstError.empty() && message) state->firstError = message;
    }
}

// Whether a chunk reaches past the end of the file; an unreadable chunk
// table ends the search (`stop`), as every further chunk would fail alike.
bool chunkPastEnd(exr_result_t result, const exr_chunk_info_t& chunk, const ProbeState& state, bool& stop)
{
    if (result != EXR_ERR_SUCCESS) {
        stop = true;
        return false;
    }
    return chunk.data_offset > state.size || chunk.packed_size > state.size - chunk.data_offset;
}

// Whether the header(s) or the offset tables that follow list a chunk that is
// not in the file (an offset of zero, never filled in, or one at or past
// the end): what a frame cut off while written looks like.
bool offsetTablePastEnd(const ProbeState& state, const std::vector<std::int32_t>& chunkCounts,
                        const std::vector<exr_storage_t>& storage)
{
    std::vector<unsigned char> bytes(static_cast<std::size_t>(std::min<std::uint64_t>(state.size, 64u << 20)));
    if (bytes.size() < 8 || ::pread(state.fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return true;
    const bool multiPart = (bytes[5] & 0x10) != 0;
    std::size_t at = 8;
    auto skipString = [&]() {
        while (at < bytes.size() && bytes[at] != 0) ++at;
        return at++ < bytes.size();
    };
    // Attributes (name, type, size, value) up to an empty name; a multi-part
    // file has one such header per part and an empty header after them.
    for (int header = 0;; ++header) {
        if (at >= bytes.size()) return true;
        if (bytes[at] == 0) {
            ++at;
            if (!multiPart || header == 0) break;
            continue;
        }
        while (at < bytes.size() && bytes[at] != 0) {
            if (!skipString() || !skipString() || at + 4 > bytes.size()) return true;
            const std::uint32_t size = bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 |
                                       static_cast<std::uint32_t>(bytes[at + 3]) << 24;
            at += 4 + static_cast<std::size_t>(size);
        }
        if (at >= bytes.size()) return true;
        ++at;  // the end of this header
        if (!multiPart) break;
        if (at < bytes.size() && bytes[at] == 0) {
            ++at;
            break;
        }
    }
    std::uint64_t last = 0;
    std::size_t lastPart = 0;
    for (std::size_t part = 0; part < chunkCounts.size(); ++part)
        for (std::int32_t i = 0; i < chunkCounts[part]; ++i, at += 8) {
            if (at + 8 > bytes.size()) return true;
            std::uint64_t offset = 0;
            for (int b = 7; b >= 0; --b) offset = offset << 8 | bytes[at + static_cast<std::size_t>(b)];
            if (offset == 0 || offset >= state.size) return true;
            if (offset > last) {
                last = offset;
                lastPart = part;
            }
        }
    if (chunkCounts.empty()) return false;
    // The chunk that starts last must end within the file: its leader is
    // the part number (multi-part files), the coordinates (a scan line, or
    // four tile numbers) and the size of the data that follows.
    if (storage[lastPart] != EXR_STORAGE_SCANLINE && storage[lastPart] != EXR_STORAGE_TILED) return false;
    const std::uint64_t sizeAt = last + (multiPart ? 4 : 0) + (storage[lastPart] == EXR_STORAGE_TILED ? 16 : 4);
    unsigned char size[4] = {};
    if (sizeAt + 4 > state.size || ::pread(state.fd, size, 4, static_cast<off_t>(sizeAt)) != 4) return true;
    const std::uint64_t dataSize =
        size[0] | size[1] << 8 | size[2] << 16 | static_cast<std::uint64_t>(size[3]) << 24;
    return sizeAt + 4 + dataSize > state.size;
}

FrameState probeDamage(const std::string& path, std::uint64_t size, std::string& message)
{
    ProbeState state;
    state.size = size;
    state.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (state.fd < 0) {
        message = std::strerror(errno);
        return FrameState::damaged;
    }
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.user_data = &state;
    init.read_fn = probeRead;
    init.size_fn = probeSize;
    init.error_handler_fn = probeError;
    exr_context_t context = nullptr;
    bool chunkBeyondEnd = false;
    // A header that cannot be read counts as cut off when it runs into the
    // end of the file.
    if (exr_start_read(&context, path.c_str(), &init) != EXR_ERR_SUCCESS) {
        chunkBeyondEnd = offsetTablePastEnd(state, {}, {});
    } else {
        int parts = 0;
        exr_get_count(context, &parts);
        std::vector<std::int32_t> chunkCounts(static_cast<std::size_t>(std::max(parts, 0)), 0);
        std::vector<exr_storage_t> storage(chunkCounts.size(), EXR_STORAGE_LAST_TYPE);
        for (std::size_t part = 0; part < chunkCounts.size(); ++part) {
            exr_get_chunk_count(context, static_cast<int>(part), &chunkCounts[part]);
            exr_get_storage(context, static_cast<int>(part), &storage[part]);
        }
        chunkBeyondEnd = offsetTablePastEnd(state, chunkCounts, storage);
        for (int part = 0; part < parts && !chunkBeyondEnd; ++part) {
            exr_storage_t storage = EXR_STORAGE_LAST_TYPE;
            exr_get_storage(context, part, &storage);
            exr_chunk_info_t chunk{};
            if (storage == EXR_STORAGE_SCANLINE || storage == EXR_STORAGE_DEEP_SCANLINE) {
                exr_attr_box2i_t window{};
                int32_t lines = 1;
                exr_get_data_window(context, part, &window);
                exr_get_scanlines_per_chunk(context, part, &lines);
                bool stop = false;
                for (std::int64_t y = window.min.y; y <= window.max.y && lines > 0 && !chunkBeyondEnd && !stop;
                     y += lines)
                    chunkBeyondEnd = chunkPastEnd(
                        exr_read_scanline_chunk_info(context, part, static_cast<int>(y), &chunk), chunk, state, stop);
                continue;
            }
            bool stop = false;
            int32_t levelsX = 0, levelsY = 0;
            exr_get_tile_levels(context, part, &levelsX, &levelsY);
            for (int ly = 0; ly < levelsY && !chunkBeyondEnd; ++ly)
                for (int lx = 0; lx < levelsX && !chunkBeyondEnd; ++lx) {
                    int32_t w = 0, h = 0, tw = 0, th = 0;
                    if (exr_get_level_sizes(context, part, lx, ly, &w, &h) != EXR_ERR_SUCCESS ||
                        exr_get_tile_sizes(context, part, lx, ly, &tw, &th) != EXR_ERR_SUCCESS || tw <= 0 || th <= 0)
                        continue;
                    for (int ty = 0; ty < (h + th - 1) / th && !chunkBeyondEnd && !stop; ++ty)
                        for (int tx = 0; tx < (w + tw - 1) / tw && !chunkBeyondEnd && !stop; ++tx)
                            chunkBeyondEnd = chunkPastEnd(exr_read_tile_chunk_info(context, part, tx, ty, lx, ly, &chunk),
                                                          chunk, state, stop);
                }
        }
    }
    exr_finish(&context);
    ::close(state.fd);
    const bool cut = chunkBeyondEnd;
    message = cut ? "the file ends before all the chunks it lists (cut off, or not written to the end)"
          : state.firstError.empty() ? "OpenEXR's file check finds damaged data"
                                     : state.firstError;
    return cut ? FrameState::truncated : FrameState::damaged;
}

// Decodes the scan-line part, band by band; a band that fails is read again
// chunk by chunk to count the chunks that cannot be decoded.
void scanLines(Imf::MultiPartInputFile& file, int index, PartScan& part, bool statistics, std::string& firstError)
{
    Imf::InputPart input(file, index);
    const Imath::Box2i window = part.dataWindow;
    const int chunkLines = linesPerChunk(file.header(index).compression());
    const int bandLines = bandHeight(file.header(index), chunkLines);
    ChannelBand band(file.header(index).channels(), window.min.x, window.max.x);
    auto readRange = [&](int y0, int y1) {
        band.attach(input, y0, y1);
        input.readPixels(y0, y1);
    };
    for (int y0 = window.min.y; y0 <= window.max.y && part.badChunks < kBadChunksCounted; y0 += bandLines) {
        const int y1 = std::min(window.max.y, y0 + bandLines - 1);
        try {
            readRange(y0, y1);
        } catch (const std::exception&) {
            for (int c0 = y0; c0 <= y1 && part.badChunks < kBadChunksCounted; c0 += chunkLines) {
                try {
                    readRange(c0, std::min(y1, c0 + chunkLines - 1));
                } catch (const std::exception& e) {
                    ++part.badChunks;
                    if (firstError.empty()) firstError = e.what();
                }
            }
        }
        if (statistics) band.count(part.channels, y0, y1);
    }
}

void scanTiles(Imf::MultiPartInputFile& file, int index, PartScan& part, bool statistics, std::string& firstError)
{
    Imf::TiledInputPart input(file, index);
    for (int ly = 0; ly < input.numYLevels(); ++ly) {
        for (int lx = 0; lx < input.numXLevels(); ++lx) {
            if (input.levelMode() == Imf::MIPMAP_LEVELS && lx != ly) continue;
            const Imath::Box2i level = input.dataWindowForLevel(lx, ly);
            const bool counted = statistics && lx == 0 && ly == 0;
            ChannelBand band(file.header(index).channels(), level.min.x, level.max.x);
            for (int ty = 0; ty < input.numYTiles(ly) && part.badChunks < kBadChunksCounted; ++ty) {
                const Imath::Box2i row = input.dataWindowForTile(0, ty, lx, ly);
                band.attachTiles(input, row.min.y, row.max.y);
                const int lastX = input.numXTiles(lx) - 1;
                try {
                    input.readTiles(0, lastX, ty, ty, lx, ly);
                } catch (const std::exception&) {
                    for (int tx = 0; tx <= lastX; ++tx) {
                        try {
                            input.readTile(tx, ty, lx, ly);
                        } catch (const std::exception& e) {
                            ++part.badChunks;
                            if (firstError.empty()) firstError = e.what();
                        }
                    }
                }
                if (counted) band.count(part.channels, row.min.y, row.max.y);
            }
        }
    }
}

// Deep parts: every chunk's sample counts are decoded; the samples are not.
void scanDeep(Imf::MultiPartInputFile& file, int index, PartScan& part, std::string& firstError)
{
    const Imath::Box2i window = part.dataWindow;
    const auto width = static_cast<std::size_t>(window.max.x - window.min.x + 1);
    if (part.tiled) {
        Imf::DeepTiledInputPart input(file, index);
        for (int ly = 0; ly < input.numYLevels(); ++ly)
            for (int lx = 0; lx < input.numXLevels(); ++lx) {
                if (input.levelMode() == Imf::MIPMAP_LEVELS && lx != ly) continue;
                const Imath::Box2i level = input.dataWindowForLevel(lx, ly);
                std::vector<unsigned int> counts(static_cast<std::size_t>(level.max.x - level.min.x + 1) *
                                                 static_cast<std::size_t>(input.tileYSize()));
                for (int ty = 0; ty < input.numYTiles(ly); ++ty)
                    for (int tx = 0; tx < input.numXTiles(lx); ++tx) {
                        const Imath::Box2i tile = input.dataWindowForTile(tx, ty, lx, ly);
                        Imf::DeepFrameBuffer buffer;
                        buffer.insertSampleCountSlice(bandSlice(Imf::UINT, counts.data(), level.min.x, tile.min.y,
                                                                level.max.x - level.min.x + 1, 1, 1));
                        try {
                            input.setFrameBuffer(buffer);
                            input.readPixelSampleCounts(tx, ty, lx, ly);
                        } catch (const std::exception& e) {
                            ++part.badChunks;
                            if (firstError.empty()) firstError = e.what();
                        }
                    }
            }
        return;
    }
    Imf::DeepScanLineInputPart input(file, index);
    const int chunkLines = linesPerChunk(file.header(index).compression());
    std::vector<unsigned int> counts(width * static_cast<std::size_t>(chunkLines));
    for (int y0 = window.min.y; y0 <= window.max.y; y0 += chunkLines) {
        Imf::DeepFrameBuffer buffer;
        buffer.insertSampleCountSlice(bandSlice(Imf::UINT, counts.data(), window.min.x, y0,
                                                static_cast<int>(width), 1, 1));
        try {
            input.setFrameBuffer(buffer);
            input.readPixelSampleCounts(y0, std::min(window.max.y, y0 + chunkLines - 1));
        } catch (const std::exception& e) {
            ++part.badChunks;
            if (firstError.empty()) firstError = e.what();
        }
    }
}

}  // namespace

const char* frameStateName(FrameState state)
{
    switch (state) {
    case FrameState::ok: return "ok";
    case FrameState::missing: return "missing";
    case FrameState::notExr: return "not EXR";
    case FrameState::truncated: return "truncated";
    case FrameState::damaged: return "damaged";
    }
    return "damaged";
}

void ChannelStats::add(float value)
{
    ++samples;
    if (std::isnan(value)) {
        ++nan;
        ++nonZero;
        return;
    }
    if (value != 0.0f) ++nonZero;
    if (value < 0.0f) ++negative;
    if (std::isinf(value)) {
        ++inf;
        return;
    }
    const double v = value;
    if (finite == 0 || v < min) min = v;
    if (finite == 0 || v > max) max = v;
    sum += v;
    ++finite;
}

void ChannelStats::merge(const ChannelStats& other)
{
    if (other.finite > 0) {
        min = finite > 0 ? std::min(min, other.min) : other.min;
        max = finite > 0 ? std::max(max, other.max) : other.max;
    }
    samples += other.samples;
    nan += other.nan;
    inf += other.inf;
    negative += other.negative;
    nonZero += other.nonZero;
    sum += other.sum;
    finite += other.finite;
}

bool FrameScan::empty() const
{
    for (const PartScan& part : parts) {
        if (part.deep) return false;  // its samples are not counted, so not known to be zero
        for (const ChannelStats& channel : part.channels)
            if (channel.nonZero > 0) return false;
    }
    return state == FrameState::ok;
}

bool FrameScan::hasNanOrInf() const
{
    for (const PartScan& part : parts)
        for (const ChannelStats& channel : part.channels)
            if (channel.nan > 0 || channel.inf > 0) return true;
    return false;
}

FrameScan scanFrame(const std::string& path, bool statistics)
{
    FrameScan scan;
    scan.path = path;
    std::string problem;
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        scan.state = FrameState::missing;
        scan.message = "no such file";
        return scan;
    }
    if (!hasExrMagic(path, scan.fileSize, problem)) {
        scan.state = problem == std::strerror(EACCES) ? FrameState::damaged : FrameState::notExr;
        scan.message = problem;
        return scan;
    }
    // OpenEXR's own check first, bounded in memory and time: a damaged file
    // can make the full decoder below crash or allocate without limit.
    if (Imf::checkOpenEXRFile(path.c_str(), true, true, true)) {
        scan.state = probeDamage(path, scan.fileSize, scan.message);
        return scan;
    }
    std::optional<TrackedFileStream> stream;
    std::string firstError;
    try {
        stream.emplace(path);
        Imf::MultiPartInputFile file(*stream);
        for (int index = 0; index < file.parts(); ++index) {
            const Imf::Header& header = file.header(index);
            PartScan part;
            part.name = header.hasName() ? header.name() : "";
            part.displayWindow = header.displayWindow();
            part.dataWindow = header.dataWindow();
            const std::string type = header.hasType() ? header.type() : std::string(Imf::SCANLINEIMAGE);
            part.tiled = type == Imf::TILEDIMAGE || type == Imf::DEEPTILE || header.hasTileDescription();
            part.deep = Imf::isDeepData(type);
            part.compression = compressionText(header.compression());
            for (auto c = header.channels().begin(); c != header.channels().end(); ++c) {
                ChannelStats channel;
                channel.name = c.name();
                channel.type = c.channel().type;
                channel.xSampling = c.channel().xSampling;
                channel.ySampling = c.channel().ySampling;
                part.channels.push_back(channel);
            }
            scan.parts.push_back(part);
        }
        std::uint64_t tableBytes = 0;
        for (int index = 0; index < file.parts(); ++index) {
            const PartScan& part = scan.parts[static_cast<std::size_t>(index)];
            const auto lines = static_cast<std::uint64_t>(part.dataWindow.max.y) -
                               static_cast<std::uint64_t>(part.dataWindow.min.y) + 1;
            const auto chunkLines = static_cast<std::uint64_t>(linesPerChunk(file.header(index).compression()));
            if (!part.tiled) tableBytes += 8 * ((lines + chunkLines - 1) / chunkLines);
        }
        if (tableBytes > scan.fileSize) {
            scan.state = FrameState::truncated;
            scan.message = "the file is shorter than its own table of chunk offsets";
            return scan;
        }
        for (int index = 0; index < file.parts(); ++index) {
            PartScan& part = scan.parts[static_cast<std::size_t>(index)];
            if (part.deep)
                scanDeep(file, index, part, firstError);
            else if (part.tiled)
                scanTiles(file, index, part, statistics, firstError);
            else
                scanLines(file, index, part, statistics, firstError);
        }
    } catch (const std::exception& e) {
        if (firstError.empty()) firstError = e.what();
        scan.state = stream && stream->pastEnd() ? FrameState::truncated : FrameState::damaged;
        scan.message = firstError;
        return scan;
    }
    int bad = 0;
    for (const PartScan& part : scan.parts) bad += part.badChunks;
    if (bad > 0) {
        scan.state = stream->pastEnd() ? FrameState::truncated : FrameState::damaged;
        scan.message = std::string(bad >= kBadChunksCounted ? "at least " : "") + std::to_string(bad) +
                       (bad == 1 ? " chunk" : " chunks") + " cannot be decoded: " + firstError;
    }
    return scan;
}

}  // namespace ktexr
