// The tile check on windows alone: hand-made tile sets with known answers,
// and random sets against a pixel-by-pixel count.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tileCheck.h"

namespace {

using ktexr::PixelBox;

const PixelBox kFrame{0, 0, 99, 59};

// Tile i is "t<i>" with the frame as display window; the last one's may differ.
std::vector<ktexr::TileWindows> tiles(const std::vector<PixelBox>& data, const PixelBox& lastDisplay = kFrame)
{
    std::vector<ktexr::TileWindows> named;
    for (std::size_t i = 0; i < data.size(); ++i)
        named.push_back({"t" + std::to_string(i), {i + 1 == data.size() ? lastDisplay : kFrame, data[i]}});
    return named;
}

// The counts and verdict at one pixel from fitting, and the tile each problem names.
TEST(TileCheck, HandMadeSets)
{
    const struct {
        std::vector<PixelBox> data;
        long long uncovered, overlap;
        bool fits;
        std::string problem;  // the only problem, "<file>: <start of its message>"
        PixelBox lastDisplay = kFrame;
    } cases[] = {
        {{{0, 0, 49, 29}, {50, 0, 99, 29}, {0, 30, 49, 59}, {50, 30, 99, 59}}, 0, 0, true, ""},
        {{{0, 0, 98, 59}, {99, 0, 99, 58}}, 1, 0, false, ""},
        {{{25, 15, 74, 44}}, 6000 - 1500, 0, false, ""},
        {{{0, 0, 50, 59}, {50, 0, 99, 59}}, 0, 60, false, "t0: overlaps t1 by 60 pixels in (50, 0)-(50, 59)"},
        {{{0, 0, 99, 59}, {10, 10, 19, 19}}, 0, 100, false, "t0: overlaps t1 by 100 pixels"},
        {{{0, 0, 49, 59}, {50, 0, 100, 59}}, 0, 0, false, "t1: data window (50, 0)-(100, 59) reaches outside"},
        {{{0, 0, 49, 59}, {50, 0, 99, 59}}, 0, 0, false,
         "t1: display window (0, 0)-(99, 60) differs from the frame (0, 0)-(99, 59) of t0", {0, 0, 99, 60}},
        {{}, 0, 0, false, ": no tiles given"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.problem);
        ktexr::TileCheck check = ktexr::checkTiles(tiles(c.data, c.lastDisplay));
        EXPECT_EQ(check.framePixels, c.data.empty() ? 0 : 6000);
        EXPECT_EQ(check.uncoveredPixels, c.uncovered);
        EXPECT_EQ(check.overlapPixels, c.overlap);
        EXPECT_EQ(check.fits(false), c.fits);
        EXPECT_EQ(check.fits(true), c.fits || (c.problem.empty() && c.uncovered > 0));
        ASSERT_EQ(check.problems.size(), c.problem.empty() ? 0u : 1u);
        for (const auto& p : check.problems) EXPECT_THAT(p.file + ": " + p.message, testing::StartsWith(c.problem));
    }
}

TEST(TileCheck, RandomSetsAgreeWithAPixelCount)
{
    std::mt19937 random(20240611);
    const PixelBox frame{-5, 3, 24, 22};  // 30 x 20, origin away from zero
    for (int round = 0; round < 300; ++round) {
        std::vector<PixelBox> boxes(1 + random() % 6);
        for (PixelBox& b : boxes) {  // some reach outside the frame
            const long long x = -8 + static_cast<long long>(random() % 36), y = static_cast<long long>(random() % 26);
            b = {x, y, x + static_cast<long long>(random() % 15), y + static_cast<long long>(random() % 12)};
        }
        long long uncovered = 0, shared = 0;  // shared: per pair of boxes, all over the plane
        for (long long y = -20; y < 60; ++y)
            for (long long x = -20; x < 60; ++x) {
                int covering = 0;
                for (const PixelBox& b : boxes) covering += b.contains({x, y, x, y});
                shared += covering * (covering - 1) / 2;
                uncovered += covering == 0 && frame.contains({x, y, x, y});
            }
        ASSERT_EQ(ktexr::uncoveredArea(frame, boxes), uncovered) << "round " << round;
        ASSERT_EQ(ktexr::checkTiles(tiles(boxes)).overlapPixels, shared) << "round " << round;
    }
}

// Past the named pairs, one line counts the rest.
TEST(TileCheck, OverlapsBeyondTheNamedOnesShareOneLine)
{
    const long long n = ktexr::kOverlapsNamed + 5, pairs = n * (n - 1) / 2;  // n tiles on one pixel
    auto check = ktexr::checkTiles(tiles(std::vector<PixelBox>(n, PixelBox{0, 0, 0, 0})));
    EXPECT_EQ(check.overlapPixels, pairs);
    ASSERT_EQ(static_cast<long long>(check.problems.size()), ktexr::kOverlapsNamed + 1);
    EXPECT_EQ(check.problems.back().message,
              "and " + std::to_string(pairs - ktexr::kOverlapsNamed) + " more overlapping pairs of tiles");
}

}  // namespace
