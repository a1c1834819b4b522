// Tile assembly at render-farm size: 64 region tiles of a 7680 x 4320 frame
// with four layers (RGBA and three RGB AOVs, half, ZIPS). Three ways, in the
// same run on the same tiles:
//   OpenEXR  - every tile read into one whole-frame buffer, the frame written
//              (the least any assembler must do, with the whole frame held);
//   ktexr    - `ktexr assemble`, streaming band by band;
//   oiiotool - `oiiotool ... --paste` tile after tile.
// Prints the times, ktexr's ratio to OpenEXR (the aim: at most 1.2) and the
// peak memory of ktexr against the frame's pixel bytes (the aim: under a
// quarter). KT_BENCH_SCALE=0.5 halves both sides of the frame.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Imath/half.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfThreading.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::vector<std::string> kChannels = {
    "A", "B", "G", "R", "diffuse.B", "diffuse.G", "diffuse.R", "specular.B", "specular.G", "specular.R",
    "emission.B", "emission.G", "emission.R"};
constexpr int kGrid = 8;

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

Imf::Header frameHeader(int width, int height)
{
    Imf::Header header(width, height);
    header.compression() = Imf::ZIPS_COMPRESSION;
    for (const std::string& c : kChannels) header.channels().insert(c, Imf::Channel(Imf::HALF));
    return header;
}

// Planes of half samples covering `box`, addressed absolutely.
struct Planes {
    Imath::Box2i box;
    std::vector<std::vector<half>> data;
    explicit Planes(const Imath::Box2i& b) : box(b), data(kChannels.size())
    {
        const std::size_t n = static_cast<std::size_t>(b.max.x - b.min.x + 1) * static_cast<std::size_t>(b.max.y - b.min.y + 1);
        for (auto& plane : data) plane.resize(n);
    }
    Imf::FrameBuffer frameBuffer()
    {
        Imf::FrameBuffer fb;
        const long width = box.max.x - box.min.x + 1;
        for (std::size_t c = 0; c < kChannels.size(); ++c) {
            const auto base = reinterpret_cast<std::intptr_t>(data[c].data()) -
                              static_cast<std::intptr_t>((box.min.x + static_cast<long>(box.min.y) * width) * 2);
            fb.insert(kChannels[c], Imf::Slice(Imf::HALF, reinterpret_cast<char*>(base), 2, 2 * static_cast<std::size_t>(width)));
        }
        return fb;
    }
};

struct ChildRun {
    int status = -1;
    double seconds = 0;
    long peakKiB = 0;
};

ChildRun runChild(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    ChildRun run;
    run.seconds = seconds(start);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.peakKiB = usage.ru_maxrss;
    return run;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 1) {
        const bool help = std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h";
        std::fputs("usage: assemble_bench\n"
                   "Assembles 64 region tiles of a 7680 x 4320 four-layer frame with OpenEXR, ktexr and oiiotool in\n"
                   "the same run and prints the times, ktexr's ratio to OpenEXR and its peak memory.\n"
                   "KT_BENCH_SCALE=0.5 halves both sides of the frame.\n",
                   help ? stdout : stderr);
        return help ? 0 : 2;
    }
    const char* scaleText = std::getenv("KT_BENCH_SCALE");
    const double scale = scaleText ? std::atof(scaleText) : 1.0;
    const int width = static_cast<int>(7680 * scale), height = static_cast<int>(4320 * scale);
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    Imf::setGlobalThreadCount(static_cast<int>(cores));
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("ktexr-assemble-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::printf("assemble: %d x %d, %zu half channels, ZIPS, %d tiles, %u threads\n", width, height, kChannels.size(),
                kGrid * kGrid, cores);

    // The tiles, as a renderer leaves them: the frame as display window.
    std::vector<std::string> tiles;
    for (int ty = 0; ty < kGrid; ++ty)
        for (int tx = 0; tx < kGrid; ++tx) {
            const Imath::Box2i box({tx * width / kGrid, ty * height / kGrid},
                                   {(tx + 1) * width / kGrid - 1, (ty + 1) * height / kGrid - 1});
            Planes planes(box);
            for (std::size_t c = 0; c < kChannels.size(); ++c)
                for (std::size_t i = 0; i < planes.data[c].size(); ++i)
                    planes.data[c][i] = half(static_cast<float>((i * 7 + c * 131 + static_cast<std::size_t>(tx * 17 + ty)) % 1024) / 256.0f);
            Imf::Header header = frameHeader(width, height);
            header.dataWindow() = box;
            tiles.push_back((dir / ("tile" + std::to_string(ty * kGrid + tx) + ".exr")).string());
            Imf::OutputFile out(tiles.back().c_str(), header);
            out.setFrameBuffer(planes.frameBuffer());
            out.writePixels(box.max.y - box.min.y + 1);
        }

    // OpenEXR directly: all tiles read into the frame, the frame written.
    auto start = std::chrono::steady_clock::now();
    {
        Planes frame(Imath::Box2i({0, 0}, {width - 1, height - 1}));
        const Imf::FrameBuffer fb = frame.frameBuffer();
        for (const std::string& tile : tiles) {
            Imf::InputFile in(tile.c_str());
            in.setFrameBuffer(fb);
            in.readPixels(in.header().dataWindow().min.y, in.header().dataWindow().max.y);
        }
        Imf::OutputFile out((dir / "openexr.exr").c_str(), frameHeader(width, height));
        out.setFrameBuffer(fb);
        out.writePixels(height);
    }
    const double openexr = seconds(start);

    std::vector<std::string> args{KTEXR_PATH, "assemble", "-q", "-o", (dir / "ktexr.exr").string()};
    args.insert(args.end(), tiles.begin(), tiles.end());
    const ChildRun ktexr = runChild(args);

    std::vector<std::string> oiio{"oiiotool", "--create", std::to_string(width) + "x" + std::to_string(height),
                                  std::to_string(kChannels.size())};
    for (const std::string& tile : tiles) {
        oiio.push_back(tile);
        oiio.push_back("--paste");
        oiio.push_back("+0+0");
    }
    for (const char* a : {"-d", "half", "--compression", "zips", "-o"}) oiio.push_back(a);
    oiio.push_back((dir / "oiiotool.exr").string());
    const ChildRun oiiotool = runChild(oiio);

    // The figures count only if the frames are the same.
    const ChildRun same = runChild({KTEXR_PATH, "diff", "-q", (dir / "ktexr.exr").string(), (dir / "openexr.exr").string()});
    const ChildRun sameOiio =
        runChild({KTEXR_PATH, "diff", "-q", (dir / "oiiotool.exr").string(), (dir / "openexr.exr").string()});
    std::printf("  frames identical to OpenEXR's: ktexr %s, oiiotool %s\n", same.status == 0 ? "yes" : "NO",
                sameOiio.status == 0 ? "yes" : "NO");
    const double frameBytes = static_cast<double>(width) * height * static_cast<double>(kChannels.size()) * 2.0;
    std::printf("  OpenEXR read + write   %8.2f s\n", openexr);
    std::printf("  ktexr assemble         %8.2f s  (%.2fx OpenEXR; aim <= 1.2x), exit %d\n", ktexr.seconds,
                ktexr.seconds / openexr, ktexr.status);
    std::printf("  oiiotool --paste       %8.2f s  (%.2fx OpenEXR), exit %d\n", oiiotool.seconds,
                oiiotool.seconds / openexr, oiiotool.status);
    std::printf("  ktexr peak memory      %8.1f MiB = %.3f of the frame's %.1f MiB of pixels (aim < 0.25)\n",
                static_cast<double>(ktexr.peakKiB) / 1024.0, ktexr.peakKiB * 1024.0 / frameBytes, frameBytes / 1048576.0);
    std::printf("  oiiotool peak memory   %8.1f MiB\n", static_cast<double>(oiiotool.peakKiB) / 1024.0);
    std::filesystem::remove_all(dir);
    return ktexr.status != 0 ? ktexr.status : same.status;
}
