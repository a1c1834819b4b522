// Files whose chunks are shorter than their pixels must not lead OpenEXR
// out of the host's file buffer. The file's bytes are placed so that they
// end where an inaccessible page begins: a read past the loaded data then
// ends the process, with or without AddressSanitizer (OpenEXR itself is not
// instrumented). A death test first shows that the plain zero-copy stream
// does make such reads with these files, so the decoder's passing is no accident.
#include <gtest/gtest.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfInputFile.h>

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/guardedFileBufferStream.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

// Where the size field of the chunk at `offset` lies.
std::size_t sizeField(std::size_t offset, bool tiled) { return offset + (tiled ? 16 : 4); }

// The file cut just after its physically last chunk, which has been made to
// say it holds only a quarter of its bytes.
Bytes lastChunkShortened(const Bytes& file, bool tiled)
{
    const std::vector<std::uint64_t> offsets = chunkOffsets(file);
    const std::size_t at = sizeField(*std::max_element(offsets.begin(), offsets.end()), tiled);
    const auto size = static_cast<std::uint32_t>(littleEndianAt(file, at) / 4);
    const Bytes shorter = patched(file, at, {static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8),
                                             static_cast<unsigned char>(size >> 16), static_cast<unsigned char>(size >> 24)});
    return truncated(shorter, at + 4 + size);
}

ExrPart uncompressed(bool tiled, Imf::Compression compression = Imf::NO_COMPRESSION)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 255, 19);
    part.compression = compression;
    part.tiled = tiled;
    part.tileWidth = 64;
    part.tileHeight = 10;
    return part;
}

// Reads every channel through a stream into planes of halves; what the
// decoders have OpenEXR do.
template <class Stream>
void readAllPixels(Stream& stream)
{
    Imf::InputFile in(stream, 0);
    const Imath::Box2i w = in.header().dataWindow();
    const std::size_t width = static_cast<std::size_t>(w.max.x - w.min.x + 1);
    std::vector<std::vector<half>> planes;
    Imf::FrameBuffer frame;
    for (auto it = in.header().channels().begin(); it != in.header().channels().end(); ++it) {
        planes.emplace_back(width * static_cast<std::size_t>(w.max.y - w.min.y + 1));
        frame.insert(it.name(), Imf::Slice(Imf::HALF, reinterpret_cast<char*>(planes.back().data()) -
                                                          (w.min.y * width + static_cast<std::size_t>(w.min.x)) * 2, 2, width * 2));
    }
    in.setFrameBuffer(frame);
    if constexpr (std::is_base_of_v<kt::_imgGuardedFileBufferStream, Stream>) stream.setGuard(kt::exrChunkByteBound(in.header()));
    in.readPixels(w.min.y, w.max.y);
}

// Records where each pointer OpenEXR is handed was asked for.
struct RecordingGuardedStream : kt::_imgGuardedFileBufferStream {
    using kt::_imgGuardedFileBufferStream::_imgGuardedFileBufferStream;
    char* readMemoryMapped(int n) override
    {
        const long long start = static_cast<long long>(tellg());
        char* p = kt::_imgGuardedFileBufferStream::readMemoryMapped(n);
        requests.push_back({start, p});
        return p;
    }
    std::vector<std::pair<long long, const char*>> requests;
};

// imgDecodef of a 256 x 20 image from a guard-paged buffer.
std::unique_ptr<ktP::_imgRGBABufferf> decoded(const Bytes& file, int& result)
{
    auto out = std::make_unique<ktP::_imgRGBABufferf>(256 * 20);
    out->setWidth(256);
    out->setHeight(20);
    GuardPagedFileBuffer guarded(file);
    imgCallRecord call{guarded.get(), out.get(), nullptr, nullptr};
    result = imgDecodef(&call);
    return out;
}

}  // namespace

// Allocations the allocator refuses must come back as failures, also under
// AddressSanitizer, which otherwise ends the process on them.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

TEST(DecodeOverreadDeathTest, PlainZeroCopyStreamReadsPastTheBuffer)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<Bytes> files = {lastChunkShortened(makeExr(uncompressed(false)), false),
                                lastChunkShortened(makeExr(uncompressed(true)), true)};
    if (!corpusDirectory().empty())  // real files known to have OpenEXR read past their end
        for (const char* name : {"memory_DOS_2.1", "memory_DOS_2.2"})
            files.push_back(readFileBytes(corpusDirectory() + "/Damaged/" + name));
    for (const Bytes& file : files) {
        // The decoder reads the same bytes inside the buffer (the damaged files are refused first).
        int result = 0;
        decoded(file, result);
        EXPECT_TRUE(result == 1 || result == 4) << result;
        EXPECT_DEATH(
            {
                GuardPagedFileBuffer guarded(file);
                _imgFileBufferStream plain(guarded.get());
                try {
                    readAllPixels(plain);
                } catch (...) {
                }
            },
            "");
    }
}

// The last chunk (the last line, or the last 64 x 10 tile) holds, line by
// line, 2-byte samples of A, B, G and R; those beyond its stated quarter
// read as 0, everything else is the file's.
TEST(DecodeOverread, ShortLastChunkIsReadAsZerosInsideTheBuffer)
{
    for (const bool tiled : {false, true}) {
        const Bytes whole = makeExr(uncompressed(tiled));
        int result = 0;
        const auto out = decoded(lastChunkShortened(whole, tiled), result);
        ASSERT_EQ(result, 1);
        const DecodedExr oracle = readExr(whole);
        const int chunkX = tiled ? 192 : 0, chunkY = tiled ? 10 : 19, chunkWidth = tiled ? 64 : 256;
        const int stated = chunkWidth * (tiled ? 10 : 1) * 4 * 2 / 4;
        const char* const names[4] = {"A", "B", "G", "R"};
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 256; ++x) {
                const _Rgbaf p = out->read(x, y);
                const float got[4] = {p.a, p.b, p.g, p.r};
                for (int k = 0; k < 4; ++k) {
                    const int at = ((y - chunkY) * 4 * chunkWidth + k * chunkWidth + (x - chunkX)) * 2;
                    const bool lost = x >= chunkX && y >= chunkY && at >= stated;
                    ASSERT_EQ(got[k], lost ? 0.0f : static_cast<float>(oracle.channel(names[k]).at(x, y)))
                        << (tiled ? "tiled " : "") << names[k] << " at " << x << "," << y;
                }
            }
    }
}

// Valid files: only chunks starting closer than the guard to the end are
// served from the copy; every other pointer lies in the buffer itself.
TEST(DecodeOverread, ValidFilesKeepZeroCopy)
{
    for (const auto compression : {Imf::NO_COMPRESSION, Imf::ZIPS_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION})
        for (const bool tiled : {false, true}) {
            const Bytes file = makeExr(uncompressed(tiled, compression));
            auto buffer = fileBufferWith(file);
            RecordingGuardedStream stream(buffer.get());
            readAllPixels(stream);
            const std::uint64_t guard = kt::exrChunkByteBound(readExr(file, 0, false).header);
            ASSERT_FALSE(stream.requests.empty());
            for (const auto& [start, pointer] : stream.requests)
                EXPECT_EQ(pointer == reinterpret_cast<const char*>(buffer->buffer) + start,
                          static_cast<std::uint64_t>(buffer->sizeLoaded - start) >= guard)
                    << compression << " " << tiled << " at " << start;
        }
}

// The guard is the largest chunk an uncompressed file stores, for any mix
// of sample sizes and windows.
TEST(DecodeOverread, GuardIsTheLargestUncompressedChunk)
{
    for (const bool tiled : {false, true})
        for (const Imath::Box2i& window : {box(0, 0, 255, 19), box(-7, 3, 60, 8), box(0, 0, 40, 40)}) {
            ExrPart part = uncompressed(tiled);
            part.displayWindow = window;
            part.channels = {{"A", Imf::HALF}, {"B", Imf::FLOAT}, {"Z", Imf::UINT}};
            const Bytes file = makeExr(part);
            std::uint64_t largest = 0;
            for (std::uint64_t offset : chunkOffsets(file)) largest = std::max(largest, littleEndianAt(file, sizeField(offset, tiled)));
            EXPECT_EQ(kt::exrChunkByteBound(readExr(file, 0, false).header), largest) << tiled << " " << window.max.x;
        }
}
