// The commands that read EXR files with OpenEXR directly, frame sequences
// and many frames at a time: what a render farm runs after every render.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contactSheet.h"
#include "exitStatus.h"

namespace CLI {
class App;
}

namespace ktexr {

struct CropOptions;
struct AssembleOptions;
struct DecodeOptions;
class PluginLibrary;

// decode with the sRGB curve and/or an exposure, the plug-in decoding to float.
int runPreviewDecode(const PluginLibrary& plugin, const DecodeOptions& options, float exposure, bool srgb);

// Exit statuses of verify beyond the shared ones, worst first:
// a damaged frame (10), a truncated one (exitIncomplete), one that is not
// EXR (exitNotExr), a missing one (exitUnreadable).
constexpr int exitDamaged = 10;
// Exit statuses of diff: within --warn (0), above --warn only (1), above
// --fail or not the same parts and channels (11).
constexpr int exitDiffWarn = 1;
constexpr int exitDiffFail = 11;

struct BatchOptions {
    std::vector<std::string> files;  // paths and sequence patterns
    std::string frames;              // --frames
    unsigned jobs = 0;               // 0: one per core
    bool json = false;
    bool quiet = false;
};

struct VerifyOptions : BatchOptions {
    std::vector<std::string> merge;  // JSON-line reports to merge instead of reading frames
};
int runVerify(const VerifyOptions& options);

int runStats(const BatchOptions& options);

struct DiffOptions {
    std::string first;
    std::string second;
    std::string frames;
    double fail = 1e-6;
    double warn = 1e-6;
    bool json = false;
    bool quiet = false;
};
int runDiff(const DiffOptions& options);

// Adds verify, stats and diff to the program; after parsing, chosen() says
// whether one of them was picked and run() runs it.
class FarmCommands {
public:
    explicit FarmCommands(CLI::App& app);
    bool chosen() const;
    int run() const;

    // --frames for a command of the plug-in route that takes files; expand()
    // replaces its patterns by the frames on disk after parsing (reporting
    // missing ones) and returns the status of that step.
    void addFrames(CLI::App& command);
    int expand(CLI::App& command, std::vector<std::string>& files) const;

    // crop and assemble: the lossless route through OpenEXR by default,
    // --host for the plug-in's own job. addLossless() adds their options;
    // lossless() says whether the command runs the lossless route.
    void addLossless(CLI::App& crop, CLI::App& assemble);
    bool lossless(const CLI::App& command) const;
    int runCrop(const CropOptions& options) const;
    int runAssemble(const AssembleOptions& options) const;

    // decode --srgb / --exposure: preview() says whether they were given.
    void addPreview(CLI::App& decode);
    bool preview() const { return srgb_ || exposure_ != 0.0f; }
    int runDecode(const PluginLibrary& plugin, const DecodeOptions& options) const
    {
        return runPreviewDecode(plugin, options, exposure_, srgb_);
    }

private:
    bool srgb_ = false;
    float exposure_ = 0.0f;
    bool hostCrop_ = false;
    bool hostAssemble_ = false;
    int pad_ = 0;
    bool sameWindow_ = false;
    unsigned cropJobs_ = 0;
    bool quiet_ = false;
    CLI::App* crop_ = nullptr;
    CLI::App* verify_ = nullptr;
    CLI::App* stats_ = nullptr;
    CLI::App* diff_ = nullptr;
    CLI::App* contact_ = nullptr;
    ContactOptions contactOptions_;
    VerifyOptions verifyOptions_;
    BatchOptions statsOptions_;
    DiffOptions diffOptions_;
    std::vector<std::pair<CLI::App*, std::unique_ptr<std::string>>> frames_;
};

}  // namespace ktexr
