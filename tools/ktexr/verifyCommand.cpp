// ktexr verify and ktexr stats: every chunk of every part of every frame
// decoded with OpenEXR; verify says per frame whether it is whole, stats
// what its channels hold. Frames are read on --jobs threads and reported
// in the order given.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>

#include "batchRun.h"
#include "farmCommands.h"
#include "frameScan.h"
#include "frameSequence.h"

namespace ktexr {

namespace {

using Json = nlohmann::ordered_json;

const char* typeName(Imf::PixelType type)
{
    return type == Imf::HALF ? "half" : type == Imf::FLOAT ? "float" : "uint";
}

// JSON has no NaN or infinity; a channel without finite samples has null.
Json number(double value, bool present) { return present ? Json(value) : Json(nullptr); }

Json channelJson(const ChannelStats& c, bool values)
{
    Json j{{"name", c.name}, {"type", typeName(c.type)}, {"samples", c.samples}, {"nan", c.nan}, {"inf", c.inf},
           {"negative", c.negative}};
    if (values) {
        j["min"] = number(c.min, c.finite > 0);
        j["max"] = number(c.max, c.finite > 0);
        j["mean"] = number(c.mean(), c.finite > 0);
        j["nonZero"] = c.nonZero;
    }
    return j;
}

Json frameJson(const FrameScan& scan, bool values)
{
    Json j{{"type", "frame"}, {"file", scan.path}};
    j["frame"] = scan.frame ? Json(*scan.frame) : Json(nullptr);
    j["status"] = frameStateName(scan.state);
    if (!scan.message.empty()) j["message"] = scan.message;
    if (scan.state != FrameState::ok) return j;
    j["empty"] = scan.empty();
    Json parts = Json::array();
    for (const PartScan& part : scan.parts) {
        Json p{{"name", part.name},
               {"dataWindow", {part.dataWindow.min.x, part.dataWindow.min.y, part.dataWindow.max.x, part.dataWindow.max.y}},
               {"displayWindow",
                {part.displayWindow.min.x, part.displayWindow.min.y, part.displayWindow.max.x, part.displayWindow.max.y}},
               {"storage", part.deep ? (part.tiled ? "deeptile" : "deepscanline") : part.tiled ? "tiled" : "scanline"},
               {"compression", part.compression}};
        Json channels = Json::array();
        if (!part.deep)
            for (const ChannelStats& c : part.channels) channels.push_back(channelJson(c, values));
        p["channels"] = channels;
        parts.push_back(p);
    }
    j["parts"] = parts;
    return j;
}

// The frame states as the summary's keys.
constexpr std::pair<const char*, const char*> kStates[] = {
    {"ok", "ok"}, {"missing", "missing"}, {"not EXR", "notExr"}, {"truncated", "truncated"}, {"damaged", "damaged"}};

// The summary of frame lines, whether read now or merged from farm tasks.
Json summaryOf(const std::vector<Json>& frames)
{
    std::map<std::string, long long> counts;
    long long empty = 0;
    long long nanOrInf = 0;
    std::vector<long long> missingFrames;
    for (const Json& f : frames) {
        const std::string status = f.value("status", "damaged");
        ++counts[status];
        if (f.value("empty", false)) ++empty;
        if (status == "missing" && f["frame"].is_number_integer()) missingFrames.push_back(f["frame"].get<long long>());
        for (const Json& p : f.value("parts", Json::array()))
            for (const Json& c : p.value("channels", Json::array()))
                if (c.value("nan", 0LL) > 0 || c.value("inf", 0LL) > 0) {
                    ++nanOrInf;
                    goto nextFrame;
                }
    nextFrame:;
    }
    Json s{{"type", "summary"}, {"frames", frames.size()}};
    for (const auto& [state, key] : kStates) s[key] = counts[state];
    s["empty"] = empty;
    s["nanOrInf"] = nanOrInf;
    std::sort(missingFrames.begin(), missingFrames.end());
    s["missingFrames"] = missingFrames;
    return s;
}

int exitOfSummary(const Json& s)
{
    if (s["damaged"].get<long long>() > 0) return exitDamaged;
    if (s["truncated"].get<long long>() > 0) return exitIncomplete;
    if (s["notExr"].get<long long>() > 0) return exitNotExr;
    if (s["missing"].get<long long>() > 0) return exitUnreadable;
    return exitOk;
}

void printFrameText(const Json& f)
{
    std::string line = f["file"].get<std::string>() + ": " + f["status"].get<std::string>();
    if (f.contains("message")) line += " (" + f["message"].get<std::string>() + ")";
    if (f.value("empty", false)) line += ", entirely empty";
    std::printf("%s\n", line.c_str());
    for (const Json& p : f.value("parts", Json::array()))
        for (const Json& c : p["channels"]) {
            const long long nan = c["nan"], inf = c["inf"], negative = c["negative"];
            if (nan == 0 && inf == 0 && negative == 0) continue;
            std::printf("  %s%s: %lld NaN, %lld Inf, %lld negative\n",
                        p["name"].get<std::string>().empty() ? "" : (p["name"].get<std::string>() + ".").c_str(),
                        c["name"].get<std::string>().c_str(), nan, inf, negative);
        }
}

void printSummaryText(const Json& s)
{
    std::printf("%lld frames: %lld ok, %lld missing, %lld not EXR, %lld truncated, %lld damaged; %lld entirely "
                "empty, %lld with NaN or Inf\n",
                s["frames"].get<long long>(), s["ok"].get<long long>(), s["missing"].get<long long>(),
                s["notExr"].get<long long>(), s["truncated"].get<long long>(), s["damaged"].get<long long>(),
                s["empty"].get<long long>(), s["nanOrInf"].get<long long>());
    if (!s["missingFrames"].empty())
        std::printf("missing frames: %s\n", frameListText(s["missingFrames"].get<std::vector<long long>>()).c_str());
}

std::vector<Json> readReports(const std::vector<std::string>& reports)
{
    std::vector<Json> frames;
    for (const std::string& path : reports) {
        std::ifstream in(path);
        if (!in) throw Failure(exitUnreadable, path, "cannot be read");
        std::string line;
        for (int number = 1; std::getline(in, line); ++number) {
            if (line.empty()) continue;
            Json j = Json::parse(line, nullptr, false);
            if (j.is_discarded() || !j.is_object())
                throw Failure(exitUsage, path, "line " + std::to_string(number) + " is not a JSON object");
            if (j.value("type", "") == "frame") frames.push_back(std::move(j));
        }
    }
    // Farm tasks finish in any order; the report lists frames as the shot does.
    std::stable_sort(frames.begin(), frames.end(), [](const Json& a, const Json& b) {
        const bool af = a["frame"].is_number_integer(), bf = b["frame"].is_number_integer();
        if (af != bf) return af;
        return af && a["frame"].get<long long>() < b["frame"].get<long long>();
    });
    return frames;
}

// Reads every frame on --jobs threads and hands each one's JSON line to
// `emit` in input order.
void scanAll(const BatchOptions& options, bool values, const std::function<void(const Json&)>& emit)
{
    const std::vector<FrameFile> files = expandSequences(options.files, options.frames);
    std::vector<Json> results(files.size());
    Progress progress(files.size(), "frames", options.quiet);
    runInOrder(
        files.size(), options.jobs ? options.jobs : defaultJobs(),
        [&](std::size_t i) {
            FrameScan scan = files[i].exists ? scanFrame(files[i].path) : FrameScan{};
            if (!files[i].exists) {
                scan.path = files[i].path;
                scan.state = FrameState::missing;
                scan.message = "no such file";
            }
            scan.frame = files[i].frame;
            results[i] = frameJson(scan, values);
        },
        [&](std::size_t i) {
            progress.finish();
            emit(results[i]);
            results[i] = Json();
            progress.advance();
        });
    progress.finish();
}

}  // namespace

int runVerify(const VerifyOptions& options)
{
    try {
        std::vector<Json> frames;
        auto emit = [&](const Json& f) {
            if (options.json)
                std::printf("%s\n", f.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
            else
                printFrameText(f);
            std::fflush(stdout);
            frames.push_back(f);
        };
        if (!options.merge.empty())
            for (const Json& f : readReports(options.merge)) emit(f);
        else
            scanAll(options, false, emit);
        const Json summary = summaryOf(frames);
        if (options.json)
            std::printf("%s\n", summary.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
        else
            printSummaryText(summary);
        return exitOfSummary(summary);
    } catch (const Failure& failure) {
        return report(failure);
    }
}

int runStats(const BatchOptions& options)
{
    try {
        StatusKeeper status;
        scanAll(options, true, [&](const Json& f) {
            if (f["status"] != "ok") {
                status.note(f["status"] == "missing" ? exitUnreadable
                            : f["status"] == "not EXR" ? exitNotExr
                                                       : exitIncomplete);
            }
            if (options.json) {
                std::printf("%s\n", f.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
                return;
            }
            if (f["status"] != "ok") {
                std::fprintf(stderr, "ktexr: %s: %s (%s)\n", f["file"].get<std::string>().c_str(),
                             f["status"].get<std::string>().c_str(), f.value("message", "").c_str());
                return;
            }
            std::printf("%s\n", f["file"].get<std::string>().c_str());
            for (const Json& p : f["parts"]) {
                const auto& w = p["dataWindow"];
                std::printf("  part \"%s\", %s, %s, data window (%d,%d)-(%d,%d)\n", p["name"].get<std::string>().c_str(),
                            p["storage"].get<std::string>().c_str(), p["compression"].get<std::string>().c_str(),
                            w[0].get<int>(), w[1].get<int>(), w[2].get<int>(), w[3].get<int>());
                std::printf("    %-24s %-5s %14s %14s %14s %10s %10s %10s\n", "channel", "type", "min", "max", "mean",
                            "NaN", "Inf", "negative");
                auto show = [](const Json& v) {
                    char text[32];
                    if (v.is_null()) return std::string("-");
                    std::snprintf(text, sizeof text, "%.6g", v.get<double>());
                    return std::string(text);
                };
                for (const Json& c : p["channels"])
                    std::printf("    %-24s %-5s %14s %14s %14s %10lld %10lld %10lld\n",
                                c["name"].get<std::string>().c_str(), c["type"].get<std::string>().c_str(),
                                show(c["min"]).c_str(), show(c["max"]).c_str(), show(c["mean"]).c_str(),
                                c["nan"].get<long long>(), c["inf"].get<long long>(), c["negative"].get<long long>());
            }
            std::fflush(stdout);
        });
        return status.result();
    } catch (const Failure& failure) {
        return report(failure);
    }
}

}  // namespace ktexr
