// ktexr run as users run it, on files the test builder makes; what it
// writes is read back by OpenEXR itself and by oiiotool, never by ktexr.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "exrBuilder.h"
#include "programRunner.h"

namespace {

using namespace kt::test;
using testing::HasSubstr;

const std::string kKtexr = KTEXR_PATH;

// Exact in half: multiples of 1/16 from -0.375 to 2.0, different in every channel.
double spread(const std::string& channel, int x, int y)
{
    return ((x * 7 + y * 13 + channel[0] * 5) % 38 - 6) / 16.0;
}

// The 8- and 16-bit channel rule of the decoders, from float.
int toInteger(float v, int top)
{
    if (!(v > 0.0f)) return 0;
    if (v >= 1.0f) return top;
    return static_cast<int>(v * static_cast<float>(top));
}

float pluginGamma()
{
    const std::uint32_t bits = 0x3EE8BA2E;
    float g;
    std::memcpy(&g, &bits, 4);
    return g;
}

void writeFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << path;
}

bool haveOiio() { return onPath("oiiotool"); }
#define REQUIRE_OIIO() \
    if (haveOiio()) {     \
    } else                \
        GTEST_SKIP() << "oiiotool (openimageio-tools) is not installed"

class Ktexr : public testing::Test {
protected:
    ProgramRun ktexr(const std::vector<std::string>& args, const ProgramLimits& limits = {})
    {
        return runProgram(kKtexr, args, limits);
    }
    ProgramRun oiiotool(const std::vector<std::string>& args) { return runProgram(which("oiiotool"), args); }

    static std::string which(const std::string& name)
    {
        for (const char* dir : {"/usr/bin/", "/usr/local/bin/", "/bin/"})
            if (access((dir + name).c_str(), X_OK) == 0) return dir + name;
        return name;
    }

    std::string exr(const std::string& name, const ExrPart& part)
    {
        std::string path = dir / name;
        writeFile(path, makeExr(part));
        return path;
    }

    // Any image oiiotool reads, as OpenEXR reads it after oiiotool wrote it as float.
    DecodedExr throughOiio(const std::string& path)
    {
        std::string converted = dir / ("oiio-" + std::to_string(++conversions) + ".exr");
        // PNG colour stays as stored: OpenImageIO would premultiply it by alpha.
        ProgramRun r = oiiotool({"--iconfig", "oiio:UnassociatedAlpha", "1", path, "-d", "float", "-o", converted});
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return readExr(readFileBytes(converted));
    }

    bool oiioSame(const std::vector<std::string>& args)
    {
        ProgramRun r = oiiotool(args);
        if (r.exitCode != 0) ADD_FAILURE() << "oiiotool " << testing::PrintToString(args) << "\n" << r.out << r.err;
        return r.exitCode == 0;
    }

    ScratchDirectory dir;
    int conversions = 0;
};

// ---- help and usage ---------------------------------------------------------

TEST_F(Ktexr, HelpNamesEverySubcommandAndEveryExitStatus)
{
    ProgramRun r = ktexr({"--help"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (const char* word : {"info", "decode", "encode", "crop", "assemble", "demo", "--plugin"})
        EXPECT_THAT(r.out, HasSubstr(word));
    for (const char* status : {"  0  ", "  2  ", "  3  ", "  4  ", "  5  ", "  6  ", "  7  ", "  8  "})
        EXPECT_THAT(r.out, HasSubstr(status));
}

TEST_F(Ktexr, EverySubcommandHasHelp)
{
    const std::pair<const char*, const char*> options[] = {
        {"info", "--json"},          {"decode", "--gamma-exponent"}, {"encode", "--attr"},
        {"crop", "--in-place"},      {"assemble", "--allow-gaps"},   {"demo", "directory"}};
    for (const auto& [command, option] : options) {
        ProgramRun r = ktexr({command, "--help"});
        EXPECT_EQ(r.exitCode, 0) << command << ": " << r.err;
        EXPECT_THAT(r.out, HasSubstr(option)) << command;
    }
}

TEST_F(Ktexr, BadArgumentsAreUsageErrors)
{
    std::string image = exr("a.exr", ExrPart{});
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"nonsense"},
        {"info"},
        {"decode", image},
        {"decode", image, "-o", dir / "x.png", "--depth", "12"},
        {"decode", image, "-o", dir / "x.pfm"},                   // PFM needs --depth float
        {"decode", image, "-o", dir / "x.png", "--depth", "float"},
        {"decode", image, "-o", dir / "x.png", "--alpha", dir / "a.pfm"},
        {"crop", image},                                          // neither -o nor --in-place
        {"crop", image, image, "-o", dir / "x.exr"},
        {"crop", image, "-o", dir / "x.exr", "--in-place"},
        {"assemble", image},                                      // no -o
        {"--threads", "-3", "identity"}};
    for (const auto& args : bad) {
        ProgramRun r = ktexr(args);
        EXPECT_EQ(r.exitCode, 2) << testing::PrintToString(args) << "\n" << r.err;
        EXPECT_FALSE(r.err.empty()) << testing::PrintToString(args);
    }
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"a.exr"});
}

TEST_F(Ktexr, AMissingPluginIsAPluginFailureNamingThePath)
{
    ProgramRun r = ktexr({"--plugin", dir / "nothing.so", "identity"});
    EXPECT_EQ(r.exitCode, 6);
    EXPECT_THAT(r.err, HasSubstr(dir / "nothing.so"));
}

// ---- info -------------------------------------------------------------------

ExrPart describedPart()
{
    ExrPart part;
    part.compression = Imf::ZIPS_COMPRESSION;
    part.attribute("KT/jobID", std::string("JOB12"));
    part.attribute("KT/clientname", std::string("client"));
    part.attribute("KT/scenename", std::string("scene"));
    part.attribute("frames", 42);
    part.attribute("exposure", 1.5f);
    part.attribute("offset", Imath::V2f(1.0f, -2.0f));
    part.attribute("position", Imath::V3f(0.5f, 0.25f, 8.0f));
    part.attribute("weights", std::vector<float>{1.0f, 2.0f, 3.0f});
    Imath::M44f m;
    for (int i = 0; i < 16; ++i) m[i / 4][i % 4] = static_cast<float>(i) + 0.5f;
    part.attribute("xform", m);
    return part;
}

TEST_F(Ktexr, InfoTextShowsTheDescriptionAndEveryEntry)
{
    std::string file = exr("described.exr", describedPart());
    ProgramRun r = ktexr({"info", file});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("Exr  Half Zip-1line scanline 'A B G R ' JOB12 client scene"));
    EXPECT_THAT(r.out, HasSubstr("16 x 12"));
    EXPECT_THAT(r.out, HasSubstr("alpha        yes"));
    EXPECT_THAT(r.out, HasSubstr("32 per channel"));
    EXPECT_THAT(r.out, testing::ContainsRegex("frames +int +42"));
    EXPECT_THAT(r.out, testing::ContainsRegex("exposure +float +1.5"));
    EXPECT_THAT(r.out, testing::ContainsRegex("KT/jobID +string +JOB12"));
    EXPECT_THAT(r.out, testing::ContainsRegex("xform +m44f +\\[0.5 1.5 2.5 3.5\\] \\[4.5"));
}

TEST_F(Ktexr, InfoJsonFollowsItsSchema)
{
    std::string file = exr("described.exr", describedPart());
    ProgramRun r = ktexr({"info", "--json", file});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["schema"], "ktexr-info");
    EXPECT_EQ(doc["version"], 1);
    EXPECT_EQ(doc["plugin"]["name"], "OpenExr");
    ASSERT_EQ(doc["files"].size(), 1u);
    const auto& f = doc["files"][0];
    EXPECT_EQ(f["file"], file);
    EXPECT_EQ(f["ok"], true);
    EXPECT_EQ(f["status"], 1);
    EXPECT_EQ(f["width"], 16);
    EXPECT_EQ(f["height"], 12);
    EXPECT_EQ(f["hasAlpha"], true);
    EXPECT_EQ(f["bitsPerChannel"], 32);
    EXPECT_EQ(f["uncompressed"], false);
    EXPECT_EQ(f["fileSize"], std::filesystem::file_size(file));

    std::map<std::string, nlohmann::json> byName;
    std::vector<std::string> order;
    for (const auto& e : f["metadata"]) {
        byName[e["name"]] = e;
        order.push_back(e["name"]);
    }
    // Header order, which OpenEXR keeps sorted by name.
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(order.size(), 9u);
    EXPECT_EQ(byName["frames"]["type"], "int");
    EXPECT_EQ(byName["frames"]["value"], 42);
    EXPECT_EQ(byName["exposure"]["type"], "float");
    EXPECT_EQ(byName["exposure"]["value"], 1.5);
    EXPECT_EQ(byName["offset"]["type"], "v2f");
    EXPECT_EQ(byName["offset"]["value"], nlohmann::json({1.0, -2.0}));
    EXPECT_EQ(byName["position"]["value"], nlohmann::json({0.5, 0.25, 8.0}));
    EXPECT_EQ(byName["weights"]["type"], "floatvector");
    EXPECT_EQ(byName["weights"]["value"], nlohmann::json({1.0, 2.0, 3.0}));
    EXPECT_EQ(byName["xform"]["type"], "m44f");
    EXPECT_EQ(byName["xform"]["value"][3], nlohmann::json({12.5, 13.5, 14.5, 15.5}));
    EXPECT_EQ(byName["KT/scenename"]["value"], "scene");
}

TEST_F(Ktexr, InfoLoadsOnlyTheHeadOfALargeFile)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 399, 299);
    part.compression = Imf::NO_COMPRESSION;  // about 940 KB of pixels behind a small header
    std::string file = exr("large.exr", part);
    auto doc = nlohmann::json::parse(ktexr({"info", "--json", file}).out);
    const auto& f = doc["files"][0];
    EXPECT_EQ(f["status"], 1);
    EXPECT_EQ(f["headerCalls"], 1);
    EXPECT_EQ(f["loadedBytes"], 65536);
    EXPECT_GT(f["fileSize"].get<long long>(), 900000);
    EXPECT_EQ(f["uncompressed"], true);
}

TEST_F(Ktexr, InfoLoadsMoreWhileTheHeaderDoesNotFit)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 399, 299);
    part.compression = Imf::NO_COMPRESSION;
    for (int i = 0; i < 150; ++i) part.attribute("note" + std::to_string(1000 + i), std::string(1000, 'a' + i % 26));
    std::string file = exr("bigheader.exr", part);  // a header of about 150 KB
    auto doc = nlohmann::json::parse(ktexr({"info", "--json", file}).out);
    const auto& f = doc["files"][0];
    EXPECT_EQ(f["status"], 1);
    EXPECT_GE(f["headerCalls"].get<int>(), 2);
    EXPECT_LT(f["loadedBytes"].get<long long>(), f["fileSize"].get<long long>());
    ASSERT_EQ(f["metadata"].size(), 150u);
    EXPECT_EQ(f["metadata"][149]["value"], std::string(1000, 'a' + 149 % 26));

    // From a head of 16 bytes on, the same answer after more calls.
    auto small = nlohmann::json::parse(ktexr({"info", "--json", "--head", "16", file}).out);
    EXPECT_GT(small["files"][0]["headerCalls"].get<int>(), f["headerCalls"].get<int>());
    EXPECT_EQ(small["files"][0]["metadata"], f["metadata"]);
}

TEST_F(Ktexr, InfoStatusesForBadFiles)
{
    std::string text = dir / "notes.exr";
    writeFile(text, Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    ExrPart cut;
    cut.writeLimit = 3;  // header complete, scan lines missing
    std::string incomplete = exr("incomplete.exr", cut);
    std::string good = exr("good.exr", ExrPart{});

    EXPECT_EQ(ktexr({"info", dir / "missing.exr"}).exitCode, 3);
    ProgramRun notExr = ktexr({"info", text});
    EXPECT_EQ(notExr.exitCode, 4);
    EXPECT_THAT(notExr.err, HasSubstr(text));
    ProgramRun r = ktexr({"info", "--json", incomplete});
    EXPECT_EQ(r.exitCode, 5);
    EXPECT_THAT(r.err, HasSubstr("incomplete.exr"));
    auto f = nlohmann::json::parse(r.out)["files"][0];
    EXPECT_EQ(f["status"], 14);
    EXPECT_EQ(f["ok"], false);
    EXPECT_EQ(f["width"], 16);  // the size is still known
    EXPECT_THAT(f["description"].get<std::string>(), HasSubstr(" ERR: file not completed!"));

    // Every file is shown; the first failure decides the status.
    ProgramRun all = ktexr({"info", "--json", good, dir / "missing.exr", text});
    EXPECT_EQ(all.exitCode, 3);
    auto files = nlohmann::json::parse(all.out)["files"];
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0]["ok"], true);
    EXPECT_EQ(files[1]["status"], nullptr);
    EXPECT_EQ(files[2]["ok"], false);
}

// ---- decode -----------------------------------------------------------------

struct DepthCase {
    std::string depth;
    int top;
    std::vector<std::string> extra;  // gamma options
    double exponent;                 // 0: none
};

void PrintTo(const DepthCase& c, std::ostream* os)
{
    *os << c.depth << " bits" << (c.exponent > 0 ? ", gamma " + std::to_string(c.exponent) : std::string());
}

class DecodeToPng : public Ktexr, public testing::WithParamInterface<DepthCase> {};

TEST_P(DecodeToPng, ChannelsFollowTheIntegerRule)
{
    REQUIRE_OIIO();
    const DepthCase& c = GetParam();
    ExrPart part;
    part.displayWindow = box(0, 0, 23, 17);
    part.value = spread;
    std::string source = exr("source.exr", part);
    std::vector<std::string> args = {"decode", source, "-o", dir / "out.png", "--depth", c.depth};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    ProgramRun r = ktexr(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;

    DecodedExr png = throughOiio(dir / "out.png");
    ASSERT_EQ(png.header.dataWindow(), part.displayWindow);
    for (const char* channel : {"R", "G", "B", "A"})
        for (int y = 0; y < 18; ++y)
            for (int x = 0; x < 24; ++x) {
                float v = static_cast<float>(spread(channel, x, y));
                if (c.exponent > 0 && channel[0] != 'A') v = static_cast<float>(std::pow(double(v), c.exponent));
                int got = static_cast<int>(std::lround(png.channel(channel).at(x, y) * c.top));
                ASSERT_EQ(got, toInteger(v, c.top)) << channel << " at " << x << ", " << y;
            }
}

INSTANTIATE_TEST_SUITE_P(Depths, DecodeToPng,
                         testing::Values(DepthCase{"8", 255, {}, 0}, DepthCase{"16", 65535, {}, 0},
                                         DepthCase{"8", 255, {"--gamma"}, pluginGamma()},
                                         DepthCase{"16", 65535, {"--gamma"}, pluginGamma()},
                                         DepthCase{"8", 255, {"--gamma-exponent", "0.5"}, 0.5}));

TEST_F(Ktexr, DecodeFloatWritesColourAndAlphaMapsAsTheFileHoldsThem)
{
    REQUIRE_OIIO();
    ExrPart part;
    part.displayWindow = box(0, 0, 29, 19);
    part.dataWindow = box(4, 3, 21, 15);  // the rest of the frame stays zero
    part.channels = channelList({"A", "B", "G", "R"}, Imf::FLOAT);
    part.value = spread;
    std::string source = exr("source.exr", part);
    ProgramRun r = ktexr({"decode", source, "-o", dir / "c.pfm", "--depth", "float", "--alpha", dir / "a.pfm"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(oiioSame({dir / "c.pfm", source, "--ch", "R,G,B", "--diff"}));
    EXPECT_TRUE(oiioSame({dir / "a.pfm", source, "--ch", "A", "--diff"}));

    // Without --alpha only the colour map is written.
    ASSERT_EQ(ktexr({"decode", source, "-o", dir / "only.pfm", "--depth", "float"}).exitCode, 0);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"a.pfm", "c.pfm", "only.pfm", "source.exr"}));
}

TEST_F(Ktexr, DecodeFailuresLeaveNoOutput)
{
    std::string text = dir / "text.exr";
    writeFile(text, Bytes(100, 'x'));
    ExrPart cut;
    cut.writeLimit = 2;
    std::string incomplete = exr("incomplete.exr", cut);
    std::string good = exr("good.exr", ExrPart{});
    EXPECT_EQ(ktexr({"decode", dir / "none.exr", "-o", dir / "o.png"}).exitCode, 3);
    EXPECT_EQ(ktexr({"decode", text, "-o", dir / "o.png"}).exitCode, 4);
    EXPECT_EQ(ktexr({"decode", incomplete, "-o", dir / "o.png"}).exitCode, 5);
    ProgramRun r = ktexr({"decode", good, "-o", dir / "no/such/dir/o.png"});
    EXPECT_EQ(r.exitCode, 8);
    EXPECT_THAT(r.err, HasSubstr("no/such/dir/o.png"));
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"good.exr", "incomplete.exr", "text.exr"}));
}

// ---- encode -----------------------------------------------------------------

class EncodePng : public Ktexr, public testing::WithParamInterface<const char*> {};

TEST_P(EncodePng, PixelsAndRenderMetadataReachTheFile)
{
    REQUIRE_OIIO();
    const std::string type = GetParam();
    std::string png = dir / "in.png";
    ASSERT_TRUE(oiioSame({"--pattern", "fill:topleft=1,0,0.2,1:topright=0,1,0,0.6:bottomleft=0,0,1,0.3:bottomright=1,1,1,1",
                          "40x30", "4", "-d", type, "-o", png}));
    ProgramRun r = ktexr({"encode", png, "-o", dir / "out.exr", "--client", "ACME Films", "--scene", "shot_010",
                          "--job", "JOB-77", "--attr", "artist=Kim", "--attr", "note=a=b"});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    DecodedExr expected = throughOiio(png);
    DecodedExr out = readExr(readFileBytes(dir / "out.exr"));
    EXPECT_EQ(out.header.compression(), Imf::ZIPS_COMPRESSION);
    EXPECT_EQ(out.header.dataWindow(), box(0, 0, 39, 29));
    ASSERT_EQ(out.channels.size(), 4u);
    for (const char* channel : {"R", "G", "B", "A"}) {
        EXPECT_EQ(out.channel(channel).type, Imf::HALF);
        for (int y = 0; y < 30; ++y)
            for (int x = 0; x < 40; ++x)
                ASSERT_EQ(out.channel(channel).at(x, y), double(half(float(expected.channel(channel).at(x, y)))))
                    << channel << " at " << x << ", " << y;
    }
    auto text = [&](const char* name) {
        auto* a = out.header.findTypedAttribute<Imf::StringAttribute>(name);
        return a ? a->value() : std::string("<absent>");
    };
    EXPECT_EQ(text("KT/clientname"), "ACME Films");
    EXPECT_EQ(text("KT/scenename"), "shot_010");
    EXPECT_EQ(text("KT/jobID"), "JOB-77");
    EXPECT_EQ(text("artist"), "Kim");
    EXPECT_EQ(text("note"), "a=b");
    EXPECT_EQ(text("KT/application"), "-");
    EXPECT_NE(text("KT/dateWritten"), "<absent>");
}

INSTANTIATE_TEST_SUITE_P(Depths, EncodePng, testing::Values("uint8", "uint16"));

TEST_F(Ktexr, EncodeCropsATransparentBorderAndNeedsNoClient)
{
    REQUIRE_OIIO();
    std::string png = dir / "in.png";
    ASSERT_TRUE(oiioSame({"--create", "50x40", "4", "--fill:color=1,0.5,0.25,1", "20x10+15+12", "-d", "uint8", "-o", png}));
    ASSERT_EQ(ktexr({"encode", png, "-o", dir / "out.exr"}).exitCode, 0);
    DecodedExr out = readExr(readFileBytes(dir / "out.exr"));
    EXPECT_EQ(out.header.displayWindow(), box(0, 0, 49, 39));
    EXPECT_EQ(out.header.dataWindow(), box(12, 9, 37, 24));  // the filled box and 3 pixels more
    EXPECT_EQ(out.header.findTypedAttribute<Imf::StringAttribute>("KT/clientname"), nullptr);
    EXPECT_TRUE(oiioSame({dir / "out.exr", png, "--fail", "0.001", "--diff"}));
}

TEST_F(Ktexr, EncodeRefusesWhatItCannotWrite)
{
    std::string text = dir / "text.png";
    writeFile(text, Bytes(50, 'x'));
    EXPECT_EQ(ktexr({"encode", dir / "none.png", "-o", dir / "o.exr"}).exitCode, 3);
    EXPECT_EQ(ktexr({"encode", text, "-o", dir / "o.exr"}).exitCode, 4);
    for (const char* attr : {"noequals", "=value", "compression=zip", "KT/dateWritten=now"})
        EXPECT_EQ(ktexr({"encode", text, "-o", dir / "o.exr", "--attr", attr}).exitCode, 2) << attr;
    EXPECT_EQ(ktexr({"encode", text, "-o", dir / "o.exr", "--client", std::string(300, 'c')}).exitCode, 2);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"text.png"});
}

// ---- crop -------------------------------------------------------------------

// A full-frame render whose pixels outside (20, 10)-(39, 29) are empty.
ExrPart renderWithBorder()
{
    ExrPart part = describedPart();
    part.displayWindow = box(0, 0, 63, 47);
    part.value = [](const std::string& c, int x, int y) {
        return x >= 20 && x <= 39 && y >= 10 && y <= 29 ? patternValue(c, x, y) + 0.25 : 0.0;
    };
    return part;
}

TEST_F(Ktexr, CropCutsTheDataWindowAndCarriesEveryAttribute)
{
    REQUIRE_OIIO();
    ExrPart part = renderWithBorder();
    std::string source = exr("render.exr", part);
    ProgramRun r = ktexr({"crop", source, "-o", dir / "cropped.exr"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("(17, 7)-(42, 32)"));

    DecodedExr out = readExr(readFileBytes(dir / "cropped.exr"));
    EXPECT_EQ(out.header.displayWindow(), box(0, 0, 63, 47));
    EXPECT_EQ(out.header.dataWindow(), box(17, 7, 42, 32));
    EXPECT_TRUE(oiioSame({dir / "cropped.exr", source, "--diff"}));

    const Imf::Header in = part.header();
    for (const auto& [name, attribute] : part.attributes) {
        const Imf::Attribute* copied = out.header.findTypedAttribute<Imf::StringAttribute>(name.c_str());
        if (!copied) {
            auto it = out.header.find(name);
            ASSERT_NE(it, out.header.end()) << name << " was not carried over";
            copied = &it.attribute();
        }
        EXPECT_STREQ(copied->typeName(), attribute->typeName()) << name;
    }
    EXPECT_EQ(out.header.typedAttribute<Imf::IntAttribute>("frames").value(), 42);
    EXPECT_EQ(out.header.typedAttribute<Imf::M44fAttribute>("xform").value(),
              in.typedAttribute<Imf::M44fAttribute>("xform").value());
    EXPECT_EQ(out.header.typedAttribute<Imf::FloatVectorAttribute>("weights").value(),
              (std::vector<float>{1.0f, 2.0f, 3.0f}));
    EXPECT_EQ(out.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "JOB12");
}

TEST_F(Ktexr, CropUndoWritesTheWholeFrame)
{
    REQUIRE_OIIO();
    ExrPart part = renderWithBorder();
    part.dataWindow = box(20, 10, 39, 29);
    std::string source = exr("cropped.exr", part);
    ProgramRun r = ktexr({"crop", "--undo", source, "-o", dir / "whole.exr"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    DecodedExr out = readExr(readFileBytes(dir / "whole.exr"));
    EXPECT_EQ(out.header.dataWindow(), box(0, 0, 63, 47));
    EXPECT_TRUE(oiioSame({dir / "whole.exr", source, "--diff"}));
}

TEST_F(Ktexr, CropInPlaceReplacesEachFileAndKeepsItsPermissions)
{
    std::string a = exr("a.exr", renderWithBorder());
    std::string b = exr("b.exr", renderWithBorder());
    ASSERT_EQ(chmod(a.c_str(), 0640), 0);
    ProgramRun r = ktexr({"crop", "--in-place", a, b});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (const std::string& f : {a, b})
        EXPECT_EQ(readExr(readFileBytes(f)).header.dataWindow(), box(17, 7, 42, 32)) << f;
    struct stat st;
    ASSERT_EQ(stat(a.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"a.exr", "b.exr"}));
}

TEST_F(Ktexr, CropInPlaceThatCannotFinishWritingLeavesTheOriginal)
{
    ExrPart part = renderWithBorder();
    part.displayWindow = box(0, 0, 255, 191);
    part.value = [](const std::string& c, int x, int y) { return patternValue(c, x * 3, y * 5) + (x % 7) / 8.0; };
    std::string source = exr("render.exr", part);
    const Bytes original = readFileBytes(source);
    ASSERT_GT(original.size(), 20000u);

    ProgramLimits limits;
    limits.fileSizeLimit = 4096;  // the new file cannot be written whole
    ProgramRun r = ktexr({"crop", "--in-place", source}, limits);
    EXPECT_EQ(r.exitCode, 8) << r.err;
    EXPECT_THAT(r.err, HasSubstr("render.exr"));
    EXPECT_EQ(readFileBytes(source), original);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"render.exr"});
}

TEST_F(Ktexr, CropGoesOnAfterABadFileAndReportsTheFirstFailure)
{
    std::string text = dir / "text.exr";
    writeFile(text, Bytes(64, 'x'));
    std::string good = exr("good.exr", renderWithBorder());
    ProgramRun r = ktexr({"crop", "--in-place", text, good});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_THAT(r.err, HasSubstr("text.exr"));
    EXPECT_EQ(readFileBytes(text), Bytes(64, 'x'));
    EXPECT_EQ(readExr(readFileBytes(good)).header.dataWindow(), box(17, 7, 42, 32));
}

// ---- assemble ---------------------------------------------------------------

ExrPart tilePart(const Imath::Box2i& region)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 63, 47);
    part.dataWindow = region;
    part.value = [](const std::string& c, int x, int y) { return patternValue(c, x, y) + 0.0625; };
    return part;
}

class Assemble : public Ktexr {
protected:
    std::vector<std::string> tiles(const std::vector<Imath::Box2i>& regions)
    {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < regions.size(); ++i) {
            ExrPart part = tilePart(regions[i]);
            part.attribute("KT/jobID", std::string("JOB") + std::to_string(i + 1));
            if (i == 0) part.attribute("frames", 7);
            paths.push_back(exr("tile" + std::to_string(i + 1) + ".exr", part));
        }
        return paths;
    }
    ProgramRun assemble(std::vector<std::string> args, const std::vector<std::string>& tiles)
    {
        args.insert(args.begin(), "assemble");
        args.insert(args.end(), tiles.begin(), tiles.end());
        return ktexr(args);
    }
    const std::vector<Imath::Box2i> quadrants = {box(0, 0, 31, 23), box(32, 0, 63, 23), box(0, 24, 31, 47),
                                                 box(32, 24, 63, 47)};
};

TEST_F(Assemble, QuadrantsMakeTheFrameTheyWereCutFrom)
{
    REQUIRE_OIIO();
    std::string frame = exr("frame.exr", tilePart(box(0, 0, 63, 47)));
    std::vector<std::string> t = tiles(quadrants);
    ProgramRun r = assemble({"-o", dir / "out.exr"}, t);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(oiioSame({dir / "out.exr", frame, "--diff"}));

    DecodedExr out = readExr(readFileBytes(dir / "out.exr"));
    EXPECT_EQ(out.header.displayWindow(), box(0, 0, 63, 47));
    EXPECT_EQ(out.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "JOB1");
    EXPECT_EQ(out.header.typedAttribute<Imf::IntAttribute>("frames").value(), 7);
    EXPECT_EQ(out.header.typedAttribute<Imf::StringAttribute>("KT/application").value(), "-");
}

TEST_F(Assemble, UnevenTilesInAnyOrder)
{
    REQUIRE_OIIO();
    std::string frame = exr("frame.exr", tilePart(box(0, 0, 63, 47)));
    std::vector<std::string> t =
        tiles({box(40, 30, 63, 47), box(0, 0, 63, 4), box(0, 5, 39, 47), box(40, 5, 63, 29)});
    ASSERT_EQ(assemble({"-o", dir / "out.exr"}, t).exitCode, 0);
    EXPECT_TRUE(oiioSame({dir / "out.exr", frame, "--diff"}));
}

TEST_F(Assemble, CheckOnlyWritesNothing)
{
    ProgramRun r = assemble({"--check"}, tiles(quadrants));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("3072 of 3072 pixels covered"));
    EXPECT_EQ(dir.entries().size(), 4u);
}

TEST_F(Assemble, OverlappingTilesAreRefusedNamingBoth)
{
    std::vector<std::string> t = tiles({box(0, 0, 33, 47), box(32, 0, 63, 47)});
    ProgramRun r = assemble({"-o", dir / "out.exr"}, t);
    EXPECT_EQ(r.exitCode, 7);
    EXPECT_THAT(r.err, HasSubstr("tile1.exr: overlaps " + t[1] + " by 96 pixels"));
    EXPECT_FALSE(std::filesystem::exists(dir / "out.exr"));
}

TEST_F(Assemble, GapsAreRefusedUnlessAllowed)
{
    std::vector<std::string> t = tiles({box(0, 0, 31, 47), box(34, 0, 63, 47)});
    ProgramRun r = assemble({"-o", dir / "out.exr"}, t);
    EXPECT_EQ(r.exitCode, 7);
    EXPECT_THAT(r.err, HasSubstr("96 pixels of the frame"));
    EXPECT_FALSE(std::filesystem::exists(dir / "out.exr"));

    r = assemble({"--allow-gaps", "-o", dir / "out.exr"}, t);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    DecodedExr out = readExr(readFileBytes(dir / "out.exr"));
    const Imath::Box2i data = out.header.dataWindow();
    for (const char* c : {"R", "G", "B", "A"})
        for (int y = 0; y < 48; ++y)
            for (int x = 32; x <= 33; ++x)
                if (x >= data.min.x && x <= data.max.x && y >= data.min.y && y <= data.max.y) {
                    ASSERT_EQ(out.channel(c).at(x, y), 0.0) << c << " at " << x << ", " << y;
                }
}

TEST_F(Assemble, ATileOfAnotherFrameIsNamed)
{
    std::vector<std::string> t = tiles({box(0, 0, 31, 47)});
    ExrPart other = tilePart(box(32, 0, 63, 47));
    other.displayWindow = box(0, 0, 63, 49);
    t.push_back(exr("other.exr", other));
    ProgramRun r = assemble({"-o", dir / "out.exr"}, t);
    EXPECT_EQ(r.exitCode, 7);
    EXPECT_THAT(r.err, HasSubstr("other.exr: display window (0, 0)-(63, 49) differs"));
}

TEST_F(Assemble, UnusableTilesAreNamedBeforeAnyPixelIsRead)
{
    std::vector<std::string> t = tiles(quadrants);
    ExrPart cut = tilePart(box(0, 0, 63, 47));
    cut.writeLimit = 3;
    std::string incomplete = exr("incomplete.exr", cut);
    ProgramRun r = assemble({"-o", dir / "out.exr"}, {t[0], incomplete, t[1]});
    EXPECT_EQ(r.exitCode, 5);
    EXPECT_THAT(r.err, HasSubstr("incomplete.exr"));
    EXPECT_EQ(assemble({"-o", dir / "out.exr"}, {t[0], dir / "gone.exr"}).exitCode, 3);
    EXPECT_FALSE(std::filesystem::exists(dir / "out.exr"));
}

TEST_F(Assemble, ManyTilesShowProgress)
{
    std::vector<Imath::Box2i> strips;
    for (int i = 0; i < 8; ++i) strips.push_back(box(0, i * 6, 63, i * 6 + 5));
    ProgramRun r = assemble({"-o", dir / "out.exr"}, tiles(strips));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.err, HasSubstr("tile 1 of 8"));
    EXPECT_THAT(r.err, HasSubstr("tile 8 of 8"));
}

// ---- demo -------------------------------------------------------------------

TEST_F(Ktexr, DemoWritesTilesThatAssembleToItsFrame)
{
    REQUIRE_OIIO();
    ProgramRun r = ktexr({"demo", dir / "demo"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    for (const char* f : {"frame.exr", "tile-1.exr", "tile-4.exr", "assembled.exr", "cropped.exr", "preview.png"}) {
        EXPECT_TRUE(std::filesystem::exists(dir / (std::string("demo/") + f))) << f;
        EXPECT_THAT(r.out, HasSubstr(dir / (std::string("demo/") + f)));
    }
    EXPECT_TRUE(oiioSame({dir / "demo/assembled.exr", dir / "demo/frame.exr", "--diff"}));
    DecodedExr tile = readExr(readFileBytes(dir / "demo/tile-2.exr"));
    EXPECT_EQ(tile.header.dataWindow(), box(160, 0, 319, 119));
    EXPECT_EQ(tile.header.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "DEMO-0042");
    ProgramRun info = oiiotool({"--info", dir / "demo/preview.png"});
    EXPECT_THAT(info.out, HasSubstr("320 x  240, 4 channel, uint8 png"));
    // Somewhere the frame is brighter than white, and its edge is transparent.
    DecodedExr frame = readExr(readFileBytes(dir / "demo/frame.exr"));
    double brightest = 0;
    for (double v : frame.channel("R").values) brightest = std::max(brightest, v);
    EXPECT_GT(brightest, 1.0);
    EXPECT_EQ(frame.channel("A").at(0, 0), 0.0);
}

// ---- the real-world corpus --------------------------------------------------

TEST_F(Ktexr, EveryValidCorpusFileReadsAndDecodes)
{
    std::vector<std::string> files;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"})
        for (const std::string& f : corpusFiles(folder)) files.push_back(f);
    if (files.empty()) {
        GTEST_SKIP() << "no corpus beside the checkout";
    }
    std::vector<std::string> args = {"info", "--json"};
    args.insert(args.end(), files.begin(), files.end());
    ProgramRun r = ktexr(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    auto doc = nlohmann::json::parse(r.out);
    ASSERT_EQ(doc["files"].size(), files.size());
    for (const auto& f : doc["files"]) EXPECT_EQ(f["ok"], true) << f["file"] << ": " << f["description"];
    for (const std::string& f : files) {
        ProgramRun d = ktexr({"decode", f, "-o", dir / "out.pfm", "--depth", "float"});
        EXPECT_EQ(d.exitCode, 0) << f << ": " << d.err;
    }
}

TEST_F(Ktexr, DamagedCorpusFilesGetAStatusNeverACrash)
{
    std::string root = corpusDirectory();
    if (root.empty()) {
        GTEST_SKIP() << "no corpus beside the checkout";
    }
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(root + "/Damaged"))
        if (entry.is_regular_file() && entry.path().extension() != ".rst") files.push_back(entry.path().string());
    ASSERT_GT(files.size(), 100u);

    // One info run over all of them: every file gets its entry.
    std::vector<std::string> args = {"info", "--json"};
    args.insert(args.end(), files.begin(), files.end());
    ProgramRun info = ktexr(args);
    ASSERT_EQ(info.signal, 0);
    EXPECT_THAT(info.exitCode, testing::AnyOf(4, 5, 6)) << info.err;
    auto entries = nlohmann::json::parse(info.out)["files"];
    ASSERT_EQ(entries.size(), files.size());

    // The pixels of those whose header passed (the others are refused before decoding).
    for (const auto& entry : entries) {
        if (entry["ok"] != true) continue;
        const std::string f = entry["file"];
        ProgramRun r = ktexr({"decode", f, "-o", dir / "o.png"});
        EXPECT_EQ(r.signal, 0) << f;
        EXPECT_THAT(r.exitCode, testing::AnyOf(0, 4, 5, 6)) << f << "\n" << r.err;
        if (r.exitCode != 0) {
            EXPECT_THAT(r.err, HasSubstr(std::filesystem::path(f).filename().string()));
        }
    }
}

}  // namespace
