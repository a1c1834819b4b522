// The command line of verify, stats and diff, and --frames for the other
// commands that take files.
#include <CLI/CLI.hpp>

#include <algorithm>

#include "commands.h"
#include "farmCommands.h"
#include "frameSequence.h"
#include "losslessCommands.h"

namespace ktexr {

namespace {

const char* kSequenceHelp =
    "Files may be sequences: shot.####.exr (4 digits), shot.%04d.exr, shot.@.exr (no padding); with --frames\n"
    "the frames of the range (1001-1100, 1001-1100x2, lists with commas), else the frames on disk.\n";

void addBatchOptions(CLI::App& command, BatchOptions& options, const char* what)
{
    command.add_option("files", options.files, what)->required();
    command.add_option("--frames", options.frames, "frame range of the sequences: 1001-1100, 1001-1100x2, 1001,1005");
    command.add_option("--jobs", options.jobs, "frames read at the same time (default: one per core)")
        ->check(CLI::Range(1u, 1024u));
    command.add_flag("--json", options.json, "one JSON object per line (machine-clean; progress stays on stderr)");
    command.add_flag("-q,--quiet", options.quiet, "no progress on standard error");
}

}  // namespace

FarmCommands::FarmCommands(CLI::App& app)
{
    verify_ = app.add_subcommand("verify", "decode every chunk of every part of every frame; say which are whole");
    addBatchOptions(*verify_, verifyOptions_, "EXR files and sequences");
    verify_->add_option("--merge", verifyOptions_.merge,
                        "merge these --json reports (of farm tasks) into one instead of reading frames");
    // The files are not needed when merging.
    verify_->get_option("files")->required(false);
    verify_->footer(std::string(kSequenceHelp) +
                    "Per frame: ok, missing, not EXR, truncated or damaged, per channel the NaN, Inf and negative\n"
                    "counts, and whether the frame is entirely empty; then a summary.\n"
                    "Exit status: 0 every frame ok, 3 a frame missing, 4 a file not EXR, 5 a frame truncated,\n"
                    "10 a frame damaged (the worst of these decides), 2 bad arguments.");

    stats_ = app.add_subcommand("stats", "per channel min, max, mean, NaN, Inf and negative counts of every part");
    addBatchOptions(*stats_, statsOptions_, "EXR files and sequences");
    stats_->footer(std::string(kSequenceHelp) +
                   "32-bit integer channels are counted as floats. Exit status: 0, or that of the first frame\n"
                   "that cannot be read (3 missing, 4 not EXR, 5 truncated or damaged).");

    diff_ = app.add_subcommand("diff", "compare two EXR files (or sequences) part by part and channel by channel");
    diff_->add_option("first", diffOptions_.first, "EXR file or sequence")->required();
    diff_->add_option("second", diffOptions_.second, "EXR file or sequence")->required();
    diff_->add_option("--frames", diffOptions_.frames, "frame range of the two sequences");
    diff_->add_option("--fail", diffOptions_.fail, "a sample differing by more fails (default 1e-6)")
        ->check(CLI::NonNegativeNumber);
    diff_->add_option("--warn", diffOptions_.warn, "a sample differing by more warns (default 1e-6)")
        ->check(CLI::NonNegativeNumber);
    diff_->add_flag("--json", diffOptions_.json, "one JSON object per pair of files");
    diff_->add_flag("-q,--quiet", diffOptions_.quiet, "print only pairs that differ");
    diff_->footer(std::string(kSequenceHelp) +
                  "Samples outside a data window count as zero; NaN equals only NaN. Exit status: 0 within\n"
                  "--warn, 1 above --warn only, 11 above --fail or not the same parts and channels,\n"
                  "3 a file missing, 5 a file that cannot be read whole, 2 bad arguments.");

    contact_ = app.add_subcommand("contact", "a grid of small previews of a sequence, labelled with frame numbers");
    contact_->add_option("files", contactOptions_.files, "EXR files and sequences")->required();
    contact_->add_option("-o,--output", contactOptions_.output, "SHEET.png")->required();
    contact_->add_option("--frames", contactOptions_.frames, "frame range of the sequences");
    contact_->add_option("--columns", contactOptions_.columns, "previews per row (default 8)")->check(CLI::Range(1, 256));
    contact_->add_option("--size", contactOptions_.size, "preview width in pixels (default 192)")->check(CLI::Range(8, 4096));
    contact_->add_option("--exposure", contactOptions_.exposure, "exposure in stops (default 0)")->check(CLI::Range(-64.0, 64.0));
    auto* gamma = contact_->add_flag_callback("--gamma", [this] { contactOptions_.curve = "gamma"; },
                                              "a plain 1/2.2 display gamma instead of the sRGB curve");
    contact_->add_flag_callback("--linear", [this] { contactOptions_.curve = "linear"; }, "no display curve")
        ->excludes(gamma);
    contact_->add_option("--jobs", contactOptions_.jobs, "frames read at the same time (default: one per core)")
        ->check(CLI::Range(1u, 1024u));
    contact_->add_flag("-q,--quiet", contactOptions_.quiet, "no progress");
    contact_->footer(std::string(kSequenceHelp) +
                     "The colour of the first part, shrunk by averaging, with the sRGB transfer curve unless\n"
                     "--gamma or --linear; missing frames show M, unreadable ones X!, both in red.\n"
                     "Exit status: 0, 3 a frame missing, 5 a frame unreadable, 8 the sheet cannot be written.");
}

bool FarmCommands::chosen() const
{
    return verify_->parsed() || stats_->parsed() || diff_->parsed() || contact_->parsed();
}

int FarmCommands::run() const
{
    if (verify_->parsed()) {
        if (verifyOptions_.files.empty() == verifyOptions_.merge.empty())
            return report(Failure(exitUsage, "", "verify needs files to read, or --merge with reports, not both"));
        return runVerify(verifyOptions_);
    }
    if (stats_->parsed()) return runStats(statsOptions_);
    if (contact_->parsed()) return runContact(contactOptions_);
    return runDiff(diffOptions_);
}

void FarmCommands::addFrames(CLI::App& command)
{
    frames_.emplace_back(&command, std::make_unique<std::string>());
    command.add_option("--frames", *frames_.back().second,
                       "frame range of the sequences among the files (shot.####.exr, shot.%04d.exr, shot.@.exr)");
}

int FarmCommands::expand(CLI::App& command, std::vector<std::string>& files) const
{
    const auto entry = std::find_if(frames_.begin(), frames_.end(), [&](const auto& e) { return e.first == &command; });
    const std::string frames = entry == frames_.end() ? std::string() : *entry->second;
    try {
        bool missing = false;
        files = existingFrames(expandSequences(files, frames), missing);
        return missing ? exitUnreadable : exitOk;
    } catch (const Failure& failure) {
        files.clear();  // nothing runs on a range that could not be read
        return report(failure);
    }
}

void FarmCommands::addLossless(CLI::App& crop, CLI::App& assemble)
{
    crop_ = &crop;
    crop.add_flag("--host", hostCrop_,
                  "run the host's crop-region job through the plug-in (half RGBA of the first part, as the host "
                  "writes it) instead of the lossless crop with OpenEXR");
    crop.add_option("--pad", pad_, "keep this many pixels around the occupied region (lossless route)")
        ->check(CLI::Range(0, 1 << 20));
    crop.add_flag("--same-window", sameWindow_, "give every part the same data window (lossless route)");
    crop.add_option("--jobs", cropJobs_, "files cropped at the same time (default: one per core)")
        ->check(CLI::Range(1u, 1024u));
    crop.add_flag("-q,--quiet", quiet_, "no progress and no line per file");
    assemble.add_flag("--host", hostAssemble_,
                      "run the host's tile-assembly job through the plug-in (half RGBA, first part) instead of the "
                      "lossless assembly with OpenEXR");
    crop.footer("Without --host every part, channel, pixel type and attribute is kept, with the compression and\n"
                "tiling of the input; each part's data window is cut to its pixels that are not zero in any channel.\n"
                "Deep and mip-mapped parts are refused.");
    assemble.add_flag("-q,--quiet", quiet_, "no progress and no summary line");
    assemble.footer("Without --host the tiles are placed by their data windows, part by part and channel by\n"
                    "channel, keeping every pixel type and attribute of the first tile; deep parts are refused.");
}

void FarmCommands::addPreview(CLI::App& decode)
{
    decode.add_flag("--srgb", srgb_, "apply the sRGB transfer curve (as monitors show it); an opaque preview");
    decode.add_option("--exposure", exposure_, "exposure in stops before the display curve (an opaque preview)")
        ->check(CLI::Range(-64.0f, 64.0f));
}

bool FarmCommands::lossless(const CLI::App& command) const
{
    return &command == crop_ ? !hostCrop_ : !hostAssemble_;
}

int FarmCommands::runCrop(const CropOptions& options) const
{
    LosslessCropOptions lossless;
    lossless.files = options.files;
    lossless.output = options.output;
    lossless.inPlace = options.inPlace;
    lossless.undo = options.undo;
    lossless.pad = pad_;
    lossless.sameWindow = sameWindow_;
    lossless.jobs = cropJobs_;
    lossless.quiet = quiet_;
    lossless.dryRun = options.dryRun;
    lossless.force = options.force;
    return runLosslessCrop(lossless);
}

int FarmCommands::runAssemble(const AssembleOptions& options) const
{
    LosslessAssembleOptions lossless;
    lossless.output = options.output;
    lossless.tiles = options.tiles;
    lossless.checkOnly = options.checkOnly;
    lossless.allowGaps = options.allowGaps;
    lossless.quiet = quiet_;
    lossless.dryRun = options.dryRun;
    return runLosslessAssemble(lossless);
}

}  // namespace ktexr
