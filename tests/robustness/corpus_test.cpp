// Files made elsewhere: every valid image of the real-world corpus loads and
// decodes, plain RGB(A) images exactly as OpenEXR reads them; every damaged
// one gets a status code, with bounded memory, whatever it claims.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/pluginCalls.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

// Every file of a corpus folder: damaged files carry no ".exr".
std::vector<std::string> filesIn(const std::string& folder)
{
    std::vector<std::string> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(corpusDirectory() + "/" + folder, error))
        if (entry.is_regular_file() && entry.path().extension() != ".rst") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

// Channels R, G and B, and A or nothing else.
bool plainRgba(const DecodedExr& image)
{
    for (const DecodedChannel& c : image.channels)
        if (c.name != "R" && c.name != "G" && c.name != "B" && c.name != "A") return false;
    return image.hasChannel("R") && image.hasChannel("G") && image.hasChannel("B");
}

}  // namespace

TEST(Corpus, ValidImagesLoadAndDecodeAsOpenExrReadsThem)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    int files = 0, compared = 0;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"}) {
        for (const std::string& path : corpusFiles(folder)) {
            SCOPED_TRACE(path);
            ++files;
            const Bytes bytes = readFileBytes(path);
            EXPECT_EQ(loadHeader(bytes), 1);
            const DecodedExr oracle = readExr(bytes);
            const Imath::Box2i display = oracle.header.displayWindow();
            const int width = display.max.x - display.min.x + 1, height = display.max.y - display.min.y + 1;
            ktP::_imgRGBABufferf out(static_cast<unsigned int>(width * height));
            out.setWidth(width);
            out.setHeight(height);
            auto buffer = fileBufferWith(bytes);
            imgCallRecord call{buffer.get(), &out, nullptr, nullptr};
            ASSERT_EQ(imgDecodef(&call), 1);
            EXPECT_EQ(decode(files % 2 ? 8 : 16, bytes), 1);
            if (!plainRgba(oracle)) continue;

            // Alpha is read from A, or from the first channel (B) without one.
            const DecodedChannel& alpha = oracle.hasChannel("A") ? oracle.channel("A") : oracle.channel("B");
            const Imath::Box2i data = oracle.header.dataWindow();
            long long differences = 0;
            for (int y = std::max(data.min.y, display.min.y); y <= std::min(data.max.y, display.max.y); ++y)
                for (int x = std::max(data.min.x, display.min.x); x <= std::min(data.max.x, display.max.x); ++x) {
                    const _Rgbaf p = out.read(x - display.min.x, y - display.min.y);
                    const float want[4] = {static_cast<float>(oracle.channel("R").at(x, y)),
                                           static_cast<float>(oracle.channel("G").at(x, y)),
                                           static_cast<float>(oracle.channel("B").at(x, y)),
                                           static_cast<float>(alpha.at(x, y))};
                    const float got[4] = {p.r, p.g, p.b, p.a};
                    for (int k = 0; k < 4; ++k)
                        if (!(got[k] == want[k] || (got[k] != got[k] && want[k] != want[k])) && differences++ < 5)
                            ADD_FAILURE() << "channel " << k << " at " << x << "," << y << ": " << got[k] << " vs "
                                          << want[k];
                }
            ++compared;
        }
    }
    std::printf("[ figures  ] corpus: %d valid files, %d compared pixel by pixel\n", files, compared);
}

TEST(Corpus, DamagedFilesGetAStatusCodeWithBoundedMemory)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    const std::vector<std::string> paths = filesIn("Damaged");
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
        for (int depth : {8, 16, 32}) {
            const int code = decode(depth, bytes);
            EXPECT_TRUE(isDecodeCode(code)) << depth << ": " << code;
        }
        if (largest.bytes() > largestSeen) {
            largestSeen = largest.bytes();
            largestFile = path;
        }
    }
    // Before the header checks, some of these made OpenEXR and the decoders
    // ask for gigabytes.
    EXPECT_LT(largestSeen, std::size_t{64} << 20) << largestFile;
    std::printf("[ figures  ] corpus: %zu damaged files, largest allocation %zu bytes (%s)\n", paths.size(),
                largestSeen, std::filesystem::path(largestFile).filename().c_str());
}
