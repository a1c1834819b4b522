// What fuzzing against an instrumented OpenEXR found, each kept as a small
// file under reproducers/ with the status the plug-in now gives, and the
// long-running host's view: damaged files loaded over and over leave the
// process's resident size flat.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <stdexcept>

#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/robustnessSupport.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

Bytes reproducer(const std::string& name) { return readFileBytes(KT_REPRODUCERS_DIR "/" + name); }

// A guard-paged buffer whose loaded bytes are read-only as well: a write into
// the host's file by anything inside a call ends the process.
class ReadOnlyFileBuffer : public GuardPagedFileBuffer {
public:
    explicit ReadOnlyFileBuffer(const Bytes& file) : GuardPagedFileBuffer(file)
    {
        const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        const auto start = reinterpret_cast<std::uintptr_t>(get()->buffer) / page * page;
        const auto end = reinterpret_cast<std::uintptr_t>(get()->buffer) + static_cast<std::uintptr_t>(get()->sizeLoaded);
        length = end - start;
        pages = reinterpret_cast<void*>(start);
        if (length > 0 && mprotect(pages, length, PROT_READ) != 0) throw std::runtime_error("mprotect failed");
    }
    ~ReadOnlyFileBuffer() { mprotect(pages, length, PROT_READ | PROT_WRITE); }

private:
    void* pages = nullptr;
    std::size_t length = 0;
};

struct Decoded {
    int status;
    std::vector<float> pixels;
};

Decoded decodeFloat(ktP::_imgFileBuffer* file)
{
    ktP::_imgRGBABufferf image(32u * 32u);
    image.setWidth(32);
    image.setHeight(32);
    imgCallRecord call{file, &image, nullptr, nullptr};
    const int status = imgDecodef(&call);
    const auto* values = reinterpret_cast<const float*>(image.pixels);
    return {status, std::vector<float>(values, values + 32 * 32 * 4)};
}

long residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

// OpenEXR 3.1's DWA decompressor flips the byte order of the counters at the
// head of each chunk in place, as 64-bit words wherever the chunk starts:
// undefined behaviour on an odd address (UBSan in the instrumented library
// reports it for dwa-counters-misaligned.exr, which the fuzz run replays),
// and a write into the host's file wherever the compiler keeps the store.
// The decoders hand it private copies of DWA chunks instead. Every sample
// file, a DWA file large enough that its chunks would otherwise be read in
// place, and the damaged file decode from a read-only buffer exactly as
// from a writable one; the damaged file gets the status for bad pixel data.
TEST(FuzzFindings, DecodersNeverWriteIntoTheHostsFile)
{
    std::vector<SampleFile> files = sampleFiles();
    files.push_back(knownDefectFiles().back());
    files.push_back({"DWA counters at an odd address", reproducer("dwa-counters-misaligned.exr")});
    for (const SampleFile& sample : files) {
        SCOPED_TRACE(sample.name);
        const auto writable = fileBufferWith(sample.bytes);
        const Decoded expected = decodeFloat(writable.get());
        ReadOnlyFileBuffer readOnly(sample.bytes);
        const Decoded decoded = decodeFloat(readOnly.get());
        EXPECT_EQ(decoded.status, expected.status);
        EXPECT_EQ(0, std::memcmp(decoded.pixels.data(), expected.pixels.data(), decoded.pixels.size() * sizeof(float)));
    }
    EXPECT_EQ(loadHeader(files.back().bytes), 1);
    EXPECT_EQ(decode(32, files.back().bytes), 14);
}

// Every file that reaches a defect class fixed after 3.1.5 loads and decodes
// at each depth (the fuzz run replays them against the instrumented library).
TEST(FuzzFindings, KnownDefectClassesAreSurvived)
{
    for (const SampleFile& sample : knownDefectFiles()) {
        SCOPED_TRACE(sample.name);
        EXPECT_EQ(loadHeader(sample.bytes), 1);
        for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, sample.bytes), 1);
    }
}

// OpenEXR 3.1's DWA decoder sizes its buffer of DC values by the channels
// coded lossily, but reads one run of them for each member of a colour set.
// The rules each chunk carries can place one channel at all three places of
// a set (here R as red, green and blue), and the decoder then reads past
// that buffer: twice its size, which on a wide image reaches memory that is
// not there. The decoders refuse such chunks, in scan lines, in tiles and in
// a multi-part file, as damaged pixel data; the header is sound. The same
// bytes stored as an uncompressed chunk (as large as its pixels) are never
// decoded as DWA and decode as before.
TEST(FuzzFindings, DwaColourSetsRepeatingAChannelAreRefused)
{
    const Bytes scanLines = reproducer("dwa-colour-set-one-channel.exr");
    Bytes stored = scanLines;
    const std::size_t chunk = offsetTableEnd(stored);
    const std::uint32_t pixelBytes = 8 * 32 * 2;  // the 8 x 32 half channel R
    stored.resize(chunk + 8 + pixelBytes);
    for (int i = 0; i < 4; ++i) stored[chunk + 4 + i] = static_cast<char>(pixelBytes >> (8 * i) & 0xFF);

    const struct {
        const char* name;
        Bytes file;
        int decoded;
    } cases[] = {
        {"scan lines", scanLines, 14},
        {"tiles", reproducer("dwa-colour-set-one-channel-tiled.exr"), 14},
        {"first of two parts", reproducer("dwa-colour-set-one-channel-multipart.exr"), 14},
        {"stored uncompressed", stored, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(loadHeader(c.file), 1);
        for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, c.file), c.decoded);
    }
}

// A chunkCount attribute that does not fit the image (one the host read
// from a multi-part file and handed back with the metadata of a new image,
// as the metadata fuzzer did) is ignored by OpenEXR in a part whose type it
// knows, and by the plug-in too: the header check once sized the offset
// table by it and refused files the encoders had just written.
TEST(FuzzFindings, AChunkCountThatDoesNotFitTheImageIsIgnored)
{
    for (const bool tiled : {false, true})
        for (const int count : {1, 3, 1694528622}) {
            SCOPED_TRACE(std::to_string(count) + (tiled ? " tiled" : ""));
            ExrPart part;
            part.tiled = tiled;
            part.attribute("chunkCount", count);
            const Bytes file = makeExr(part);
            EXPECT_EQ(loadHeader(file), 1);
            for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file), 1);
        }

    auto metadata = std::make_unique<ktExrHeaderData>();
    metadata->magic = ktExrHeaderMagic;
    metadata->count = 1;
    metadata->entries[0].name = "chunkCount";
    metadata->entries[0].type = ktExrAttrType::Int;
    const std::int32_t stale = 1694528622;
    std::memcpy(metadata->entries[0].values, &stale, sizeof stale);
    ktP::_imgRGBABuffer8 image(4u * 4u);
    image.setWidth(4);
    image.setHeight(4);
    std::memset(image.pixels, 0, 64);
    image.pixels[20] = 200;
    ktP::_imgFileBuffer written(64u * 1024);
    imgCallRecord encode{&written, &image, metadata.get(), nullptr};
    ASSERT_EQ(imgEncode8(&encode), 1);
    const Bytes file = contentOf(written);
    EXPECT_EQ(loadHeader(file), 1);
    for (int depth : {8, 16, 32}) EXPECT_EQ(decode(depth, file), 1);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// Header loads and decodes of damaged files (the reproducers, and every
// sample file cut short and with its pixel data garbled), 10,000 each, must
// not grow the process: a host is sent such files for as long as it runs.
// Under the sanitizers a few hundred rounds feed the leak checker instead,
// since their quarantine makes the resident size meaningless.
TEST(FuzzFindings, DamagedFilesLeaveTheResidentSizeFlat)
{
    std::vector<Bytes> damaged{reproducer("dwa-counters-misaligned.exr"), reproducer("dwa-colour-set-one-channel.exr"),
                               reproducer("dwa-colour-set-one-channel-tiled.exr")};
    for (const SampleFile& sample : sampleFiles()) {
        const std::size_t tables = offsetTableEnd(sample.bytes);
        damaged.push_back(truncated(sample.bytes, tables + (sample.bytes.size() - tables) / 2));
        Bytes garbled = sample.bytes;
        for (std::size_t i = tables + 8; i < garbled.size(); i += 7) garbled[i] = static_cast<char>(garbled[i] ^ 0x5A);
        damaged.push_back(garbled);
    }
    auto rounds = [&damaged](int count) {
        for (int i = 0; i < count; ++i) {
            const Bytes& file = damaged[static_cast<std::size_t>(i) % damaged.size()];
            loadHeader(file);
            decode(8, file);
        }
    };
    rounds(500);  // OpenEXR's and the allocator's one-time state
    if (kSanitized) return;
    const long before = residentKiB();
    rounds(10000);
    const long grown = residentKiB() - before;
    EXPECT_LT(grown, 32 * 1024) << "resident size grew by " << grown << " KiB";
}
