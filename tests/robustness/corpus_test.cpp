// Files made elsewhere: every valid image of the real-world corpus loads with
// OpenEXR's own size and layout and decodes exactly as OpenEXR reads it;
// every damaged one gets a status code, with bounded memory and no read
// past its bytes, whatever it claims.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/robustness/pluginCalls.h"

using namespace kt::test;
using namespace kt::robust;

TEST(Corpus, ValidImagesLoadAndDecodeAsOpenExrReadsThem)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    int files = 0;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"}) {
        for (const std::string& path : corpusFiles(folder)) {
            SCOPED_TRACE(path);
            const Bytes bytes = readFileBytes(path);
            const DecodedExr oracle = readExr(bytes);
            const Imath::Box2i display = oracle.header.displayWindow(), data = oracle.header.dataWindow();
            const int width = display.max.x - display.min.x + 1, height = display.max.y - display.min.y + 1;
            imgImageInfo info{};
            std::string text;
            EXPECT_EQ(loadHeader(bytes, kWhole, kWhole, &text, &info), 1);
            EXPECT_EQ(info.imageWidth, width);
            EXPECT_EQ(info.imageHeight, height);
            EXPECT_EQ(info.hasAlpha, oracle.hasChannel("A") ? 1 : 0);
            EXPECT_NE(text.find(oracle.header.hasTileDescription() ? " tiled '" : " scanline '"), std::string::npos) << text;
            EXPECT_EQ(decode(++files % 2 ? 8 : 16, bytes), 1);

            // These files hold R, G, B and maybe A (alpha then reads B, slot 0), or one channel for every role.
            const DecodedChannel* roles[4] = {&oracle.channels[0], &oracle.channels[0], &oracle.channels[0], &oracle.channels[0]};
            if (oracle.channels.size() > 1)
                for (int k = 0; k < 4; ++k) roles[k] = &oracle.channel(k == 3 && !oracle.hasChannel("A") ? "B" : std::string(1, "RGBA"[k]));
            const auto out = decodeFloat(bytes, width, height);
            ASSERT_TRUE(out);
            const auto* got = reinterpret_cast<const float*>(out->pixels);
            long long differences = 0;
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    for (int k = 0; k < 4; ++k) {
                        const int dx = x + display.min.x - data.min.x, dy = y + display.min.y - data.min.y;
                        const bool inside = dx >= 0 && dy >= 0 && dx <= data.max.x - data.min.x && dy <= data.max.y - data.min.y;
                        const auto want = static_cast<float>(inside ? roles[k]->values[static_cast<std::size_t>(dy) * (data.max.x - data.min.x + 1) + dx] : 0.0);
                        const float g = got[(static_cast<std::size_t>(y) * width + x) * 4 + k];
                        if (!(g == want || (g != g && want != want)) && differences++ < 5)
                            ADD_FAILURE() << "channel " << k << " at " << x << "," << y << ": " << g << " vs " << want;
                    }
        }
    }
    std::printf("[ figures  ] corpus: %d valid files compared pixel by pixel\n", files);
}

TEST(Corpus, DamagedFilesGetAStatusCodeWithBoundedMemory)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    std::vector<std::string> paths;  // damaged files carry no ".exr"
    for (const auto& entry : std::filesystem::directory_iterator(corpusDirectory() + "/Damaged"))
        if (entry.is_regular_file() && entry.path().extension() != ".rst") paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    ASSERT_FALSE(paths.empty());
    loadHeader(Bytes());  // the per-thread metadata record exists before the watch
    std::size_t largestSeen = 0;
    std::string largestFile;
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        const Bytes bytes = readFileBytes(path);
        LargestAllocation largest;
        std::string text;
        const int header = loadHeader(bytes, kWhole, kWhole, &text);
        EXPECT_TRUE(isHeaderCode(header) && header != 16) << header;
        if (header == 4 || header == 14) {
            EXPECT_NE(text.find(" ERR: "), std::string::npos) << text;
        }
        EXPECT_TRUE(isHeaderCode(loadHeader(bytes, static_cast<long long>(bytes.size() / 2), kWhole)));
        for (int depth : {8, 16, 32}) EXPECT_TRUE(isDecodeCode(decode(depth, bytes))) << depth;
        if (largest.bytes() > largestSeen) largestSeen = largest.bytes(), largestFile = path;
    }
    // Before the header checks, some of these made OpenEXR and the decoders ask for gigabytes.
    EXPECT_LT(largestSeen, std::size_t{64} << 20) << largestFile;
    std::printf("[ figures  ] corpus: %zu damaged files, largest allocation %zu bytes (%s)\n", paths.size(), largestSeen,
                std::filesystem::path(largestFile).filename().c_str());
}
