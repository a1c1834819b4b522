// The tile check on windows alone: hand-made tile sets with known answers,
// and random sets against a pixel-by-pixel count.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "tileCheck.h"

namespace {

using ktexr::ExrGeometry;
using ktexr::PixelBox;
using ktexr::TileWindows;

const PixelBox kFrame{0, 0, 99, 59};

TileWindows tile(const std::string& name, PixelBox data, PixelBox display = kFrame)
{
    return TileWindows{name, ExrGeometry{display, data}};
}

// Counted pixel by pixel: how often each pixel of the frame is covered.
std::vector<int> coverage(const PixelBox& frame, const std::vector<PixelBox>& boxes)
{
    std::vector<int> count(static_cast<std::size_t>(frame.area()), 0);
    for (const PixelBox& b : boxes)
        for (long long y = frame.minY; y <= frame.maxY; ++y)
            for (long long x = frame.minX; x <= frame.maxX; ++x)
                if (x >= b.minX && x <= b.maxX && y >= b.minY && y <= b.maxY)
                    ++count[static_cast<std::size_t>((y - frame.minY) * frame.width() + (x - frame.minX))];
    return count;
}

struct Case {
    const char* what;
    std::vector<PixelBox> tiles;
    long long uncovered;
    long long overlap;
    bool fits;
};

class TileCheckCases : public testing::TestWithParam<Case> {};

TEST_P(TileCheckCases, CountsAndVerdict)
{
    const Case& c = GetParam();
    std::vector<TileWindows> tiles;
    for (std::size_t i = 0; i < c.tiles.size(); ++i) tiles.push_back(tile("t" + std::to_string(i), c.tiles[i]));
    ktexr::TileCheck check = ktexr::checkTiles(tiles);
    EXPECT_EQ(check.framePixels, 6000);
    EXPECT_EQ(check.uncoveredPixels, c.uncovered);
    EXPECT_EQ(check.overlapPixels, c.overlap);
    EXPECT_EQ(check.fits(false), c.fits);
    EXPECT_EQ(check.fits(true), c.overlap == 0);
}

INSTANTIATE_TEST_SUITE_P(
    HandMade, TileCheckCases,
    testing::Values(
        Case{"quadrants", {{0, 0, 49, 29}, {50, 0, 99, 29}, {0, 30, 49, 59}, {50, 30, 99, 59}}, 0, 0, true},
        Case{"one whole tile", {{0, 0, 99, 59}}, 0, 0, true},
        Case{"strips of one row", {{0, 0, 99, 0}, {0, 1, 99, 58}, {0, 59, 99, 59}}, 0, 0, true},
        Case{"a column missing", {{0, 0, 48, 59}, {50, 0, 99, 59}}, 60, 0, false},
        Case{"one pixel missing", {{0, 0, 98, 59}, {99, 0, 99, 58}}, 1, 0, false},
        Case{"one shared column", {{0, 0, 50, 59}, {50, 0, 99, 59}}, 0, 60, false},
        Case{"a tile twice", {{0, 0, 99, 59}, {0, 0, 99, 59}}, 0, 6000, false},
        Case{"a tile inside another", {{0, 0, 99, 59}, {10, 10, 19, 19}}, 0, 100, false},
        Case{"only the middle", {{25, 15, 74, 44}}, 6000 - 1500, 0, false}),
    [](const testing::TestParamInfo<Case>& info) {
        std::string name = info.param.what;
        for (char& ch : name)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name;
    });

TEST(TileCheck, RandomTilesAgreeWithPixelCount)
{
    std::mt19937 random(20240611);
    const PixelBox frame{-5, 3, 24, 22};  // 30 x 20, origin away from zero
    for (int round = 0; round < 300; ++round) {
        std::vector<PixelBox> boxes;
        int n = 1 + static_cast<int>(random() % 6);
        for (int i = 0; i < n; ++i) {
            // Some boxes reach outside the frame.
            long long x0 = -8 + static_cast<long long>(random() % 36), y0 = static_cast<long long>(random() % 26);
            boxes.push_back({x0, y0, x0 + static_cast<long long>(random() % 15), y0 + static_cast<long long>(random() % 12)});
        }
        std::vector<int> count = coverage(frame, boxes);
        long long zeros = 0;
        for (int v : count) zeros += v == 0;
        ASSERT_EQ(ktexr::uncoveredArea(frame, boxes), zeros) << "round " << round;

        long long shared = 0;  // every pair, all over the plane
        for (std::size_t i = 0; i < boxes.size(); ++i)
            for (std::size_t j = i + 1; j < boxes.size(); ++j)
                for (long long y = -20; y < 60; ++y)
                    for (long long x = -20; x < 60; ++x)
                        shared += boxes[i].contains({x, y, x, y}) && boxes[j].contains({x, y, x, y});
        std::vector<TileWindows> tiles;
        for (const PixelBox& b : boxes) tiles.push_back(TileWindows{"t", ExrGeometry{frame, b}});
        ASSERT_EQ(ktexr::checkTiles(tiles).overlapPixels, shared) << "round " << round;
    }
}

TEST(TileCheck, NamesTheTileThatLeavesTheFrame)
{
    auto check = ktexr::checkTiles({tile("a.exr", {0, 0, 49, 59}), tile("b.exr", {50, 0, 100, 59})});
    ASSERT_EQ(check.problems.size(), 1u);
    EXPECT_EQ(check.problems[0].file, "b.exr");
    EXPECT_NE(check.problems[0].message.find("outside the frame"), std::string::npos) << check.problems[0].message;
}

TEST(TileCheck, NamesTheTileWithAnotherFrame)
{
    auto check = ktexr::checkTiles(
        {tile("a.exr", {0, 0, 49, 59}), tile("b.exr", {50, 0, 99, 59}, PixelBox{0, 0, 99, 60})});
    ASSERT_EQ(check.problems.size(), 1u);
    EXPECT_EQ(check.problems[0].file, "b.exr");
    EXPECT_NE(check.problems[0].message.find("a.exr"), std::string::npos) << check.problems[0].message;
}

TEST(TileCheck, NamesBothTilesOfAnOverlapWithItsSize)
{
    auto check = ktexr::checkTiles({tile("a.exr", {0, 0, 59, 59}), tile("b.exr", {50, 0, 99, 59})});
    ASSERT_EQ(check.problems.size(), 1u);
    EXPECT_EQ(check.problems[0].file, "a.exr");
    EXPECT_NE(check.problems[0].message.find("b.exr by 600 pixels"), std::string::npos) << check.problems[0].message;
}

TEST(TileCheck, OverlapsBeyondTheNamedOnesAreCountedInOneLine)
{
    std::vector<TileWindows> tiles;
    for (int i = 0; i < ktexr::kOverlapsNamed + 5; ++i) tiles.push_back(tile("t" + std::to_string(i), {0, 0, 0, 0}));
    // n tiles on one pixel: n (n - 1) / 2 pairs.
    const long long n = ktexr::kOverlapsNamed + 5, pairs = n * (n - 1) / 2;
    auto check = ktexr::checkTiles(tiles);
    EXPECT_EQ(check.overlapPixels, pairs);
    ASSERT_EQ(static_cast<long long>(check.problems.size()), ktexr::kOverlapsNamed + 1);
    EXPECT_NE(check.problems.back().message.find(std::to_string(pairs - ktexr::kOverlapsNamed) + " more"),
              std::string::npos)
        << check.problems.back().message;
}

TEST(TileCheck, NoTilesIsAProblem)
{
    EXPECT_FALSE(ktexr::checkTiles({}).fits(true));
}

}  // namespace
