// crop and assemble through OpenEXR directly, without loss (the default
// route; --host runs the render-management host's own job through the
// plug-in instead).
#pragma once

#include <string>
#include <vector>

namespace ktexr {

struct LosslessCropOptions {
    std::vector<std::string> files;
    std::string output;      // one file only
    bool inPlace = false;
    bool undo = false;       // the display window as data window
    int pad = 0;             // pixels kept around the occupied region
    bool sameWindow = false; // one window for all parts
    unsigned jobs = 0;       // 0: one per core
    bool quiet = false;
    bool dryRun = false;     // only say what would be written and the bytes saved
    bool force = false;      // --in-place: rewrite a file the crop gains nothing on
};
// Cuts every part of each file to the box of its pixels that are not zero.
int runLosslessCrop(const LosslessCropOptions& options);

struct LosslessAssembleOptions {
    std::string output;
    std::vector<std::string> tiles;
    bool checkOnly = false;
    bool allowGaps = false;
    bool quiet = false;
    bool dryRun = false;     // only say what would be written
};
// Places each tile's parts by their data windows into one frame.
int runLosslessAssemble(const LosslessAssembleOptions& options);

}  // namespace ktexr
