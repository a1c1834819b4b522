// Files made elsewhere: every plain image of the real-world corpus decodes,
// pixel for pixel, as OpenEXR itself reads it.
#include <gtest/gtest.h>

#include <cstdio>

#include "image/rgbaBuffer.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

TEST(Corpus, ValidImagesDecodeAsOpenExrReadsThem)
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
            ktP::_imgRGBABufferf image(static_cast<unsigned>(width * height));
            image.setWidth(width);
            image.setHeight(height);
            GuardPagedFileBuffer buffer(bytes);
            imgCallRecord call{buffer.get(), &image, nullptr, nullptr};
            ASSERT_EQ(imgDecodef(&call), 1);
            ++files;

            // R, G, B and maybe A (without it, alpha reads B), or one channel for every role.
            const DecodedChannel* roles[4];
            for (int k = 0; k < 4; ++k) {
                const std::string name = k == 3 && !oracle.hasChannel("A") ? "B" : std::string(1, "RGBA"[k]);
                roles[k] = oracle.channels.size() == 1 ? &oracle.channels[0] : &oracle.channel(name);
            }
            const auto* got = reinterpret_cast<const float*>(image.pixels);
            int differences = 0;
            for (int y = display.min.y; y <= display.max.y; ++y)
                for (int x = display.min.x; x <= display.max.x; ++x)
                    for (int k = 0; k < 4; ++k) {
                        const bool inside = data.intersects(Imath::V2i(x, y));
                        const float want = inside ? static_cast<float>(roles[k]->at(x, y)) : 0.0f;
                        const float g = got[(std::size_t(y - display.min.y) * width + (x - display.min.x)) * 4 + k];
                        if (!(g == want || (g != g && want != want)) && differences++ < 5)
                            ADD_FAILURE() << "channel " << k << " at " << x << "," << y << ": " << g << " vs " << want;
                    }
        }
    }
    EXPECT_GT(files, 0);
    std::printf("[ figures  ] corpus: %d valid files compared pixel by pixel\n", files);
}
