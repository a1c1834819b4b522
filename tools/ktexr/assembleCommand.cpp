// ktexr assemble: the tile-assembly job. Region tiles of one frame (each
// with the frame as display window and its region as data window) are
// checked against each other from their headers alone, then decoded one at
// a time through the plug-in, placed at their data windows and written as
// one frame by the float encoder under the assembly job's name, carrying the
// first tile's render metadata. What the encoder cannot write of any tile
// is named before any pixel is read, and refused unless the user accepts it.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "exrGeometry.h"
#include "headerRecord.h"
#include "lossReport.h"
#include "tileCheck.h"

namespace ktexr {

namespace {

constexpr const char* kAssembleApp = "ktAssembleTiles";

// Reads every tile's header (head first) and windows. Tiles the plug-in
// cannot read are reported and leave `worst` set to their status.
std::vector<TileWindows> readTileWindows(const PluginLibrary& plugin, const std::vector<std::string>& tiles,
                                         StatusKeeper& unreadable)
{
    std::vector<TileWindows> windows;
    for (const std::string& path : tiles) {
        try {
            LoadedFile file(path, kHeadBytes);
            HeaderInfo header = loadHeader(plugin, file);
            requireHeader(header, file);
            requireComplete(file.input());
            windows.push_back({path, readGeometry(file.buffer(), path)});
        } catch (const Failure& failure) {
            unreadable.note(report(failure));
        }
    }
    return windows;
}

void printCheck(const TileCheck& check, const std::vector<TileWindows>& tiles)
{
    for (const TileWindows& t : tiles)
        std::printf("%s: data window %s, %lld pixels\n", t.file.c_str(), t.geometry.dataWindow.text().c_str(),
                    t.geometry.dataWindow.area());
    std::printf("frame %s: %zu tiles, %lld of %lld pixels covered, %lld overlapping, %lld uncovered\n",
                check.frame.text().c_str(), tiles.size(), check.framePixels - check.uncoveredPixels, check.framePixels,
                check.overlapPixels, check.uncoveredPixels);
}

// Copies the data window of a decoded tile (whose buffer starts at the
// frame's origin) into the frame.
void place(const ktP::_imgRGBABufferf& tile, ktP::_imgRGBABufferf& frame, const PixelBox& data, const PixelBox& origin)
{
    const std::size_t x0 = static_cast<std::size_t>(data.minX - origin.minX);
    const std::size_t count = static_cast<std::size_t>(data.width()) * 4;
    for (long long y = data.minY; y <= data.maxY; ++y) {
        const std::size_t row = static_cast<std::size_t>(y - origin.minY);
        const float* from = reinterpret_cast<const float*>(tile.pixels) + (row * tile.width + x0) * 4;
        float* to = reinterpret_cast<float*>(frame.pixels) + (row * frame.width + x0) * 4;
        std::memcpy(to, from, count * sizeof(float));
    }
}

}  // namespace

ExitStatus runAssemble(const PluginLibrary& plugin, const AssembleOptions& options)
{
    if (options.tiles.empty()) return report(Failure(exitUsage, "", "assemble needs at least one tile"));
    if (options.output.empty() && !options.checkOnly)
        return report(Failure(exitUsage, "", "assemble needs -o OUT (or --check)"));

    if (options.verbose && !options.checkOnly && isStandardOutput(options.output))
        return report(Failure(exitUsage, "", "--verbose reports on standard output, where the file goes"));
    if (!options.checkOnly) {
        try {
            refuseInputAsOutput(options.output, options.tiles);
        } catch (const Failure& failure) {
            return report(failure);
        }
    }
    StatusKeeper unreadable;
    std::vector<TileWindows> tiles = readTileWindows(plugin, options.tiles, unreadable);
    if (unreadable.result() != exitOk) {
        std::fprintf(stderr, "ktexr: %zu of %zu tiles cannot be used; nothing assembled\n",
                     options.tiles.size() - tiles.size(), options.tiles.size());
        return unreadable.result();
    }
    TileCheck check = checkTiles(tiles);
    for (const TileProblem& p : check.problems) report(Failure(exitTilesDoNotFit, p.file, p.message));
    if (check.uncoveredPixels > 0) {
        if (options.allowGaps)
            std::fprintf(stderr, "ktexr: note: %s (allowed; they stay empty)\n", check.gapText().c_str());
        else
            report(Failure(exitTilesDoNotFit, "", check.gapText() + " (--allow-gaps accepts that)"));
    }
    if (options.checkOnly || options.verbose) printCheck(check, tiles);
    if (!check.fits(options.allowGaps)) return exitTilesDoNotFit;
    if (options.checkOnly) {
        std::printf("the tiles fit together\n");
        return exitOk;
    }
    // Every loss of every tile is named before any pixel is read.
    StatusKeeper refused;
    std::vector<std::string> losses;
    for (const TileWindows& t : tiles) {
        try {
            for (std::string& loss : refuseLosses(t.file, readLayout(InputFile(t.file)), options.lossy, options.dryRun))
                losses.push_back(t.file + ": " + loss);
        } catch (const Failure& failure) {
            refused.note(report(failure));
        }
    }
    if (refused.result() != exitOk) return refused.result();

    try {
        const PixelBox& frameBox = check.frame;
        auto frame = makeRgbaBuffer<ktP::_imgRGBABufferf>(frameBox.width(), frameBox.height(), options.output);
        std::memset(frame->pixels, 0, std::size_t{frame->maxPixels} * 16);
        std::unique_ptr<ktExrHeaderData> firstMetadata;
        const bool progress = options.verbose || tiles.size() >= kProgressTiles;
        for (std::size_t i = 0; i < tiles.size(); ++i) {
            const TileWindows& t = tiles[i];
            if (progress) std::fprintf(stderr, "ktexr: tile %zu of %zu: %s\n", i + 1, tiles.size(), t.file.c_str());
            LoadedFile file(t.file, kWholeFile);
            HeaderInfo header = loadHeader(plugin, file);
            requireHeader(header, file);
            ExrGeometry now = readGeometry(file.buffer(), t.file);
            if (now.displayWindow != t.geometry.displayWindow || now.dataWindow != t.geometry.dataWindow)
                throw Failure(exitTilesDoNotFit, t.file, "changed while the tiles were assembled");
            const PixelBox& data = t.geometry.dataWindow;
            if (!data.empty()) {
                auto pixels = decode<ktP::_imgRGBABufferf>(plugin, file, header, false,
                                                           static_cast<unsigned long long>(data.maxX - frameBox.minX + 1),
                                                           static_cast<unsigned long long>(data.maxY - frameBox.minY + 1));
                place(*pixels, *frame, data, frameBox);
            }
            if (i == 0) firstMetadata = std::move(header.metadata);
        }

        auto metadata = renderMetadataOf(*firstMetadata);
        EncodeJob job;
        job.appName = kAssembleApp;
        job.verbose = options.verbose;
        job.metadata = metadata.get();
        std::fflush(stdout);
        EncodedFile encoded = encode(plugin, *frame, job, options.output);
        std::fflush(stdout);
        if (options.dryRun) {
            std::printf("%zu tiles would make %s (%lld x %lld, %s), %zu loss%s\n", tiles.size(),
                        options.output.c_str(), frameBox.width(), frameBox.height(),
                        humanSize(encoded.size()).c_str(), losses.size(), losses.size() == 1 ? "" : "es");
            for (const std::string& loss : losses) std::printf("  would lose: %s\n", loss.c_str());
            return exitOk;
        }
        writeFileAtomically(options.output, encoded.data(), encoded.size());
        std::fprintf(reportStream(options.output), "%zu tiles -> %s (%lld x %lld, %s)\n", tiles.size(), options.output.c_str(), frameBox.width(),
                    frameBox.height(), humanSize(encoded.size()).c_str());
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
