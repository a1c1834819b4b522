// ktexr: the render-farm user's EXR tool, a host of the OpenEXR plug-in.
// It loads liblx_ktImageExr64.so.1 as the render-management host does and
// reads and writes pixels through the plug-in's exports only.
#include <OpenEXR/ImfThreading.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "commands.h"
#include "farmCommands.h"
#include "fileIo.h"

namespace {

using namespace ktexr;

const char* kDescription =
    "ktexr - inspect, preview, write, crop and assemble EXR files through the OpenEXR image plug-in\n"
    "(liblx_ktImageExr64.so.1), loaded the way the render-management host loads it.";

}  // namespace

int main(int argc, char** argv)
{
    installSignalCleanup();

    CLI::App app(kDescription, "ktexr");
    app.set_version_flag("--version", std::string("ktexr ") + KTEXR_VERSION);
    // Every line on standard error begins with the program's name.
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return std::string("ktexr: ") + e.what() + " (--help describes the options)\n";
    });
    app.require_subcommand(1);
    app.fallthrough();
    app.set_help_all_flag("--help-all", "help on every subcommand");

    std::string pluginPath;
    int threads = -1;
    app.add_option("--plugin", pluginPath, "the plug-in library (default: beside ktexr, else in its build tree)");
    app.add_option("--threads", threads, "OpenEXR worker threads the plug-in may use (default: one per core)")
        ->check(CLI::Range(0, 256));

    InfoOptions info;
    auto* infoCmd = app.add_subcommand("info", "the plug-in's description, size, alpha, depth and metadata of each file");
    infoCmd->add_option("files", info.files, "EXR files")->required();
    infoCmd->add_flag("--json", info.json, "print one JSON document (schema \"ktexr-info\", version 1)");
    infoCmd->add_option("--head", info.headBytes, "bytes loaded before the first header call (default 65536)")
        ->check(CLI::Range(1ull, kWholeFile));
    infoCmd->add_option("--jobs", info.jobs, "frames read at the same time (default: one per core)")
        ->check(CLI::Range(1u, 1024u));

    DecodeOptions decodeOpts;
    auto* decodeCmd = app.add_subcommand("decode", "decode an EXR file to an RGBA PNG, or to a PFM with --depth float");
    decodeCmd->add_option("file", decodeOpts.input, "EXR file")->required();
    decodeCmd->add_option("-o,--output", decodeOpts.output, "OUT.png (8 or 16 bits) or OUT.pfm (float)")->required();
    decodeCmd->add_option("--depth", decodeOpts.depth, "8, 16 or float (default 8)")
        ->check(CLI::IsMember({"8", "16", "float"}));
    decodeCmd->add_flag("--gamma", decodeOpts.gamma, "apply the display gamma (colour to the power of the exponent)");
    decodeCmd->add_option("--gamma-exponent", decodeOpts.gammaExponent,
                          "the exponent, instead of the plug-in's 1/2.2; implies --gamma");
    decodeCmd->add_option("--alpha", decodeOpts.alphaOutput,
                          "with --depth float: write alpha to this grey PFM (otherwise alpha is dropped)");

    EncodeOptions encodeOpts;
    auto* encodeCmd = app.add_subcommand("encode", "write an 8- or 16-bit PNG as an EXR file with render metadata");
    encodeCmd->add_option("file", encodeOpts.input, "PNG file")->required();
    encodeCmd->add_option("-o,--output", encodeOpts.output, "OUT.exr")->required();
    encodeCmd->add_option("--client", encodeOpts.client, "client name (KT/clientname)");
    encodeCmd->add_option("--scene", encodeOpts.scene, "scene name (KT/scenename)");
    encodeCmd->add_option("--job", encodeOpts.job, "job ID (KT/jobID)");
    encodeCmd->add_option("--attr", encodeOpts.attributes, "NAME=VALUE: a further string attribute (repeatable)");

    CropOptions crop;
    auto* cropCmd = app.add_subcommand("crop", "the crop-region job: cut each file's data window to what it shows");
    cropCmd->add_option("files", crop.files, "EXR files")->required();
    auto* cropOut = cropCmd->add_option("-o,--output", crop.output, "write the result here (one input file)");
    cropCmd->add_flag("--in-place", crop.inPlace, "replace each file, only once its new version is complete")
        ->excludes(cropOut);
    cropCmd->add_flag("--undo", crop.undo, "write the whole frame again (undo a crop)");
    cropCmd->add_flag("--verbose", crop.verbose, "let the plug-in report the region, and more");
    cropCmd->add_flag("--lossy", crop.lossy,
                      "write even when channels beyond RGBA, parts, float precision, overscan or metadata are lost");
    cropCmd->add_flag("--dry-run", crop.dryRun, "only say what would be written, what would be lost and the bytes saved");
    cropCmd->add_flag("--force", crop.force, "with --in-place: rewrite a file even when the crop gains nothing");

    AssembleOptions assemble;
    auto* assembleCmd = app.add_subcommand("assemble", "the tile-assembly job: region tiles into one frame");
    assembleCmd->add_option("-o,--output", assemble.output, "OUT.exr");
    assembleCmd->add_option("tiles", assemble.tiles, "tile files, each with the frame as display window")->required();
    assembleCmd->add_flag("--check", assemble.checkOnly, "only check that the tiles fit together");
    assembleCmd->add_flag("--allow-gaps", assemble.allowGaps, "accept pixels of the frame no tile covers");
    assembleCmd->add_flag("--verbose", assemble.verbose, "show every tile's window and the plug-in's region report");
    assembleCmd->add_flag("--lossy", assemble.lossy,
                          "write even when channels beyond RGBA, parts, float precision or metadata of a tile are lost");
    assembleCmd->add_flag("--dry-run", assemble.dryRun, "only say what would be written and what would be lost");

    DemoOptions demo;
    auto* demoCmd = app.add_subcommand("demo", "the built-in sample: tiles, assembly, crop, info and a preview");
    demoCmd->add_option("directory", demo.directory, "where the files go (default ktexr-demo)");

    app.add_subcommand("identity", "load the plug-in as the host does and print who it is");
    // Once, in the program's help: subcommands made after this would repeat it.
    app.footer(exitStatusTable());

    FarmCommands farm(app);  // verify, stats, diff: OpenEXR directly, sequences, many frames
    farm.addFrames(*infoCmd);
    farm.addFrames(*cropCmd);
    farm.addLossless(*cropCmd, *assembleCmd);
    farm.addPreview(*decodeCmd);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        return code == 0 ? exitOk : exitUsage;
    }

    unsigned cores = std::thread::hardware_concurrency();
    Imf::setGlobalThreadCount(threads >= 0 ? threads : static_cast<int>(cores > 1 ? cores : 0));

    ExitStatus status = [&]() -> ExitStatus {
        if (farm.chosen()) return static_cast<ExitStatus>(farm.run());
        // Missing frames of a sequence are the first failure; the frames that
        // are there still run.
        StatusKeeper expanded;
        if (*infoCmd) expanded.note(static_cast<ExitStatus>(farm.expand(*infoCmd, info.files)));
        if (*cropCmd) expanded.note(static_cast<ExitStatus>(farm.expand(*cropCmd, crop.files)));
        if (expanded.result() != exitOk && info.files.empty() && crop.files.empty()) return expanded.result();
        if (*cropCmd && farm.lossless(*cropCmd)) {
            expanded.note(static_cast<ExitStatus>(farm.runCrop(crop)));
            return expanded.result();
        }
        if (*assembleCmd && farm.lossless(*assembleCmd)) return static_cast<ExitStatus>(farm.runAssemble(assemble));

        std::unique_ptr<PluginLibrary> plugin;
        try {
            plugin = std::make_unique<PluginLibrary>(pluginPath.empty() ? PluginLibrary::locate() : pluginPath);
        } catch (const Failure& failure) {
            return report(failure);
        }
        if (*infoCmd) expanded.note(runInfo(*plugin, info));
        else if (*decodeCmd) expanded.note(farm.preview() ? static_cast<ExitStatus>(farm.runDecode(*plugin, decodeOpts))
                                                          : runDecode(*plugin, decodeOpts));
        else if (*encodeCmd) expanded.note(runEncode(*plugin, encodeOpts));
        else if (*cropCmd) expanded.note(runCrop(*plugin, crop));
        else if (*assembleCmd) expanded.note(runAssemble(*plugin, assemble));
        else if (*demoCmd) expanded.note(runDemo(*plugin, demo));
        else expanded.note(runIdentity(*plugin));
        return expanded.result();
    }();

    // A report that did not reach standard output (a full disk, a closed
    // pipe) is a failure, not a success.
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        ExitStatus failed = report(Failure(exitUnwritable, "", std::string("cannot write to standard output: ") +
                                                                   std::strerror(errno)));
        if (status == exitOk) status = failed;
    }
    return status;
}
