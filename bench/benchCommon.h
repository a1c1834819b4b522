// Shared pieces of the benchmark programs: the synthetic test image, a
// zero-copy memory stream for OpenEXR's side of a comparison, peak-memory
// readings, and the median figures the programs print.
#pragma once

#include <malloc.h>

#include <Imath/half.h>
#include <OpenEXR/Iex.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfOutputFile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/exrBuilder.h"

namespace kt::bench {

using Bytes = kt::test::Bytes;

// Four half planes (R, G, B, A) of a width x height image: smooth gradients
// with a little deterministic noise, as a rendered frame might look.
struct SyntheticImage {
    int width = 0;
    int height = 0;
    std::vector<half> planes[4];
};

inline SyntheticImage syntheticImage(int width, int height)
{
    SyntheticImage image;
    image.width = width;
    image.height = height;
    for (auto& plane : image.planes) plane.resize(static_cast<std::size_t>(width) * height);
    std::uint32_t state = 0x9E3779B9u;
    auto noise = [&state] {  // xorshift32, +-1/512
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return (static_cast<float>(state & 0xFFFF) / 65535.0f - 0.5f) / 256.0f;
    };
    for (int y = 0; y < height; ++y) {
        const float v = static_cast<float>(y) / static_cast<float>(height);
        for (int x = 0; x < width; ++x) {
            const float u = static_cast<float>(x) / static_cast<float>(width);
            const std::size_t i = static_cast<std::size_t>(y) * width + x;
            image.planes[0][i] = 1.4f * u + noise();
            image.planes[1][i] = 0.2f + 0.7f * v + noise();
            image.planes[2][i] = 0.5f + 0.45f * std::sin(6.0f * u + 3.0f * v) + noise();
            image.planes[3][i] = 1.0f - 0.25f * u * v;
        }
    }
    return image;
}

// The image as an EXR file of half R, G, B, A channels.
inline Bytes exrFile(const SyntheticImage& image, Imf::Compression compression)
{
    Imf::Header header(image.width, image.height);
    header.compression() = compression;
    const char* names[4] = {"R", "G", "B", "A"};
    Imf::FrameBuffer frame;
    for (int c = 0; c < 4; ++c) {
        header.channels().insert(names[c], Imf::Channel(Imf::HALF));
        char* base = const_cast<char*>(reinterpret_cast<const char*>(image.planes[c].data()));
        frame.insert(names[c], Imf::Slice(Imf::HALF, base, sizeof(half), sizeof(half) * std::size_t(image.width)));
    }
    kt::test::MemoryOStream out;
    {
        Imf::OutputFile file(out, header);
        file.setFrameBuffer(frame);
        file.writePixels(image.height);
    }
    return out.bytes();
}

// OpenEXR's side of a comparison: zero-copy reading from memory, as the
// plug-in's own stream does.
class MappedMemoryStream : public Imf::IStream {
public:
    explicit MappedMemoryStream(const Bytes& bytes) : Imf::IStream("memory"), data(bytes) {}
    bool isMemoryMapped() const override { return true; }
    char* readMemoryMapped(int n) override
    {
        if (n < 0 || position + static_cast<std::size_t>(n) > data.size()) throw IEX_NAMESPACE::InputExc("end of data");
        char* p = const_cast<char*>(data.data()) + position;
        position += static_cast<std::size_t>(n);
        return p;
    }
    bool read(char dst[], int n) override
    {
        std::memcpy(dst, readMemoryMapped(n), static_cast<std::size_t>(n));
        return position < data.size();
    }
    uint64_t tellg() override { return position; }
    void seekg(uint64_t pos) override { position = static_cast<std::size_t>(pos); }

private:
    const Bytes& data;
    std::size_t position = 0;
};

// ---- memory ----------------------------------------------------------------

// A value in kB from /proc/self/status ("VmRSS", "VmHWM"), or -1.
inline long statusKb(const char* field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string key = std::string(field) + ":";
    while (std::getline(status, line))
        if (line.compare(0, key.size(), key) == 0) return std::stol(line.substr(key.size()));
    return -1;
}

// How far the resident set grows above where it stood while `work` runs,
// in MiB: freed memory is handed back first and the high-water mark reset.
// -1 where the system offers no reset.
inline double peakGrowthMiB(const std::function<void()>& work)
{
    malloc_trim(0);
    std::ofstream reset("/proc/self/clear_refs");
    reset << "5";
    reset.close();
    if (!reset) return -1;
    const long before = statusKb("VmRSS");
    work();
    const long peak = statusKb("VmHWM");
    return before < 0 || peak < 0 ? -1 : static_cast<double>(peak - before) / 1024.0;
}

// ---- timing ----------------------------------------------------------------

inline double secondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values)
{
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace kt::bench
