// ktexr diff: two EXR files (or two sequences, frame by frame) compared part
// by part and channel by channel over the union of their data windows,
// samples outside a data window counting as zero, as oiiotool --diff does.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <fstream>
#include <optional>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartInputFile.h>
#include <OpenEXR/ImfPartType.h>
#include <nlohmann/json.hpp>

#include "exrBands.h"
#include "farmCommands.h"
#include "frameSequence.h"

namespace ktexr {

namespace {

using Json = nlohmann::ordered_json;

struct Difference {
    long long samples = 0;
    long long overWarn = 0;
    long long overFail = 0;
    double sumError = 0.0;
    double sumSquares = 0.0;
    double worst = 0.0;
    std::string worstPart;
    std::string worstChannel;
    int worstX = 0;
    int worstY = 0;
    double worstA = 0.0;
    double worstB = 0.0;
    std::vector<std::string> structure;  // how the files differ in parts and channels
};

// |a - b|, with NaN equal only to NaN and infinities only to themselves.
double errorOf(float a, float b)
{
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b) ? 0.0 : HUGE_VAL;
    if (a == b) return 0.0;
    return std::fabs(static_cast<double>(a) - static_cast<double>(b));
}

// One part's band readers over the union window.
struct PartReader {
    Imf::InputPart part;
    Imath::Box2i window;
    ChannelBand band;
    PartReader(Imf::MultiPartInputFile& file, int index)
        : part(file, index), window(file.header(index).dataWindow()),
          band(file.header(index).channels(), window.min.x, window.max.x)
    {
    }
    // Reads lines y0..y1 where they meet the data window; false if none do.
    bool read(int y0, int y1)
    {
        const int a = std::max(y0, window.min.y), b = std::min(y1, window.max.y);
        if (a > b) return false;
        band.attach(part, a, b);
        part.readPixels(a, b);
        return true;
    }
    float at(std::size_t c, const Imf::Channel& channel, int x, int y, bool bandRead) const
    {
        if (!bandRead || x < window.min.x || x > window.max.x || y < window.min.y || y > window.max.y) return 0.0f;
        (void)channel;
        return band.at(c, x, y);
    }
};

std::string partLabel(const Imf::Header& h, int index)
{
    return h.hasName() ? h.name() : std::to_string(index);
}

void comparePart(Imf::MultiPartInputFile& fa, Imf::MultiPartInputFile& fb, int index, const DiffOptions& options,
                 Difference& d)
{
    const Imf::Header& ha = fa.header(index);
    const Imf::Header& hb = fb.header(index);
    const std::string label = partLabel(ha, index);
    if (ha.displayWindow() != hb.displayWindow())
        d.structure.push_back("part " + label + ": the display windows differ");
    // Channels in A's order; each must be in B with the same sampling.
    std::vector<std::pair<std::size_t, std::size_t>> pairs;  // indexes into A's and B's channel lists
    std::vector<Imf::Channel> sampling;
    std::vector<std::string> names;
    std::size_t ia = 0;
    for (auto c = ha.channels().begin(); c != ha.channels().end(); ++c, ++ia) {
        const Imf::Channel* other = hb.channels().findChannel(c.name());
        if (!other) {
            d.structure.push_back("part " + label + ": channel " + c.name() + " is only in the first file");
            continue;
        }
        if (other->xSampling != c.channel().xSampling || other->ySampling != c.channel().ySampling) {
            d.structure.push_back("part " + label + ": channel " + c.name() + " is sampled differently");
            continue;
        }
        std::size_t ib = 0;
        for (auto o = hb.channels().begin(); o != hb.channels().end() && o.name() != std::string(c.name()); ++o) ++ib;
        pairs.emplace_back(ia, ib);
        sampling.push_back(c.channel());
        names.push_back(c.name());
    }
    for (auto c = hb.channels().begin(); c != hb.channels().end(); ++c)
        if (!ha.channels().findChannel(c.name()))
            d.structure.push_back("part " + label + ": channel " + c.name() + " is only in the second file");
    if (ha.hasType() && Imf::isDeepData(ha.type())) {
        d.structure.push_back("part " + label + ": deep data is not compared");
        return;
    }
    PartReader a(fa, index), b(fb, index);
    Imath::Box2i all = a.window;
    all.extendBy(b.window);
    const int lines = std::max(1, bandHeight(ha, linesPerChunk(ha.compression())));
    for (int y0 = all.min.y; y0 <= all.max.y; y0 += lines) {
        const int y1 = std::min(all.max.y, y0 + lines - 1);
        const bool ra = a.read(y0, y1), rb = b.read(y0, y1);
        for (std::size_t k = 0; k < pairs.size(); ++k) {
            const Imf::Channel& ch = sampling[k];
            for (int y = ceilDiv(y0, ch.ySampling) * ch.ySampling; y <= y1; y += ch.ySampling)
                for (int x = ceilDiv(all.min.x, ch.xSampling) * ch.xSampling; x <= all.max.x; x += ch.xSampling) {
                    const float va = a.at(pairs[k].first, ch, x, y, ra);
                    const float vb = b.at(pairs[k].second, ch, x, y, rb);
                    const double e = errorOf(va, vb);
                    ++d.samples;
                    if (std::isfinite(e)) {
                        d.sumError += e;
                        d.sumSquares += e * e;
                    }
                    if (e > options.warn) ++d.overWarn;
                    if (e > options.fail) ++d.overFail;
                    if (e > d.worst) {
                        d.worst = e;
                        d.worstPart = label;
                        d.worstChannel = names[k];
                        d.worstX = x;
                        d.worstY = y;
                        d.worstA = va;
                        d.worstB = vb;
                    }
                }
        }
    }
}

Difference compareFiles(const std::string& first, const std::string& second, const DiffOptions& options)
{
    Difference d;
    try {
        Imf::MultiPartInputFile fa(first.c_str());
        try {
            Imf::MultiPartInputFile fb(second.c_str());
            if (fa.parts() != fb.parts())
                d.structure.push_back(std::to_string(fa.parts()) + " parts against " + std::to_string(fb.parts()));
            for (int index = 0; index < std::min(fa.parts(), fb.parts()); ++index)
                comparePart(fa, fb, index, options, d);
        } catch (const std::exception& e) {
            throw Failure(exitIncomplete, second, e.what());
        }
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& e) {
        throw Failure(exitIncomplete, first, e.what());
    }
    return d;
}

int verdictOf(const Difference& d)
{
    if (!d.structure.empty() || d.overFail > 0) return exitDiffFail;
    if (d.overWarn > 0) return exitDiffWarn;
    return exitOk;
}

const char* verdictText(int verdict)
{
    return verdict == exitOk ? "PASS" : verdict == exitDiffWarn ? "WARNING" : "FAILURE";
}

void printDifference(const std::string& first, const std::string& second, const Difference& d, int verdict,
                     const DiffOptions& options)
{
    const double n = d.samples > 0 ? static_cast<double>(d.samples) : 1.0;
    if (options.json) {
        Json j{{"type", "diff"},
               {"first", first},
               {"second", second},
               {"result", verdictText(verdict)},
               {"samples", d.samples},
               {"meanError", d.sumError / n},
               {"rmsError", std::sqrt(d.sumSquares / n)},
               {"maxError", std::isfinite(d.worst) ? Json(d.worst) : Json("inf")},
               {"overWarn", d.overWarn},
               {"overFail", d.overFail},
               {"structure", d.structure}};
        if (d.worst > 0)
            j["worst"] = {{"part", d.worstPart}, {"channel", d.worstChannel}, {"x", d.worstX}, {"y", d.worstY},
                          {"first", std::isfinite(d.worstA) ? Json(d.worstA) : Json(std::to_string(d.worstA))},
                          {"second", std::isfinite(d.worstB) ? Json(d.worstB) : Json(std::to_string(d.worstB))}};
        std::printf("%s\n", j.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
        return;
    }
    std::printf("%s vs %s: %s\n", first.c_str(), second.c_str(), verdictText(verdict));
    for (const std::string& s : d.structure) std::printf("  %s\n", s.c_str());
    std::printf("  %lld samples compared, mean error %.6g, RMS error %.6g, %lld over --warn %g, %lld over --fail %g\n",
                d.samples, d.sumError / n, std::sqrt(d.sumSquares / n), d.overWarn, options.warn, d.overFail,
                options.fail);
    if (d.worst > 0)
        std::printf("  worst: %.6g at part %s channel %s pixel (%d, %d): %.9g vs %.9g\n", d.worst, d.worstPart.c_str(),
                    d.worstChannel.c_str(), d.worstX, d.worstY, d.worstA, d.worstB);
}

}  // namespace

int runDiff(const DiffOptions& options)
{
    try {
        std::vector<std::pair<std::string, std::string>> pairs;
        const auto pa = SequencePattern::find(options.first);
        const auto pb = SequencePattern::find(options.second);
        if (pa.has_value() != pb.has_value())
            throw Failure(exitUsage, "", "diff compares two files or two sequences, not a file with a sequence");
        if (pa) {
            const std::vector<FrameFile> frames = expandSequences({options.first}, options.frames);
            for (const FrameFile& f : frames) pairs.emplace_back(f.path, pb->path(f.frame.value_or(0)));
        } else {
            if (!options.frames.empty()) throw Failure(exitUsage, "", "--frames needs two sequences");
            pairs.emplace_back(options.first, options.second);
        }
        int worst = exitOk;
        StatusKeeper problems;
        for (const auto& [first, second] : pairs) {
            try {
                for (const std::string& path : {first, second})
                    if (!std::ifstream(path)) throw Failure(exitUnreadable, path, "missing or unreadable");
                const Difference d = compareFiles(first, second, options);
                const int verdict = verdictOf(d);
                worst = std::max(worst, verdict);
                if (!options.quiet || verdict != exitOk) printDifference(first, second, d, verdict, options);
            } catch (const Failure& failure) {
                problems.note(report(failure));
            }
            std::fflush(stdout);
        }
        return problems.result() != exitOk ? problems.result() : worst;
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
