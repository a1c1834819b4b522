#include "plugin/exrChunkReader.h"

#include <OpenEXR/IlmThreadPool.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/openexr.h>

#include <emmintrin.h>
#include <libdeflate.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

namespace kt {

namespace {

std::atomic<bool> referenceForced{false};
std::atomic<std::uint64_t> quickReads{0};

// ---- sharing work with OpenEXR's pool ------------------------------------

// Counts the runs still going; the caller sleeps until none is left. The
// count changes under the mutex, so whatever a run did is visible to the
// caller once it wakes (also to tools that do not see into the pool).
class RunLatch {
public:
    void add()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++pending;
    }
    void done()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (--pending == 0) allDone.notify_all();  // under the lock: the waiter cannot leave before
    }
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        allDone.wait(lock, [this] { return pending == 0; });
    }

private:
    std::mutex mutex;
    std::condition_variable allDone;
    int pending = 0;
};

class SharedRun : public IlmThread::Task {
public:
    SharedRun(IlmThread::TaskGroup* group, const std::function<void()>& work, RunLatch& latch)
        : IlmThread::Task(group), work(work), latch(latch)
    {
    }
    void execute() override
    {
        try {
            work();
        } catch (...) {
        }
        latch.done();
    }

private:
    const std::function<void()>& work;
    RunLatch& latch;
};

// ---- reading the file through OpenEXR's core library ---------------------

int64_t readFromBuffer(exr_const_context_t, void* userData, void* target, uint64_t size, uint64_t offset,
                       exr_stream_error_func_ptr_t)
{
    const auto* file = static_cast<const ktP::_imgFileBuffer*>(userData);
    const uint64_t loaded = file->sizeLoaded > 0 ? static_cast<uint64_t>(file->sizeLoaded) : 0;
    if (offset >= loaded) return -1;
    const uint64_t n = std::min(size, loaded - offset);
    std::memcpy(target, file->buffer + offset, static_cast<std::size_t>(n));
    return static_cast<int64_t>(n);
}

int64_t sizeOfBuffer(exr_const_context_t, void* userData)
{
    return static_cast<const ktP::_imgFileBuffer*>(userData)->sizeLoaded;
}

void quiet(exr_const_context_t, exr_result_t, const char*) {}

struct ContextCloser {
    void operator()(exr_context_t context) const { exr_finish(&context); }
};
using Context = std::unique_ptr<std::remove_pointer_t<exr_context_t>, ContextCloser>;

// Where one chunk's stored bytes lie in the buffer and which lines they hold.
struct Chunk {
    const unsigned char* stored = nullptr;
    std::uint64_t storedBytes = 0;
    std::int64_t firstRow = 0;  // from the data window's top
    std::int64_t rows = 0;
};

// ---- undoing the compressions --------------------------------------------

// OpenEXR's run-length format: a negative count n is followed by -n literal
// bytes, any other count n by one byte repeated n + 1 times. Exactly
// `expected` bytes must come out of exactly all the input.
bool runLengthDecode(const unsigned char* in, std::uint64_t inBytes, unsigned char* out, std::uint64_t expected)
{
    std::uint64_t written = 0;
    const unsigned char* const end = in + inBytes;
    while (in < end) {
        const int count = static_cast<signed char>(*in++);
        if (count < 0) {
            const std::uint64_t n = static_cast<std::uint64_t>(-count);
            if (static_cast<std::uint64_t>(end - in) < n || expected - written < n) return false;
            std::memcpy(out + written, in, n);
            in += n;
            written += n;
        } else {
            const std::uint64_t n = static_cast<std::uint64_t>(count) + 1;
            if (in == end || expected - written < n) return false;
            std::memset(out + written, *in++, n);
            written += n;
        }
    }
    return written == expected;
}

// Both lossless compressions store each byte as its difference to the one
// before, plus 128 (modulo 256), with the even-numbered bytes of a chunk first
// and the odd-numbered ones after them.
//
// The differences are summed in place, sixteen at a time: within a block in
// four shifted additions, then the running total of the blocks before it
// added to every byte. Integer sums modulo 256 come out the same in any order.
void undoPredictor(unsigned char* bytes, std::uint64_t count)
{
    if (count == 0) return;
    bytes[0] ^= 0x80;  // the first byte is stored as it is: keep it through the blanket -128 below
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    __m128i carry = _mm_setzero_si128();
    std::uint64_t i = 0;
    for (; i + 16 <= count; i += 16) {
        __m128i x = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i)), bias);
        x = _mm_add_epi8(x, _mm_slli_si128(x, 1));
        x = _mm_add_epi8(x, _mm_slli_si128(x, 2));
        x = _mm_add_epi8(x, _mm_slli_si128(x, 4));
        x = _mm_add_epi8(x, _mm_slli_si128(x, 8));
        x = _mm_add_epi8(x, carry);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes + i), x);
        carry = _mm_set1_epi8(static_cast<char>(_mm_extract_epi16(x, 7) >> 8));
    }
    unsigned char previous = i > 0 ? bytes[i - 1] : 0;
    for (; i < count; ++i) {
        previous = static_cast<unsigned char>(previous + (bytes[i] ^ 0x80));
        bytes[i] = previous;
    }
}

// Output bytes [2 * first, 2 * (first + pairs)) of the interleaved chunk
// whose halves begin at even and odd.
void interleave(const unsigned char* even, const unsigned char* odd, std::uint64_t first, std::uint64_t pairs,
                unsigned char* out)
{
    even += first;
    odd += first;
    std::uint64_t i = 0;
    for (; i + 16 <= pairs; i += 16) {
        const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(even + i));
        const __m128i o = _mm_loadu_si128(reinterpret_cast<const __m128i*>(odd + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i), _mm_unpacklo_epi8(e, o));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i + 16), _mm_unpackhi_epi8(e, o));
    }
    for (; i < pairs; ++i) {
        out[2 * i] = even[i];
        out[2 * i + 1] = odd[i];
    }
}

struct DeflateFree {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// What every worker shares: the chunks, the layout, where to put each channel.
struct PlaneFill {
    Imf::Compression compression = Imf::NO_COMPRESSION;
    std::vector<Chunk> chunks;
    std::int64_t width = 0;
    std::vector<std::uint64_t> lineOffsetOfChannel;  // bytes into one line of a chunk
    std::vector<std::uint64_t> bytesOfChannel;       // per value
    std::vector<char*> planeOfChannel;                // null for channels nobody reads
    std::uint64_t lineBytes = 0;

    mutable std::atomic<std::size_t> claimed{0};
    mutable std::atomic<bool> failed{false};

    void work() const;
    bool decodeChunk(const Chunk& chunk, libdeflate_decompressor* inflater, std::vector<unsigned char>& scratch) const;
};

bool PlaneFill::decodeChunk(const Chunk& chunk, libdeflate_decompressor* inflater,
                            std::vector<unsigned char>& scratch) const
{
    const std::uint64_t expected = lineBytes * static_cast<std::uint64_t>(chunk.rows);
    // A chunk no smaller than its pixels is stored as it is, whatever the compression.
    if (chunk.storedBytes == expected) {
        for (std::int64_t r = 0; r < chunk.rows; ++r) {
            const unsigned char* line = chunk.stored + static_cast<std::uint64_t>(r) * lineBytes;
            const std::uint64_t row = static_cast<std::uint64_t>(chunk.firstRow + r);
            for (std::size_t c = 0; c < planeOfChannel.size(); ++c) {
                if (!planeOfChannel[c]) continue;
                const std::uint64_t rowBytes = static_cast<std::uint64_t>(width) * bytesOfChannel[c];
                std::memcpy(planeOfChannel[c] + row * rowBytes, line + lineOffsetOfChannel[c], rowBytes);
            }
        }
        return true;
    }
    if (chunk.storedBytes > expected || compression == Imf::NO_COMPRESSION) return false;
    if (scratch.size() < expected) scratch.resize(expected);
    if (compression == Imf::RLE_COMPRESSION) {
        if (!runLengthDecode(chunk.stored, chunk.storedBytes, scratch.data(), expected)) return false;
    } else if (libdeflate_zlib_decompress(inflater, chunk.stored, chunk.storedBytes, scratch.data(), expected,
                                          nullptr) != LIBDEFLATE_SUCCESS) {
        return false;
    }
    undoPredictor(scratch.data(), expected);
    // Every line and channel starts at an even byte: each plane row is a run of whole pairs.
    const unsigned char* even = scratch.data();
    const unsigned char* odd = even + (expected + 1) / 2;
    for (std::int64_t r = 0; r < chunk.rows; ++r) {
        const std::uint64_t lineStart = static_cast<std::uint64_t>(r) * lineBytes;
        const std::uint64_t row = static_cast<std::uint64_t>(chunk.firstRow + r);
        for (std::size_t c = 0; c < planeOfChannel.size(); ++c) {
            if (!planeOfChannel[c]) continue;
            const std::uint64_t rowBytes = static_cast<std::uint64_t>(width) * bytesOfChannel[c];
            interleave(even, odd, (lineStart + lineOffsetOfChannel[c]) / 2, rowBytes / 2,
                       reinterpret_cast<unsigned char*>(planeOfChannel[c] + row * rowBytes));
        }
    }
    return true;
}

void PlaneFill::work() const
{
    std::unique_ptr<libdeflate_decompressor, DeflateFree> inflater(libdeflate_alloc_decompressor());
    if (!inflater) {
        failed.store(true);
        return;
    }
    std::vector<unsigned char> scratch;
    try {
        for (;;) {
            if (failed.load(std::memory_order_relaxed)) return;
            const std::size_t index = claimed.fetch_add(1, std::memory_order_relaxed);
            if (index >= chunks.size()) return;
            if (!decodeChunk(chunks[index], inflater.get(), scratch)) {
                failed.store(true);
                return;
            }
        }
    } catch (...) {
        failed.store(true);
    }
}

bool takesCompression(Imf::Compression compression)
{
    return compression == Imf::NO_COMPRESSION || compression == Imf::RLE_COMPRESSION ||
           compression == Imf::ZIPS_COMPRESSION || compression == Imf::ZIP_COMPRESSION;
}

bool machineIsLittleEndian()
{
    const std::uint16_t one = 1;
    unsigned char first = 0;
    std::memcpy(&first, &one, 1);
    return first == 1;
}

bool readPlanes(const ktP::_imgFileBuffer& file, const Imf::Header& header, const std::vector<ExrPlaneTarget>& targets,
                int threads)
{
    if (referenceForced.load() || !machineIsLittleEndian() || !file.buffer || file.sizeLoaded <= 0) return false;
    if (header.hasTileDescription() || !takesCompression(header.compression())) return false;
    if (header.hasType() && header.type() != Imf::SCANLINEIMAGE) return false;

    const Imath::Box2i window = header.dataWindow();
    const std::int64_t width = std::int64_t{window.max.x} - window.min.x + 1;
    const std::int64_t height = std::int64_t{window.max.y} - window.min.y + 1;
    if (width <= 0 || height <= 0) return false;

    auto fill = std::make_unique<PlaneFill>();
    fill->compression = header.compression();
    fill->width = width;
    std::size_t found = 0;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
        const Imf::Channel& channel = it.channel();
        if (channel.xSampling != 1 || channel.ySampling != 1) return false;
        std::uint64_t bytes = 0;
        switch (channel.type) {
        case Imf::HALF: bytes = 2; break;
        case Imf::FLOAT:
        case Imf::UINT: bytes = 4; break;
        default: return false;
        }
        char* plane = nullptr;
        for (const ExrPlaneTarget& target : targets)
            if (target.channelName && std::strcmp(target.channelName, it.name()) == 0) plane = target.values;
        if (plane) ++found;
        fill->lineOffsetOfChannel.push_back(fill->lineBytes);
        fill->bytesOfChannel.push_back(bytes);
        fill->planeOfChannel.push_back(plane);
        fill->lineBytes += static_cast<std::uint64_t>(width) * bytes;
    }
    if (found != targets.size()) return false;

    // The chunks as OpenEXR's core library finds and checks them, without
    // rebuilding a damaged offset table (the C++ reader decides about those).
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.error_handler_fn = quiet;
    init.user_data = const_cast<ktP::_imgFileBuffer*>(&file);
    init.read_fn = readFromBuffer;
    init.size_fn = sizeOfBuffer;
    init.flags = EXR_CONTEXT_FLAG_SILENT_HEADER_PARSE | EXR_CONTEXT_FLAG_DISABLE_CHUNK_RECONSTRUCTION;
    exr_context_t raw = nullptr;
    if (exr_start_read(&raw, "noFile", &init) != EXR_ERR_SUCCESS) {
        if (raw) exr_finish(&raw);
        return false;
    }
    Context context(raw);
    int parts = 0;
    exr_storage_t storage = EXR_STORAGE_LAST_TYPE;
    exr_compression_t compression = EXR_COMPRESSION_LAST_TYPE;
    exr_attr_box2i_t coreWindow{};
    int32_t linesPerChunk = 0, chunkCount = 0;
    if (exr_get_count(raw, &parts) != EXR_ERR_SUCCESS || parts != 1 ||
        exr_get_storage(raw, 0, &storage) != EXR_ERR_SUCCESS || storage != EXR_STORAGE_SCANLINE ||
        exr_get_compression(raw, 0, &compression) != EXR_ERR_SUCCESS ||
        static_cast<int>(compression) != static_cast<int>(header.compression()) ||
        exr_get_data_window(raw, 0, &coreWindow) != EXR_ERR_SUCCESS || coreWindow.min.x != window.min.x ||
        coreWindow.min.y != window.min.y || coreWindow.max.x != window.max.x || coreWindow.max.y != window.max.y ||
        exr_get_scanlines_per_chunk(raw, 0, &linesPerChunk) != EXR_ERR_SUCCESS || linesPerChunk <= 0 ||
        exr_get_chunk_count(raw, 0, &chunkCount) != EXR_ERR_SUCCESS ||
        std::int64_t{chunkCount} != (height + linesPerChunk - 1) / linesPerChunk)
        return false;

    const std::uint64_t loaded = static_cast<std::uint64_t>(file.sizeLoaded);
    fill->chunks.resize(static_cast<std::size_t>(chunkCount));
    for (int32_t i = 0; i < chunkCount; ++i) {
        const std::int64_t firstRow = std::int64_t{i} * linesPerChunk;
        exr_chunk_info_t info{};
        if (exr_read_scanline_chunk_info(raw, 0, static_cast<int>(window.min.y + firstRow), &info) !=
            EXR_ERR_SUCCESS)
            return false;
        const std::int64_t rows = std::min<std::int64_t>(linesPerChunk, height - firstRow);
        if (info.start_y != window.min.y + firstRow || info.height != rows || info.data_offset > loaded ||
            info.packed_size > loaded - info.data_offset)
            return false;
        Chunk& chunk = fill->chunks[static_cast<std::size_t>(i)];
        chunk.stored = file.buffer + info.data_offset;
        chunk.storedBytes = info.packed_size;
        chunk.firstRow = firstRow;
        chunk.rows = rows;
    }
    context.reset();

    const PlaneFill& shared = *fill;
    const int helpers = static_cast<int>(std::min<std::int64_t>(std::max(threads, 0), chunkCount - 1));
    exrRunShared(helpers, [&shared] { shared.work(); });
    if (fill->failed.load()) return false;
    quickReads.fetch_add(1, std::memory_order_relaxed);
    return true;
}

}  // namespace

bool exrReadPlanesQuickly(const ktP::_imgFileBuffer& file, const Imf::Header& header,
                          const std::vector<ExrPlaneTarget>& targets, int threads) noexcept
{
    try {
        return readPlanes(file, header, targets, threads);
    } catch (...) {
        return false;
    }
}

void exrForceReferencePath(bool forced) { referenceForced.store(forced); }

bool exrReferencePathForced() { return referenceForced.load(); }

std::uint64_t exrQuickReadCount() { return quickReads.load(); }

void exrRunShared(int helpers, const std::function<void()>& work)
{
    exrRunBeside(helpers, work, [&work] {
        try {
            work();
        } catch (...) {
        }
    });
}

void exrRunBeside(int helpers, const std::function<void()>& helper, const std::function<void()>& own)
{
    RunLatch latch;
    IlmThread::TaskGroup group;  // its destructor waits for the tasks to be gone
    for (int i = 0; i < helpers; ++i) {
        latch.add();
        try {
            IlmThread::ThreadPool::addGlobalTask(new SharedRun(&group, helper, latch));
        } catch (...) {
            latch.done();
            break;
        }
    }
    struct WaitOnExit {
        RunLatch& latch;
        ~WaitOnExit() { latch.wait(); }
    } waitOnExit{latch};
    own();
}

}  // namespace kt
