// Files whose chunks are shorter than their pixels must not lead OpenEXR
// out of the host's file buffer. The file's bytes are placed so that they
// end where an inaccessible page begins: a read past the loaded data then
// ends the process, with or without AddressSanitizer (OpenEXR itself is not
// instrumented). Death tests first show that the plain zero-copy stream does
// make such reads with these files, so the decoder's passing is no accident.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfInputFile.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/guardedFileBufferStream.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

std::uint32_t readLe32(const Bytes& file, std::size_t at)
{
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<unsigned char>(file[at + static_cast<std::size_t>(i)]);
    return v;
}

// The stored size of every chunk of a single-part file, in table order.
std::vector<std::uint32_t> chunkSizes(const Bytes& file, bool tiled)
{
    std::vector<std::uint32_t> sizes;
    for (std::uint64_t offset : chunkOffsets(file)) sizes.push_back(readLe32(file, offset + (tiled ? 16 : 4)));
    return sizes;
}

// The file cut just after its physically last chunk has been made to say it
// holds only a quarter of its bytes.
Bytes lastChunkShortened(const Bytes& file, bool tiled)
{
    const std::vector<std::uint64_t> offsets = chunkOffsets(file);
    const std::size_t last = *std::max_element(offsets.begin(), offsets.end());
    const std::size_t sizeField = last + (tiled ? 16 : 4);
    const std::uint32_t size = readLe32(file, sizeField) / 4;
    const Bytes shorter = patched(file, sizeField,
                                  {static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8),
                                   static_cast<unsigned char>(size >> 16), static_cast<unsigned char>(size >> 24)});
    return truncated(shorter, sizeField + 4 + size);
}

ExrPart uncompressed(bool tiled)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 255, 19);
    part.compression = Imf::NO_COMPRESSION;
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
                                                          (w.min.y * width + static_cast<std::size_t>(w.min.x)) * 2,
                                           2, width * 2));
    }
    in.setFrameBuffer(frame);
    if constexpr (std::is_base_of_v<kt::_imgGuardedFileBufferStream, Stream>)
        stream.setGuard(kt::exrChunkByteBound(in.header()));
    in.readPixels(w.min.y, w.max.y);
}

// Records the pointers OpenEXR is handed.
class RecordingGuardedStream : public kt::_imgGuardedFileBufferStream {
public:
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

// A file buffer holding `file` whose loaded bytes end right before an
// inaccessible page.
class GuardPagedFile {
public:
    explicit GuardPagedFile(const Bytes& file) : buffer(fileBufferWith(file))
    {
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        dataBytes = (file.size() + page - 1) / page * page;
        void* block = mmap(nullptr, dataBytes + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED) throw std::bad_alloc();
        base = static_cast<unsigned char*>(block);
        mprotect(base + dataBytes, page, PROT_NONE);
        std::memcpy(base + dataBytes - file.size(), file.data(), file.size());
        owned = buffer->buffer;
        buffer->buffer = base + dataBytes - file.size();
    }
    ~GuardPagedFile()
    {
        buffer->buffer = owned;
        munmap(base, dataBytes + static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
    }
    ktP::_imgFileBuffer* get() const { return buffer.get(); }

private:
    std::unique_ptr<ktP::_imgFileBuffer> buffer;
    unsigned char* owned = nullptr;
    unsigned char* base = nullptr;
    std::size_t dataBytes = 0;
};

int decodeFloat(const Bytes& file, ktP::_imgRGBABufferf& out)
{
    GuardPagedFile guarded(file);
    imgCallRecord call{guarded.get(), &out, nullptr, nullptr};
    return imgDecodef(&call);
}

// The synthetic files with a short last chunk, and the corpus files known
// to have OpenEXR read past their end.
std::vector<std::pair<std::string, Bytes>> overreadingFiles()
{
    std::vector<std::pair<std::string, Bytes>> files = {
        {"scan lines", lastChunkShortened(makeExr(uncompressed(false)), false)},
        {"tiles", lastChunkShortened(makeExr(uncompressed(true)), true)},
    };
    if (!corpusDirectory().empty())
        for (const char* name : {"memory_DOS_2.1", "memory_DOS_2.2"})
            files.emplace_back(name, readFileBytes(corpusDirectory() + "/Damaged/" + name));
    return files;
}

}  // namespace

// Allocations the allocator refuses must come back as failures, also under
// AddressSanitizer, which otherwise ends the process on them.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

TEST(DecodeOverreadDeathTest, PlainZeroCopyStreamReadsPastTheBuffer)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& [name, file] : overreadingFiles()) {
        EXPECT_DEATH(
            {
                GuardPagedFile guarded(file);
                _imgFileBufferStream plain(guarded.get());
                try {
                    readAllPixels(plain);
                } catch (...) {
                }
            },
            "")
            << name;
    }
}

TEST(DecodeOverread, DecodersStayInsideTheBuffer)
{
    for (const auto& [name, file] : overreadingFiles()) {
        ktP::_imgRGBABufferf out(64 * 64);
        out.setWidth(64);
        out.setHeight(64);
        // The corpus files are now refused (4) before OpenEXR opens them.
        EXPECT_THAT(decodeFloat(file, out), ::testing::AnyOf(1, 4, 14)) << name;
    }
}

TEST(DecodeOverread, ShortLastChunkIsReadAsZerosInsideTheBuffer)
{
    for (const bool tiled : {false, true}) {
        const Bytes whole = makeExr(uncompressed(tiled));
        const Bytes file = lastChunkShortened(whole, tiled);
        ktP::_imgRGBABufferf out(256 * 20);
        out.setWidth(256);
        out.setHeight(20);
        ASSERT_EQ(decodeFloat(file, out), 1) << tiled;

        // The last chunk (the last line, or the last 64 x 10 tile) holds,
        // line by line, 2-byte samples of A, B, G and R; those beyond its
        // stated quarter read as 0, everything else is the file's.
        const DecodedExr oracle = readExr(whole);
        const int chunkX = tiled ? 192 : 0, chunkY = tiled ? 10 : 19, chunkWidth = tiled ? 64 : 256;
        const int stated = chunkWidth * (tiled ? 10 : 1) * 4 * 2 / 4;
        const char* const names[4] = {"A", "B", "G", "R"};
        for (int y = 0; y < 20; ++y)
            for (int x = 0; x < 256; ++x) {
                const _Rgbaf p = out.read(x, y);
                const float got[4] = {p.a, p.b, p.g, p.r};
                for (int k = 0; k < 4; ++k) {
                    const bool inChunk = x >= chunkX && y >= chunkY;
                    const int at = ((y - chunkY) * 4 * chunkWidth + k * chunkWidth + (x - chunkX)) * 2;
                    const float want =
                        inChunk && at >= stated ? 0.0f : static_cast<float>(oracle.channel(names[k]).at(x, y));
                    ASSERT_EQ(got[k], want) << (tiled ? "tiled " : "") << names[k] << " at " << x << "," << y;
                }
            }
    }
}

TEST(DecodeOverread, ValidFilesKeepZeroCopyAndTheirPixels)
{
    for (const Imf::Compression compression :
         {Imf::NO_COMPRESSION, Imf::ZIPS_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::PIZ_COMPRESSION}) {
        for (const bool tiled : {false, true}) {
            ExrPart part = uncompressed(tiled);
            part.compression = compression;
            const Bytes file = makeExr(part);
            auto buffer = fileBufferWith(file);
            RecordingGuardedStream stream(buffer.get());
            readAllPixels(stream);
            const std::uint64_t guard = kt::exrChunkByteBound(readExr(file, 0, false).header);
            ASSERT_FALSE(stream.requests.empty());
            for (const auto& [start, pointer] : stream.requests) {
                const bool inPlace = pointer == reinterpret_cast<const char*>(buffer->buffer) + start;
                // Only chunks starting closer than the guard to the end are copied.
                EXPECT_EQ(inPlace, static_cast<std::uint64_t>(buffer->sizeLoaded - start) >= guard)
                    << compression << " " << tiled << " at " << start;
            }
            ktP::_imgRGBABufferf out(256 * 20);
            out.setWidth(256);
            out.setHeight(20);
            ASSERT_EQ(decodeFloat(file, out), 1);
            const DecodedExr oracle = readExr(file);
            for (int y = 0; y < 20; ++y)
                for (int x = 0; x < 256; ++x)
                    ASSERT_EQ(out.read(x, y).g, static_cast<float>(oracle.channel("G").at(x, y))) << x << "," << y;
        }
    }
}

TEST(DecodeOverread, GuardIsTheLargestUncompressedChunk)
{
    for (const bool tiled : {false, true}) {
        for (const Imath::Box2i& window : {box(0, 0, 255, 19), box(-7, 3, 60, 8), box(0, 0, 40, 40)}) {
            ExrPart part = uncompressed(tiled);
            part.displayWindow = window;
            part.channels = {{"A", Imf::HALF}, {"B", Imf::FLOAT}, {"Z", Imf::UINT}};
            const Bytes file = makeExr(part);
            const std::vector<std::uint32_t> sizes = chunkSizes(file, tiled);
            EXPECT_EQ(kt::exrChunkByteBound(readExr(file, 0, false).header),
                      *std::max_element(sizes.begin(), sizes.end()))
                << tiled << " " << window.max.x;
        }
    }
}

TEST(DecodeOverread, DamagedCorpusFilesEndWithAResultCode)
{
    const std::string root = corpusDirectory();
    if (root.empty()) GTEST_SKIP() << "no EXR corpus beside the checkout";
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(root + "/Damaged"))
        if (entry.is_regular_file() && entry.path().extension() != ".rst") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& path : files) {
        SCOPED_TRACE(path.filename().string());
        const Bytes file = readFileBytes(path.string());
        ktP::_imgRGBABufferf out(64 * 64);
        out.setWidth(64);
        out.setHeight(64);
        EXPECT_THAT(decodeFloat(file, out), ::testing::AnyOf(1, 4, 6, 7, 14));
    }
}
