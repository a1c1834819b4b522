// Header loads, decodes and encodes on different records from several
// threads at once, while OpenEXR runs worker threads of its own: every
// result equals that of the same call made alone. Built with
// ThreadSanitizer, `ctest -L concurrency` also checks that no two threads
// touch the same memory unordered.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <cstdint>
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
#include "tests/support/exrBuilder.h"

using namespace kt::test;
using namespace kt::robust;

namespace {

std::uint64_t fnv1a(const void* data, std::size_t size, std::uint64_t hash = 14695981039346656037ull)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 1099511628211ull;
    return hash;
}

// What one call leaves behind, reduced to comparable numbers.
struct Outcome {
    int code = 0;
    std::uint64_t digest = 0;
    bool operator==(const Outcome& o) const { return code == o.code && digest == o.digest; }
};

Outcome loadHeaderOf(const Bytes& file)
{
    auto buffer = fileBufferWith(file);
    auto info = std::make_unique<imgImageInfo>();
    auto metadata = std::make_unique<ktExrHeaderData>();
    imgCallRecord call{buffer.get(), info.get(), metadata.get(), nullptr};
    Outcome out;
    out.code = imgLoadHeader(&call);
    out.digest = fnv1a(metadata.get(), sizeof *metadata, fnv1a(info.get(), sizeof *info));
    return out;
}

template <class Buffer>
Outcome decodeInto(int (*decoder)(imgCallRecord*), const Bytes& file, bool gamma)
{
    auto buffer = fileBufferWith(file);
    Buffer image(40 * 24);
    image.setWidth(40);
    image.setHeight(24);
    image.pixelFlags = gamma ? 1 : 0;
    imgCallRecord call{buffer.get(), &image, nullptr, nullptr};
    Outcome out;
    out.code = decoder(&call);
    out.digest = fnv1a(image.pixels, static_cast<std::size_t>(image.bytesPerPixel) * image.maxPixels,
                       fnv1a(image.imageInfo.infoText.text, sizeof image.imageInfo.infoText.text));
    return out;
}

// The file's bytes with the moment of writing blanked: the only part of an
// encoded file that depends on when it was made.
std::uint64_t digestOfEncoded(const ktP::_imgFileBuffer& file)
{
    Bytes bytes(file.buffer, file.buffer + file.sizeLoaded);
    const std::string name("KT/dateWritten\0string\0", 22);
    const std::size_t at = findBytes(bytes, name);
    if (at != std::string::npos) {
        const std::size_t value = at + name.size() + 4;
        const std::size_t length = static_cast<unsigned char>(bytes.at(value - 4));
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(value),
                  bytes.begin() + static_cast<std::ptrdiff_t>(value + length), '\0');
    }
    return fnv1a(bytes.data(), bytes.size());
}

template <class Buffer>
Outcome encodeFrom(int (*encoder)(imgCallRecord*), const ktExrHeaderData& metadata, int seed)
{
    Buffer image(64 * 48);
    image.setWidth(64);
    image.setHeight(48);
    // A block of changing values inside an empty border, so that the crop has work to do.
    const std::size_t bytes = static_cast<std::size_t>(image.bytesPerPixel) * image.maxPixels;
    std::memset(image.pixels, 0, bytes);
    const std::size_t perPixel = static_cast<std::size_t>(image.bytesPerPixel);
    for (int y = 10; y < 40; ++y)
        for (int x = 7 + seed; x < 50; ++x)
            for (std::size_t b = 0; b < perPixel; ++b)
                image.pixels[(static_cast<std::size_t>(y) * 64 + static_cast<std::size_t>(x)) * perPixel + b] =
                    static_cast<unsigned char>(perPixel == 16 && b % 4 != 3 ? 0 : (x * 7 + y * 3 + seed + b) & 0x3F);
    auto file = emptyFileBuffer(1 << 20);
    auto data = std::make_unique<ktExrHeaderData>(metadata);
    imgJobSettings settings{};
    settings.appName = "ktClient render";
    std::strcpy(settings.clientName, "client of the test");
    imgCallRecord call{file.get(), &image, data.get(), &settings};
    Outcome out;
    out.code = encoder(&call);
    out.digest = fnv1a(image.pixels, bytes, digestOfEncoded(*file));
    return out;
}

// Every call of the test, each run on its own records.
std::vector<std::function<Outcome()>> allCalls(const std::vector<SampleFile>& files, const ktExrHeaderData& metadata)
{
    std::vector<std::function<Outcome()>> calls;
    for (const SampleFile& f : files) {
        const Bytes* bytes = &f.bytes;
        calls.emplace_back([bytes] { return loadHeaderOf(*bytes); });
        for (const bool gamma : {false, true}) {
            calls.emplace_back([bytes, gamma] { return decodeInto<ktP::_imgRGBABuffer8>(imgDecode8, *bytes, gamma); });
            calls.emplace_back([bytes, gamma] { return decodeInto<ktP::_imgRGBABuffer16>(imgDecode16, *bytes, gamma); });
            calls.emplace_back([bytes, gamma] { return decodeInto<ktP::_imgRGBABufferf>(imgDecodef, *bytes, gamma); });
        }
    }
    const ktExrHeaderData* data = &metadata;
    for (int seed = 0; seed < 3; ++seed) {
        calls.emplace_back([data, seed] { return encodeFrom<ktP::_imgRGBABuffer8>(imgEncode8, *data, seed); });
        calls.emplace_back([data, seed] { return encodeFrom<ktP::_imgRGBABuffer16>(imgEncode16, *data, seed); });
        calls.emplace_back([data, seed] { return encodeFrom<ktP::_imgRGBABufferf>(imgEncodef, *data, seed); });
    }
    return calls;
}

}  // namespace

TEST(Concurrency, CallsOnDifferentRecordsGiveTheResultsTheyGiveAlone)
{
    const std::vector<SampleFile> files = sampleFiles();
    // Render metadata for the encoders, as a header load leaves it.
    auto metadata = std::make_unique<ktExrHeaderData>();
    {
        auto buffer = fileBufferWith(files.front().bytes);
        imgImageInfo info{};
        imgCallRecord call{buffer.get(), &info, metadata.get(), nullptr};
        ASSERT_EQ(imgLoadHeader(&call), 1);
        ASSERT_GT(metadata->count, 0u);
    }
    const auto calls = allCalls(files, *metadata);

    const int savedThreads = Imf::globalThreadCount();
    Imf::setGlobalThreadCount(2);  // OpenEXR's own workers inside the calls too
    std::vector<Outcome> alone;
    for (const auto& call : calls) alone.push_back(call());
    for (const Outcome& o : alone) ASSERT_TRUE(o.code == 1 || o.code == 6) << o.code;

    constexpr int kThreads = 4;
    constexpr int kRounds = 2;
    std::vector<std::vector<Outcome>> together(kThreads, std::vector<Outcome>(calls.size()));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Each thread starts elsewhere in the list, so that different calls overlap.
            for (int round = 0; round < kRounds; ++round)
                for (std::size_t i = 0; i < calls.size(); ++i) {
                    const std::size_t k = (i + static_cast<std::size_t>(t) * calls.size() / kThreads) % calls.size();
                    together[static_cast<std::size_t>(t)][k] = calls[k]();
                }
        });
    for (std::thread& th : threads) th.join();
    Imf::setGlobalThreadCount(savedThreads);

    for (int t = 0; t < kThreads; ++t)
        for (std::size_t k = 0; k < calls.size(); ++k)
            EXPECT_TRUE(together[static_cast<std::size_t>(t)][k] == alone[k]) << "thread " << t << ", call " << k;
}
