// Decoding a 3840 x 2160 RGBA half ZIPS file with the plug-in's exports
// against OpenEXR reading the same file from memory into four half planes,
// both with two EXR worker threads, as a host would set them.
//
// Files of the compressions the quick reader leaves to OpenEXR's C++ reader
// (PIZ, DWAA) are timed against the decoders with that reader forced, as they
// were before the quick reader: they must not have become slower.
//
// The variants run in interleaved rounds so that load from elsewhere on the
// machine hits them alike; each round's time is divided by OpenEXR's time
// in the same round, and the medians are printed with the targets.
//
//     decode_bench [rounds]        (default 15)
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfThreading.h>

#include <cstdlib>
#include <ctime>
#include <memory>

#include "bench/benchCommon.h"
#include "image/rgbaBuffer.h"
#include "plugin/exrChunkReader.h"
#include "plugin/ktImageExr.h"

using namespace kt::bench;

namespace {

constexpr int kWidth = 3840;
constexpr int kHeight = 2160;
constexpr int kThreads = 2;

struct Variant {
    const char* name;
    double target;  // largest acceptable median ratio to OpenEXR; 0 for OpenEXR itself
    std::function<void()> run;
    std::vector<double> seconds;
    std::vector<double> ratios;
    std::vector<double> cpu;  // processor seconds, all threads
};

// The process's processor time, all threads: what a busy machine cannot blur.
double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void readWithOpenExr(const Bytes& file)
{
    MappedMemoryStream stream(file);
    Imf::InputFile in(stream, Imf::globalThreadCount());
    const Imath::Box2i window = in.header().dataWindow();
    const std::size_t width = static_cast<std::size_t>(window.max.x - window.min.x + 1);
    const std::size_t samples = width * static_cast<std::size_t>(window.max.y - window.min.y + 1);
    std::unique_ptr<half[]> planes[4];
    Imf::FrameBuffer frame;
    const char* names[4] = {"R", "G", "B", "A"};
    for (int c = 0; c < 4; ++c) {
        planes[c].reset(new half[samples]);
        frame.insert(names[c], Imf::Slice(Imf::HALF, reinterpret_cast<char*>(planes[c].get()), sizeof(half),
                                          sizeof(half) * width));
    }
    in.setFrameBuffer(frame);
    in.readPixels(window.min.y, window.max.y);
}

template <int (*Export)(imgCallRecord*), class Buffer>
std::function<void()> pluginDecode(ktP::_imgFileBuffer* file, Buffer* out, bool gamma)
{
    return [=] {
        out->pixelFlags = gamma ? 1 : 0;
        imgCallRecord call{file, out, nullptr, nullptr};
        const int result = Export(&call);
        if (result != 1) {
            std::fprintf(stderr, "decoding failed with %d\n", result);
            std::exit(1);
        }
    };
}

template <class Buffer>
std::unique_ptr<Buffer> hostBuffer()
{
    auto b = std::make_unique<Buffer>(static_cast<unsigned>(kWidth * kHeight));
    b->setWidth(kWidth);
    b->setHeight(kHeight);
    return b;
}

// The float export must give OpenEXR's own values; anything else would make
// the timing meaningless.
bool sameAsOpenExr(const SyntheticImage& image, const ktP::_imgRGBABufferf& out)
{
    for (std::size_t i = 0; i < static_cast<std::size_t>(kWidth) * kHeight; i += 997) {
        const _Rgbaf& p = reinterpret_cast<const _Rgbaf*>(out.pixels)[i];
        if (p.r != float(image.planes[0][i]) || p.g != float(image.planes[1][i]) || p.b != float(image.planes[2][i]) ||
            p.a != float(image.planes[3][i]))
            return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    const char* usage =
        "usage: decode_bench [rounds]\n"
        "Times the decoders on a 3840 x 2160 RGBA half ZIPS file against OpenEXR reading it, in interleaved\n"
        "rounds (default 15), and prints the median ratios, processor-time ratios and peak memory.\n";
    if (argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::fputs(usage, stdout);
        return 0;
    }
    if (argc > 2 || (argc == 2 && std::atoi(argv[1]) < 1)) {
        std::fputs(usage, stderr);
        return 2;
    }
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    Imf::setGlobalThreadCount(kThreads);

    const SyntheticImage image = syntheticImage(kWidth, kHeight);
    const Bytes file = exrFile(image, Imf::ZIPS_COMPRESSION);
    auto fileBuffer = kt::test::fileBufferWith(file);
    auto out8 = hostBuffer<ktP::_imgRGBABuffer8>();
    auto out16 = hostBuffer<ktP::_imgRGBABuffer16>();
    auto outf = hostBuffer<ktP::_imgRGBABufferf>();

    std::vector<Variant> variants = {
        {"OpenEXR readPixels", 0, [&] { readWithOpenExr(file); }, {}, {}, {}},
        {"imgDecodef", 0.55, pluginDecode<imgDecodef>(fileBuffer.get(), outf.get(), false), {}, {}, {}},
        {"imgDecode8", 0.60, pluginDecode<imgDecode8>(fileBuffer.get(), out8.get(), false), {}, {}, {}},
        {"imgDecode16", 0.60, pluginDecode<imgDecode16>(fileBuffer.get(), out16.get(), false), {}, {}, {}},
        {"imgDecode8 gamma", 0.65, pluginDecode<imgDecode8>(fileBuffer.get(), out8.get(), true), {}, {}, {}},
    };

    // One warm-up round: page faults of the host's buffers, thread start-up.
    for (Variant& v : variants) v.run();
    if (!sameAsOpenExr(image, *outf)) {
        std::fprintf(stderr, "imgDecodef does not give OpenEXR's values\n");
        return 1;
    }
    std::vector<double> memory;
    for (Variant& v : variants) memory.push_back(peakGrowthMiB(v.run));

    for (int r = 0; r < rounds; ++r) {
        for (Variant& v : variants) {
            const double before = cpuSeconds();
            v.seconds.push_back(secondsOf(v.run));
            v.cpu.push_back(cpuSeconds() - before);
        }
        for (Variant& v : variants) v.ratios.push_back(v.seconds.back() / variants[0].seconds.back());
    }

    const double mib = 1024.0 * 1024.0;
    const double planes = 4.0 * kWidth * kHeight * sizeof(half) / mib;
    std::printf("%d x %d RGBA half, ZIPS, %.1f MiB file; %d EXR threads; %d rounds\n", kWidth, kHeight,
                static_cast<double>(file.size()) / mib, Imf::globalThreadCount(), rounds);
    std::printf("%-20s %10s %10s %12s %8s %8s %10s %14s\n", "", "median ms", "min ms", "ratio (med)", "target", "",
                "cpu ratio", "peak +MiB");
    for (std::size_t i = 0; i < variants.size(); ++i) {
        const Variant& v = variants[i];
        const double ratio = median(v.ratios);
        const char* verdict = v.target == 0 ? "" : ratio <= v.target ? "ok" : "OVER";
        std::printf("%-20s %10.1f %10.1f %12.3f %8.2f %8s %10.3f %14.1f\n", v.name, median(v.seconds) * 1e3,
                    *std::min_element(v.seconds.begin(), v.seconds.end()) * 1e3, ratio, v.target, verdict,
                    median(v.cpu) / median(variants[0].cpu), memory[i]);
    }
    // The other compressions: the default decoder against the C++ reader forced.
    for (const Imf::Compression compression : {Imf::PIZ_COMPRESSION, Imf::DWAA_COMPRESSION}) {
        const Bytes other = exrFile(image, compression);
        auto otherBuffer = kt::test::fileBufferWith(other);
        const auto run = pluginDecode<imgDecodef>(otherBuffer.get(), outf.get(), false);
        auto forced = [&] {
            kt::exrForceReferencePath(true);
            run();
            kt::exrForceReferencePath(false);
        };
        run();
        std::vector<double> now, before, ratios;
        for (int r = 0; r < rounds; ++r) {
            before.push_back(secondsOf(forced));
            now.push_back(secondsOf(run));
            ratios.push_back(now.back() / before.back());
        }
        const double ratio = median(ratios);
        std::printf("imgDecodef %-9s %10.1f ms, C++ reader alone %7.1f ms, ratio %5.3f, target 1.05 %s\n",
                    compression == Imf::PIZ_COMPRESSION ? "PIZ" : "DWAA", median(now) * 1e3, median(before) * 1e3,
                    ratio, ratio <= 1.05 ? "ok" : "OVER");
    }
    std::printf("memory budget: selected planes %.1f MiB (besides the host's buffers: file %.1f MiB, "
                "8-bit %.1f, 16-bit %.1f, float %.1f MiB, and OpenEXR's line buffers)\n",
                planes, static_cast<double>(file.size()) / mib, kWidth * kHeight * 4.0 / mib,
                kWidth * kHeight * 8.0 / mib, kWidth * kHeight * 16.0 / mib);
    return 0;
}
