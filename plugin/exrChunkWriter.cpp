#include "plugin/exrChunkWriter.h"

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfVersion.h>

#include <emmintrin.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "plugin/chunkDeflater.h"
#include "plugin/exrChunkReader.h"

namespace kt {

namespace {

// Lines compressed ahead of the writer for each thread at work: enough to
// keep them busy, few enough that the memory stays small.
constexpr int kLinesPerThread = 6;

void putInt32(unsigned char* at, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(v >> (8 * i));
}

void putInt64(unsigned char* at, std::uint64_t v)
{
    for (int i = 0; i < 8; ++i) at[i] = static_cast<unsigned char>(v >> (8 * i));
}

void write(Imf::OStream& out, const unsigned char* bytes, std::size_t count)
{
    out.write(reinterpret_cast<const char*>(bytes), static_cast<int>(count));
}

void writeOffsets(Imf::OStream& out, const std::vector<std::uint64_t>& offsets)
{
    for (const std::uint64_t offset : offsets) {
        unsigned char entry[8];
        putInt64(entry, offset);
        write(out, entry, 8);
    }
}

// As OpenEXR marks a file that has names of 32 characters or more.
bool usesLongNames(const Imf::Header& header)
{
    for (auto it = header.begin(); it != header.end(); ++it)
        if (std::strlen(it.name()) >= 32 || std::strlen(it.attribute().typeName()) >= 32) return true;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it)
        if (std::strlen(it.name()) >= 32) return true;
    return false;
}

// A line's halves as OpenEXR stores them before compression: the channels in
// name order (A, B, G, R), each a run of little-endian values.
void channelRuns(const Imf::Rgba* pixels, std::size_t width, unsigned char* raw)
{
    unsigned char* const to[4] = {raw, raw + 2 * width, raw + 4 * width, raw + 6 * width};
    for (std::size_t x = 0; x < width; ++x) {
        const Imf::Rgba& p = pixels[x];
        const std::uint16_t v[4] = {p.a.bits(), p.b.bits(), p.g.bits(), p.r.bits()};
        for (int c = 0; c < 4; ++c) {
            to[c][2 * x] = static_cast<unsigned char>(v[c]);
            to[c][2 * x + 1] = static_cast<unsigned char>(v[c] >> 8);
        }
    }
}

// What deflate is given: the even-numbered bytes of the channel runs first,
// then the odd-numbered ones -- that is, the low bytes of every half (A, B,
// G, R in turn), then their high bytes -- each stored as its difference to
// the byte before it plus 128 (modulo 256). Built straight from the pixels,
// eight at a time, without the runs in between.
void predictedBytes(const Imf::Rgba* pixels, std::size_t width, unsigned char* out)
{
    unsigned char* const low[4] = {out, out + width, out + 2 * width, out + 3 * width};
    unsigned char* const high[4] = {out + 4 * width, out + 5 * width, out + 6 * width, out + 7 * width};
    const __m128i lowByte = _mm_set1_epi16(0x00FF);
    std::size_t x = 0;
    for (; x + 8 <= width; x += 8) {
        // Eight pixels of R, G, B, A halves, turned into one register per channel.
        const auto* in = reinterpret_cast<const __m128i*>(pixels + x);
        const __m128i p0 = _mm_loadu_si128(in), p1 = _mm_loadu_si128(in + 1);
        const __m128i p2 = _mm_loadu_si128(in + 2), p3 = _mm_loadu_si128(in + 3);
        const __m128i t0 = _mm_unpacklo_epi16(p0, p1), t1 = _mm_unpackhi_epi16(p0, p1);
        const __m128i t2 = _mm_unpacklo_epi16(p2, p3), t3 = _mm_unpackhi_epi16(p2, p3);
        const __m128i rg0 = _mm_unpacklo_epi16(t0, t1), ba0 = _mm_unpackhi_epi16(t0, t1);
        const __m128i rg1 = _mm_unpacklo_epi16(t2, t3), ba1 = _mm_unpackhi_epi16(t2, t3);
        const __m128i channel[4] = {_mm_unpackhi_epi64(ba0, ba1), _mm_unpacklo_epi64(ba0, ba1),
                                    _mm_unpackhi_epi64(rg0, rg1), _mm_unpacklo_epi64(rg0, rg1)};
        for (int c = 0; c < 4; ++c) {
            const __m128i lows = _mm_packus_epi16(_mm_and_si128(channel[c], lowByte), _mm_setzero_si128());
            const __m128i highs = _mm_packus_epi16(_mm_srli_epi16(channel[c], 8), _mm_setzero_si128());
            _mm_storel_epi64(reinterpret_cast<__m128i*>(low[c] + x), lows);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(high[c] + x), highs);
        }
    }
    for (; x < width; ++x) {
        const Imf::Rgba& p = pixels[x];
        const std::uint16_t v[4] = {p.a.bits(), p.b.bits(), p.g.bits(), p.r.bits()};
        for (int c = 0; c < 4; ++c) {
            low[c][x] = static_cast<unsigned char>(v[c]);
            high[c][x] = static_cast<unsigned char>(v[c] >> 8);
        }
    }

    // Differences, sixteen at a time: each block against itself shifted by
    // one byte, with the last byte of the block before in front. The first
    // byte keeps its value (its "previous byte" is taken as 128).
    const std::size_t count = 8 * width;
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    __m128i before = _mm_set1_epi8(static_cast<char>(0x80));  // only its top byte is used
    std::size_t k = 0;
    for (; k + 16 <= count; k += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(out + k));
        const __m128i previous = _mm_or_si128(_mm_slli_si128(v, 1), _mm_srli_si128(before, 15));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k), _mm_add_epi8(_mm_sub_epi8(v, previous), bias));
        before = v;
    }
    unsigned char previous = static_cast<unsigned char>(_mm_extract_epi16(before, 7) >> 8);
    for (; k < count; ++k) {
        const unsigned char v = out[k];
        out[k] = static_cast<unsigned char>(v - previous + 128);
        previous = v;
    }
}

// Turns line y into its stored bytes: the predicted bytes deflated, or the
// channel runs as they are when deflating does not make them smaller.
class LineCompressor {
public:
    LineCompressor(int width, const std::function<void(int, Imf::Rgba*)>& row)
        : row(row), pixels(static_cast<std::size_t>(width)), predicted(pixels.size() * 8)
    {
    }

    void compress(int y, std::vector<unsigned char>& stored)
    {
        row(y, pixels.data());
        predictedBytes(pixels.data(), pixels.size(), predicted.data());
        stored.resize(predicted.size());
        // Low bytes and high bytes get a Huffman block each.
        const std::size_t packed = deflater.compress(predicted.data(), predicted.size(), predicted.size() / 2,
                                                     stored.data(), stored.size() - 1);
        if (packed == 0)
            channelRuns(pixels.data(), pixels.size(), stored.data());
        else
            stored.resize(packed);
    }

private:
    ChunkDeflater deflater;
    const std::function<void(int, Imf::Rgba*)>& row;
    std::vector<Imf::Rgba> pixels;
    std::vector<unsigned char> predicted;
};

// Lines in flight between the compressing threads and the one writing: each
// takes the next line not yet taken, no further ahead of the writer than the
// window; the writer takes the lines in order as they are done, and
// compresses a line itself when nobody has taken it yet.
class LinePipeline {
public:
    LinePipeline(int firstY, int lines, int window, int width, const std::function<void(int, Imf::Rgba*)>& row)
        : firstY(firstY), lines(lines), window(window), width(width), row(row), slots(static_cast<std::size_t>(window)),
          done(static_cast<std::size_t>(window), 0)
    {
    }

    // A helper: compresses lines until there are none left or the writer stopped.
    void help()
    {
        try {
            LineCompressor compressor(width, row);
            for (;;) {
                int line = 0;
                {
                    std::unique_lock<std::mutex> lock(mutex);
                    changed.wait(lock, [&] { return stopped || taken >= lines || taken < written + window; });
                    if (stopped || taken >= lines) return;
                    line = taken++;
                }
                compressor.compress(firstY + line, slots[slot(line)]);
                std::lock_guard<std::mutex> lock(mutex);
                done[slot(line)] = 1;
                changed.notify_all();
            }
        } catch (...) {
            std::lock_guard<std::mutex> lock(mutex);
            failed = stopped = true;
            changed.notify_all();
        }
    }

    // The writer: hands every line's bytes to `put`, in order (lines counted
    // from the window's top). False when a
    // line could not be made; exceptions of `put` pass on. Either way the
    // helpers are told to stop.
    bool write(const std::function<void(int, const std::vector<unsigned char>&)>& put)
    {
        struct StopOnExit {
            LinePipeline& p;
            ~StopOnExit()
            {
                std::lock_guard<std::mutex> lock(p.mutex);
                p.stopped = true;
                p.changed.notify_all();
            }
        } stopOnExit{*this};
        std::unique_ptr<LineCompressor> own;
        auto compressOwn = [&](int line) {
            if (!own) own = std::make_unique<LineCompressor>(width, row);
            own->compress(firstY + line, slots[slot(line)]);
        };
        for (int line = 0; line < lines; ++line) {
            // Rather than sleep while a helper finishes this line, the writer
            // compresses the next one nobody has taken yet.
            for (;;) {
                int ahead = -1;
                {
                    std::unique_lock<std::mutex> lock(mutex);
                    if (failed) return false;
                    if (taken == line) {
                        ++taken;
                        lock.unlock();
                        compressOwn(line);
                        break;
                    }
                    if (done[slot(line)] != 0) break;
                    if (taken < lines && taken < written + window) {
                        ahead = taken++;
                    } else {
                        changed.wait(lock, [&] { return failed || done[slot(line)] != 0; });
                        if (failed) return false;
                        break;
                    }
                }
                compressOwn(ahead);
                std::lock_guard<std::mutex> lock(mutex);
                done[slot(ahead)] = 1;
            }
            put(line, slots[slot(line)]);
            std::lock_guard<std::mutex> lock(mutex);
            done[slot(line)] = 0;
            ++written;
            changed.notify_all();
        }
        return true;
    }

private:
    std::size_t slot(int line) const { return static_cast<std::size_t>(line % window); }

    const int firstY, lines, window, width;
    const std::function<void(int, Imf::Rgba*)>& row;
    std::vector<std::vector<unsigned char>> slots;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<char> done;  // per slot: its line is compressed and not yet written
    int taken = 0, written = 0;
    bool stopped = false, failed = false;
};

}  // namespace

ExrWriteOutcome exrWriteRgbaZipsLines(Imf::OStream& out, const Imf::Header& header, int threads,
                                      const std::function<void(int y, Imf::Rgba* pixels)>& row)
{
    const Imath::Box2i window = header.dataWindow();
    const int width = window.max.x - window.min.x + 1;
    const int height = window.max.y - window.min.y + 1;
    std::uint64_t tablePosition = 0;
    std::vector<std::uint64_t> offsets;
    try {
        Imf::Header fileHeader(header);
        for (const char* name : {"R", "G", "B", "A"}) fileHeader.channels().insert(name, Imf::Channel(Imf::HALF));
        fileHeader.sanityCheck();
        if (width <= 0 || height <= 0 || fileHeader.compression() != Imf::ZIPS_COMPRESSION ||
            fileHeader.lineOrder() != Imf::INCREASING_Y)
            return ExrWriteOutcome::headerRefused;

        // Written in the pieces OpenEXR writes, so that a file buffer that
        // runs out of room refuses the same bytes.
        unsigned char number[4];
        putInt32(number, static_cast<std::uint32_t>(Imf::MAGIC));
        write(out, number, 4);
        putInt32(number, static_cast<std::uint32_t>(Imf::EXR_VERSION | (usesLongNames(fileHeader) ? Imf::LONG_NAMES_FLAG : 0)));
        write(out, number, 4);
        fileHeader.writeTo(out);
        tablePosition = out.tellp();
        offsets.assign(static_cast<std::size_t>(height), 0);
        writeOffsets(out, offsets);
    } catch (...) {
        return ExrWriteOutcome::headerRefused;
    }

    try {
        const int helpers = std::max(threads, 0);
        LinePipeline pipeline(window.min.y, height, (helpers + 1) * kLinesPerThread, width, row);
        bool complete = false;
        exrRunBeside(
            helpers, [&pipeline] { pipeline.help(); },
            [&] {
                complete = pipeline.write([&](int line, const std::vector<unsigned char>& stored) {
                    unsigned char number[4];
                    offsets[static_cast<std::size_t>(line)] = out.tellp();
                    putInt32(number, static_cast<std::uint32_t>(window.min.y + line));
                    write(out, number, 4);
                    putInt32(number, static_cast<std::uint32_t>(stored.size()));
                    write(out, number, 4);
                    write(out, stored.data(), stored.size());
                });
            });
        if (!complete) return ExrWriteOutcome::pixelsFailed;
        // The offset table, then back to the end, as OpenEXR leaves a file.
        const std::uint64_t end = out.tellp();
        out.seekp(tablePosition);
        writeOffsets(out, offsets);
        out.seekp(end);
    } catch (...) {
        return ExrWriteOutcome::pixelsFailed;
    }
    return ExrWriteOutcome::written;
}

}  // namespace kt
