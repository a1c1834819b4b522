// ktexr crop: the crop-region job. Each file is decoded to float and
// written again by the float encoder under the crop job's name, which cuts
// the data window down to the occupied region (or, undoing a crop, writes
// the whole frame), with every custom attribute of the input carried over.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "exrGeometry.h"
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
        if (output != input) refuseInputAsOutput(output, {input});
        LoadedFile file(input, kWholeFile);
        HeaderInfo header = loadHeader(plugin, file);
        requireHeader(header, file);
        ExrGeometry before = readGeometry(file.buffer(), input);
        auto pixels = decode<ktP::_imgRGBABufferf>(plugin, file, header, false);

        EncodeJob job;
        job.appName = options.undo ? kUndoApp : kCropApp;
        job.verbose = options.verbose;
        job.metadata = header.metadata.get();
        if (options.verbose) std::printf("%s:\n", input.c_str());
        std::fflush(stdout);
        EncodedFile encoded = encode(plugin, *pixels, job, output);
        std::fflush(stdout);
        if (options.verbose && options.undo) std::printf("\n");
        ExrGeometry after = readGeometry(*encoded.buffer, output);

        OutputFile out(output);
        out.write(encoded.data(), encoded.size());
        out.finish();
        if (!out.direct()) verifyOnDisk(plugin, out, encoded);
        out.commit();

        std::fprintf(reportStream(output), "%s: %s -> %s, data window %s -> %s (%.1f %% of the frame)%s\n", input.c_str(),
                    humanSize(file.fileSize()).c_str(), humanSize(encoded.size()).c_str(),
                    before.dataWindow.text().c_str(), after.dataWindow.text().c_str(),
                    share(after.dataWindow, after.displayWindow), output == input ? "" : (" -> " + output).c_str());
        if (options.verbose)
            std::printf("  %u metadata entries carried over\n", header.metadata ? entryCount(*header.metadata) : 0);
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace

ExitStatus runCrop(const PluginLibrary& plugin, const CropOptions& options)
{
    if (options.inPlace == !options.output.empty())
        return report(Failure(exitUsage, "", "crop needs exactly one of -o OUT and --in-place"));
    if (!options.output.empty() && options.files.size() != 1)
        return report(Failure(exitUsage, "", "-o OUT takes one input file; use --in-place for several"));
    StatusKeeper status;
    for (const std::string& input : options.files)
        status.note(cropOne(plugin, input, options.inPlace ? input : options.output, options));
    std::fflush(stdout);
    return status.result();
}

}  // namespace ktexr
