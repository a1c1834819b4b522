// Header loads, decodes and encodes on different records from several
// threads at once, while OpenEXR runs worker threads of its own: every
// result equals that of the same call made alone. Built with
// ThreadSanitizer, `ctest -L concurrency` also checks that no two threads
// touch the same memory unordered.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;

namespace {

// What one call leaves behind: its code and a digest of every record it wrote.
struct Outcome {
    int code = 0;
    std::uint64_t digest = 14695981039346656037ull;
    Outcome& add(const void* data, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i) digest = (digest ^ static_cast<const unsigned char*>(data)[i]) * 1099511628211ull;
        return *this;
    }
    bool operator==(const Outcome& o) const { return code == o.code && digest == o.digest; }
};

Outcome loadHeaderOf(const Bytes& file)
{
    auto buffer = fileBufferWith(file);
    auto info = std::make_unique<imgImageInfo>();
    auto metadata = std::make_unique<ktExrHeaderData>();
    imgCallRecord call{buffer.get(), info.get(), metadata.get(), nullptr};
    Outcome out{imgLoadHeader(&call)};
    return out.add(info.get(), sizeof *info).add(metadata.get(), sizeof *metadata);
}

// A decode (gamma on or off) or an encode of a block of changing values inside an empty border.
template <class Buffer>
Outcome call(int (*decoder)(imgCallRecord*), int (*encoder)(imgCallRecord*), const Bytes* file,
             const ktExrHeaderData* metadata, int seed)
{
    Buffer image(64 * 48);
    image.setWidth(64);
    image.setHeight(48);
    image.pixelFlags = seed & 1;
    const std::size_t bytes = static_cast<std::size_t>(image.bytesPerPixel) * image.maxPixels;
    std::memset(image.pixels, 0, bytes);
    for (std::size_t i = 64 * 10 * 16; i < 64 * 40 * 16 && i < bytes; ++i)
        if (i / image.bytesPerPixel % 64 > std::size_t(7 + seed)) image.pixels[i] = static_cast<unsigned char>((i * 7 + seed) & 0x3F);
    auto buffer = file ? fileBufferWith(*file) : emptyFileBuffer(1 << 20);
    auto data = std::make_unique<ktExrHeaderData>(*metadata);
    imgJobSettings settings{};
    settings.appName = "ktClient render";
    std::strcpy(settings.clientName, "client of the test");
    imgCallRecord record{buffer.get(), &image, data.get(), &settings};
    Outcome out{file ? decoder(&record) : encoder(&record)};
    out.add(image.imageInfo.infoText.text, sizeof image.imageInfo.infoText.text).add(image.pixels, bytes);
    if (file) return out;
    // The moment of writing blanked: the only part of the file that depends on when it was made.
    Bytes written = contentOf(*buffer);
    const std::size_t date = findBytes(written, std::string("KT/dateWritten\0string\0", 22));
    if (date != std::string::npos) std::fill_n(written.begin() + std::ptrdiff_t(date + 26), static_cast<unsigned char>(written[date + 22]), 0);
    return out.add(written.data(), written.size());
}

}  // namespace

TEST(Concurrency, CallsOnDifferentRecordsGiveTheResultsTheyGiveAlone)
{
    const std::vector<kt::robust::SampleFile> files = kt::robust::sampleFiles();
    // Render metadata for the encoders, as a header load leaves it.
    auto metadata = std::make_unique<ktExrHeaderData>();
    auto buffer = fileBufferWith(files.front().bytes);
    imgImageInfo info{};
    imgCallRecord load{buffer.get(), &info, metadata.get(), nullptr};
    ASSERT_EQ(imgLoadHeader(&load), 1);
    ASSERT_GT(metadata->count, 0u);

    std::vector<std::function<Outcome()>> calls;
    const ktExrHeaderData* data = metadata.get();
    for (std::size_t k = 0; k <= files.size(); ++k) {
        const Bytes* file = k < files.size() ? &files[k].bytes : nullptr;  // the last round encodes
        if (file) calls.emplace_back([file] { return loadHeaderOf(*file); });
        for (int seed = 0; seed < 2 + !file; ++seed) {
            calls.emplace_back([=] { return call<ktP::_imgRGBABuffer8>(imgDecode8, imgEncode8, file, data, seed); });
            calls.emplace_back([=] { return call<ktP::_imgRGBABuffer16>(imgDecode16, imgEncode16, file, data, seed); });
            calls.emplace_back([=] { return call<ktP::_imgRGBABufferf>(imgDecodef, imgEncodef, file, data, seed); });
        }
    }
    const int savedThreads = Imf::globalThreadCount();
    Imf::setGlobalThreadCount(2);  // OpenEXR's own workers inside the calls too
    std::vector<Outcome> alone;
    for (const auto& c : calls) alone.push_back(c());
    for (const Outcome& o : alone) ASSERT_TRUE(o.code == 1 || o.code == 6) << o.code;

    constexpr std::size_t kThreads = 4;
    std::vector<std::vector<Outcome>> together(kThreads, std::vector<Outcome>(calls.size()));
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Each thread starts elsewhere in the list, twice round, so that different calls overlap.
            for (std::size_t i = 0; i < 2 * calls.size(); ++i) {
                const std::size_t k = (i + t * calls.size() / kThreads) % calls.size();
                together[t][k] = calls[k]();
            }
        });
    for (std::thread& th : threads) th.join();
    Imf::setGlobalThreadCount(savedThreads);
    for (std::size_t t = 0; t < kThreads; ++t)
        for (std::size_t k = 0; k < calls.size(); ++k) EXPECT_TRUE(together[t][k] == alone[k]) << "thread " << t << ", call " << k;
}
