#include "tileCheck.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace ktexr {

long long uncoveredArea(const PixelBox& frame, const std::vector<PixelBox>& boxes)
{
    if (frame.empty()) return 0;
    std::vector<PixelBox> inside;
    for (const PixelBox& b : boxes) {
        PixelBox clipped = intersection(frame, b);
        if (!clipped.empty()) inside.push_back(clipped);
    }
    // Columns split at every box edge; in each column band the covered rows
    // are the union of the row ranges of the boxes that span it.
    std::vector<long long> cuts{frame.minX, frame.maxX + 1};
    for (const PixelBox& b : inside) {
        cuts.push_back(b.minX);
        cuts.push_back(b.maxX + 1);
    }
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());

    long long covered = 0;
    std::vector<std::pair<long long, long long>> rows;
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
        long long x0 = cuts[i];
        long long bandWidth = cuts[i + 1] - x0;
        rows.clear();
        for (const PixelBox& b : inside)
            if (b.minX <= x0 && b.maxX >= x0) rows.emplace_back(b.minY, b.maxY);
        std::sort(rows.begin(), rows.end());
        long long height = 0;
        long long end = frame.minY - 1;  // last row counted so far
        for (const auto& r : rows) {
            long long from = std::max(r.first, end + 1);
            if (r.second >= from) {
                height += r.second - from + 1;
                end = r.second;
            }
        }
        covered += height * bandWidth;
    }
    return frame.area() - covered;
}

std::string TileCheck::gapText() const
{
    char text[160];
    double share = framePixels > 0 ? 100.0 * static_cast<double>(uncoveredPixels) / static_cast<double>(framePixels) : 0;
    std::snprintf(text, sizeof text, "%lld pixels of the frame (%.2f %%) are covered by no tile", uncoveredPixels, share);
    return text;
}

TileCheck checkTiles(const std::vector<TileWindows>& tiles)
{
    TileCheck check;
    if (tiles.empty()) {
        check.problems.push_back({"", "no tiles given"});
        return check;
    }
    check.frame = tiles.front().geometry.displayWindow;
    check.framePixels = check.frame.area();

    std::vector<PixelBox> windows;
    for (const TileWindows& t : tiles) {
        const PixelBox& data = t.geometry.dataWindow;
        if (t.geometry.displayWindow != check.frame)
            check.problems.push_back({t.file, "display window " + t.geometry.displayWindow.text() +
                                                  " differs from the frame " + check.frame.text() + " of " +
                                                  tiles.front().file});
        else if (!check.frame.contains(data))
            check.problems.push_back(
                {t.file, "data window " + data.text() + " reaches outside the frame " + check.frame.text()});
        check.tilePixels += data.area();
        windows.push_back(data);
    }

    int named = 0;
    int unnamed = 0;
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        for (std::size_t j = i + 1; j < tiles.size(); ++j) {
            PixelBox shared = intersection(windows[i], windows[j]);
            if (shared.empty()) continue;
            check.overlapPixels += shared.area();
            if (named < kOverlapsNamed) {
                ++named;
                check.problems.push_back({tiles[i].file, "overlaps " + tiles[j].file + " by " +
                                                             std::to_string(shared.area()) + " pixels in " +
                                                             shared.text()});
            } else {
                ++unnamed;
            }
        }
    }
    if (unnamed > 0)
        check.problems.push_back({"", "and " + std::to_string(unnamed) + " more overlapping pairs of tiles"});

    check.uncoveredPixels = uncoveredArea(check.frame, windows);
    return check;
}

}  // namespace ktexr
