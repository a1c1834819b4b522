#include "tests/robustness/robustnessSupport.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/sampleFiles.h"

std::atomic<std::size_t> kt::robust::largestAllocation{0};

// Every operator new of the process passes through here, OpenEXR's included:
// the executable's definitions take precedence over the C++ library's.
static void* allocate(std::size_t size) noexcept
{
    using kt::robust::largestAllocation;
    std::size_t seen = largestAllocation.load(std::memory_order_relaxed);
    while (size > seen && !largestAllocation.compare_exchange_weak(seen, size, std::memory_order_relaxed)) {
    }
    return std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size)
{
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace kt::robust {

int loadHeader(const Bytes& file, long long sizeLoaded, long long fileSize)
{
    kt::test::GuardPagedFileBuffer buffer(file, sizeLoaded, fileSize);
    thread_local auto metadata = std::make_unique<ktExrHeaderData>();  // large: one per thread
    imgImageInfo info{};
    imgCallRecord call{buffer.get(), &info, metadata.get(), nullptr};
    return imgLoadHeader(&call);
}

int decode(int depth, const Bytes& file, long long sizeLoaded, long long fileSize)
{
    kt::test::GuardPagedFileBuffer buffer(file, sizeLoaded, fileSize);
    auto run = [&buffer](auto&& image, int (*decoder)(imgCallRecord*)) {
        image.setWidth(32);
        image.setHeight(32);
        imgCallRecord call{buffer.get(), &image, nullptr, nullptr};
        return decoder(&call);
    };
    if (depth == 8) return run(ktP::_imgRGBABuffer8(32 * 32), imgDecode8);
    if (depth == 16) return run(ktP::_imgRGBABuffer16(32 * 32), imgDecode16);
    return run(ktP::_imgRGBABufferf(32 * 32), imgDecodef);
}

std::vector<SampleFile> sampleFiles()
{
    using namespace kt::test;
    // A part of the given display window and compression, every other setting at its default.
    auto part = [](const Imath::Box2i& display, Imf::Compression compression, bool tiled = false) {
        ExrPart p;
        p.displayWindow = display;
        p.compression = compression;
        p.tiled = tiled;
        return p;
    };
    ExrPart zip = part(box(0, 0, 23, 15), Imf::ZIP_COMPRESSION);
    zip.attribute("KT/jobID", std::string("JOB12")).attribute("KT/clientname", std::string("client"));
    zip.attribute("exposure", 1.5f).attribute("frame", 42).attribute("offset", Imath::V2f(0.5f, -2.0f));
    zip.attribute("camera", Imath::M44f()).attribute("weights", std::vector<float>{0.25f, 0.5f});
    zip.attribute("passes", std::vector<std::string>{"beauty", "depth"});
    ExrPart window = part(box(0, 0, 23, 15), Imf::NO_COMPRESSION);
    window.dataWindow = box(4, 2, 19, 13);
    window.channels = channelList({"B", "G", "R"}, Imf::FLOAT);
    ExrPart mip = part(box(0, 0, 19, 11), Imf::PIZ_COMPRESSION, true);
    mip.levelMode = Imf::MIPMAP_LEVELS;
    mip.roundingMode = Imf::ROUND_UP;
    ExrPart rip = part(box(0, 0, 15, 15), Imf::RLE_COMPRESSION, true);
    rip.dataWindow = box(-3, -2, 12, 13);
    rip.levelMode = Imf::RIPMAP_LEVELS;
    ExrPart b44 = part(box(0, 0, 15, 15), Imf::B44A_COMPRESSION);
    b44.lineOrder = Imf::DECREASING_Y;
    ExrPart dwa = part(box(0, 0, 31, 15), Imf::DWAA_COMPRESSION);
    dwa.channels = channelList({"B", "G", "R"});
    ExrPart mixed = part(box(0, 0, 15, 7), Imf::PXR24_COMPRESSION);
    mixed.channels = {{"A", Imf::FLOAT}, {"B"}, {"G"}, {"R"}, {"Z", Imf::UINT}};
    ExrPart tiles = part(box(0, 0, 23, 15), Imf::ZIPS_COMPRESSION, true);
    tiles.dataWindow = box(0, 0, 20, 9);
    tiles.tileWidth = 16;
    tiles.tileHeight = 4;
    ExrPart chroma = part(box(0, 0, 15, 11), Imf::ZIPS_COMPRESSION);
    chroma.channels = {ExrChannel("Y"), ExrChannel("RY", Imf::HALF, 2, 2), ExrChannel("BY", Imf::HALF, 2, 2)};
    ExrPart deep = part(box(0, 0, 11, 7), Imf::ZIPS_COMPRESSION);
    deep.channels = {{"A"}, {"B"}, {"G"}, {"R"}, {"Z", Imf::FLOAT}};  // depth lets OpenEXR flatten the samples
    deep.deepSamples = [](int x, int y) { return (x + y) % 3; };
    ExrPart second = tiles;  // the display window is shared by all parts
    second.compression = Imf::NO_COMPRESSION;
    return {{"scan lines, ZIP, attributes", makeExr(zip)},
            {"scan lines, uncompressed float, data window inside", makeExr(window)},
            {"tiled, PIZ, mip-mapped", makeExr(mip)},
            {"tiled, RLE, rip-mapped, data window across", makeExr(rip)},
            {"scan lines, B44A, decreasing y", makeExr(b44)},
            {"scan lines, DWAA", makeExr(dwa)},
            {"scan lines, PXR24, half, float and unsigned", makeExr(mixed)},
            {"tiled, ZIPS, one level", makeExr(tiles)},
            {"luminance/chroma, subsampled", makeExr(chroma)},
            {"deep scan lines, ZIPS", makeExr(deep)},
            {"multi-part, scan lines and tiles", makeMultiPartExr({zip, second})}};
}

std::vector<SampleFile> knownDefectFiles()
{
    using namespace kt::test;
    std::vector<SampleFile> files;
    // OpenEXR's decompressors kept data-window arithmetic that assumed a zero
    // origin: windows near the ends of the int range, scan lines and tiles.
    const std::pair<Imf::Compression, const char*> compressions[] = {
        {Imf::RLE_COMPRESSION, "RLE"},     {Imf::ZIP_COMPRESSION, "ZIP"},     {Imf::PIZ_COMPRESSION, "PIZ"},
        {Imf::PXR24_COMPRESSION, "PXR24"}, {Imf::B44_COMPRESSION, "B44"},     {Imf::B44A_COMPRESSION, "B44A"},
        {Imf::DWAA_COMPRESSION, "DWAA"},   {Imf::DWAB_COMPRESSION, "DWAB"}};
    constexpr int far = (1 << 30) - 97;  // OpenEXR refuses windows beyond half the int range
    for (const auto& [compression, name] : compressions) {
        for (bool tiled : {false, true}) {
            ExrPart p;
            p.compression = compression;
            p.tiled = tiled;
            p.displayWindow = box(far, -far - 40, far + 40, -far);
            p.dataWindow = box(far + 5, -far - 35, far + 24, -far - 20);
            p.channels = {{"A", Imf::HALF}, {"B", Imf::FLOAT}, {"G"}, {"R"}};
            p.value = [](const std::string&, int x, int y) { return ((x & 31) + (y & 15)) / 16.0; };
            files.push_back({std::string(name) + (tiled ? ", tiled" : ", scan lines") + ", window far from the origin",
                             makeExr(p)});
        }
    }
    // DWA chunks read where they lie in a large file (OpenEXR once decoded
    // them in place from memory-mapped input).
    ExrPart noisy;
    noisy.displayWindow = box(0, 0, 255, 1023);
    noisy.compression = Imf::DWAA_COMPRESSION;
    noisy.channels = channelList({"B", "G", "R"});
    noisy.value = [](const std::string&, int x, int y) { return (x * 7919 + y * 104729) % 1000 / 100.0; };
    files.push_back({"DWAA, 1024 noisy lines", makeExr(noisy)});
    return files;
}

}  // namespace kt::robust
