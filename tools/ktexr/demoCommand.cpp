// ktexr demo: the built-in sample. It synthesizes a small frame, writes it
// as four region tiles the way a render farm delivers them, assembles and
// crops the result, shows its header and decodes a preview, all through the
// plug-in, and says where each file is.
//
// The frame is a window onto a sunset: a sky gradient with an overbright
// sun (values up to 8) and its glow, behind a window cross, inside a border
// that fades to fully transparent. The cross and an outer border of 16
// pixels are empty (all channels zero) on purpose: the plug-in's encoder
// keeps a margin of three empty pixels around the occupied area of what it
// writes, so the tiles meet exactly at the cross (their own pixels stop
// three pixels short of every inner edge), and the border is what the crop
// step cuts from the frame written whole.
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "exrGeometry.h"
#include "headerRecord.h"

namespace ktexr {

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kSplitX = kWidth / 2;
constexpr int kSplitY = kHeight / 2;
constexpr int kEmptyEdge = 3;    // the encoder's margin
constexpr int kBorder = 16;      // the transparent outer border the crop cuts
constexpr int kFade = 12;        // alpha rises over this many pixels inside the empty edge
constexpr int kHorizon = 168;

struct Pixel {
    float r, g, b, a;
};

bool empty(int x, int y)
{
    return x < kBorder || y < kBorder || x >= kWidth - kBorder || y >= kHeight - kBorder ||
           (x >= kSplitX - kEmptyEdge && x < kSplitX + kEmptyEdge) ||
           (y >= kSplitY - kEmptyEdge && y < kSplitY + kEmptyEdge);
}

// The demo frame at (x, y), colour premultiplied by alpha.
Pixel framePixel(int x, int y)
{
    if (empty(x, y)) return {0, 0, 0, 0};
    const float sunX = 228.0f, sunY = 96.0f, sunRadius = 22.0f;
    float r, g, b;
    if (y < kHorizon) {
        float t = static_cast<float>(y) / kHorizon;
        r = 0.03f + t * t * 0.95f;
        g = 0.05f + t * t * 0.50f;
        b = 0.30f - t * 0.10f;
    } else {
        float t = static_cast<float>(y - kHorizon) / (kHeight - kHorizon);
        r = 0.20f - 0.15f * t;
        g = 0.12f - 0.08f * t;
        b = 0.18f - 0.10f * t;
        // The sun's reflection on the water, brightest near the horizon.
        float streak = std::exp(-std::fabs(static_cast<float>(x) - sunX) / (6.0f + 20.0f * t));
        r += 2.0f * streak * (1.0f - t);
        g += 1.2f * streak * (1.0f - t);
        b += 0.4f * streak * (1.0f - t);
    }
    float d = std::hypot(static_cast<float>(x) - sunX, static_cast<float>(y) - sunY);
    if (d <= sunRadius) {
        r = 8.0f;
        g = 6.5f;
        b = 4.0f;
    } else if (y < kHorizon) {
        float glow = std::exp(-(d - sunRadius) / 14.0f);
        r += 3.0f * glow;
        g += 1.5f * glow;
        b += 0.5f * glow;
    }
    int edge = std::min(std::min(x, y), std::min(kWidth - 1 - x, kHeight - 1 - y)) - kBorder;
    float a = std::min(1.0f, static_cast<float>(edge + 1) / kFade);
    return {r * a, g * a, b * a, a};
}

// A float buffer of the whole frame holding the pixels inside `region` only.
std::unique_ptr<ktP::_imgRGBABufferf> frameBuffer(const PixelBox& region)
{
    auto buffer = makeRgbaBuffer<ktP::_imgRGBABufferf>(kWidth, kHeight, "demo frame");
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            bool inside = x >= region.minX && x <= region.maxX && y >= region.minY && y <= region.maxY;
            Pixel p = inside ? framePixel(x, y) : Pixel{0, 0, 0, 0};
            buffer->write(x, y, p.r, p.g, p.b, p.a);
        }
    return buffer;
}

void makeDirectory(const std::string& path)
{
    std::string sofar;
    std::size_t from = 0;
    while (from <= path.size()) {
        std::size_t slash = path.find('/', from);
        if (slash == std::string::npos) slash = path.size();
        sofar = path.substr(0, slash);
        if (!sofar.empty() && mkdir(sofar.c_str(), 0777) != 0 && errno != EEXIST)
            throw Failure(exitUnwritable, sofar, std::string("cannot create the directory: ") + std::strerror(errno));
        from = slash + 1;
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw Failure(exitUnwritable, path, "is not a directory");
}

void heading(const char* text)
{
    std::printf("\n== %s\n", text);
    std::fflush(stdout);
}

// The largest difference between two files' float decodes, or -1 when
// their sizes differ.
double largestDifference(const PluginLibrary& plugin, const std::string& a, const std::string& b)
{
    LoadedFile fa(a, kWholeFile), fb(b, kWholeFile);
    HeaderInfo ha = loadHeader(plugin, fa), hb = loadHeader(plugin, fb);
    auto pa = decode<ktP::_imgRGBABufferf>(plugin, fa, ha, false);
    auto pb = decode<ktP::_imgRGBABufferf>(plugin, fb, hb, false);
    if (pa->width != pb->width || pa->height != pb->height) return -1;
    const float* va = reinterpret_cast<const float*>(pa->pixels);
    const float* vb = reinterpret_cast<const float*>(pb->pixels);
    double worst = 0;
    for (std::size_t i = 0; i < std::size_t{pa->pixelCount} * 4; ++i)
        worst = std::max(worst, std::fabs(static_cast<double>(va[i]) - vb[i]));
    return worst;
}

}  // namespace

ExitStatus runDemo(const PluginLibrary& plugin, const DemoOptions& options)
{
    try {
        const std::string dir = options.directory.empty() ? "." : options.directory;
        makeDirectory(dir);
        auto at = [&](const char* name) { return dir + "/" + name; };

        auto metadata = newHeaderRecord();
        setStringEntry(*metadata, "KT/clientname", "Demo Studio");
        setStringEntry(*metadata, "KT/scenename", "sunset_window");
        setStringEntry(*metadata, "KT/jobID", "DEMO-0042");
        setStringEntry(*metadata, "renderer", "ktexr demo");
        EncodeJob job;
        job.appName = "ktexr demo";
        job.metadata = metadata.get();

        heading("synthesized frame, written whole for reference");
        const PixelBox whole{0, 0, kWidth - 1, kHeight - 1};
        {
            auto pixels = frameBuffer(whole);
            EncodeJob wholeFrame = job;
            wholeFrame.appName = "ktExrCropRegion_UNDO";  // no crop: the data window is the whole frame
            EncodedFile exr = encode(plugin, *pixels, wholeFrame, at("frame.exr"));
            writeFileAtomically(at("frame.exr"), exr.data(), exr.size());
            std::printf("%s: %d x %d, %s\n", at("frame.exr").c_str(), kWidth, kHeight, humanSize(exr.size()).c_str());
        }

        heading("four region tiles, as a render farm delivers them");
        const PixelBox quadrants[4] = {{0, 0, kSplitX - 1, kSplitY - 1},
                                       {kSplitX, 0, kWidth - 1, kSplitY - 1},
                                       {0, kSplitY, kSplitX - 1, kHeight - 1},
                                       {kSplitX, kSplitY, kWidth - 1, kHeight - 1}};
        const char* tileNames[4] = {"tile-1.exr", "tile-2.exr", "tile-3.exr", "tile-4.exr"};
        AssembleOptions assemble;
        for (int i = 0; i < 4; ++i) {
            auto pixels = frameBuffer(quadrants[i]);
            EncodedFile exr = encode(plugin, *pixels, job, at(tileNames[i]));
            ExrGeometry g = readGeometry(*exr.buffer, at(tileNames[i]));
            if (!quadrants[i].contains(g.dataWindow))
                throw Failure(exitPluginFailure, at(tileNames[i]),
                              "the encoder wrote the data window " + g.dataWindow.text() + " outside the region " +
                                  quadrants[i].text());
            writeFileAtomically(at(tileNames[i]), exr.data(), exr.size());
            std::printf("%s: region %s\n", at(tileNames[i]).c_str(), g.dataWindow.text().c_str());
            assemble.tiles.push_back(at(tileNames[i]));
        }

        heading("assemble the tiles");
        assemble.output = at("assembled.exr");
        assemble.verbose = true;
        assemble.allowGaps = true;  // the transparent border is in no tile
        if (ExitStatus s = runAssemble(plugin, assemble); s != exitOk) return s;
        double difference = largestDifference(plugin, at("frame.exr"), at("assembled.exr"));
        if (difference != 0.0)
            throw Failure(exitPluginFailure, at("assembled.exr"),
                          "differs from frame.exr (largest difference " + std::to_string(difference) + ")");
        std::printf("%s matches %s pixel for pixel\n", at("assembled.exr").c_str(), at("frame.exr").c_str());

        heading("crop the frame written whole");
        CropOptions crop;
        crop.files = {at("frame.exr")};
        crop.output = at("cropped.exr");
        crop.verbose = true;
        if (ExitStatus s = runCrop(plugin, crop); s != exitOk) return s;

        heading("info of the result");
        InfoOptions info;
        info.files = {at("cropped.exr")};
        if (ExitStatus s = runInfo(plugin, info); s != exitOk) return s;

        heading("8-bit preview with the display gamma");
        DecodeOptions preview;
        preview.input = at("cropped.exr");
        preview.output = at("preview.png");
        preview.gamma = true;
        if (ExitStatus s = runDecode(plugin, preview); s != exitOk) return s;

        heading("files");
        std::printf("  reference frame   %s\n", at("frame.exr").c_str());
        for (int i = 0; i < 4; ++i) std::printf("  tile %d            %s\n", i + 1, at(tileNames[i]).c_str());
        std::printf("  assembled         %s\n", at("assembled.exr").c_str());
        std::printf("  cropped           %s\n", at("cropped.exr").c_str());
        std::printf("  preview           %s\n", at("preview.png").c_str());
        std::fflush(stdout);
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
