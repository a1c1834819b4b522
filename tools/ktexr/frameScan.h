// Reading every chunk of every part of an EXR file with OpenEXR itself, to
// say whether a frame is whole and what its channels hold. Used by verify
// and stats; never through the plug-in, which sees only RGBA of one part.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <OpenEXR/ImfPixelType.h>
#include <Imath/ImathBox.h>

namespace ktexr {

// What a frame on disk is, from best to worst as the farm sees it.
enum class FrameState { ok, missing, notExr, truncated, damaged };

// "ok", "missing", "not EXR", "truncated", "damaged".
const char* frameStateName(FrameState state);

// Sample statistics of one channel over its data window (level 0 of a
// tiled part). 32-bit integer samples are counted as floats.
struct ChannelStats {
    std::string name;
    Imf::PixelType type = Imf::HALF;
    int xSampling = 1;
    int ySampling = 1;
    long long samples = 0;
    long long nan = 0;
    long long inf = 0;
    long long negative = 0;   // below zero, -Inf included
    long long nonZero = 0;    // NaN counts as non-zero
    double min = 0.0;         // finite samples only; 0 when there is none
    double max = 0.0;
    double sum = 0.0;         // of the finite samples
    long long finite = 0;

    double mean() const { return finite > 0 ? sum / static_cast<double>(finite) : 0.0; }
    void add(float value);
    void merge(const ChannelStats& other);
};

struct PartScan {
    std::string name;             // "" when the part has none
    Imath::Box2i displayWindow;
    Imath::Box2i dataWindow;
    bool tiled = false;
    bool deep = false;            // sample counts are read; values are not counted
    std::string compression;
    int chunks = 0;               // chunks the part should have
    int badChunks = 0;            // chunks that could not be decoded
    std::vector<ChannelStats> channels;
};

struct FrameScan {
    std::string path;
    std::optional<long long> frame;
    FrameState state = FrameState::ok;
    std::string message;          // why the state is not ok
    unsigned long long fileSize = 0;
    std::vector<PartScan> parts;

    // Every sample of every channel of every part is zero.
    bool empty() const;
    bool hasNanOrInf() const;
};

// Reads the file at `path` chunk by chunk; never throws for a bad file (the
// state and message say what is wrong). With `statistics` false the samples
// are decoded but not counted.
FrameScan scanFrame(const std::string& path, bool statistics = true);

}  // namespace ktexr
