// Encoding a fully occupied 3840 x 2160 image with imgEncode8, imgEncode16
// and imgEncodef, against OpenEXR's RgbaOutputFile writing the same half
// pixels with one writePixels call for the whole image, both with two worker
// threads and into a file buffer of the same size.
//
// After the Google Benchmark runs the program measures, in alternation so
// that both sides share the machine's load:
//   - the median ratio plug-in / OpenEXR per export (target <= 0.45), in
//     wall time and in the process's processor time (which other programs'
//     load cannot blur), and the file sizes (target <= 1.01 times OpenEXR's);
//   - the crop search alone against the encode (target < 5 %), on the
//     benchmark image and on the worst case, a single pixel in the centre,
//     which makes the search read the whole buffer;
//   - the heap an encode takes beyond the host's buffers, at three image
//     heights (it must not grow with the height);
//   - with ../shared/corpus present, file sizes on real pictures: each
//     file's halves through imgEncodef, and the pixels of what it wrote
//     through RgbaOutputFile again, so both hold the same window.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfThreading.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "bench/benchCommon.h"
#include "image/fileBuffer.h"
#include "image/rgbaBuffer.h"
#include "plugin/exrEncoder.h"
#include "plugin/exrMetadata.h"
#include "plugin/fileBufferStream.h"
#include "plugin/ktImageExr.h"

// ---- heap watch --------------------------------------------------------------------
// The program's own malloc family, on top of glibc's, keeping the bytes in
// use and their high-water mark. operator new, OpenEXR and zlib all end here.

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* p);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<long long> heapInUse{0};
std::atomic<long long> heapPeak{0};

void heapChange(long long delta)
{
    const long long now = heapInUse.fetch_add(delta, std::memory_order_relaxed) + delta;
    long long peak = heapPeak.load(std::memory_order_relaxed);
    while (now > peak && !heapPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

long long usable(void* p) { return p ? static_cast<long long>(malloc_usable_size(p)) : 0; }

void* noted(void* p)
{
    heapChange(usable(p));
    return p;
}

}  // namespace

extern "C" {
void* malloc(size_t size) { return noted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) { return noted(__libc_calloc(count, size)); }
void free(void* p)
{
    heapChange(-usable(p));
    __libc_free(p);
}
void* realloc(void* p, size_t size)
{
    const long long before = usable(p);
    void* q = __libc_realloc(p, size);
    if (q || size == 0) heapChange(usable(q) - before);
    return q;
}
void* memalign(size_t alignment, size_t size) { return noted(__libc_memalign(alignment, size)); }
void* aligned_alloc(size_t alignment, size_t size) { return noted(__libc_memalign(alignment, size)); }
int posix_memalign(void** out, size_t alignment, size_t size)
{
    void* p = noted(__libc_memalign(alignment, size));
    if (!p) return 12;  // ENOMEM
    *out = p;
    return 0;
}
}

namespace {

constexpr int kWidth = 3840;
constexpr int kHeight = 2160;
constexpr int kThreads = 2;
constexpr int kPairs = 9;

// ---- images --------------------------------------------------------------------------

template <class Buffer>
std::unique_ptr<Buffer> makeImage(int width, int height)
{
    auto image = std::make_unique<Buffer>(static_cast<unsigned>(width * height));
    image->setWidth(width);
    image->setHeight(height);
    return image;
}

// The decode benchmark's picture in the buffer's depth; alpha is never 0,
// so every pixel is occupied.
template <class Buffer, class Quantise>
std::unique_ptr<Buffer> imageOf(int height, Quantise quantise)
{
    const kt::bench::SyntheticImage picture = kt::bench::syntheticImage(kWidth, height);
    auto image = makeImage<Buffer>(kWidth, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * kWidth + static_cast<std::size_t>(x);
            image->write(x, y, quantise(picture.planes[0][i]), quantise(picture.planes[1][i]), quantise(picture.planes[2][i]),
                         quantise(picture.planes[3][i]));
        }
    return image;
}

std::unique_ptr<ktP::_imgRGBABuffer8> image8(int height)
{
    return imageOf<ktP::_imgRGBABuffer8>(
        height, [](half h) { return static_cast<unsigned char>(std::clamp(float(h), 0.0f, 1.0f) * 255.0f + 0.5f); });
}

std::unique_ptr<ktP::_imgRGBABuffer16> image16(int height)
{
    return imageOf<ktP::_imgRGBABuffer16>(
        height, [](half h) { return static_cast<unsigned short>(std::clamp(float(h), 0.0f, 1.0f) * 65535.0f + 0.5f); });
}

std::unique_ptr<ktP::_imgRGBABufferf> imageF(int height)
{
    return imageOf<ktP::_imgRGBABufferf>(height, [](half h) { return float(h); });
}

struct Images {
    std::unique_ptr<ktP::_imgRGBABuffer8> rgba8 = image8(kHeight);
    std::unique_ptr<ktP::_imgRGBABuffer16> rgba16 = image16(kHeight);
    std::unique_ptr<ktP::_imgRGBABufferf> rgbaF = imageF(kHeight);
    std::vector<Imf::Rgba> half8, half16, halfF;
    std::unique_ptr<ktP::_imgFileBuffer> file =
        std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned>(kWidth) * kHeight * 8u + (1u << 20));
    std::unique_ptr<ktExrHeaderData> metadata = std::make_unique<ktExrHeaderData>();
    imgJobSettings settings{};

    Images()
    {
        // imgEncodef marks its image after writing (the region's last row
        // included); take the halves from the image as every later encode sees it.
        imgCallRecord call{file.get(), rgbaF.get(), metadata.get(), &settings};
        imgEncodef(&call);
        const std::size_t n = std::size_t{kWidth} * kHeight;
        half8.resize(n), half16.resize(n), halfF.resize(n);
        const auto* c8 = rgba8->pixels;
        const auto* c16 = reinterpret_cast<const unsigned short*>(rgba16->pixels);
        const auto* cF = reinterpret_cast<const float*>(rgbaF->pixels);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t k = 4 * i;
            half8[i] = Imf::Rgba(half(c8[k] / 255.0f), half(c8[k + 1] / 255.0f), half(c8[k + 2] / 255.0f),
                                 half(c8[k + 3] / 255.0f));
            half16[i] = Imf::Rgba(half(c16[k] / 65535.0f), half(c16[k + 1] / 65535.0f), half(c16[k + 2] / 65535.0f),
                                  half(c16[k + 3] / 65535.0f));
            halfF[i] = Imf::Rgba(half(cF[k]), half(cF[k + 1]), half(cF[k + 2]), half(cF[k + 3]));
        }
    }
};

Images& images()
{
    static Images all;
    return all;
}

using Export = int (*)(imgCallRecord*);

int encode(Export fn, void* image, ktP::_imgFileBuffer& file)
{
    Images& all = images();
    imgCallRecord call{&file, image, all.metadata.get(), &all.settings};
    return fn(&call);
}

// OpenEXR alone: the same header and halves, the whole image in one call.
void writeWithOpenExr(const std::vector<Imf::Rgba>& pixels, ktP::_imgFileBuffer& file, int height = kHeight)
{
    _imgFileBufferStreamOut out(&file);
    Imf::Header header(kWidth, height, Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(kWidth - 1, height - 1)), 1.0f,
                       Imath::V2f(0.0f, 0.0f), 1.0f, Imf::INCREASING_Y, Imf::ZIPS_COMPRESSION);
    Imf::RgbaOutputFile exr(out, header, Imf::WRITE_RGBA, Imf::globalThreadCount());
    exr.setFrameBuffer(pixels.data(), 1, kWidth);
    exr.writePixels(height);
}

struct Case {
    const char* name;
    Export fn;
    std::function<void*()> image;
    std::function<const std::vector<Imf::Rgba>&()> halves;
    std::function<bool(kt::exr::CropBox&)> crop;
};

const std::vector<Case>& cases()
{
    static const std::vector<Case> all = {
        {"imgEncode8", imgEncode8, [] { return static_cast<void*>(images().rgba8.get()); },
         []() -> const std::vector<Imf::Rgba>& { return images().half8; },
         [](kt::exr::CropBox& b) { return kt::exr::findOccupiedBox(*images().rgba8, b); }},
        {"imgEncode16", imgEncode16, [] { return static_cast<void*>(images().rgba16.get()); },
         []() -> const std::vector<Imf::Rgba>& { return images().half16; },
         [](kt::exr::CropBox& b) { return kt::exr::findOccupiedBox(*images().rgba16, b); }},
        {"imgEncodef", imgEncodef, [] { return static_cast<void*>(images().rgbaF.get()); },
         []() -> const std::vector<Imf::Rgba>& { return images().halfF; },
         [](kt::exr::CropBox& b) { return kt::exr::findOccupiedBox(*images().rgbaF, b); }},
    };
    return all;
}

// ---- Google Benchmark runs ---------------------------------------------------------------

void BM_Plugin(benchmark::State& state, int which)
{
    const Case& c = cases()[static_cast<std::size_t>(which)];
    void* image = c.image();
    for (auto _ : state)
        if (encode(c.fn, image, *images().file) != 1) state.SkipWithError("encode failed");
    state.counters["MB_out"] = static_cast<double>(images().file->fileSize) / 1e6;
}

void BM_OpenExr(benchmark::State& state, int which)
{
    const auto& halves = cases()[static_cast<std::size_t>(which)].halves();
    for (auto _ : state) writeWithOpenExr(halves, *images().file);
    state.counters["MB_out"] = static_cast<double>(images().file->fileSize) / 1e6;
}

void BM_CropSearch(benchmark::State& state, int which)
{
    const Case& c = cases()[static_cast<std::size_t>(which)];
    kt::exr::CropBox box{};
    for (auto _ : state) benchmark::DoNotOptimize(c.crop(box));
}

// ---- paired measurements ----------------------------------------------------------------

// One pixel in the centre, nothing else: the search reads every other pixel.
template <class Buffer>
double worstCropSeconds(std::unique_ptr<Buffer> image)
{
    std::memset(image->pixels, 0, std::size_t{image->width} * image->height * static_cast<std::size_t>(image->bytesPerPixel));
    image->pixels[(std::size_t{kWidth} * (kHeight / 2) + kWidth / 2) * static_cast<std::size_t>(image->bytesPerPixel)] = 1;
    std::vector<double> t;
    kt::exr::CropBox box{};
    for (int i = 0; i < kPairs; ++i) t.push_back(kt::bench::secondsOf([&] { benchmark::DoNotOptimize(kt::exr::findOccupiedBox(*image, box)); }));
    return kt::bench::median(t);
}

// The process's processor time, all threads: what a busy machine cannot blur.
double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void pairedRatios()
{
    std::printf("\nPaired runs, %d pairs, Imf::globalThreadCount %d, %d x %d fully occupied:\n", kPairs,
                Imf::globalThreadCount(), kWidth, kHeight);
    std::printf("  %-12s %12s %12s %8s %6s %10s %10s %6s %12s %10s %12s %10s\n", "export", "plug-in ms", "OpenEXR ms",
                "ratio", "", "size", "cpu ratio", "", "crop ms", "crop %", "worst crop", "worst %");
    std::vector<double> worst = {worstCropSeconds(makeImage<ktP::_imgRGBABuffer8>(kWidth, kHeight)),
                                 worstCropSeconds(makeImage<ktP::_imgRGBABuffer16>(kWidth, kHeight)),
                                 worstCropSeconds(makeImage<ktP::_imgRGBABufferf>(kWidth, kHeight))};
    for (std::size_t which = 0; which < cases().size(); ++which) {
        const Case& c = cases()[which];
        void* image = c.image();
        std::vector<double> plugin, exr, ratio, crop, cpuRatio;
        for (int i = 0; i < kPairs; ++i) {
            const double p0 = cpuSeconds();
            const double p = kt::bench::secondsOf([&] { encode(c.fn, image, *images().file); });
            const double e0 = cpuSeconds();
            const double e = kt::bench::secondsOf([&] { writeWithOpenExr(c.halves(), *images().file); });
            cpuRatio.push_back((e0 - p0) / (cpuSeconds() - e0));
            kt::exr::CropBox box{};
            crop.push_back(kt::bench::secondsOf([&] { benchmark::DoNotOptimize(c.crop(box)); }));
            plugin.push_back(p), exr.push_back(e), ratio.push_back(p / e);
        }
        encode(c.fn, image, *images().file);
        const double pluginBytes = static_cast<double>(images().file->fileSize);
        writeWithOpenExr(c.halves(), *images().file);
        const double size = pluginBytes / static_cast<double>(images().file->fileSize);
        const double mp = kt::bench::median(plugin), mr = kt::bench::median(ratio), mc = kt::bench::median(cpuRatio);
        const bool ok = mr <= 0.45 && size <= 1.01;
        const bool cpuOk = mc <= 0.45 && size <= 1.01;
        std::printf("  %-12s %12.1f %12.1f %8.3f %6s %10.4f %10.3f %6s %12.4f %9.4f%% %11.2fms %9.2f%%\n", c.name, mp * 1e3,
                    kt::bench::median(exr) * 1e3, mr, ok ? "ok" : "OVER", size, mc, cpuOk ? "ok" : "OVER",
                    kt::bench::median(crop) * 1e3,
                    100.0 * kt::bench::median(crop) / mp, worst[which] * 1e3, 100.0 * worst[which] / mp);
    }
}

// Bytes of heap `work` takes at its peak on top of what was in use before.
long long peakOf(const std::function<void()>& work)
{
    const long long base = heapInUse.load();
    heapPeak.store(base);
    work();
    return heapPeak.load() - base;
}

// The heap an encode takes on top of the host's buffers, at three heights,
// and what OpenEXR alone takes to write the same halves.
template <class Buffer, class Channel>
void peakHeap(const char* name, Export fn, std::unique_ptr<Buffer> (*make)(int))
{
    for (int height : {540, 2160, 4320}) {
        auto image = make(height);
        auto file = std::make_unique<ktP::_imgFileBuffer>(static_cast<unsigned>(kWidth) * static_cast<unsigned>(height) * 8u +
                                                          (1u << 20));
        std::vector<Imf::Rgba> halves(std::size_t{kWidth} * static_cast<std::size_t>(height));
        kt::exr::toHalfPixels(reinterpret_cast<const Channel*>(image->pixels), static_cast<int>(halves.size()), halves.data());
        int result = 0;
        const long long plugin = peakOf([&] { result = encode(fn, image.get(), *file); });
        const long long exr = peakOf([&] { writeWithOpenExr(halves, *file, height); });
        std::printf("  %-12s %6d %12.3f %12.3f%s\n", name, height, static_cast<double>(plugin) / 1e6,
                    static_cast<double>(exr) / 1e6, result == 1 ? "" : "  (encode failed)");
    }
}

// Sizes on real files: what imgEncodef writes against what OpenEXR writes
// of the same pixels in the same window.
void corpusSizes(const std::filesystem::path& folder)
{
    if (!std::filesystem::is_directory(folder)) return;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.path().extension() == ".exr" && entry.path().string().find("Damaged") == std::string::npos)
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::printf("\nFile sizes on %s, imgEncodef against RgbaOutputFile (ZIPS) with the same pixels:\n",
                folder.string().c_str());
    double ours = 0, theirs = 0, worst = 0;
    for (const auto& path : files) {
        try {
            Imf::RgbaInputFile in(path.string().c_str());
            const Imath::Box2i window = in.dataWindow();
            const long long w = window.max.x - window.min.x + 1, h = window.max.y - window.min.y + 1;
            if (w * h > 40'000'000) continue;
            std::vector<Imf::Rgba> pixels(static_cast<std::size_t>(w * h));
            in.setFrameBuffer(pixels.data() - window.min.x - window.min.y * w, 1, static_cast<std::size_t>(w));
            in.readPixels(window.min.y, window.max.y);
            auto image = makeImage<ktP::_imgRGBABufferf>(static_cast<int>(w), static_cast<int>(h));
            for (long long i = 0; i < w * h; ++i) {
                const Imf::Rgba& p = pixels[static_cast<std::size_t>(i)];
                image->write(static_cast<int>(i % w), static_cast<int>(i / w), float(p.r), float(p.g), float(p.b), float(p.a));
            }
            ktP::_imgFileBuffer file(static_cast<unsigned>(w * h * 8 + (1 << 20)));
            if (encode(imgEncodef, image.get(), file) != 1) continue;
            const double pluginBytes = static_cast<double>(file.fileSize);

            // OpenEXR's file of the window the plug-in wrote (it crops empty borders).
            _imgFileBufferStream back(&file);
            Imf::RgbaInputFile written(back);
            const Imath::Box2i box = written.dataWindow();
            const int bw = box.max.x - box.min.x + 1, bh = box.max.y - box.min.y + 1;
            std::vector<Imf::Rgba> same(std::size_t{static_cast<unsigned>(bw)} * static_cast<unsigned>(bh));
            written.setFrameBuffer(same.data() - box.min.x - std::ptrdiff_t{box.min.y} * bw, 1, static_cast<std::size_t>(bw));
            written.readPixels(box.min.y, box.max.y);
            ktP::_imgFileBuffer reference(file.bufferSize);
            {
                _imgFileBufferStreamOut out(&reference);
                Imf::Header header(written.displayWindow(), box, 1.0f, Imath::V2f(0.0f, 0.0f), 1.0f, Imf::INCREASING_Y,
                                   Imf::ZIPS_COMPRESSION);
                Imf::RgbaOutputFile exr(out, header, Imf::WRITE_RGBA, Imf::globalThreadCount());
                exr.setFrameBuffer(same.data() - box.min.x - std::ptrdiff_t{box.min.y} * bw, 1, static_cast<std::size_t>(bw));
                exr.writePixels(bh);
            }
            const double referenceBytes = static_cast<double>(reference.fileSize);
            const double ratio = pluginBytes / referenceBytes;
            std::printf("  %-28s %5d x %-5d %10.0f %10.0f %8.4f\n", path.filename().string().c_str(), bw, bh, pluginBytes,
                        referenceBytes, ratio);
            ours += pluginBytes, theirs += referenceBytes, worst = std::max(worst, ratio);
        } catch (const std::exception&) {
            // Files OpenEXR's RGBA interface cannot read are not part of the comparison.
        }
    }
    if (theirs > 0) std::printf("  all files: %.4f of OpenEXR's bytes; largest ratio %.4f\n", ours / theirs, worst);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Plugin, imgEncode8, 0)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_OpenExr, half8, 0)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_Plugin, imgEncode16, 1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_OpenExr, half16, 1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_Plugin, imgEncodef, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_OpenExr, halfF, 2)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK_CAPTURE(BM_CropSearch, rgba8, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_CropSearch, rgba16, 1)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_CropSearch, rgbaF, 2)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv)
{
    Imf::setGlobalThreadCount(kThreads);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    images();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    pairedRatios();
    std::printf("\nHeap at its peak beyond the host's buffers, MB (3840 wide):\n");
    std::printf("  %-12s %6s %12s %12s\n", "export", "height", "plug-in", "OpenEXR");
    peakHeap<ktP::_imgRGBABuffer8, unsigned char>("imgEncode8", imgEncode8, image8);
    peakHeap<ktP::_imgRGBABuffer16, unsigned short>("imgEncode16", imgEncode16, image16);
    peakHeap<ktP::_imgRGBABufferf, float>("imgEncodef", imgEncodef, imageF);
    corpusSizes(KT_CORPUS_DIR);
    return 0;
}
