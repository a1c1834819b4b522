// Frame sequences, and ktexr verify, stats and diff run as a farm runs them,
// on sequences the test builder writes; what they report is checked against
// what OpenEXR itself reads from the same files.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <numeric>
#include <thread>

#include <OpenEXR/ImfCheckFile.h>
#include <OpenEXR/ImfChromaticitiesAttribute.h>
#include <nlohmann/json.hpp>

#include "batchRun.h"
#include "contactSheet.h"
#include "exitStatus.h"
#include "exrBuilder.h"
#include "fileIo.h"
#include "frameSequence.h"
#include "pngFile.h"
#include "programRun.h"

namespace {

using namespace kt::test;
using Json = nlohmann::json;
using Args = std::vector<std::string>;

std::vector<Json> jsonLines(const std::string& text)
{
    std::vector<Json> lines;
    std::size_t at = 0;
    for (std::size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(Json::parse(text.substr(at, end - at)));
    return lines;
}

// ---- sequences -------------------------------------------------------------

TEST(FrameSequence, PatternsSpellAndRecogniseFrames)
{
    struct Case {
        const char* pattern;
        long long frame;
        const char* path;
        const char* notAFrame;  // a name of the same shape that is not this pattern's spelling
    } cases[] = {
        {"shot.####.exr", 42, "shot.0042.exr", "shot.042.exr"},
        {"r/shot.%04d.exr", 1001, "r/shot.1001.exr", "r/shot.01001.exr"},
        {"shot.@.exr", 7, "shot.7.exr", "shot.07.exr"},
        {"shot.%d.exr", -3, "shot.-3.exr", "shot.x3.exr"},
        {"a#b/shot_@@@.exr", 12345, "a#b/shot_12345.exr", "a#b/shot_.exr"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pattern);
        const auto pattern = ktexr::SequencePattern::find(c.pattern);
        ASSERT_TRUE(pattern.has_value());
        EXPECT_EQ(pattern->path(c.frame), c.path);
        EXPECT_EQ(pattern->frameOf(c.path), c.frame);
        EXPECT_FALSE(pattern->frameOf(c.notAFrame).has_value());
    }
    EXPECT_FALSE(ktexr::SequencePattern::find("dir#1/plain.exr").has_value());
    EXPECT_THROW(ktexr::SequencePattern::find("shot.##.%04d.exr"), ktexr::Failure);
}

TEST(FrameSequence, RangesExpandInOrderOnce)
{
    using Frames = std::vector<long long>;
    const std::pair<const char*, Frames> good[] = {
        {"1001-1005", {1001, 1002, 1003, 1004, 1005}},
        {"1001-1006x2", {1001, 1003, 1005}},
        {"7", {7}},
        {"-2-1", {-2, -1, 0, 1}},
        {"10-12,1,11", {10, 11, 12, 1}},
    };
    for (const auto& [text, frames] : good) EXPECT_EQ(ktexr::parseFrameRange(text), frames) << text;
    for (const char* bad : {"", "1001-", "1005-1001", "1-9x0", "1-9x-2", "a-b", "1,,2", "1-2 ", "+3"})
        EXPECT_THROW(ktexr::parseFrameRange(bad), ktexr::Failure) << bad;
    EXPECT_EQ(ktexr::frameListText({3, 4, 5, 7, 9, 10}), "3-5, 7, 9-10");
}

// ---- verify, stats, diff on a sequence ---------------------------------------

// Frame values: exact in half, negative in places, NaN and Inf where asked.
double frameValue(const std::string& channel, int x, int y)
{
    return ((x * 5 + y * 3 + channel[0]) % 23 - 4) / 8.0;
}

class FarmCommands : public InTestFolder {
protected:
    // A two-part frame (beauty with a NaN and an Inf, and a float AOV part)
    // as the renderer writes it for frame `frame`.
    static std::vector<ExrPart> frameParts(int frame)
    {
        ExrPart beauty;
        beauty.name = "beauty";
        beauty.displayWindow = box(0, 0, 39, 29);
        beauty.value = [frame](const std::string& c, int x, int y) {
            if (c == "R" && x == 3 && y == frame % 7) return std::numeric_limits<double>::quiet_NaN();
            if (c == "G" && x == 5 && y == 2) return std::numeric_limits<double>::infinity();
            return frameValue(c, x + frame, y);
        };
        ExrPart aov;
        aov.name = "aov";
        aov.displayWindow = beauty.displayWindow;
        aov.dataWindow = box(4, 3, 30, 20);
        aov.channels = channelList({"N.x", "N.y", "Z"}, Imf::FLOAT);
        aov.tiled = frame % 2 == 0;
        aov.compression = Imf::PIZ_COMPRESSION;
        aov.value = [frame](const std::string& c, int x, int y) { return frameValue(c, x, y + frame) * 3.0; };
        return {beauty, aov};
    }
};

// Per channel, the counts OpenEXR's own reading of the file gives.
Json expectedCounts(const Bytes& file, int parts)
{
    Json counts = Json::array();
    for (int p = 0; p < parts; ++p) {
        const DecodedExr decoded = readExr(file, p);
        for (const DecodedChannel& c : decoded.channels) {
            long long nan = 0, inf = 0, negative = 0;
            for (double v : c.values) {
                nan += std::isnan(v);
                inf += std::isinf(v);
                negative += v < 0;
            }
            counts.push_back({c.name, nan, inf, negative});
        }
    }
    return counts;
}

TEST_F(FarmCommands, VerifyNamesEveryFrameStateAndCountsLikeOpenExr)
{
    std::map<int, Bytes> whole;
    for (int frame : {1001, 1002, 1004, 1005, 1006, 1007}) whole[frame] = makeMultiPartExr(frameParts(frame));
    for (int frame : {1001, 1002, 1004}) write("shot." + std::to_string(frame) + ".exr", whole[frame]);
    write("shot.1005.exr", truncated(whole[1005], whole[1005].size() - 40));
    // Compressed data flipped in the middle of a chunk: zip's checksum fails.
    whole[1006] = makeExr(frameParts(1006)[0]);
    Bytes damaged = whole[1006];
    const std::size_t chunk = chunkOffsets(damaged).at(1);
    for (std::size_t i = chunk + 12; i < chunk + 30; ++i) damaged[i] = static_cast<char>(~damaged[i]);
    write("shot.1006.exr", damaged);
    write("shot.1007.exr", Bytes{'n', 'o', 't', ' ', 'e', 'x', 'r'});
    ExrPart blank;
    blank.value = constantValue(0.0);
    whole[1008] = makeExr(blank);
    write("shot.1008.exr", whole[1008]);
    const std::string expected[] = {"ok", "ok", "missing", "ok", "truncated", "damaged", "not EXR", "ok"};

    const ProgramRun serial = runKtexr({"verify", at("shot.####.exr"), "--frames", "1001-1008", "--json", "--jobs", "1"});
    const ProgramRun parallel = runKtexr({"verify", at("shot.%04d.exr"), "--frames", "1001-1008", "--json", "--jobs", "3"});
    EXPECT_EQ(serial.status, 10) << serial.err;
    EXPECT_EQ(parallel.out, serial.out);
    const std::vector<Json> lines = jsonLines(serial.out);
    ASSERT_EQ(lines.size(), 9u) << serial.out;
    for (int i = 0; i < 8; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(lines[i]["frame"], 1001 + i);
        EXPECT_EQ(lines[i]["status"], expected[i]);
        if (expected[i] != "ok") continue;
        EXPECT_EQ(lines[i]["empty"], i == 7);  // the blank frame is named
        Json counts = Json::array();
        for (const Json& p : lines[i]["parts"])
            for (const Json& c : p["channels"]) counts.push_back({c["name"], c["nan"], c["inf"], c["negative"]});
        EXPECT_EQ(counts, expectedCounts(whole[1001 + i], static_cast<int>(lines[i]["parts"].size())));
    }
    EXPECT_EQ(lines[8]["missingFrames"], Json::array({1003}));
    EXPECT_EQ(lines[8]["ok"], 4);
    EXPECT_EQ(lines[8]["nanOrInf"], 3);
    EXPECT_EQ(lines[8]["empty"], 1);
    EXPECT_EQ(runKtexr({"verify", at("shot.1008.exr")}).status, 0);  // an empty frame alone is no failure

    // A farm splits the range over tasks; merging their reports gives the
    // report of one run over the whole range.
    const ProgramRun first = runKtexr({"verify", at("shot.####.exr"), "--frames", "1001-1003", "--json", "-q"});
    const ProgramRun second = runKtexr({"verify", at("shot.####.exr"), "--frames", "1004-1008", "--json", "-q"});
    write("b.jsonl", Bytes(second.out.begin(), second.out.end()));
    write("a.jsonl", Bytes(first.out.begin(), first.out.end()));
    const ProgramRun merged = runKtexr({"verify", "--merge", at("b.jsonl"), at("a.jsonl"), "--json"});
    EXPECT_EQ(merged.status, serial.status);
    EXPECT_EQ(merged.out, serial.out);
}

TEST_F(FarmCommands, StatsAgreeWithOpenExrOnEveryPartAndChannel)
{
    const Bytes file = makeMultiPartExr(frameParts(1002));  // the AOV part tiled
    write("frame.exr", file);
    const ProgramRun run = runKtexr({"stats", at("frame.exr"), "--json"});
    ASSERT_EQ(run.status, 0) << run.err;
    const Json frame = jsonLines(run.out).at(0);
    for (int p = 0; p < 2; ++p) {
        const DecodedExr decoded = readExr(file, p);
        const Json& channels = frame["parts"][p]["channels"];
        ASSERT_EQ(channels.size(), decoded.channels.size());
        for (std::size_t c = 0; c < channels.size(); ++c) {
            SCOPED_TRACE(decoded.channels[c].name);
            double lo = HUGE_VAL, hi = -HUGE_VAL, sum = 0;
            long long finite = 0;
            for (double v : decoded.channels[c].values)
                if (std::isfinite(v)) {
                    lo = std::min(lo, v);
                    hi = std::max(hi, v);
                    sum += v;
                    ++finite;
                }
            EXPECT_EQ(channels[c]["min"].get<double>(), lo);
            EXPECT_EQ(channels[c]["max"].get<double>(), hi);
            EXPECT_NEAR(channels[c]["mean"].get<double>(), sum / static_cast<double>(finite), 1e-12);
            EXPECT_EQ(channels[c]["samples"], decoded.channels[c].values.size());
        }
    }
}

TEST_F(FarmCommands, DiffFindsTheWorstPixelAndExitsByThreshold)
{
    auto withChange = [](double delta) {
        std::vector<ExrPart> parts = frameParts(1001);
        parts[1].value = [delta](const std::string& c, int x, int y) {
            return frameValue(c, x, y + 1001) * 3.0 + (c == "Z" && x == 9 && y == 14 ? delta : 0.0);
        };
        return makeMultiPartExr(parts);
    };
    const std::string a = write("a.exr", withChange(0.0));
    struct Case {
        double delta;
        Args thresholds;
        int status;
        const char* result;
    } cases[] = {
        {0.0, {}, 0, "PASS"},
        {0.25, {"--warn", "0.1", "--fail", "0.5"}, 1, "WARNING"},
        {0.75, {"--warn", "0.1", "--fail", "0.5"}, 11, "FAILURE"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.delta);
        Args args{"diff", a, write("b.exr", withChange(c.delta)), "--json"};
        args.insert(args.end(), c.thresholds.begin(), c.thresholds.end());
        const ProgramRun run = runKtexr(args);
        EXPECT_EQ(run.status, c.status) << run.err;
        const Json result = jsonLines(run.out).at(0);
        EXPECT_EQ(result["result"], c.result);
        EXPECT_DOUBLE_EQ(result["maxError"].get<double>(), c.delta);
        if (c.delta == 0.0) continue;
        EXPECT_EQ(result["worst"]["part"], "aov");
        EXPECT_EQ(result["worst"]["channel"], "Z");
        EXPECT_EQ(result["worst"]["x"], 9);
        EXPECT_EQ(result["worst"]["y"], 14);
    }
    // A frame with a channel the other lacks differs in structure.
    std::vector<ExrPart> fewer = frameParts(1001);
    fewer[1].channels = channelList({"N.x", "N.y"}, Imf::FLOAT);
    const ProgramRun run = runKtexr({"diff", a, write("c.exr", makeMultiPartExr(fewer))});
    EXPECT_EQ(run.status, 11);
    EXPECT_NE(run.out.find("channel Z is only in the first file"), std::string::npos) << run.out;
}

}  // namespace

// ---- lossless crop and assembly ----------------------------------------------

namespace {

// The header attributes that must pass through unchanged, as text.
std::map<std::string, std::string> attributesOf(const Imf::Header& h)
{
    std::map<std::string, std::string> all;
    for (auto a = h.begin(); a != h.end(); ++a) {
        const std::string name = a.name();
        if (name == "dataWindow" || name == "chunkCount" || name == "type" || name == "name") continue;
        MemoryOStream out;
        a.attribute().writeValueTo(out, 2);
        all[name] = std::string(a.attribute().typeName()) + ":" + std::string(out.bytes().begin(), out.bytes().end());
    }
    return all;
}

// Every sample of `written` equals the source's at the same pixel (zero
// outside the source's data window).
void expectSamplesOf(const DecodedExr& written, const DecodedExr& source)
{
    ASSERT_EQ(written.channels.size(), source.channels.size());
    for (std::size_t c = 0; c < written.channels.size(); ++c) {
        const DecodedChannel& w = written.channels[c];
        const DecodedChannel& s = source.channels[c];
        EXPECT_EQ(w.name, s.name);
        EXPECT_EQ(w.type, s.type);
        int wrong = 0;
        for (int y = w.window.min.y; y <= w.window.max.y; ++y)
            for (int x = w.window.min.x; x <= w.window.max.x; ++x) {
                const bool inside = s.window.intersects(Imath::V2i(x, y));
                const double expected = inside ? s.at(x, y) : 0.0;
                const double got = w.at(x, y);
                wrong += !(got == expected || (std::isnan(got) && std::isnan(expected)));
            }
        EXPECT_EQ(wrong, 0) << w.name;
    }
}

// The box of pixels not zero in any channel, as OpenEXR reads the part.
Imath::Box2i occupied(const DecodedExr& part)
{
    Imath::Box2i box;
    for (const DecodedChannel& c : part.channels)
        for (int y = c.window.min.y; y <= c.window.max.y; ++y)
            for (int x = c.window.min.x; x <= c.window.max.x; ++x)
                if (c.at(x, y) != 0.0) box.extendBy(Imath::V2i(x, y));
    return box;
}

}  // namespace

TEST_F(FarmCommands, CropKeepsEverythingButTheDataWindows)
{
    // Beauty occupied in (10,6)-(25,17), an AOV part occupied elsewhere,
    // one part entirely empty; render metadata and chromaticities on top.
    std::vector<ExrPart> parts = frameParts(1002);
    parts[0].compression = Imf::ZIPS_COMPRESSION;
    parts[0].attribute("chromaticities", Imf::Chromaticities()).attribute("cryptomatte/abc/manifest", std::string("{}"));
    const auto inside = [](int x, int y, int x0, int y0, int x1, int y1) { return x >= x0 && x <= x1 && y >= y0 && y <= y1; };
    parts[0].value = [inside](const std::string& c, int x, int y) {
        return inside(x, y, 10, 6, 25, 17) ? frameValue(c, x, y) + 8.0 : 0.0;
    };
    parts[1].value = [inside](const std::string& c, int x, int y) {
        return inside(x, y, 5, 12, 8, 19) ? -frameValue(c, x, y) - 1.0 : 0.0;
    };
    ExrPart blank = parts[0];
    blank.name = "blank";
    blank.value = constantValue(0.0);
    parts.push_back(blank);
    const Bytes source = makeMultiPartExr(parts);
    const std::string input = write("render.exr", source);

    struct Case {
        Args options;
        std::vector<Imath::Box2i> windows;  // per part; empty: from the occupied pixels
    } cases[] = {
        {{}, {}},
        {{"--pad", "2"}, {box(8, 4, 27, 19), box(4, 10, 10, 20), box(0, 0, 0, 0)}},
        {{"--same-window"}, {box(5, 6, 25, 19), box(5, 6, 25, 19), box(5, 6, 25, 19)}},
        {{"--undo"}, {box(0, 0, 39, 29), box(0, 0, 39, 29), box(0, 0, 39, 29)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.options));
        Args args{"crop", input, "-o", at("out.exr"), "-q"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        const ProgramRun run = runKtexr(args);
        ASSERT_EQ(run.status, 0) << run.err;
        const Bytes written = readFileBytes(at("out.exr"));
        EXPECT_FALSE(Imf::checkOpenEXRFile(written.data(), written.size(), false, false, true));
        for (int p = 0; p < 3; ++p) {
            SCOPED_TRACE(p);
            const DecodedExr in = readExr(source, p), out = readExr(written, p);
            const Imath::Box2i expected = !c.windows.empty() ? c.windows[static_cast<std::size_t>(p)]
                                          : p == 2           ? box(0, 0, 0, 0)
                                                             : occupied(in);
            EXPECT_EQ(out.header.dataWindow(), expected);
            EXPECT_EQ(attributesOf(out.header), attributesOf(in.header));
            EXPECT_EQ(out.header.hasTileDescription(), in.header.hasTileDescription());
            expectSamplesOf(out, in);
        }
    }
}

TEST_F(FarmCommands, AssemblyRebuildsTheFrameTheTilesWereCutFrom)
{
    // Tiles of a two-part frame, each part cut at the same fractional-free
    // but uneven places; some tiles tiled, some scan-line.
    const std::vector<ExrPart> frame = frameParts(1003);
    std::vector<ExrPart> full = frame;
    full[1].dataWindow = full[1].displayWindow;
    const Bytes whole = makeMultiPartExr(full);
    write("frame.exr", whole);
    const Imath::Box2i regions[] = {box(0, 0, 16, 10), box(17, 0, 39, 10), box(0, 11, 22, 29), box(23, 11, 39, 29)};
    Args tiles;
    for (int t = 0; t < 4; ++t) {
        std::vector<ExrPart> tile = full;
        for (ExrPart& part : tile) {
            part.dataWindow = regions[t];
            part.tiled = t % 2 == 1;
        }
        tiles.push_back(write("tile" + std::to_string(t) + ".exr", makeMultiPartExr(tile)));
    }
    Args args{"assemble", "-o", at("assembled.exr")};
    args.insert(args.end(), tiles.rbegin(), tiles.rend());  // order does not matter
    const ProgramRun run = runKtexr(args);
    ASSERT_EQ(run.status, 0) << run.err;
    const Bytes assembled = readFileBytes(at("assembled.exr"));
    EXPECT_FALSE(Imf::checkOpenEXRFile(assembled.data(), assembled.size(), false, false, true));
    for (int p = 0; p < 2; ++p) {
        const DecodedExr in = readExr(whole, p), out = readExr(assembled, p);
        EXPECT_EQ(out.header.dataWindow(), in.header.dataWindow());
        expectSamplesOf(out, in);
    }
    EXPECT_EQ(runKtexr({"diff", at("assembled.exr"), at("frame.exr")}).status, 0);
    if (std::system("oiiotool --help > /dev/null 2>&1") == 0) {
        const std::string diff = "oiiotool -a --diff " + at("assembled.exr") + " " + at("frame.exr") + " > /dev/null";
        EXPECT_EQ(std::system(diff.c_str()), 0);
    }

    // Tiles that disagree on channels, or a deep tile, are refused by name.
    std::vector<ExrPart> odd = full;
    for (ExrPart& part : odd) part.dataWindow = regions[3];
    odd[1].channels = channelList({"N.x", "N.y"}, Imf::FLOAT);
    const std::string oddTile = write("odd.exr", makeMultiPartExr(odd));
    ProgramRun refused = runKtexr({"assemble", "-o", at("x.exr"), tiles[0], tiles[1], tiles[2], oddTile});
    EXPECT_EQ(refused.status, 7);
    EXPECT_NE(refused.err.find(oddTile + ": part 1: not the first tile's channels"), std::string::npos) << refused.err;
    ExrPart deep;
    deep.deepSamples = [](int, int) { return 1; };
    deep.compression = Imf::ZIPS_COMPRESSION;
    refused = runKtexr({"crop", write("deep.exr", makeExr(deep)), "-o", at("x.exr")});
    EXPECT_EQ(refused.status, 4);
    EXPECT_NE(refused.err.find("deep data"), std::string::npos) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(at("x.exr")));
}

// Every command treats outputs alike, crop and assemble on both routes: a device or a pipe is written through and
// stays what it is, standard output gets the file and the report goes to standard error; a socket is refused, and
// so is an output that is an input (links followed), the input kept.
TEST_F(FarmCommands, OutputsNeverReplaceDevicesPipesOrInputs)
{
    ExrPart frame;
    frame.displayWindow = box(0, 0, 31, 23);
    frame.value = [](const std::string& c, int x, int y) {
        return x >= 4 && x <= 27 && y >= 3 && y <= 20 ? frameValue(c, x, y) + 8.0 : 0.0;
    };
    const std::string source = write("source.exr", makeExr(frame)), png = at("source.png");
    ASSERT_EQ(runKtexr({"decode", source, "-o", png}).status, 0);
    Args tiles;
    for (const Imath::Box2i& region : {box(0, 0, 15, 23), box(16, 0, 31, 23)}) {
        frame.dataWindow = region;
        tiles.push_back(write("tile" + std::to_string(tiles.size()) + ".exr", makeExr(frame)));
    }
    ASSERT_EQ(mknod(at("null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0666), 0);
    ASSERT_EQ(symlink(at("null").c_str(), at("stdout").c_str()), 0);  // as /dev/stdout is a link
    for (const char* link : {"link.exr", "link.png"}) ASSERT_EQ(symlink(source.c_str(), at(link).c_str()), 0);
    ASSERT_EQ(symlink(png.c_str(), at("png-link.png").c_str()), 0);
    const int socketFd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", at("socket").c_str());
    ASSERT_EQ(bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const int fifo = open(at("fifo").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fifo, 0);
    std::map<std::string, Bytes> inputs;
    for (const std::string& input : {source, png, tiles[0], tiles[1]}) inputs[input] = readFileBytes(input);

    const struct {
        Args args;
        int status;
        const char* output;
        mode_t kind;
    } cases[] = {
        {{"crop", source, "-o", at("null")}, 0, "null", S_IFCHR},
        {{"encode", png, "-o", at("null")}, 0, "null", S_IFCHR},
        {{"crop", source, "-o", at("stdout")}, 0, "stdout", S_IFLNK},
        {{"crop", source, "-o", at("fifo")}, 0, "fifo", S_IFIFO},
        {{"encode", png, "-o", at("fifo")}, 0, "fifo", S_IFIFO},
        {{"assemble", "-o", at("fifo"), tiles[0], tiles[1]}, 0, "fifo", S_IFIFO},
        {{"crop", source, "-o", at("socket")}, 8, "socket", S_IFSOCK},
        {{"encode", png, "-o", at("socket")}, 8, "socket", S_IFSOCK},
        {{"crop", source, "-o", at("link.exr")}, 9, "link.exr", S_IFLNK},
        {{"crop", source, "-o", source}, 9, "source.exr", S_IFREG},  // only --in-place replaces its input
        {{"encode", png, "-o", png}, 9, "source.png", S_IFREG},
        {{"encode", png, "-o", at("png-link.png")}, 9, "png-link.png", S_IFLNK},
        {{"decode", source, "-o", at("link.png"), "--srgb"}, 9, "link.png", S_IFLNK},
        {{"assemble", "-o", tiles[1], tiles[0], tiles[1]}, 9, "tile1.exr", S_IFREG},
        {{"crop", source, "-o", "-"}, 0, "null", S_IFCHR},
        {{"encode", png, "-o", "-"}, 0, "null", S_IFCHR},
    };
    for (const auto& c : cases) {
        const bool bothRoutes = c.args[0] == "crop" || c.args[0] == "assemble";
        for (const char* route : {"", "--host"}) {
            if (*route && !bothRoutes) continue;
            Args args = c.args;
            if (*route) args.push_back(route);
            SCOPED_TRACE(testing::PrintToString(args));
            const ProgramRun run = runKtexr(args);
            EXPECT_EQ(run.status, c.status) << run.err;
            EXPECT_EQ(fileKind(at(c.output)), c.kind);
            Bytes piped(1 << 20);
            const ssize_t n = read(fifo, piped.data(), piped.size());
            if (c.kind == S_IFIFO) {
                ASSERT_GT(n, 0);
                piped.resize(static_cast<std::size_t>(n));
                EXPECT_NO_THROW(readExr(piped));
            }
            if (c.args.back() == "-") {  // the file alone on standard output, the report on standard error
                EXPECT_NO_THROW(readExr(Bytes(run.out.begin(), run.out.end())));
                EXPECT_NE(run.err.find("-> -"), std::string::npos) << run.err;
            }
        }
    }
    close(fifo);
    close(socketFd);
    for (const auto& [path, bytes] : inputs) EXPECT_EQ(readFileBytes(path), bytes) << path;

    ASSERT_EQ(mknod(at("full").c_str(), S_IFCHR | 0666, makedev(1, 7)), 0);  // every write fails: disk full
    const ProgramRun full = runKtexr({"info", source}, -1, at("full"));
    EXPECT_EQ(full.status, 8);
    EXPECT_NE(full.err.find("ktexr: cannot write to standard output"), std::string::npos) << full.err;
}

// A crop that changes no data window leaves an --in-place file alone unless
// forced, and says so when told to write it elsewhere; --dry-run writes
// nothing and names the size a real run writes.
TEST_F(FarmCommands, CropThatGainsNothingOrOnlyTriesLeavesFilesAlone)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 63, 47);
    part.value = constantValue(0.5);
    const std::string full = write("full.exr", makeExr(part));
    part.value = [](const std::string& c, int x, int y) { return x > 20 && y > 10 ? frameValue(c, x, y) + 8.0 : 0.0; };
    const std::string bordered = write("bordered.exr", makeExr(part));
    const std::string tile = write("tile.exr", makeExr(part));
    const auto inode = [](const std::string& path) {
        struct stat st {};
        stat(path.c_str(), &st);
        return st.st_ino;
    };
    const auto sizesIn = [](const std::string& text) {  // "A -> B (saves C)", the end of a report
        return text.substr(text.rfind(", ") + 2);
    };
    const struct {
        Args args;
        const char* says;
        const char* file;  // replaced, or made, exactly when `written`
        bool written;
    } cases[] = {
        {{"crop", "--in-place", full}, "full.exr: unchanged, the crop gains nothing", "full.exr", false},
        {{"crop", "--in-place", "--force", full}, "full.exr: part 0: data window", "full.exr", true},
        {{"crop", full, "-o", at("copy.exr")}, "the crop gains nothing", "copy.exr", true},
        {{"crop", "--in-place", "--dry-run", bordered}, "would write", "bordered.exr", false},
        {{"crop", bordered, "--dry-run", "-o", at("new.exr")}, "would write", "new.exr", false},
        {{"assemble", "--dry-run", "-o", at("new.exr"), tile}, "1 tiles would make", "new.exr", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const ino_t before = inode(at(c.file));
        const ProgramRun run = runKtexr(c.args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find(c.says), std::string::npos) << run.out;
        EXPECT_EQ(inode(at(c.file)) != before, c.written);
    }
    // What --dry-run says would be written is what is written.
    const std::string dry = runKtexr({"crop", bordered, "--dry-run", "-o", at("new.exr")}).out;
    const std::string real = runKtexr({"crop", bordered, "-o", at("new.exr")}).out;
    EXPECT_NE(sizesIn(dry).find("saves"), std::string::npos) << dry;
    EXPECT_EQ(sizesIn(dry), sizesIn(real)) << dry << real;
}

// --in-place, on both routes, keeps the permissions, owner, group and extended attributes of the file it replaces
// and goes on after a file it cannot read, ending with its status; a file it cannot write whole, or cannot give its
// owner, stays as it was, with no temporary file left beside it. Once cropped, a file is left alone unless forced.
TEST_F(FarmCommands, CropInPlaceKeepsOwnerAndAttributesOrLeavesTheFile)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 255, 191);
    part.compression = Imf::NO_COMPRESSION;
    part.value = [](const std::string& c, int x, int y) { return x > 9 ? frameValue(c, x, y) + 8.0 : 0.0; };
    const Bytes original = makeExr(part), text(64, 'x');
    ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
    for (const std::string route : {"", "--host"}) {
        SCOPED_TRACE(route);
        const std::string large = write("large.exr", original), kept = write("kept.exr", original),
                          other = write("other.exr", original), shared = write("shared.exr", original),
                          bad = write("text.exr", text);
        ASSERT_EQ(chown(kept.c_str(), 1234, 5678), 0);
        ASSERT_EQ(chmod(kept.c_str(), 0640), 0);
        const bool xattrs = setxattr(kept.c_str(), "user.ktexr.note", "keep", 4, 0) == 0;  // where the file system has them
        ASSERT_EQ(chown(shared.c_str(), 1234, 1234), 0);
        ASSERT_EQ(chmod(shared.c_str(), 0666), 0);
        const struct {
            Args files;
            long long fileSizeLimit;
            int user;
            int status;
            const char* says;
        } cases[] = {
            {{large}, 4096, -1, 8, "large.exr"},  // the new file cannot be written whole
            {{shared}, -1, 4321, 8, "owner"},
            {{kept, bad, other}, -1, -1, 4, "text.exr"},
        };
        const auto crop = [&](Args args, long long fileSizeLimit = -1, int user = -1) {
            args.insert(args.begin(), {"crop", "--in-place"});
            if (!route.empty()) args.push_back(route);
            return runKtexr(args, fileSizeLimit, "", user);
        };
        for (const auto& c : cases) {
            const ProgramRun run = crop(c.files, c.fileSizeLimit, c.user);
            EXPECT_EQ(run.status, c.status) << run.err;
            EXPECT_NE((run.out + run.err).find(c.says), std::string::npos) << run.out << run.err;
        }
        for (const std::string& file : {large, shared}) EXPECT_EQ(readFileBytes(file), original) << file;
        EXPECT_EQ(readFileBytes(bad), text);
        for (const std::string& file : {kept, other})  // the plug-in's encoder keeps a margin of 3
            EXPECT_EQ(readExr(readFileBytes(file), 0, false).header.dataWindow(), box(route.empty() ? 10 : 7, 0, 255, 191));
        struct stat st;
        ASSERT_EQ(stat(kept.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u);
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 5678u);
        char note[8] = {};
        EXPECT_EQ(getxattr(kept.c_str(), "user.ktexr.note", note, sizeof note), xattrs ? 4 : -1);
        EXPECT_STREQ(note, xattrs ? "keep" : "");

        const Bytes cropped = readFileBytes(other);
        ProgramRun again = crop({other});
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_NE(again.out.find(other + ": unchanged, the crop gains nothing"), std::string::npos) << again.out;
        EXPECT_EQ(readFileBytes(other), cropped);
        again = crop({"--force", other});
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(again.out.find("unchanged"), std::string::npos) << again.out;
        EXPECT_EQ(entries(), (Args{"kept.exr", "large.exr", "other.exr", "shared.exr", "text.exr"}));
        for (const std::string& file : entries()) std::filesystem::remove(at(file));
    }
    // Files cropped in parallel (a race here shows under TSan).
    const Args parallel{"crop", "--in-place", "--jobs", "3", write("p1.exr", original), write("p2.exr", original),
                        write("p3.exr", original)};
    EXPECT_EQ(runKtexr(parallel).status, 0);
    for (std::size_t i = 4; i < parallel.size(); ++i)
        EXPECT_EQ(readExr(readFileBytes(parallel[i]), 0, false).header.dataWindow(), box(10, 0, 255, 191)) << parallel[i];
}

// ---- previews and the parallel runner ----------------------------------------

TEST_F(FarmCommands, ContactSheetThumbnailsAverageTheirCellsAndShowTheSrgbCurve)
{
    // A 40 x 20 frame: the left half 0.18 grey (sRGB 118 of 255), the right
    // half 0.5 in R only, the bottom row outside the data window.
    ExrPart part;
    part.displayWindow = box(0, 0, 39, 19);
    part.dataWindow = box(0, 0, 39, 17);
    part.channels = channelList({"A", "B", "G", "R"});
    part.value = [](const std::string& c, int x, int) { return x < 20 ? (c == "A" ? 1.0 : 0.18) : c == "R" ? 0.5 : 0.0; };
    const ktexr::Thumbnail t = ktexr::makeThumbnail(write("thumb.exr", makeExr(part)), 4);
    ASSERT_EQ(t.width, 4);
    ASSERT_EQ(t.height, 2);
    EXPECT_NEAR(t.rgb[0], 0.18, 1e-3);            // top left, all grey
    EXPECT_NEAR(t.rgb[3 * 4], 0.18 * 8 / 10, 1e-3);  // bottom left: 2 of its 10 rows outside the data window
    EXPECT_NEAR(t.rgb[3 * 3], 0.5, 1e-3);          // top right, red
    EXPECT_EQ(t.rgb[3 * 3 + 1], 0.0);
    struct Case {
        float linear, stops;
        const char* curve;
        int shown;  // of 255
    } cases[] = {{0.18f, 0, "srgb", 118}, {0.09f, 1, "srgb", 118}, {0.0f, 0, "srgb", 0}, {2.0f, 0, "srgb", 255},
                 {-1.0f, 0, "srgb", 0}, {0.5f, 0, "gamma", 186}, {0.5f, 0, "linear", 128}, {0.002f, 0, "srgb", 7}};
    for (const Case& c : cases)
        EXPECT_EQ(std::lround(255.0f * ktexr::displayValue(c.linear, c.stops, c.curve)), c.shown) << c.linear << c.curve;
}

TEST(BatchRun, ParallelRunsEmitInOrderWhateverFinishesFirst)
{
    for (unsigned jobs : {1u, 2u, 7u}) {
        std::vector<int> results(50, -1);
        std::vector<std::size_t> emitted;
        ktexr::runInOrder(
            results.size(), jobs,
            [&](std::size_t i) {
                if (i % 3 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
                results[i] = static_cast<int>(i * i);
            },
            [&](std::size_t i) {
                EXPECT_EQ(results[i], static_cast<int>(i * i));
                emitted.push_back(i);
            });
        std::vector<std::size_t> expected(results.size());
        std::iota(expected.begin(), expected.end(), 0);
        EXPECT_EQ(emitted, expected) << jobs;
    }
    EXPECT_THROW(ktexr::runInOrder(
                     10, 3, [](std::size_t i) { if (i == 4) throw std::runtime_error("frame 4"); }, [](std::size_t) {}),
                 std::runtime_error);
}

TEST_F(FarmCommands, DecodePreviewsWithExposureAndTheSrgbCurve)
{
    ExrPart grey;
    grey.value = [](const std::string& c, int, int) { return c == "A" ? 0.5 : 0.36; };
    const std::string input = write("grey.exr", makeExr(grey));
    struct Case {
        Args options;
        int shown;  // every colour sample, of 255; alpha is opaque
    } cases[] = {{{"--srgb", "--exposure", "-1"}, 118}, {{"--exposure", "1"}, 184}, {{"--srgb"}, 162}};  // half(0.36) = 0.35986
    for (const Case& c : cases) {
        Args args{"decode", input, "-o", at("preview.png")};
        args.insert(args.end(), c.options.begin(), c.options.end());
        const ProgramRun run = runKtexr(args);
        ASSERT_EQ(run.status, 0) << run.err;
        const auto bytes = ktexr::readWholeFile(at("preview.png"));
        ktexr::PngReader png(bytes, "preview.png");
        std::vector<unsigned char> pixels(std::size_t{png.width()} * png.height() * 4);
        png.read(pixels.data(), std::size_t{png.width()} * 4);
        for (std::size_t i = 0; i < pixels.size(); ++i) ASSERT_EQ(pixels[i], i % 4 == 3 ? 255 : c.shown) << i;
    }
}

TEST_F(FarmCommands, CorpusFilesCropWithoutLoss)
{
    std::vector<std::string> files = corpusFiles("ScanLines");
    for (const std::string& f : corpusFiles("Tiles")) files.push_back(f);
    if (files.empty()) GTEST_SKIP() << "the EXR corpus is not beside the checkout";
    int cropped = 0;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const ProgramRun run = runKtexr({"crop", file, "-o", at("out.exr"), "-q", "--pad", "1"});
        if (run.status == 4) {  // deep or mip-mapped: refused, nothing written
            EXPECT_NE(run.err.find("nothing was written"), std::string::npos) << run.err;
            continue;
        }
        ASSERT_EQ(run.status, 0) << run.err;
        const Bytes source = readFileBytes(file), written = readFileBytes(at("out.exr"));
        const DecodedExr in = readExr(source), out = readExr(written);  // these are single-part files
        EXPECT_EQ(attributesOf(out.header), attributesOf(in.header));
        expectSamplesOf(out, in);
        ++cropped;
    }
    EXPECT_GT(cropped, 0);
}
