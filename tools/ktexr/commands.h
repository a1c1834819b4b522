// The subcommands of ktexr, callable from the command line and from each
// other (the demo runs the others). Each returns the program's exit status
// and reports every problem as one line on standard error naming the file.
#pragma once

#include <string>
#include <vector>

#include "exitStatus.h"
#include "exrHost.h"
#include "exrLayout.h"
#include "pluginLibrary.h"

namespace ktexr {

struct InfoOptions {
    std::vector<std::string> files;
    bool json = false;
    unsigned long long headBytes = kHeadBytes;  // loaded before the first header call
    unsigned jobs = 0;                          // files read at the same time; 0: one per core
};
// Description, size, alpha, depth, compression and metadata of each file.
ExitStatus runInfo(const PluginLibrary& plugin, const InfoOptions& options);

struct DecodeOptions {
    std::string input;
    std::string output;
    std::string depth = "8";      // "8", "16" or "float"
    bool gamma = false;
    float gammaExponent = 0.0f;   // 0: the plug-in's own
    std::string alphaOutput;      // float only: alpha as a grey PFM; empty drops it
};
// One file decoded to an RGBA PNG (8 or 16 bits) or a colour PFM (float).
ExitStatus runDecode(const PluginLibrary& plugin, const DecodeOptions& options);

struct EncodeOptions {
    std::string input;
    std::string output;
    std::string client;
    std::string scene;
    std::string job;
    std::vector<std::string> attributes;  // NAME=VALUE
};
// An 8- or 16-bit PNG written as EXR with render metadata.
ExitStatus runEncode(const PluginLibrary& plugin, const EncodeOptions& options);

struct CropOptions {
    std::vector<std::string> files;
    std::string output;   // one file only
    bool inPlace = false;
    bool undo = false;    // write the whole frame again
    bool verbose = false;
    bool lossy = false;   // write even what loses channels, parts, precision or metadata
    bool dryRun = false;  // only say what would be written and lost
    bool force = false;   // --in-place: rewrite a file the crop gains nothing on
};
// The crop-region job on each file.
ExitStatus runCrop(const PluginLibrary& plugin, const CropOptions& options);

struct AssembleOptions {
    std::string output;
    std::vector<std::string> tiles;
    bool checkOnly = false;
    bool allowGaps = false;
    bool verbose = false;
    bool lossy = false;   // write even what loses channels, parts, precision or metadata
    bool dryRun = false;  // only say what would be written and lost
};
// The tile-assembly job.
ExitStatus runAssemble(const PluginLibrary& plugin, const AssembleOptions& options);

struct DemoOptions {
    std::string directory = "ktexr-demo";
};
// The built-in sample: tiles, assembly, crop, info and a preview.
ExitStatus runDemo(const PluginLibrary& plugin, const DemoOptions& options);

// Who the plug-in says it is.
ExitStatus runIdentity(const PluginLibrary& plugin);

// Prints each loss of `file` as one line on standard error and, unless the
// user accepted them (`lossy`) or only asked what would happen, refuses the
// work with a Failure (exitRefused). Returns the losses.
std::vector<std::string> refuseLosses(const std::string& file, const ExrLayout& layout, bool lossy, bool dryRun);

// Tiles from this many on get a progress line each on standard error.
constexpr std::size_t kProgressTiles = 8;

}  // namespace ktexr
