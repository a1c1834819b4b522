// Header loads, decodes and encodes on different records from four threads
// at once, OpenEXR running workers of its own: every result equals that of
// the same calls made alone. Built with ThreadSanitizer (`ctest -L
// concurrency`), no two threads may touch the same memory unordered.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <string_view>
#include <thread>

#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;

// A file as a host takes it: its header loaded, its pixels decoded into a
// 64 x 48 buffer (with or without gamma), the buffer encoded again with the
// header's metadata. The three codes, then a hash of each record written.
template <class Buffer>
static std::string hostCalls(const Bytes& file, int (*decoder)(imgCallRecord*), int (*encoder)(imgCallRecord*),
                             int gamma)
{
    auto in = fileBufferWith(file), out = emptyFileBuffer(1 << 20);
    auto info = std::make_unique<imgImageInfo>();
    auto metadata = std::make_unique<ktExrHeaderData>();
    Buffer image(64 * 48);
    image.setWidth(64);
    image.setHeight(48);
    image.pixelFlags = gamma;
    imgCallRecord load{in.get(), info.get(), metadata.get(), nullptr}, decode{in.get(), &image, nullptr, nullptr};
    imgCallRecord encode{out.get(), &image, metadata.get(), nullptr};
    const int loaded = imgLoadHeader(&load), decoded = decoder(&decode), encoded = encoder(&encode);
    Bytes written = contentOf(*out);  // with the moment of writing blanked
    const std::size_t date = findBytes(written, std::string("KT/dateWritten\0string\0", 22));
    if (date != std::string::npos)
        std::fill_n(&written.at(date + 26), static_cast<unsigned char>(written[date + 22]), 0);
    auto hash = [](const void* data, std::size_t size) {
        return " " + std::to_string(std::hash<std::string_view>()({static_cast<const char*>(data), size}));
    };
    return std::to_string(loaded) + " " + std::to_string(decoded) + " " + std::to_string(encoded) + " |" +
           hash(info.get(), sizeof *info) + hash(metadata.get(), sizeof *metadata) +
           hash(written.data(), written.size()) + hash(image.pixels, image.bytesPerPixel * image.maxPixels) +
           hash(image.imageInfo.infoText.text, sizeof image.imageInfo.infoText.text);
}

TEST(Concurrency, CallsOnDifferentRecordsGiveTheResultsTheyGiveAlone)
{
    const std::vector<kt::robust::SampleFile> files = kt::robust::sampleFiles();
    // Call k: file k / 6, through the 8-bit, 16-bit or float exports by k / 2 % 3, gamma by k % 2.
    auto call = [&files](std::size_t k) {
        const Bytes& file = files[k / 6].bytes;
        const int gamma = static_cast<int>(k % 2);
        if (k / 2 % 3 == 0) return hostCalls<ktP::_imgRGBABuffer8>(file, imgDecode8, imgEncode8, gamma);
        if (k / 2 % 3 == 1) return hostCalls<ktP::_imgRGBABuffer16>(file, imgDecode16, imgEncode16, gamma);
        return hostCalls<ktP::_imgRGBABufferf>(file, imgDecodef, imgEncodef, gamma);
    };
    const std::size_t count = 6 * files.size();
    Imf::setGlobalThreadCount(2);
    std::vector<std::string> alone;
    for (std::size_t k = 0; k < count; ++k) alone.push_back(call(k));
    for (const std::string& o : alone) ASSERT_TRUE(o.rfind("1 1 1 |", 0) == 0 || o.rfind("1 6 1 |", 0) == 0) << o;
    std::vector<std::vector<std::string>> together(4, std::vector<std::string>(count));
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < together.size(); ++t)
        threads.emplace_back([&, t] {
            // Each thread starts elsewhere in the list, twice round, so that different calls overlap.
            for (std::size_t i = 0; i < 2 * count; ++i) {
                const std::size_t k = (i + t * count / 4) % count;
                together[t][k] = call(k);
            }
        });
    for (std::thread& th : threads) th.join();
    for (std::size_t t = 0; t < together.size(); ++t) EXPECT_EQ(together[t], alone) << "thread " << t;
}
