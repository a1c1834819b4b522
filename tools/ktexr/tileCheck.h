// Whether a set of region tiles makes one frame: the same display window
// everywhere, every data window inside it, no two data windows sharing a
// pixel, and (unless allowed) no pixel of the frame left uncovered. Works on
// the windows alone, before any pixel is read.
#pragma once

#include <string>
#include <vector>

#include "exrGeometry.h"

namespace ktexr {

struct TileWindows {
    std::string file;
    ExrGeometry geometry;
};

// One reason the tiles do not fit, naming the tile (empty for the frame).
struct TileProblem {
    std::string file;
    std::string message;
};

struct TileCheck {
    PixelBox frame;                 // the first tile's display window
    long long framePixels = 0;
    long long tilePixels = 0;       // the data windows' areas, added up
    long long overlapPixels = 0;    // pixels shared by two tiles, counted per pair
    long long uncoveredPixels = 0;  // pixels of the frame no tile covers
    std::vector<TileProblem> problems;  // gaps are not among them
    std::string gapText() const;    // "N pixels of the frame (p %) are covered by no tile"

    bool fits(bool allowGaps) const { return problems.empty() && (allowGaps || uncoveredPixels == 0); }
};

// At most this many overlapping pairs are named one by one.
constexpr int kOverlapsNamed = 20;

TileCheck checkTiles(const std::vector<TileWindows>& tiles);

// The number of pixels of `frame` that none of `boxes` covers (boxes may
// overlap and reach outside the frame).
long long uncoveredArea(const PixelBox& frame, const std::vector<PixelBox>& boxes);

}  // namespace ktexr
