// ktexr contact: a grid of small previews of a whole render, each labelled
// with its frame number, for checking a shot at a glance. Frames are read
// with OpenEXR directly (the RGB of the first part, band by band) and shrunk
// by averaging; exposure and the sRGB curve (or a plain display gamma) make
// them look as they would on a monitor.
#include <OpenEXR/ImfRgbaFile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "batchRun.h"
#include "contactSheet.h"
#include "exitStatus.h"
#include "fileIo.h"
#include "frameSequence.h"
#include "pngFile.h"

namespace ktexr {

namespace {

constexpr int kMargin = 4;
constexpr int kLabelScale = 2;
constexpr int kLabelHeight = 5 * kLabelScale + 2 * kMargin;

// Digits and a few letters, 3 x 5 pixels, one row per 3-bit number.
const std::pair<char, std::array<unsigned char, 5>> kGlyphs[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {'-', {0, 0, 7, 0, 0}}, {'?', {7, 1, 3, 0, 2}},
    {'M', {5, 7, 7, 5, 5}}, {'X', {5, 5, 2, 5, 5}}, {'!', {2, 2, 2, 0, 2}}, {' ', {0, 0, 0, 0, 0}},
};

struct Sheet {
    int width;
    int height;
    std::vector<unsigned char> rgba;
    void put(int x, int y, const unsigned char (&c)[3])
    {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        unsigned char* p = &rgba[(static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 4];
        std::memcpy(p, c, 3);
        p[3] = 255;
    }
    void text(int x, int y, const std::string& s, const unsigned char (&c)[3])
    {
        for (char ch : s) {
            const auto* glyph = std::find_if(std::begin(kGlyphs), std::end(kGlyphs), [ch](const auto& g) { return g.first == ch; });
            if (glyph == std::end(kGlyphs)) glyph = std::find_if(std::begin(kGlyphs), std::end(kGlyphs), [](const auto& g) { return g.first == '?'; });
            for (int row = 0; row < 5; ++row)
                for (int col = 0; col < 3; ++col)
                    if (glyph->second[static_cast<std::size_t>(row)] & (4 >> col))
                        for (int dy = 0; dy < kLabelScale; ++dy)
                            for (int dx = 0; dx < kLabelScale; ++dx)
                                put(x + col * kLabelScale + dx, y + row * kLabelScale + dy, c);
            x += 4 * kLabelScale;
        }
    }
};

}  // namespace

float displayValue(float linear, float exposureStops, const std::string& curve)
{
    float v = linear * std::exp2(exposureStops);
    if (!(v > 0.0f)) return 0.0f;  // NaN and negatives shown black
    if (v >= 1.0f) return 1.0f;
    if (curve == "srgb") return v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
    if (curve == "gamma") return std::pow(v, 1.0f / 2.2f);
    return v;
}

Thumbnail makeThumbnail(const std::string& path, int width)
{
    Imf::RgbaInputFile file(path.c_str());
    const Imath::Box2i display = file.displayWindow();
    const Imath::Box2i data = file.dataWindow();
    const int dw = display.max.x - display.min.x + 1, dh = display.max.y - display.min.y + 1;
    Thumbnail thumb;
    thumb.width = std::max(1, std::min(width, dw));
    thumb.height = std::max(1, static_cast<int>(std::lround(static_cast<double>(dh) * thumb.width / dw)));
    thumb.rgb.assign(static_cast<std::size_t>(thumb.width) * static_cast<std::size_t>(thumb.height) * 3, 0.0);
    const int lineWidth = data.max.x - data.min.x + 1;
    constexpr int kBand = 64;
    std::vector<Imf::Rgba> band(static_cast<std::size_t>(lineWidth) * kBand);
    for (int y0 = data.min.y; y0 <= data.max.y; y0 += kBand) {
        const int y1 = std::min(data.max.y, y0 + kBand - 1);
        const auto base = reinterpret_cast<std::intptr_t>(band.data()) -
                          static_cast<std::intptr_t>(sizeof(Imf::Rgba)) *
                              (data.min.x + static_cast<std::intptr_t>(y0) * lineWidth);
        file.setFrameBuffer(reinterpret_cast<Imf::Rgba*>(base), 1, static_cast<std::size_t>(lineWidth));
        file.readPixels(y0, y1);
        for (int y = std::max(y0, display.min.y); y <= std::min(y1, display.max.y); ++y) {
            const int ty = static_cast<int>(static_cast<long long>(y - display.min.y) * thumb.height / dh);
            for (int x = std::max(data.min.x, display.min.x); x <= std::min(data.max.x, display.max.x); ++x) {
                const int tx = static_cast<int>(static_cast<long long>(x - display.min.x) * thumb.width / dw);
                const Imf::Rgba& p = band[static_cast<std::size_t>(y - y0) * static_cast<std::size_t>(lineWidth) +
                                          static_cast<std::size_t>(x - data.min.x)];
                double* t = &thumb.rgb[(static_cast<std::size_t>(ty) * static_cast<std::size_t>(thumb.width) + static_cast<std::size_t>(tx)) * 3];
                for (int c = 0; c < 3; ++c) {
                    const float v = c == 0 ? p.r : c == 1 ? p.g : p.b;
                    if (std::isfinite(v)) t[c] += v;
                }
            }
        }
    }
    // Each thumbnail pixel averages its cell of the display window.
    for (int ty = 0; ty < thumb.height; ++ty) {
        const long long rows = (static_cast<long long>(ty + 1) * dh + thumb.height - 1) / thumb.height -
                               (static_cast<long long>(ty) * dh + thumb.height - 1) / thumb.height;
        for (int tx = 0; tx < thumb.width; ++tx) {
            const long long cols = (static_cast<long long>(tx + 1) * dw + thumb.width - 1) / thumb.width -
                                   (static_cast<long long>(tx) * dw + thumb.width - 1) / thumb.width;
            for (int c = 0; c < 3; ++c)
                thumb.rgb[(static_cast<std::size_t>(ty) * static_cast<std::size_t>(thumb.width) + static_cast<std::size_t>(tx)) * 3 + static_cast<std::size_t>(c)] /=
                    static_cast<double>(std::max(1LL, rows * cols));
        }
    }
    return thumb;
}

int runContact(const ContactOptions& options)
{
    try {
        if (options.output.empty()) throw Failure(exitUsage, "", "contact needs -o SHEET.png");
        const std::vector<FrameFile> files = expandSequences(options.files, options.frames);
        std::vector<Thumbnail> thumbs(files.size());
        std::vector<std::string> problems(files.size());
        Progress progress(files.size(), "frames", options.quiet);
        runInOrder(
            files.size(), options.jobs ? options.jobs : defaultJobs(),
            [&](std::size_t i) {
                if (!files[i].exists) {
                    problems[i] = "missing";
                    return;
                }
                try {
                    thumbs[i] = makeThumbnail(files[i].path, options.size);
                } catch (const std::exception& e) {
                    problems[i] = e.what();
                }
            },
            [&](std::size_t i) {
                progress.finish();
                if (!problems[i].empty()) std::fprintf(stderr, "ktexr: %s: %s\n", files[i].path.c_str(), problems[i].c_str());
                progress.advance();
            });
        progress.finish();
        int cellHeight = 0;
        for (const Thumbnail& t : thumbs) cellHeight = std::max(cellHeight, t.height);
        if (cellHeight == 0) cellHeight = options.size * 9 / 16;
        const int columns = std::max(1, std::min<int>(options.columns, static_cast<int>(files.size())));
        const int rows = static_cast<int>((files.size() + static_cast<std::size_t>(columns) - 1) / static_cast<std::size_t>(columns));
        const int cellW = options.size + kMargin, cellH = cellHeight + kLabelHeight;
        Sheet sheet{columns * cellW + kMargin, rows * cellH + kMargin, {}};
        sheet.rgba.assign(static_cast<std::size_t>(sheet.width) * static_cast<std::size_t>(sheet.height) * 4, 0);
        for (std::size_t i = 3; i < sheet.rgba.size(); i += 4) sheet.rgba[i - 3] = sheet.rgba[i - 2] = sheet.rgba[i - 1] = 40, sheet.rgba[i] = 255;
        const unsigned char white[3] = {230, 230, 230}, red[3] = {230, 60, 50};
        StatusKeeper status;
        for (std::size_t i = 0; i < files.size(); ++i) {
            const int x0 = kMargin + static_cast<int>(i % static_cast<std::size_t>(columns)) * cellW;
            const int y0 = kMargin + static_cast<int>(i / static_cast<std::size_t>(columns)) * cellH;
            const std::string label = files[i].frame ? std::to_string(*files[i].frame) : std::to_string(i + 1);
            if (!problems[i].empty()) {
                status.note(problems[i] == "missing" ? exitUnreadable : exitIncomplete);
                sheet.text(x0 + 2, y0 + 2, problems[i] == "missing" ? "M" : "X!", red);
                sheet.text(x0, y0 + cellHeight + kMargin, label, red);
                continue;
            }
            const Thumbnail& t = thumbs[i];
            for (int y = 0; y < t.height; ++y)
                for (int x = 0; x < t.width; ++x) {
                    unsigned char c[3];
                    for (int k = 0; k < 3; ++k)
                        c[k] = static_cast<unsigned char>(std::lround(
                            255.0f * displayValue(static_cast<float>(t.rgb[(static_cast<std::size_t>(y) * static_cast<std::size_t>(t.width) + static_cast<std::size_t>(x)) * 3 + static_cast<std::size_t>(k)]),
                                                  options.exposure, options.curve)));
                    sheet.put(x0 + x, y0 + y, c);
                }
            sheet.text(x0, y0 + cellHeight + kMargin, label, white);
        }
        const std::vector<unsigned char> png = encodePng(static_cast<unsigned>(sheet.width), static_cast<unsigned>(sheet.height), 8,
                                                         sheet.rgba.data(), static_cast<std::size_t>(sheet.width) * 4);
        writeFileAtomically(options.output, png.data(), png.size());
        if (!options.quiet)
            std::printf("%zu frames -> %s (%d x %d)\n", files.size(), options.output.c_str(), sheet.width, sheet.height);
        return status.result();
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
