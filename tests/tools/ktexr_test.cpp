// ktexr run as users run it, on files the test builder makes; what it
// writes is read back by OpenEXR itself and by oiiotool, never by ktexr.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfChromaticitiesAttribute.h>
#include <nlohmann/json.hpp>

#include "exrBuilder.h"
#include "programRun.h"

namespace {

using namespace kt::test;
using testing::HasSubstr;
using Args = std::vector<std::string>;
using Json = nlohmann::json;

#define REQUIRE_OIIO() \
    if (run({"oiiotool", "--help"}).status != 0) GTEST_SKIP() << "oiiotool (openimageio-tools) is not installed"

// The 8- and 16-bit channel rule of the decoders: scaled, clamped, truncated.
int toInteger(float v, int top)
{
    return !(v > 0.0f) ? 0 : v >= 1.0f ? top : static_cast<int>(v * static_cast<float>(top));
}

// Exact in half: multiples of 1/16 from -0.375 to 2.0, different in every channel.
double spread(const std::string& channel, int x, int y) { return ((x * 7 + y * 13 + channel[0] * 5) % 38 - 6) / 16.0; }

ExrPart describedPart()
{
    ExrPart part;
    part.compression = Imf::ZIPS_COMPRESSION;
    part.attribute("KT/jobID", std::string("JOB12")).attribute("KT/clientname", std::string("client"));
    part.attribute("KT/scenename", std::string("scene")).attribute("frames", 42).attribute("exposure", 1.5f);
    part.attribute("offset", Imath::V2f(1.0f, -2.0f)).attribute("position", Imath::V3f(0.5f, 0.25f, 8.0f));
    part.attribute("weights", std::vector<float>{1.0f, 2.0f, 3.0f});
    Imath::M44f m;
    for (int i = 0; i < 16; ++i) m[i / 4][i % 4] = static_cast<float>(i) + 0.5f;
    part.attribute("xform", m);
    return part;
}

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

// One region of a 64 x 48 frame whose every pixel is occupied.
ExrPart framePart(const Imath::Box2i& region)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 63, 47);
    part.dataWindow = region;
    part.value = [](const std::string& c, int x, int y) { return patternValue(c, x, y) + 0.0625; };
    return part;
}

Imf::Header headerOf(const std::string& path) { return readExr(readFileBytes(path), 0, false).header; }

// A file ktexr wrote must open with OpenEXR's C++ library, pixels included, and with its Core library (exrinfo).
void expectReadableByOpenExr(const std::string& path)
{
    EXPECT_NO_THROW(readExr(readFileBytes(path))) << path;
    ProgramRun core = run({"exrinfo", "-v", path});  // which reports errors but ends with 0
    EXPECT_EQ(core.status, 0) << path << ": " << core.err;
    EXPECT_THAT(core.out + core.err, testing::Not(HasSubstr("ERROR"))) << path;
}

class Ktexr : public InTestFolder {
protected:
    std::string exr(const std::string& name, const ExrPart& part) { return write(name, makeExr(part)); }
    // Region tiles <stem>1.exr, <stem>2.exr ..., each with its own job ID.
    Args tiles(const std::string& stem, const std::vector<Imath::Box2i>& regions)
    {
        Args paths;
        for (std::size_t i = 1; i <= regions.size(); ++i)
            paths.push_back(exr(stem + std::to_string(i) + ".exr",
                                framePart(regions[i - 1]).attribute("KT/jobID", "JOB" + std::to_string(i))));
        return paths;
    }

    // crop and assemble run the plug-in's route here (--host); the lossless
    // route has its own suite.
    ProgramRun ktexr(Args args)
    {
        if (!args.empty() && (args[0] == "crop" || args[0] == "assemble")) args.insert(args.begin() + 1, "--host");
        return runKtexr(args);
    }
    // Whether oiiotool succeeds: with --diff, whether the two images match.
    bool oiio(Args args)
    {
        args.insert(args.begin(), "oiiotool");
        ProgramRun r = run(args);
        EXPECT_EQ(r.status, 0) << testing::PrintToString(args) << "\n" << r.out << r.err;
        return r.status == 0;
    }
};

// The program and each command describe their options; the program alone its exit statuses, and its version.
TEST_F(Ktexr, HelpOfEveryCommand)
{
    const std::pair<Args, Args> helps[] = {
        {{}, {"info", "decode", "encode", "crop", "assemble", "demo", "--plugin", "--threads", "--version", "  0  ",
              "  2  ", "  3  ", "  4  ", "  5  ", "  6  ", "  7  ", "  8  ", "  9  "}},
        {{"info"}, {"--json", "--head", "--jobs"}},          {{"decode"}, {"--depth", "--gamma-exponent", "--alpha"}},
        {{"encode"}, {"--attr", "--client", "--job"}},
        {{"crop"}, {"--in-place", "--undo", "--verbose", "--lossy", "--dry-run", "--force"}},
        {{"assemble"}, {"--allow-gaps", "--check", "--lossy", "--dry-run"}}, {{"demo"}, {"directory"}}};
    for (auto [args, words] : helps) {
        const bool program = args.empty();
        args.push_back("--help");
        ProgramRun r = ktexr(args);
        EXPECT_EQ(r.status, 0) << args[0] << ": " << r.err;
        for (const std::string& word : words) EXPECT_THAT(r.out, HasSubstr(word)) << args[0];
        EXPECT_EQ(r.out.find("Exit status") != std::string::npos, program) << args[0];
    }
    EXPECT_THAT(ktexr({"--version"}).out, testing::MatchesRegex("ktexr [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

// Each bad input ends with its status, says what is wrong on standard error and leaves no file behind.
TEST_F(Ktexr, BadInputEndsWithItsStatusAndWritesNothing)
{
    const std::string good = exr("good.exr", ExrPart{});
    const std::string text = write("text.exr", Bytes(100, 'x'));
    const std::string png = write("text.png", Bytes(50, 'x'));
    ExrPart cut;
    cut.writeLimit = 3;  // header complete, scan lines missing
    const std::string incomplete = exr("incomplete.exr", cut);
    ExrPart large;
    large.displayWindow = box(0, 0, 199, 149);
    Bytes truncated = makeExr(large);
    truncated.resize(truncated.size() * 3 / 10);  // its header reads, most of its pixels are not there
    const std::string shortened = write("shortened.exr", truncated);
    const Args overlap = tiles("overlap", {box(0, 0, 33, 47), box(32, 0, 63, 47)});
    const Args gap = tiles("gap", {box(0, 0, 31, 47), box(34, 0, 63, 47)});
    const std::string out = at("out.exr"), missing = at("missing.exr"), pngOut = at("o.png");
    const std::string video = write("video.mp4", Bytes{'R', 'I', 'F', 'F'});
    std::filesystem::resize_file(video, 5ull << 30);  // sparse: refused from its first bytes, never loaded
    const Args before = entries();

    const struct { Args args; int status; std::string says; } cases[] = {
        {{}, 2, ""},
        {{"info"}, 2, ""},
        {{"--threads", "-3", "identity"}, 2, ""},
        {{"decode", good}, 2, ""},
        {{"decode", good, "-o", pngOut, "--depth", "12"}, 2, ""},
        {{"decode", good, "-o", at("o.pfm")}, 2, "o.pfm"},  // a float map needs --depth float
        {{"decode", good, "-o", pngOut, "--depth", "float"}, 2, "o.png"},
        {{"decode", good, "-o", pngOut, "--alpha", at("a.pfm")}, 2, "a.pfm"},
        {{"encode", png, "-o", out, "--attr", "noequals"}, 2, "noequals"},
        {{"encode", png, "-o", out, "--attr", "=value"}, 2, "=value"},
        {{"encode", png, "-o", out, "--attr", "compression=zip"}, 2, "'compression'"},
        {{"encode", png, "-o", out, "--attr", "KT/dateWritten=now"}, 2, "'KT/dateWritten'"},
        {{"encode", png, "-o", out, "--client", std::string(256, 'c')}, 2, "--client"},
        {{"crop", good}, 2, ""},  // neither -o nor --in-place
        {{"crop", good, good, "-o", out}, 2, ""},
        {{"crop", good, "-o", out, "--in-place"}, 2, ""},
        {{"assemble", good}, 2, ""},  // no -o
        {{"--plugin", at("none.so"), "identity"}, 6, at("none.so")},
        {{"info", missing}, 3, missing},
        {{"info", text}, 4, text},
        {{"info", video}, 4, video + ": not an EXR file"},
        {{"info", incomplete}, 5, incomplete},
        {{"decode", missing, "-o", pngOut}, 3, missing},
        {{"decode", text, "-o", pngOut}, 4, text},
        {{"decode", incomplete, "-o", pngOut}, 5, incomplete},
        {{"decode", shortened, "-o", pngOut}, 5, shortened + ": incomplete"},
        {{"crop", shortened, "-o", out}, 5, shortened + ": incomplete"},
        {{"assemble", "-o", out, shortened}, 5, shortened + ": incomplete"},
        {{"decode", good, "-o", at("no/such/o.png")}, 8, at("no/such/o.png")},
        {{"encode", at("none.png"), "-o", out}, 3, at("none.png")},
        {{"encode", png, "-o", out}, 4, png},
        {{"crop", text, "-o", out}, 4, text},
        {{"assemble", "-o", out, overlap[0], overlap[1]}, 7, overlap[0] + ": overlaps " + overlap[1] + " by 96 pixels"},
        {{"assemble", "-o", out, gap[0], gap[1]}, 7, "96 pixels of the frame"},
        {{"assemble", "-o", out, gap[0], incomplete, gap[1]}, 5, incomplete},  // named before any pixel is read
        {{"assemble", "-o", out, gap[0], missing}, 3, missing},
    };
    for (const auto& c : cases) {
        ProgramRun r = ktexr(c.args);
        EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args) << "\n" << r.err;
        EXPECT_THAT(r.err, testing::AllOf(HasSubstr(c.says), testing::Not(testing::IsEmpty())));
        for (std::size_t line = 0; line < r.err.size(); line = r.err.find('\n', line) + 1)
            EXPECT_EQ(r.err.compare(line, 7, "ktexr: "), 0) << r.err.substr(line);
    }
    EXPECT_EQ(entries(), before);
}

// info, as text and as JSON; with several files every one gets its entry and the first failure decides, on any
// number of threads.
TEST_F(Ktexr, InfoShowsTheDescriptionAndEveryEntry)
{
    const std::string described = exr("described.exr", describedPart());
    ProgramRun text = ktexr({"info", described});
    ASSERT_EQ(text.status, 0) << text.err;
    for (const char* line : {"Exr  Half Zip-1line scanline 'A B G R ' JOB12 client scene", "16 x 12", "alpha +yes",
                             "32 per channel", "parts +1, the first scanline", "display +\\(0, 0\\)-\\(15, 11\\)",
                             "compression +zips", "channels +A half, B half, G half, R half", "complete +yes",
                             "frames +int +42", "exposure +float +1.5", "KT/jobID +string +JOB12",
                             "xform +m44f +\\[0.5 1.5 2.5 3.5\\] \\[4.5"})
        EXPECT_THAT(text.out, testing::ContainsRegex(line));

    ExrPart cut;
    cut.writeLimit = 3;
    const std::string incomplete = exr("incomplete.exr", cut);
    ExrPart large = describedPart();
    large.displayWindow = box(0, 0, 199, 149);
    large.compression = Imf::NO_COMPRESSION;
    Bytes truncated = makeExr(large);
    truncated.resize(truncated.size() * 3 / 100);  // the header and offset table whole, 3 % of the file
    const Args inputs = {described, at("missing.exr"), incomplete, write("t.exr", Bytes(6, 'x')),
                         write("truncated.exr", truncated)};
    // With --jobs, as text and as JSON, exactly what a serial run prints.
    for (const bool json : {false, true}) {
        Args args = {"info", "--jobs", "1"};
        if (json) args.push_back("--json");
        args.insert(args.end(), inputs.begin(), inputs.end());
        const ProgramRun serial = ktexr(args);
        args[2] = "3";
        const ProgramRun parallel = ktexr(args);
        EXPECT_EQ(serial.status, 3) << serial.err;
        EXPECT_EQ(parallel.status, serial.status) << json;
        EXPECT_EQ(parallel.out, serial.out) << json;
        EXPECT_EQ(parallel.err, serial.err) << json;
    }
    Args args = {"info", "--json"};
    args.insert(args.end(), inputs.begin(), inputs.end());
    ProgramRun r = ktexr(args);
    EXPECT_EQ(r.status, 3);
    Json doc = Json::parse(r.out);
    EXPECT_EQ(doc["schema"], "ktexr-info");
    EXPECT_EQ(doc["version"], 1);
    EXPECT_EQ(doc["plugin"]["name"], "OpenExr");
    Json& files = doc["files"];
    ASSERT_EQ(files.size(), 5u);
    const Json expected = {{"file", described}, {"ok", true}, {"status", 1}, {"width", 16}, {"height", 12},
                           {"hasAlpha", true}, {"bitsPerChannel", 32}, {"uncompressed", false}, {"complete", true},
                           {"parts", 1}, {"displayWindow", {0, 0, 15, 11}}, {"dataWindow", {0, 0, 15, 11}},
                           {"compression", "zips"}, {"channels", Json::parse(R"([{"name": "A", "type": "half"},
                               {"name": "B", "type": "half"}, {"name": "G", "type": "half"}, {"name": "R", "type": "half"}])")},
                           {"fileSize", std::filesystem::file_size(described)}};
    for (const auto& [key, value] : expected.items()) EXPECT_EQ(files[0][key], value) << key;
    // In header order, which OpenEXR keeps sorted by name.
    EXPECT_EQ(files[0]["metadata"], Json::parse(R"([
        {"name": "KT/clientname", "type": "string", "value": "client"},
        {"name": "KT/jobID", "type": "string", "value": "JOB12"},
        {"name": "KT/scenename", "type": "string", "value": "scene"},
        {"name": "exposure", "type": "float", "value": 1.5},
        {"name": "frames", "type": "int", "value": 42},
        {"name": "offset", "type": "v2f", "value": [1, -2]},
        {"name": "position", "type": "v3f", "value": [0.5, 0.25, 8]},
        {"name": "weights", "type": "floatvector", "value": [1, 2, 3]},
        {"name": "xform", "type": "m44f",
         "value": [[0.5, 1.5, 2.5, 3.5], [4.5, 5.5, 6.5, 7.5], [8.5, 9.5, 10.5, 11.5], [12.5, 13.5, 14.5, 15.5]]}
    ])"));
    EXPECT_EQ(files[1]["status"], nullptr);
    EXPECT_EQ(files[2]["status"], 14);
    EXPECT_EQ(files[2]["ok"], false);
    EXPECT_EQ(files[2]["width"], 16);  // still known
    EXPECT_THAT(files[2]["description"].get<std::string>(), HasSubstr(" ERR: file not completed!"));
    EXPECT_EQ(files[3]["ok"], false);
    EXPECT_EQ(files[4]["ok"], false);  // the plug-in reads its header, but the pixels are not there
    EXPECT_EQ(files[4]["complete"], false);
    EXPECT_THAT(files[4]["error"].get<std::string>(), HasSubstr("incomplete"));
}

// info loads the head of a file, and four times as much while the plug-in asks for more.
TEST_F(Ktexr, InfoLoadsOnlyWhatTheHeaderNeeds)
{
    ExrPart part;
    part.displayWindow = box(0, 0, 399, 299);
    part.compression = Imf::NO_COMPRESSION;  // about 940 KB of pixels
    for (int i = 0; i < 150; ++i) part.attribute("note" + std::to_string(1000 + i), std::string(1000, 'a' + i % 26));
    const std::string large = exr("large.exr", part);  // behind a header of about 150 KB
    Json fromDefault = Json::parse(ktexr({"info", "--json", large}).out)["files"][0];
    Json fromByte16 = Json::parse(ktexr({"info", "--json", "--head", "16", large}).out)["files"][0];
    EXPECT_EQ(fromDefault["status"], 1);
    EXPECT_EQ(fromDefault["uncompressed"], true);
    EXPECT_EQ(fromDefault["headerCalls"], 2);  // 64 KiB, 256 KiB
    EXPECT_EQ(fromDefault["loadedBytes"], 262144);
    EXPECT_EQ(fromByte16["headerCalls"], 8);  // 16 bytes, 64, ..., 256 KiB
    ASSERT_EQ(fromDefault["metadata"].size(), 150u);
    EXPECT_EQ(fromDefault["metadata"][149]["value"], std::string(1000, 'a' + 149 % 26));
    EXPECT_EQ(fromByte16["metadata"], fromDefault["metadata"]);
}

// Float maps hold colour and alpha as the file does; PNG channels follow the decoders' integer rule, with the
// gamma exponent on colour when asked. The frame outside the data window is zero.
TEST_F(Ktexr, DecodeToFloatMapsAndPngs)
{
    REQUIRE_OIIO();
    ExrPart part;
    part.displayWindow = box(0, 0, 23, 17);
    part.dataWindow = box(3, 2, 20, 14);
    part.value = spread;
    const std::string source = exr("source.exr", part);
    ProgramRun r = ktexr({"decode", source, "-o", at("c.pfm"), "--depth", "float", "--alpha", at("a.pfm")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(oiio({at("c.pfm"), source, "--ch", "R,G,B", "--diff"}));
    EXPECT_TRUE(oiio({at("a.pfm"), source, "--ch", "A", "--diff"}));
    ASSERT_EQ(ktexr({"decode", source, "-o", at("only.pfm"), "--depth", "float"}).status, 0);
    EXPECT_EQ(entries(), (Args{"a.pfm", "c.pfm", "only.pfm", "source.exr"}));  // no alpha map unless asked

    const double pluginGamma = 0.45454543828964233;  // gammaV, the float just under 1 / 2.2
    const struct { const char* depth; int top; Args gamma; double exponent; } cases[] = {
        {"8", 255, {}, 1.0}, {"16", 65535, {}, 1.0}, {"8", 255, {"--gamma"}, pluginGamma},
        {"16", 65535, {"--gamma"}, pluginGamma}, {"8", 255, {"--gamma-exponent", "0.5"}, 0.5}};
    for (const auto& c : cases) {
        Args args = {"decode", source, "-o", at("out.png"), "--depth", c.depth};
        args.insert(args.end(), c.gamma.begin(), c.gamma.end());
        r = ktexr(args);
        ASSERT_EQ(r.status, 0) << r.err;
        // Colour as stored: OpenImageIO would premultiply it by alpha.
        oiio({"--iconfig", "oiio:UnassociatedAlpha", "1", at("out.png"), "-d", "float", "-o", at("png.exr")});
        const DecodedExr png = readExr(readFileBytes(at("png.exr")));
        ASSERT_EQ(png.header.dataWindow(), part.displayWindow);
        for (const char* channel : {"R", "G", "B", "A"})
            for (int y = 0; y < 18; ++y)
                for (int x = 0; x < 24; ++x) {
                    const bool inside = x >= 3 && x <= 20 && y >= 2 && y <= 14;
                    double v = inside ? spread(channel, x, y) : 0.0;
                    if (channel[0] != 'A' && v > 0) v = std::pow(v, c.exponent);
                    ASSERT_EQ(std::lround(png.channel(channel).at(x, y) * c.top), toInteger(float(v), c.top))
                        << c.depth << " bits, gamma " << c.exponent << ": " << channel << " at " << x << ", " << y;
                }
    }
}

// A file without alpha previews opaque at every depth: the alpha the plug-in fills from the first channel is not
// shown as transparency.
TEST_F(Ktexr, PreviewsOfImagesWithoutAlphaAreOpaque)
{
    REQUIRE_OIIO();
    for (const auto& channels : {channelList({"B", "G", "R"}), channelList({"Y"})}) {
        ExrPart part;
        part.channels = channels;
        const std::string source = exr("noalpha.exr", part);
        const std::pair<Args, std::string> previews[] = {
            {{"-o", at("p.png")}, "p.png"}, {{"-o", at("p.png"), "--depth", "16"}, "p.png"},
            {{"-o", at("c.pfm"), "--depth", "float", "--alpha", at("a.pfm")}, "a.pfm"}};
        for (const auto& [options, alphaFile] : previews) {
            Args args = {"decode", source};
            args.insert(args.end(), options.begin(), options.end());
            ProgramRun r = ktexr(args);
            ASSERT_EQ(r.status, 0) << r.err;
            oiio({"--iconfig", "oiio:UnassociatedAlpha", "1", at(alphaFile), "-d", "float", "-o", at("alpha.exr")});
            const DecodedExr decoded = readExr(readFileBytes(at("alpha.exr")));
            const DecodedChannel& alpha = decoded.channels.size() == 1 ? decoded.channels[0] : decoded.channel("A");
            EXPECT_EQ(*std::min_element(alpha.values.begin(), alpha.values.end()), 1.0)
                << channels.size() << " channels, " << alphaFile;
        }
    }
}

// The PNG's pixels as half, cut to the occupied box plus 3 pixels, with the render metadata; the client name
// only when given.
TEST_F(Ktexr, EncodeWritesPixelsAndRenderMetadata)
{
    REQUIRE_OIIO();
    for (const auto& [type, client] : {std::pair<std::string, std::string>{"uint8", "ACME Films"}, {"uint16", ""}}) {
        const std::string png = at(type + ".png"), exrOut = at(type + ".exr");
        ASSERT_TRUE(oiio({"--create", "50x40", "4", "--fill:topleft=1,0,0.2,1:topright=0,1,0,0.6:bottomleft=0,0,1,0.3:"
                          "bottomright=1,1,1,1", "20x10+15+12", "-d", type, "-o", png}));
        Args args = {"encode", png, "-o", exrOut, "--scene", "shot_010", "--job", "JOB-77", "--attr", "artist=Kim",
                     "--attr", "note=a=b"};
        if (!client.empty()) args.insert(args.end(), {"--client", client});
        ProgramRun r = ktexr(args);
        ASSERT_EQ(r.status, 0) << r.err;
        // Within half's precision; colour as stored, since OpenImageIO would premultiply it by alpha.
        EXPECT_TRUE(oiio({"--iconfig", "oiio:UnassociatedAlpha", "1", png, exrOut, "--fail", "0.001", "--diff"}));
        const Imf::Header out = headerOf(exrOut);
        expectReadableByOpenExr(exrOut);
        EXPECT_EQ(out.compression(), Imf::ZIPS_COMPRESSION);
        EXPECT_EQ(out.displayWindow(), box(0, 0, 49, 39));
        EXPECT_EQ(out.dataWindow(), box(12, 9, 37, 24)) << type;
        for (auto c = out.channels().begin(); c != out.channels().end(); ++c) EXPECT_EQ(c.channel().type, Imf::HALF);
        const std::pair<const char*, std::string> texts[] = {
            {"KT/clientname", client.empty() ? "<absent>" : client}, {"KT/scenename", "shot_010"},
            {"KT/jobID", "JOB-77"}, {"artist", "Kim"}, {"note", "a=b"}, {"KT/application", "-"}};
        for (const auto& [name, value] : texts) {
            auto* attribute = out.findTypedAttribute<Imf::StringAttribute>(name);
            EXPECT_EQ(attribute ? attribute->value() : "<absent>", value) << name;
        }
        EXPECT_NE(out.findTypedAttribute<Imf::StringAttribute>("KT/dateWritten"), nullptr);
    }
}

// crop cuts the data window to the occupied pixels plus 3 and --undo writes the whole frame again;
// both keep every pixel and carry every attribute over.
TEST_F(Ktexr, CropAndUndoKeepEveryPixelAndAttribute)
{
    REQUIRE_OIIO();
    const ExrPart part = renderWithBorder();
    const std::string source = exr("render.exr", part);
    ProgramRun r = ktexr({"crop", source, "-o", at("cropped.exr")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("(17, 7)-(42, 32)"));
    ASSERT_EQ(ktexr({"crop", "--undo", at("cropped.exr"), "-o", at("whole.exr")}).status, 0);

    auto valueOf = [](const Imf::Attribute& attribute) {
        MemoryOStream bytes;
        attribute.writeValueTo(bytes, 2);
        return bytes.bytes();
    };
    const std::pair<const char*, Imath::Box2i> outputs[] = {{"cropped.exr", box(17, 7, 42, 32)},
                                                             {"whole.exr", box(0, 0, 63, 47)}};
    for (const auto& [name, data] : outputs) {
        EXPECT_TRUE(oiio({at(name), source, "--diff"}));
        expectReadableByOpenExr(at(name));
        const Imf::Header out = headerOf(at(name));
        EXPECT_EQ(out.displayWindow(), box(0, 0, 63, 47)) << name;
        EXPECT_EQ(out.dataWindow(), data) << name;
        for (const auto& [attributeName, attribute] : part.attributes) {
            auto it = out.find(attributeName);
            ASSERT_NE(it, out.end()) << attributeName << " is not in " << name;
            EXPECT_STREQ(it.attribute().typeName(), attribute->typeName()) << attributeName;
            EXPECT_EQ(valueOf(it.attribute()), valueOf(*attribute)) << attributeName;
        }
    }
}

// What the plug-in's encoder cannot write is named, one line a loss, and refused unless --lossy; --dry-run only
// says what would be written and lost. Structural attributes never travel: a part of a multi-part file comes out
// as a file OpenEXR's Core library reads.
TEST_F(Ktexr, CropAndAssembleNameEveryLoss)
{
    auto render = [](auto&& change) {
        ExrPart part = renderWithBorder();
        change(part);
        return part;
    };
    const ExrPart floats = render([](ExrPart& p) { p.channels = channelList({"A", "B", "G", "R"}, Imf::FLOAT); });
    const ExrPart aovs = render([](ExrPart& p) { p.channels = channelList({"A", "B", "G", "R", "Z"}); });
    const struct { std::string name; Bytes bytes; std::string loss; } cases[] = {
        {"floats.exr", makeExr(floats), "channel 'R' is 32-bit float, written as 16-bit half"},
        {"aovs.exr", makeExr(aovs), "channel 'Z' (half) is dropped"},
        {"parts.exr", makeMultiPartExr({renderWithBorder(), aovs}), "part 1 'part1' (5 channels) is dropped"},
        {"overscan.exr", makeExr(render([](ExrPart& p) { p.dataWindow = box(-8, -8, 71, 55); })),
         "2048 pixels of the data window (-8, -8)-(71, 55) lie outside the display window"},
        {"chroma.exr", makeExr(render([](ExrPart& p) { p.attribute("chromaticities", Imf::Chromaticities()); })),
         "attribute 'chromaticities' (chromaticities) is dropped"},
        {"notes.exr", makeExr(render([](ExrPart& p) { p.attribute("notes", std::string(2500, 'n')); })),
         "attribute 'notes' is cut from 2500 to 2000 characters"},
    };
    const std::string out = at("out.exr");
    for (const auto& c : cases) {
        const std::string input = write(c.name, c.bytes);
        ProgramRun r = ktexr({"crop", input, "-o", out});
        EXPECT_EQ(r.status, 9) << c.name << "\n" << r.err;
        EXPECT_THAT(r.err, HasSubstr(input + ": would lose: " + c.loss));
        EXPECT_FALSE(std::filesystem::exists(out)) << c.name;
        r = ktexr({"crop", input, "--dry-run"});
        EXPECT_EQ(r.status, 0) << c.name << "\n" << r.err;
        EXPECT_THAT(r.out, testing::AllOf(HasSubstr("would write"), HasSubstr("would lose: " + c.loss)));
        EXPECT_EQ(readFileBytes(input), c.bytes) << c.name;
        r = ktexr({"crop", input, "-o", out, "--lossy"});
        ASSERT_EQ(r.status, 0) << c.name << "\n" << r.err;
        expectReadableByOpenExr(out);
        std::filesystem::remove(out);
    }

    Args floatTiles = {"assemble", "-o", out};
    for (const Imath::Box2i& region : {box(0, 0, 63, 23), box(0, 24, 63, 47)}) {
        ExrPart tile = framePart(region);
        tile.channels = channelList({"A", "B", "G", "R"}, Imf::FLOAT);
        floatTiles.push_back(exr("float" + std::to_string(region.min.y) + ".exr", tile));
    }
    ProgramRun r = ktexr(floatTiles);
    EXPECT_EQ(r.status, 9);
    EXPECT_THAT(r.err, HasSubstr(floatTiles[4] + ": would lose: channel 'R' is 32-bit float"));
    EXPECT_FALSE(std::filesystem::exists(out));
    floatTiles.push_back("--lossy");
    ASSERT_EQ(ktexr(floatTiles).status, 0);
    expectReadableByOpenExr(out);
}

// Tiles of any shape in any order make the frame they were cut from, with the first tile's metadata;
// from 8 tiles on, each tile's progress shows.
TEST_F(Ktexr, AssembleMakesTheFrameTheTilesWereCutFrom)
{
    REQUIRE_OIIO();
    const std::string frame = exr("frame.exr", framePart(box(0, 0, 63, 47)));
    std::vector<Imath::Box2i> strips;
    for (int i = 0; i < 8; ++i) strips.push_back(box(0, i * 6, 63, i * 6 + 5));
    const std::vector<Imath::Box2i> layouts[] = {
        {box(0, 0, 31, 23), box(32, 0, 63, 23), box(0, 24, 31, 47), box(32, 24, 63, 47)},
        {box(40, 30, 63, 47), box(0, 0, 63, 4), box(0, 5, 39, 47), box(40, 5, 63, 29)}, strips};
    int set = 0;
    for (const auto& layout : layouts) {
        const std::string out = at("out.exr");
        Args args = tiles("set" + std::to_string(++set) + "-", layout);
        args.insert(args.begin(), {"assemble", "-o", out});
        ProgramRun r = ktexr(args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(oiio({out, frame, "--diff"}));
        expectReadableByOpenExr(out);
        EXPECT_EQ(headerOf(out).typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "JOB1");
        EXPECT_EQ(r.err.find("tile 8 of 8") != std::string::npos, layout.size() == 8) << r.err;
    }
}

// Uncovered pixels are accepted on request and stay empty; --check only reports the coverage.
TEST_F(Ktexr, AssembleAllowsGapsOnRequest)
{
    const Args gap = tiles("gap", {box(0, 0, 31, 47), box(34, 0, 63, 47)});
    ProgramRun check = ktexr({"assemble", "--check", "--allow-gaps", gap[0], gap[1]});
    EXPECT_EQ(check.status, 0) << check.err;
    EXPECT_THAT(check.out, HasSubstr("2976 of 3072 pixels covered"));
    EXPECT_EQ(entries().size(), 2u);

    ProgramRun r = ktexr({"assemble", "--allow-gaps", "-o", at("out.exr"), gap[0], gap[1]});
    ASSERT_EQ(r.status, 0) << r.err;
    const DecodedExr out = readExr(readFileBytes(at("out.exr")));
    ASSERT_EQ(out.header.dataWindow(), box(0, 0, 63, 47));
    for (const DecodedChannel& c : out.channels)
        for (int y = 0; y < 48; ++y)
            for (int x = 32; x <= 33; ++x) ASSERT_EQ(c.at(x, y), 0.0) << c.name << " at " << x << ", " << y;
}

TEST_F(Ktexr, DemoWritesTilesThatAssembleToItsFrame)
{
    REQUIRE_OIIO();
    ProgramRun r = ktexr({"demo", at("demo")});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    for (const char* f : {"frame.exr", "tile-1.exr", "tile-4.exr", "assembled.exr", "cropped.exr", "preview.png"})
        EXPECT_THAT(r.out, HasSubstr(at("demo/") + f));
    EXPECT_TRUE(oiio({at("demo/assembled.exr"), at("demo/frame.exr"), "--diff"}));
    EXPECT_THAT(run({"oiiotool", "--info", at("demo/preview.png")}).out, HasSubstr("320 x  240, 4 channel, uint8 png"));
    const Imf::Header tile = headerOf(at("demo/tile-2.exr"));
    EXPECT_EQ(tile.dataWindow(), box(160, 13, 306, 119));
    // The crop step cuts the transparent border from the frame written whole.
    EXPECT_EQ(headerOf(at("demo/frame.exr")).dataWindow(), box(0, 0, 319, 239));
    EXPECT_EQ(headerOf(at("demo/cropped.exr")).dataWindow(), box(13, 13, 306, 226));
    for (const char* f : {"frame.exr", "tile-2.exr", "assembled.exr", "cropped.exr"}) expectReadableByOpenExr(at("demo/") + f);
    EXPECT_EQ(tile.typedAttribute<Imf::StringAttribute>("KT/jobID").value(), "DEMO-0042");
}

// The real-world files: every valid one reads and decodes; a damaged one gets a status, never a crash.
TEST_F(Ktexr, CorpusFilesDecodeOrGetAStatus)
{
    Args args = {"info", "--json"};
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"})
        for (const std::string& f : corpusFiles(folder)) args.push_back(f);
    const std::size_t valid = args.size() - 2;
    if (valid == 0) GTEST_SKIP() << "no corpus beside the checkout";
    for (const auto& entry : std::filesystem::directory_iterator(corpusDirectory() + "/Damaged"))
        if (entry.is_regular_file() && entry.path().extension() != ".rst") args.push_back(entry.path().string());
    ASSERT_GT(args.size() - valid, 100u);
    ProgramRun info = ktexr(args);
    EXPECT_THAT(info.status, testing::AnyOf(4, 5, 6)) << info.err;  // a damaged file's
    Json files = Json::parse(info.out)["files"];
    ASSERT_EQ(files.size(), args.size() - 2);
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string path = files[i]["file"];
        EXPECT_TRUE(i >= valid || files[i]["ok"] == true) << path << ": " << files[i]["description"];
        if (files[i]["ok"] != true) continue;  // the others are refused before decoding
        ProgramRun r = ktexr({"decode", path, "-o", at("o.pfm"), "--depth", "float"});
        EXPECT_TRUE(r.status == 0 || (i >= valid && r.status >= 4 && r.status <= 6)) << path << "\n" << r.err;
    }
}

}  // namespace
