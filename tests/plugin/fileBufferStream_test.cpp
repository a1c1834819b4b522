// The stream adapters' cursors, and the decoders' guarded stream: files whose
// chunks are shorter than their pixels must not lead OpenEXR out of the host's
// buffer. Their bytes end where an inaccessible page begins, so a read past the
// loaded data ends the process, also where no sanitizer sees (inside OpenEXR).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <OpenEXR/Iex.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfInputFile.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/fileBufferStream.h"
#include "plugin/guardedFileBufferStream.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

// The exception the input stream throws for a read past the loaded data.
const auto kTooShort = ::testing::ThrowsMessage<IEX_NAMESPACE::IoExc>(::testing::StrEq("File size smaller than requested"));

// Records where each pointer OpenEXR is handed was asked for.
struct RecordingStream : kt::_imgGuardedFileBufferStream {
    using kt::_imgGuardedFileBufferStream::_imgGuardedFileBufferStream;
    char* readMemoryMapped(int n) override
    {
        const auto start = static_cast<long long>(tellg());
        char* p = kt::_imgGuardedFileBufferStream::readMemoryMapped(n);
        requests.push_back({start, p});
        return p;
    }
    std::vector<std::pair<long long, const char*>> requests;
};

// Reads every channel through the stream into planes of halves, as the
// decoders have OpenEXR do, with the guard taken from the header.
void readAllPixels(RecordingStream& stream)
{
    Imf::InputFile in(stream, 0);
    const Imath::Box2i w = in.header().dataWindow();
    const std::size_t width = static_cast<std::size_t>(w.max.x - w.min.x + 1);
    std::vector<std::vector<half>> planes;
    Imf::FrameBuffer frame;
    for (auto it = in.header().channels().begin(); it != in.header().channels().end(); ++it) {
        planes.emplace_back(width * static_cast<std::size_t>(w.max.y - w.min.y + 1));
        char* origin = reinterpret_cast<char*>(planes.back().data()) - (w.min.y * width + std::size_t(w.min.x)) * 2;
        frame.insert(it.name(), Imf::Slice(Imf::HALF, origin, 2, width * 2));
    }
    in.setFrameBuffer(frame);
    stream.setGuard(kt::exrChunkByteBound(in.header()));
    in.readPixels(w.min.y, w.max.y);
}

// Where the size field of the chunk at `offset` lies.
std::size_t sizeField(std::uint64_t offset, bool tiled) { return offset + (tiled ? 16 : 4); }

// A 256 x 20 image of halves, uncompressed unless asked, in tiles of 64 x 10 if tiled.
ExrPart plainPart(bool tiled, Imf::Compression compression = Imf::NO_COMPRESSION)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 255, 19);
    part.compression = compression;
    part.tiled = tiled;
    part.tileWidth = 64;
    part.tileHeight = 10;
    return part;
}

// The file cut just after its physically last chunk, which has been made to
// say it holds only a quarter of its bytes.
Bytes lastChunkShortened(bool tiled)
{
    const Bytes file = makeExr(plainPart(tiled));
    const std::vector<std::uint64_t> offsets = chunkOffsets(file);
    const std::size_t at = sizeField(*std::max_element(offsets.begin(), offsets.end()), tiled);
    const auto size = static_cast<std::uint32_t>(littleEndianAt(file, at) / 4);
    const auto byte = [size](int shift) { return static_cast<unsigned char>(size >> shift); };
    return truncated(patched(file, at, {byte(0), byte(8), byte(16), byte(24)}), at + 4 + size);
}

}  // namespace

// Reading: rewinds, names itself "noFile", reports whether more than one byte
// remains, throws past the loaded data with the cursor kept, hands out
// pointers into the buffer up to its very end, ignores refused seeks and
// the high 32 bits of a position.
TEST(FileBufferStream, ReadsThroughTheBuffersCursor)
{
    auto b = fileBufferWith(Bytes{'0', '1', '2', '3', '4', '5', '6', '7', '8'}, kWhole, 100);
    b->setBufPosition(7);
    _imgFileBufferStream in(b.get());
    EXPECT_EQ(in.tellg(), 0u);
    EXPECT_TRUE(in.isMemoryMapped());
    EXPECT_EQ(std::string(in.fileName()), "noFile");
    const struct { int start, n; bool more; } reads[] = {{0, 7, true}, {0, 8, false}, {5, 2, true}, {5, 3, false}};
    for (const auto& r : reads) {
        in.seekg(static_cast<uint64_t>(r.start));
        char dst[16] = {};
        EXPECT_EQ(in.read(dst, r.n), r.more) << r.start << " + " << r.n;
        EXPECT_EQ(in.tellg(), static_cast<uint64_t>(r.start + r.n));
        EXPECT_EQ(std::string(dst, std::size_t(r.n)), std::string("012345678").substr(std::size_t(r.start), r.n));
    }
    char dst[16];
    in.seekg(4);
    EXPECT_THAT([&] { in.read(dst, 6); }, kTooShort);
    EXPECT_EQ(in.tellg(), 4u);
    EXPECT_EQ(in.readMemoryMapped(5), reinterpret_cast<char*>(b->buffer) + 4);  // exactly to the end
    EXPECT_THAT([&] { in.readMemoryMapped(1); }, kTooShort);
    EXPECT_EQ(in.tellg(), 9u);
    in.seekg(10);
    EXPECT_EQ(in.tellg(), 9u);
    in.seekg((1ULL << 32) + 3);
    EXPECT_EQ(in.tellg(), 3u);
}

// Writing: empties the buffer first, drops a write that does not fit (the last
// byte of the capacity stays free) without an error, seeks without growing
// the file, and ignores refused seeks and the high 32 bits of a position.
TEST(FileBufferStreamOut, WritesThroughTheBuffersCursor)
{
    auto b = fileBufferWith(Bytes(50, 'x'), kWhole, kWhole, 20);
    b->setBufPosition(15);
    _imgFileBufferStreamOut out(b.get());
    auto content = [&] {
        const Bytes c = contentOf(*b);
        return std::string(c.begin(), c.end());
    };
    EXPECT_EQ(std::string(out.fileName()), "noFile");
    EXPECT_EQ(b->sizeLoaded + b->fileSize + b->bufPosition, 0);
    out.write("abcdef", 6);
    out.seekp(2);
    out.write("XY", 2);
    out.seekp(15);  // beyond the data: the cursor moves, the file does not grow
    EXPECT_EQ(out.tellp(), 15u);
    EXPECT_EQ(content(), "abXYef");
    out.seekp(21);  // beyond the capacity
    EXPECT_EQ(out.tellp(), 15u);
    out.seekp((1ULL << 32) + 6);
    EXPECT_EQ(out.tellp(), 6u);
    out.write("ghijklm", 7);
    out.write("nopqrst", 7);  // 13 + 7 reaches the capacity: dropped whole
    out.write("nopqrs", 6);
    EXPECT_EQ(content(), "abXYefghijklmnopqrs");
}

// The last chunk (the last line, or the last 64 x 10 tile) holds, line by
// line, 2-byte samples of A, B, G and R; those beyond its stated quarter
// read as 0, everything else is the file's.
TEST(DecodeOverread, ShortLastChunkIsReadAsZerosInsideTheBuffer)
{
    for (const bool tiled : {false, true}) {
        auto out = std::make_unique<ktP::_imgRGBABufferf>(256 * 20);
        out->setWidth(256);
        out->setHeight(20);
        GuardPagedFileBuffer guarded(lastChunkShortened(tiled));
        imgCallRecord call{guarded.get(), out.get(), nullptr, nullptr};
        ASSERT_EQ(imgDecodef(&call), 1);
        const DecodedExr oracle = readExr(makeExr(plainPart(tiled)));
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

// Valid files: the guard is the largest chunk an uncompressed file stores,
// for any mix of sample sizes and windows; only chunks starting closer than
// the guard to the end are served from the copy, every other pointer lies in
// the buffer itself.
TEST(DecodeOverread, GuardIsTheLargestChunkAndValidFilesKeepZeroCopy)
{
    for (const bool tiled : {false, true})
        for (const auto compression : {Imf::NO_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION})
            for (const Imath::Box2i& window : {box(0, 0, 255, 19), box(-7, 3, 60, 8)}) {
                SCOPED_TRACE(::testing::Message() << tiled << " " << compression << " " << window.min.x);
                ExrPart part = plainPart(tiled, compression);
                part.displayWindow = window;
                part.channels = {{"A", Imf::HALF}, {"B", Imf::FLOAT}, {"Z", Imf::UINT}};
                const Bytes file = makeExr(part);
                const std::uint64_t guard = kt::exrChunkByteBound(readExr(file, 0, false).header);
                std::uint64_t largest = 0;
                for (std::uint64_t offset : chunkOffsets(file))
                    largest = std::max(largest, littleEndianAt(file, sizeField(offset, tiled)));
                if (compression == Imf::NO_COMPRESSION) {
                    EXPECT_EQ(guard, largest);
                }
                auto buffer = fileBufferWith(file);
                RecordingStream stream(buffer.get());
                readAllPixels(stream);
                ASSERT_FALSE(stream.requests.empty());
                for (const auto& [start, pointer] : stream.requests)
                    EXPECT_EQ(pointer == reinterpret_cast<const char*>(buffer->buffer) + start,
                              static_cast<std::uint64_t>(buffer->sizeLoaded - start) >= guard)
                        << start;
            }
}
