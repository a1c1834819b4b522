// ktexr encode: an 8- or 16-bit PNG through the plug-in's encoders into an
// EXR file carrying the render metadata.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "headerRecord.h"
#include "pngFile.h"

namespace ktexr {

namespace {

// The prefix by which the encoders recognise a render client's program and
// then write the client name from the job settings.
constexpr const char* kClientAppName = "ktClient ktexr";
constexpr const char* kAppName = "ktexr";

// The record the options describe; a Failure (exitUsage) for a bad entry.
std::unique_ptr<ktExrHeaderData> metadataOf(const EncodeOptions& options)
{
    auto record = newHeaderRecord();
    auto set = [&](const std::string& name, const std::string& value, const std::string& option) {
        if (isStandardAttribute(name))
            throw Failure(exitUsage, "", option + ": '" + name + "' is a standard attribute the plug-in writes itself");
        if (name == "KT/dateWritten" || name == "KT/application")
            throw Failure(exitUsage, "", option + ": '" + name + "' is stamped by the plug-in on every file");
        if (!setStringEntry(*record, name, value))
            throw Failure(exitUsage, "", option + ": '" + name +
                                             "' does not fit (names up to 75 characters, values up to 2000, no NUL)");
    };
    if (!options.scene.empty()) set("KT/scenename", options.scene, "--scene");
    if (!options.job.empty()) set("KT/jobID", options.job, "--job");
    for (const std::string& attribute : options.attributes) {
        auto equals = attribute.find('=');
        if (equals == std::string::npos || equals == 0)
            throw Failure(exitUsage, "", "--attr '" + attribute + "': expected NAME=VALUE");
        set(attribute.substr(0, equals), attribute.substr(equals + 1), "--attr");
    }
    return record;
}

template <class Buffer>
EncodedFile encodePng(const PluginLibrary& plugin, PngReader& png, const EncodeJob& job, const EncodeOptions& options)
{
    auto pixels = makeRgbaBuffer<Buffer>(png.width(), png.height(), options.input);
    png.read(pixels->pixels, std::size_t{png.width()} * static_cast<std::size_t>(pixels->bytesPerPixel));
    return encode(plugin, *pixels, job, options.output);
}

}  // namespace

ExitStatus runEncode(const PluginLibrary& plugin, const EncodeOptions& options)
{
    try {
        if (options.client.size() >= sizeof(imgJobSettings::clientName))
            throw Failure(exitUsage, "", "--client: at most 255 characters");
        if (options.client.find('\0') != std::string::npos) throw Failure(exitUsage, "", "--client: no NUL characters");
        auto metadata = metadataOf(options);
        refuseInputAsOutput(options.output, {options.input});

        EncodeJob job;
        job.appName = options.client.empty() ? kAppName : kClientAppName;
        job.clientName = options.client;
        job.metadata = metadata.get();

        std::vector<unsigned char> bytes = readWholeFile(options.input);
        PngReader png(bytes, options.input);
        EncodedFile exr = png.depth() == 16 ? encodePng<ktP::_imgRGBABuffer16>(plugin, png, job, options)
                                            : encodePng<ktP::_imgRGBABuffer8>(plugin, png, job, options);
        writeFileAtomically(options.output, exr.data(), exr.size());
        std::fprintf(reportStream(options.output), "%s: %u x %u, %d-bit -> %s (%s)\n", options.input.c_str(), png.width(), png.height(), png.depth(),
                    options.output.c_str(), humanSize(exr.size()).c_str());
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
