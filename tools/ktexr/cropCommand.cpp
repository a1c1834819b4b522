// ktexr crop: the crop-region job. Each file is decoded to float and
// written again by the float encoder under the crop job's name, which cuts
// the data window down to the occupied region (or, undoing a crop, writes
// the whole frame), with the input's render metadata carried over. What the
// encoder cannot write (channels beyond RGBA, parts, float precision, pixels
// outside the display window, attributes of other types) is named first and
// refused unless the user accepts the loss.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "exrGeometry.h"
#include "lossReport.h"
#include "headerRecord.h"

namespace ktexr {

namespace {

constexpr const char* kCropApp = "ktExrCropRegion";
constexpr const char* kUndoApp = "ktExrCropRegion_UNDO";

// Reads the written temporary file back from the disk: it must hold what
// was encoded, and the plug-in must read it as a complete file.
void verifyOnDisk(const PluginLibrary& plugin, const OutputFile& out, const EncodedFile& encoded)
{
    LoadedFile back(out.temporaryPath(), kWholeFile);
    if (back.fileSize() != encoded.size() ||
        std::memcmp(back.buffer().buffer, encoded.data(), encoded.size()) != 0)
        throw Failure(exitUnwritable, out.path(), "the file read back differs from what was written");
    HeaderInfo header = callLoadHeader(plugin, back.buffer());
    if (header.status != imgStatusOk)
        throw Failure(exitUnwritable, out.path(), "the file written cannot be read back: " + header.description);
}

double share(const PixelBox& part, const PixelBox& whole)
{
    return whole.area() > 0 ? 100.0 * static_cast<double>(part.area()) / static_cast<double>(whole.area()) : 0.0;
}

ExitStatus cropOne(const PluginLibrary& plugin, const std::string& input, const std::string& output,
                   const CropOptions& options)
{
    try {
        if (!options.inPlace && !options.dryRun) refuseInputAsOutput(output, {input});
        LoadedFile file(input, kWholeFile);
        HeaderInfo header = loadHeader(plugin, file);
        requireHeader(header, file);
        requireComplete(file.input());
        std::vector<std::string> losses =
            refuseLosses(input, readLayout(file.input()), options.lossy, options.dryRun);
        ExrGeometry before = readGeometry(file.buffer(), input);
        auto pixels = decode<ktP::_imgRGBABufferf>(plugin, file, header, false);

        auto metadata = renderMetadataOf(*header.metadata);
        EncodeJob job;
        job.appName = options.undo ? kUndoApp : kCropApp;
        job.verbose = options.verbose;
        job.metadata = metadata.get();
        std::FILE* say = reportStream(output);
        if (options.verbose) std::fprintf(say, "%s:\n", input.c_str());
        std::fflush(stdout);
        EncodedFile encoded = encode(plugin, *pixels, job, output);
        std::fflush(stdout);
        if (options.verbose && options.undo) std::fprintf(say, "\n");
        ExrGeometry after = readGeometry(*encoded.buffer, output);

        const std::string windows = before.dataWindow.text() + " -> " + after.dataWindow.text();
        const std::string sizes = humanSize(file.fileSize()) + " -> " + humanSize(encoded.size());
        const bool gains = after.dataWindow != before.dataWindow && (options.undo || encoded.size() < file.fileSize());
        if (options.dryRun) {
            const long long saved = static_cast<long long>(file.fileSize()) - static_cast<long long>(encoded.size());
            std::printf("%s: would write %s: data window %s, %s (%s %s), %zu loss%s\n", input.c_str(),
                        output.c_str(), windows.c_str(), sizes.c_str(), saved >= 0 ? "saves" : "adds",
                        humanSize(static_cast<unsigned long long>(saved >= 0 ? saved : -saved)).c_str(),
                        losses.size(), losses.size() == 1 ? "" : "es");
            for (const std::string& loss : losses) std::printf("  would lose: %s\n", loss.c_str());
            return exitOk;
        }
        if (options.inPlace && !gains && !options.force) {
            std::printf("%s: unchanged, the crop gains nothing (data window %s, %s); --force rewrites it\n",
                        input.c_str(), windows.c_str(), sizes.c_str());
            return exitOk;
        }

        OutputFile out(output);
        out.write(encoded.data(), encoded.size());
        out.finish();
        if (!out.direct()) verifyOnDisk(plugin, out, encoded);
        out.commit();

        std::fprintf(say, "%s: %s, data window %s (%.1f %% of the frame)%s\n", input.c_str(), sizes.c_str(),
                     windows.c_str(), share(after.dataWindow, after.displayWindow),
                     output == input ? "" : (" -> " + output).c_str());
        if (options.verbose)
            std::fprintf(say, "  %u metadata entries carried over\n", entryCount(*metadata));
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace

std::vector<std::string> refuseLosses(const std::string& file, const ExrLayout& layout, bool lossy, bool dryRun)
{
    std::vector<std::string> losses = encoderLosses(layout);
    if (dryRun) return losses;
    for (const std::string& loss : losses)
        std::fprintf(stderr, "ktexr: %s: %s %s\n", file.c_str(), lossy ? "loses:" : "would lose:", loss.c_str());
    if (!losses.empty() && !lossy)
        throw Failure(exitRefused, file,
                      "nothing written: the plug-in's encoder cannot keep all the file holds (--lossy accepts the " +
                          std::to_string(losses.size()) + " loss" + (losses.size() == 1 ? "" : "es") +
                          ", --dry-run shows them)");
    return losses;
}

ExitStatus runCrop(const PluginLibrary& plugin, const CropOptions& options)
{
    if (options.inPlace == !options.output.empty() && !(options.dryRun && !options.inPlace))
        return report(Failure(exitUsage, "", "crop needs exactly one of -o OUT and --in-place"));
    if (!options.output.empty() && options.files.size() != 1)
        return report(Failure(exitUsage, "", "-o OUT takes one input file; use --in-place for several"));
    if (options.verbose && isStandardOutput(options.output))
        return report(Failure(exitUsage, "", "--verbose reports on standard output, where the file goes"));
    StatusKeeper status;
    for (const std::string& input : options.files)
        status.note(cropOne(plugin, input, options.output.empty() ? input : options.output, options));
    std::fflush(stdout);
    return status.result();
}

}  // namespace ktexr
