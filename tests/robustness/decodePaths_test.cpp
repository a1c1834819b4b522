// The decoders' quick reader against OpenEXR's C++ reader: for every file the
// builder makes (valid, cut short, damaged) and every real-world file, the
// same status, the same infoText and the same bytes in the buffer, at every
// depth and with 0, 1 and 2 worker threads.
#include <gtest/gtest.h>

#include <OpenEXR/ImfThreading.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrChunkReader.h"
#include "plugin/ktImageExr.h"
#include "tests/robustness/sampleFiles.h"

using namespace kt::test;
using kt::robust::SampleFile;
using kt::robust::sampleFiles;

namespace {

struct Outcome {
    int status = 0;
    std::string infoText;
    std::vector<unsigned char> pixels;
};

// One decode into a buffer of the display window's size (32 x 32 when the
// header cannot be read), from a buffer that ends at an inaccessible page.
Outcome decodeOnce(int depth, const Bytes& file, long long sizeLoaded, bool gamma)
{
    int width = 32, height = 32;
    try {
        const Imath::Box2i d = readExr(file, 0, false).header.displayWindow();
        const long long w = 1LL + d.max.x - d.min.x, h = 1LL + d.max.y - d.min.y;
        if (w > 0 && h > 0 && w * h <= (1LL << 23)) width = static_cast<int>(w), height = static_cast<int>(h);
    } catch (...) {
    }
    GuardPagedFileBuffer buffer(file, sizeLoaded);
    auto run = [&](auto&& image, int (*decoder)(imgCallRecord*)) {
        image.setWidth(width);
        image.setHeight(height);
        image.pixelFlags = gamma ? 1 : 0;
        // A refused file leaves the buffer as it was: the same bytes both ways.
        std::memset(image.pixels, 0x5A, std::size_t(image.maxPixels) * std::size_t(image.bytesPerPixel));
        imgCallRecord call{buffer.get(), &image, nullptr, nullptr};
        Outcome o;
        o.status = decoder(&call);
        o.infoText = textOf(image.imageInfo.infoText);
        const auto* first = reinterpret_cast<const unsigned char*>(image.pixels);
        o.pixels.assign(first, first + std::size_t(image.maxPixels) * std::size_t(image.bytesPerPixel));
        return o;
    };
    const auto pixels = static_cast<unsigned>(width * height);
    if (depth == 8) return run(ktP::_imgRGBABuffer8(pixels), imgDecode8);
    if (depth == 16) return run(ktP::_imgRGBABuffer16(pixels), imgDecode16);
    return run(ktP::_imgRGBABufferf(pixels), imgDecodef);
}

// Files in the four compressions the quick reader takes, shaped to reach its
// corners: several chunks with a short last one, windows across the display
// window, mixed channel types, decreasing line order, and noise that
// compresses so badly that chunks are stored as they are.
std::vector<SampleFile> quickPathFiles()
{
    std::vector<SampleFile> files;
    int n = 0;
    for (const Imf::Compression compression :
         {Imf::NO_COMPRESSION, Imf::RLE_COMPRESSION, Imf::ZIPS_COMPRESSION, Imf::ZIP_COMPRESSION}) {
        for (int shape = 0; shape < 3; ++shape, ++n) {
            ExrPart part;
            part.compression = compression;
            part.displayWindow = box(0, 0, 40, 36);
            if (shape == 0) part.dataWindow = box(-5, 3, 44, 39);
            if (shape == 1) {
                part.channels = {{"A", Imf::FLOAT}, {"B"}, {"G", Imf::UINT}, {"R"}, {"Z", Imf::FLOAT}};
                part.lineOrder = Imf::DECREASING_Y;
            }
            if (shape == 2) {
                auto random = std::make_shared<std::mt19937>(static_cast<unsigned>(n));
                part.value = [random](const std::string&, int, int) {
                    return std::uniform_real_distribution<double>(-4.0, 4.0)(*random);
                };
            }
            files.push_back({"quick " + std::to_string(int(compression)) + "/" + std::to_string(shape), makeExr(part)});
        }
    }
    return files;
}

struct Variant {
    std::string name;
    Bytes bytes;
    long long sizeLoaded = kWhole;
};

// The file itself, cut inside its pixel data (as all there is, and as the
// loaded head of the whole file), and with single bytes of its offset table
// and its chunks changed.
std::vector<Variant> variantsOf(const SampleFile& sample)
{
    const Bytes& file = sample.bytes;
    std::vector<Variant> out{{sample.name, file}};
    const std::size_t table = headerEnd(file), data = offsetTableEnd(file);
    if (data >= file.size()) return out;
    for (int k = 1; k <= 3; ++k) {
        const std::size_t cut = data + (file.size() - data) * k / 4;
        out.push_back({sample.name + " cut at " + std::to_string(cut), truncated(file, cut)});
        out.push_back({sample.name + " loaded up to " + std::to_string(cut), file, static_cast<long long>(cut)});
    }
    std::vector<std::size_t> spots{table + 1, table + 5};
    for (int k = 0; k < 6; ++k) spots.push_back(data + (file.size() - data) * (2 * k + 1) / 12);
    for (const std::uint64_t chunk : chunkOffsets(file))
        if (chunk + 5 < file.size()) spots.push_back(chunk + 5);  // a stored size
    for (const std::size_t at : spots) {
        if (at >= file.size()) continue;
        const auto flipped = static_cast<unsigned char>(static_cast<unsigned char>(file[at]) ^ 0x5A);
        out.push_back({sample.name + " byte " + std::to_string(at), patched(file, at, {flipped})});
    }
    return out;
}

class DecodePaths : public ::testing::Test {
protected:
    void TearDown() override
    {
        kt::exrForceReferencePath(false);
        Imf::setGlobalThreadCount(savedThreads);
    }

    // Both ways, every depth, 0 to 2 threads; the file loaded whole and, for
    // a partial load, only its first `sizeLoaded` bytes.
    void compare(const std::string& name, const Bytes& file, long long sizeLoaded = kWhole)
    {
        SCOPED_TRACE(name);
        for (int threads = 0; threads <= 2; ++threads) {
            Imf::setGlobalThreadCount(threads);
            for (const int depth : {8, 16, 32}) {
                const bool gamma = depth == 8;
                kt::exrForceReferencePath(true);
                const Outcome reference = decodeOnce(depth, file, sizeLoaded, gamma);
                kt::exrForceReferencePath(false);
                const Outcome quick = decodeOnce(depth, file, sizeLoaded, gamma);
                ++decodes;
                if (reference.status == 1) ++readable;
                EXPECT_EQ(quick.status, reference.status) << "depth " << depth << ", threads " << threads;
                EXPECT_EQ(quick.infoText, reference.infoText) << "depth " << depth << ", threads " << threads;
                if (quick.pixels != reference.pixels && differing++ < 5)
                    ADD_FAILURE() << "pixels differ at depth " << depth << ", threads " << threads;
            }
        }
    }

    int savedThreads = Imf::globalThreadCount();
    int decodes = 0, readable = 0, differing = 0;
};

TEST_F(DecodePaths, BuilderFilesWholeCutAndDamagedGiveTheSameResults)
{
    const std::uint64_t quickBefore = kt::exrQuickReadCount();
    std::vector<SampleFile> samples = sampleFiles();
    for (SampleFile& file : quickPathFiles()) samples.push_back(std::move(file));
    for (const SampleFile& sample : samples)
        for (const Variant& v : variantsOf(sample)) compare(v.name, v.bytes, v.sizeLoaded);
    const std::uint64_t quick = kt::exrQuickReadCount() - quickBefore;
    // Every valid file of the four compressions (12 made here, more in the samples) went the quick way.
    EXPECT_GE(quick, 12u * 9u);
    std::printf("[ figures  ] decode paths: %d decodes each way, %d succeeded, %llu the quick way\n", decodes,
                readable, static_cast<unsigned long long>(quick));
}

TEST_F(DecodePaths, RealWorldFilesGiveTheSameResults)
{
    if (corpusDirectory().empty()) GTEST_SKIP() << "no real-world EXR corpus beside the checkout";
    const std::uint64_t quickBefore = kt::exrQuickReadCount();
    int files = 0;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"})
        for (const std::string& path : corpusFiles(folder)) {
            compare(path, readFileBytes(path));
            ++files;
        }
    // The damaged ones are named as their finders left them, mostly without ".exr".
    for (const auto& entry : std::filesystem::directory_iterator(corpusDirectory() + "/Damaged")) {
        if (!entry.is_regular_file() || entry.path().extension() == ".rst") continue;
        compare(entry.path().string(), readFileBytes(entry.path().string()));
        ++files;
    }
    EXPECT_GT(kt::exrQuickReadCount(), quickBefore);
    std::printf("[ figures  ] decode paths: %d real-world files, %d decodes each way, %llu the quick way\n", files,
                decodes, static_cast<unsigned long long>(kt::exrQuickReadCount() - quickBefore));
}

}  // namespace
