// ktexr crop and assemble without loss: OpenEXR directly, every part,
// channel, pixel type and attribute kept, the compression and tiling of the
// input kept; only data windows change. Band by band, so that memory grows
// with a band of scan lines, not with the frame.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <numeric>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfMultiPartInputFile.h>

#include "batchRun.h"
#include "exrBands.h"
#include "exitStatus.h"
#include "exrCopy.h"
#include "fileIo.h"
#include "losslessCommands.h"
#include "outputFile.h"
#include "tileCheck.h"

namespace ktexr {

namespace {

PixelBox pixelBox(const Imath::Box2i& b) { return {b.min.x, b.min.y, b.max.x, b.max.y}; }

std::string boxText(const Imath::Box2i& b) { return pixelBox(b).text(); }

std::unique_ptr<Imf::MultiPartInputFile> openExr(const std::string& path)
{
    InputFile probe(path);  // a clear message for a file that is missing or unreadable
    try {
        return std::make_unique<Imf::MultiPartInputFile>(path.c_str());
    } catch (const std::exception& e) {
        throw Failure(exitNotExr, path, std::string("cannot be read as EXR: ") + e.what());
    }
}

// Reading a source, its failures named after it.
void readSource(Imf::MultiPartInputFile& file, const std::string& path, int part, const Imf::FrameBuffer& buffer,
                int y0, int y1)
{
    try {
        readLines(file, part, buffer, y0, y1);
    } catch (const std::exception& e) {
        throw Failure(exitIncomplete, path, e.what());
    }
}

// The least common multiple of the channels' sampling, so that a window
// starting on it starts on every channel's grid.
Imath::V2i samplingGrid(const Imf::ChannelList& channels)
{
    Imath::V2i grid(1, 1);
    for (auto c = channels.begin(); c != channels.end(); ++c) {
        grid.x = std::lcm(grid.x, c.channel().xSampling);
        grid.y = std::lcm(grid.y, c.channel().ySampling);
    }
    return grid;
}

// The box of the part's pixels that are not zero in any channel.
Imath::Box2i occupiedBox(Imf::MultiPartInputFile& file, const std::string& path, int part)
{
    const Imf::Header& header = file.header(part);
    const Imath::Box2i window = header.dataWindow();
    ChannelBand band(header.channels(), window.min.x, window.max.x, true);
    const int lines = bandHeight(header, header.hasTileDescription() ? static_cast<int>(header.tileDescription().ySize)
                                                                      : linesPerChunk(header.compression()));
    Imath::Box2i occupied;
    for (int y0 = window.min.y; y0 <= window.max.y; y0 += lines) {
        const int y1 = std::min(window.max.y, y0 + lines - 1);
        readSource(file, path, part, band.frameBuffer(y0, y1), y0, y1);
        occupied.extendBy(band.nonZeroBox(y0, y1));
    }
    return occupied;
}

Imath::Box2i padded(Imath::Box2i box, int pad, const Imath::Box2i& limit, const Imath::V2i& grid)
{
    box.min -= Imath::V2i(pad, pad);
    box.max += Imath::V2i(pad, pad);
    box.min.x = std::max(box.min.x, limit.min.x);
    box.min.y = std::max(box.min.y, limit.min.y);
    box.max.x = std::min(box.max.x, limit.max.x);
    box.max.y = std::min(box.max.y, limit.max.y);
    box.min.x = floorDiv(box.min.x, grid.x) * grid.x;
    box.min.y = floorDiv(box.min.y, grid.y) * grid.y;
    return box;
}

double share(const Imath::Box2i& part, const Imath::Box2i& whole)
{
    const PixelBox p = pixelBox(part), w = pixelBox(whole);
    return w.area() > 0 ? 100.0 * static_cast<double>(p.area()) / static_cast<double>(w.area()) : 0.0;
}

std::string cropOne(const std::string& input, const std::string& output, const LosslessCropOptions& options)
{
    auto file = openExr(input);
    std::vector<BandedPart> parts;
    std::vector<Imath::Box2i> windows;
    std::vector<bool> empty;
    for (int p = 0; p < file->parts(); ++p) {
        const Imf::Header& header = file->header(p);
        BandedPart layout{copyableHeader(header, input, p), 0, -1};
        const Imath::Box2i window = header.dataWindow();
        Imath::Box2i cut;
        if (options.undo) {
            cut = header.displayWindow();
            empty.push_back(false);
        } else {
            const Imath::Box2i occupied = occupiedBox(*file, input, p);
            empty.push_back(occupied.isEmpty());
            // An empty part keeps one pixel: OpenEXR has no empty window.
            cut = occupied.isEmpty() ? Imath::Box2i(window.min, window.min)
                                     : padded(occupied, options.pad, window, samplingGrid(header.channels()));
        }
        windows.push_back(cut);
        parts.push_back(layout);
    }
    if (options.sameWindow && !options.undo) {
        // Empty parts take the window of the others; only when every part
        // is empty do they keep their single pixel.
        Imath::Box2i all;
        for (std::size_t p = 0; p < windows.size(); ++p)
            if (!empty[p]) all.extendBy(windows[p]);
        if (!all.isEmpty())
            for (Imath::Box2i& w : windows) w = all;
    }
    bool gains = false;
    std::string report = input + ":";
    for (std::size_t p = 0; p < parts.size(); ++p) {
        const Imf::Header& source = file->header(static_cast<int>(p));
        gains = gains || windows[p] != source.dataWindow();
        parts[p].header.dataWindow() = windows[p];
        parts[p].bandMinX = std::min(windows[p].min.x, source.dataWindow().min.x);
        parts[p].bandMaxX = std::max(windows[p].max.x, source.dataWindow().max.x);
        char line[256];
        std::snprintf(line, sizeof line, "%s part %zu%s: data window %s -> %s (%.1f %% of the frame)",
                      parts.size() > 1 ? "\n " : "", p,
                      source.hasName() ? (" (" + source.name() + ")").c_str() : "", boxText(source.dataWindow()).c_str(),
                      boxText(windows[p]).c_str(), share(windows[p], source.displayWindow()));
        report += line;
    }
    const BandFiller fill = [&](int part, const Imf::FrameBuffer& buffer, int y0, int y1) {
        readSource(*file, input, part, buffer, y0, y1);
    };
    const unsigned long long before = InputFile(input).size();
    const auto sizes = [before](unsigned long long after) {
        const unsigned long long saved = before >= after ? before - after : after - before;
        return humanSize(before) + " -> " + humanSize(after) + " (" + (before >= after ? "saves " : "adds ") +
               humanSize(saved) + ")";
    };
    const std::string nothingGained = "the crop gains nothing: every data window stays as it is";
    if (options.inPlace && !gains && !options.force)
        return input + ": unchanged, " + nothingGained + "; --force rewrites it";
    if (options.dryRun)
        return report + "\n would write " + (output.empty() ? "a new file (no -o or --in-place given)" : output) + ", " +
               sizes(bandedSize(parts, fill)) + (gains ? "" : "; " + nothingGained);
    const std::uint64_t written = writeBanded(output, parts, fill);
    return report + (output == input ? "" : " -> " + output) + ", " + sizes(written) +
           (gains ? "" : "\n " + nothingGained + " (written as asked)");
}

}  // namespace

int runLosslessCrop(const LosslessCropOptions& options)
{
    if (options.inPlace == !options.output.empty() && !(options.dryRun && !options.inPlace))
        return report(Failure(exitUsage, "", "crop needs exactly one of -o OUT and --in-place"));
    if (!options.output.empty() && options.files.size() != 1)
        return report(Failure(exitUsage, "", "-o OUT takes one input file; use --in-place for several"));
    if (!options.inPlace) {
        try {
            refuseInputAsOutput(options.output, options.files);
        } catch (const Failure& failure) {
            return report(failure);
        }
    }
    // The report stays off standard output when the file goes there.
    std::FILE* say = options.inPlace ? stdout : reportStream(options.output);
    std::vector<std::string> lines(options.files.size());
    std::vector<ExitStatus> statuses(options.files.size(), exitOk);
    std::vector<Failure> failures(options.files.size(), Failure(exitOk, "", ""));
    StatusKeeper status;
    Progress progress(options.files.size(), "frames", options.quiet);
    runInOrder(
        options.files.size(), options.jobs ? options.jobs : defaultJobs(),
        [&](std::size_t i) {
            const std::string& input = options.files[i];
            try {
                lines[i] = cropOne(input, options.inPlace ? input : options.output, options);
            } catch (const Failure& failure) {
                failures[i] = failure;
                statuses[i] = failure.status();
            }
        },
        [&](std::size_t i) {
            progress.finish();
            if (statuses[i] != exitOk)
                status.note(report(failures[i]));
            else if (!options.quiet || options.dryRun)
                std::fprintf(say, "%s\n", lines[i].c_str());
            std::fflush(say);
            progress.advance();
        });
    return status.result();
}

int runLosslessAssemble(const LosslessAssembleOptions& options)
{
    try {
        if (!options.checkOnly && options.output.empty())
            throw Failure(exitUsage, "", "assemble needs -o OUT (or --check)");
        if (!options.checkOnly) refuseInputAsOutput(options.output, options.tiles);
        std::vector<std::unique_ptr<Imf::MultiPartInputFile>> files;
        for (const std::string& tile : options.tiles) files.push_back(openExr(tile));
        const Imf::MultiPartInputFile& first = *files[0];
        std::vector<TileProblem> problems;
        // Every tile must have the first tile's parts, channels and frame.
        for (std::size_t t = 1; t < files.size(); ++t) {
            const Imf::MultiPartInputFile& f = *files[t];
            if (f.parts() != first.parts()) {
                problems.push_back({options.tiles[t], std::to_string(f.parts()) + " parts, the first tile has " +
                                                          std::to_string(first.parts())});
                continue;
            }
            for (int p = 0; p < f.parts(); ++p) {
                const Imf::Header &a = first.header(p), &b = f.header(p);
                const std::string where = "part " + std::to_string(p) + ": ";
                if (a.displayWindow() != b.displayWindow())
                    problems.push_back({options.tiles[t], where + "display window " + boxText(b.displayWindow()) +
                                                              ", the first tile's is " + boxText(a.displayWindow())});
                if (!(a.channels() == b.channels()))
                    problems.push_back({options.tiles[t], where + "not the first tile's channels, types and sampling"});
                if ((a.hasName() ? a.name() : "") != (b.hasName() ? b.name() : ""))
                    problems.push_back({options.tiles[t], where + "not the first tile's part name"});
            }
        }
        std::vector<BandedPart> parts;
        long long uncovered = 0;
        for (int p = 0; p < first.parts() && problems.empty(); ++p) {
            std::vector<TileWindows> windows;
            Imath::Box2i all;
            for (std::size_t t = 0; t < files.size(); ++t) {
                const Imf::Header& h = files[t]->header(p);
                windows.push_back({options.tiles[t], {pixelBox(h.displayWindow()), pixelBox(h.dataWindow())}});
                all.extendBy(h.dataWindow());
            }
            TileCheck check = checkTiles(windows);
            for (TileProblem& problem : check.problems) problems.push_back(problem);
            if (!check.fits(true)) continue;
            if (check.uncoveredPixels > 0) {
                if (!options.allowGaps) {
                    problems.push_back({"", "part " + std::to_string(p) + ": " + check.gapText() +
                                                " (--allow-gaps accepts that)"});
                    continue;
                }
                uncovered += check.uncoveredPixels;
            }
            BandedPart layout{copyableHeader(first.header(p), options.tiles[0], p), all.min.x, all.max.x};
            layout.header.dataWindow() = all;
            parts.push_back(layout);
        }
        if (!problems.empty()) {
            for (const TileProblem& problem : problems) report(Failure(exitTilesDoNotFit, problem.file, problem.message));
            return exitTilesDoNotFit;
        }
        if (uncovered > 0)
            std::fprintf(stderr, "ktexr: note: %lld pixels are covered by no tile (allowed; they stay empty)\n",
                         uncovered);
        if (options.checkOnly) {
            std::printf("%zu tiles make one frame of %d part%s\n", files.size(), first.parts(),
                        first.parts() == 1 ? "" : "s");
            return exitOk;
        }
        Progress progress(parts.size() * files.size(), "tile parts", options.quiet || files.size() < 8);
        const BandFiller fill = [&](int part, const Imf::FrameBuffer& buffer, int y0, int y1) {
            for (std::size_t t = 0; t < files.size(); ++t) {
                const Imath::Box2i w = files[t]->header(part).dataWindow();
                if (w.max.y < y0 || w.min.y > y1) continue;
                readSource(*files[t], options.tiles[t], part, buffer, y0, y1);
                if (w.max.y <= y1) progress.advance();
            }
        };
        const std::uint64_t size = options.dryRun ? bandedSize(parts, fill) : writeBanded(options.output, parts, fill);
        progress.finish();
        if (!options.quiet || options.dryRun)
            std::fprintf(reportStream(options.output), "%zu tiles %s %s, %zu part%s, data window %s, %s\n",
                         files.size(), options.dryRun ? "would make" : "->", options.output.c_str(), parts.size(),
                         parts.size() == 1 ? "" : "s", boxText(parts[0].header.dataWindow()).c_str(),
                         humanSize(size).c_str());
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
