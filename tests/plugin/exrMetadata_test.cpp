// Render metadata between OpenEXR headers and the host's record, job-ID
// texts, and imgLoadHeader as the host calls it: whole, partial, damaged and
// foreign files.
#include <gtest/gtest.h>

#include <OpenEXR/ImfChromaticitiesAttribute.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

constexpr unsigned char kFill = 0xA5;
const std::regex kTimeStamp(R"(^[A-Z][a-z]{2} \d{2}\. \d{2}:\d{2}\.\d{2}$)");

// The record is far too big for a test thread's stack.
std::unique_ptr<ktExrHeaderData> record(std::uint32_t magic, std::uint32_t count)
{
    auto data = std::make_unique<ktExrHeaderData>();
    data->magic = magic;
    data->count = count;
    return data;
}

std::string stringAttr(const Imf::Header& h, const char* name)
{
    const auto* a = h.findTypedAttribute<Imf::StringAttribute>(name);
    return a ? a->value() : std::string("<absent>");
}

std::size_t attributeCount(const Imf::Header& h)
{
    std::size_t n = 0;
    for (auto it = h.begin(); it != h.end(); ++it) ++n;
    return n;
}

// The host's records around one imgLoadHeader call: an image-information
// record as an RGBA buffer's constructor leaves it (with garbage in the text
// and the sizes), and a metadata record full of garbage.
struct HostCall {
    std::unique_ptr<imgImageInfo> info = std::make_unique<imgImageInfo>();
    std::unique_ptr<ktExrHeaderData> data = std::make_unique<ktExrHeaderData>();
    std::unique_ptr<ktP::_imgFileBuffer> file;

    HostCall()
    {
        std::memset(static_cast<void*>(info.get()), kFill, sizeof *info);
        info->descSize = 528;
        info->descIndex = -1;
        info->bitsPerChannel = 8;
        info->uncompressed = 0;
        info->infoText.length = 7;
        std::memset(static_cast<void*>(data.get()), kFill, sizeof *data);
    }
    int load(const Bytes& bytes, long long sizeLoaded = kWhole)
    {
        file = fileBufferWith(bytes, sizeLoaded);
        imgCallRecord call{file.get(), info.get(), data.get(), nullptr};
        return imgLoadHeader(&call);
    }
    std::string text() const
    {
        EXPECT_EQ(info->infoText.text[info->infoText.length], 0) << "infoText not terminated";
        return textOf(info->infoText);
    }
    // Sizes, alpha flag and metadata still as the host left them.
    bool untouched() const
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(data.get());
        const auto* sizes = reinterpret_cast<const unsigned char*>(&info->imageWidth);
        auto garbage = [](unsigned char b) { return b == kFill; };
        return std::all_of(bytes, bytes + sizeof *data, garbage) && std::all_of(sizes, sizes + 9, garbage);
    }
};

ExrPart rgbaHalf(Imf::Compression compression = Imf::ZIP_COMPRESSION, const Imath::Box2i& display = box(0, 0, 15, 11))
{
    ExrPart part;
    part.compression = compression;
    part.displayWindow = display;
    return part;
}

}  // namespace

// "{", three capitals from bits 24 to 55 divided by 10,000 (most significant
// first), up to two small letters from the low byte less one, "}".
TEST(JobIdText, MatchesHandComputedTexts)
{
    const struct {
        unsigned long long id;
        const char* text;
    } cases[] = {
        {0, "{AAA}"}, {1, "{AAAa}"}, {24, "{AAAz}"}, {25, "{AAAba}"}, {255, "{AAAlq}"}, {0x00FFFFFFFF000080ull, "{HPRfh}"},
        {0xFFFF00ull, "{AAA}"}, {0xFF00000000000000ull, "{AAA}"},  // bits 8 to 23 and 56 to 63 never show
        {9999ull << 24, "{AAA}"}, {10000ull << 24, "{AAB}"}, {360000ull << 24, "{ABA}"}, {12960000ull << 24, "{BAA}"},
        {466550000ull << 24 | 2, "{---b}"}, {466560000ull << 24, "{AAA}"},  // 46,655 is the last; 46,656 wraps
        {(80000ull << 24) | 49, "{AAJca}"},  // 8 is J: no I
    };
    for (const auto& c : cases) EXPECT_EQ(textOf(ID2str_local(c.id)), c.text) << std::hex << c.id;
    // The alphabets' lengths are read at each call.
    const auto saved = ktExrIdAlphabetSmall;
    ktExrIdAlphabetSmall = "xy";
    EXPECT_EQ(textOf(ID2str_local(5)), "{AAAxx}");  // v = 4: 4 mod 2, then (4 div 2) mod 2
    ktExrIdAlphabetSmall.setLength(0);
    EXPECT_EQ(textOf(ID2str_local(5)), "{AAA}");
    ktExrIdAlphabetSmall = saved;
}

// Names cut at 75, texts at 2,000, vectors at 10 values; appending starts at
// the given count and leaves magic and flag alone.
TEST(HeaderGetData, LimitsOfTheRecord)
{
    Imf::Header header;
    const std::string longName = "N" + std::string(99, 'n'), longText(2500, 't'), text2000 = std::string(1999, 'u') + "\xFF";
    header.insert(longName, Imf::StringAttribute(longText));
    header.insert("t2000", Imf::StringAttribute(text2000));
    header.insert("vec12", Imf::FloatVectorAttribute(Imf::FloatVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    auto data = record(0x1234, 5);
    bool flag = true;
    headerGetData(header, *data, flag);
    EXPECT_TRUE(flag);
    EXPECT_EQ(data->magic, 0x1234u);
    ASSERT_EQ(data->count, 8u);
    const ktExrHeaderEntry* e = data->entries + 5;
    EXPECT_EQ(data->entries[4].name.length, 0);
    EXPECT_EQ(textOf(e[0].name), longName.substr(0, 75));
    EXPECT_EQ(textOf(e[0].text), longText.substr(0, 2000));
    EXPECT_EQ(e[0].text.text[2000], 0);
    EXPECT_EQ(textOf(e[1].text), text2000);
    EXPECT_EQ(e[2].valueCount, 10);
    EXPECT_EQ(e[2].values[9].f, 10.0f);
    EXPECT_EQ(e[2].values[10].f, 0.0f);
}

// Only the two stamps unless the record is marked and holds entries; string
// attributes already in the header (the stamps, the encoder's client) win
// over the record; a null application stamps an empty text.
TEST(HeaderInsertData, StampsAndStringsAlreadyInTheHeaderWin)
{
    for (std::uint32_t magic : {0u, 0xFEBBu, 0xFEBAu}) {
        auto data = record(magic, magic == 0xFEBA ? 0 : 3);  // entries not marked, or marked but none
        data->entries[0].name = "ignored";
        Imf::Header header;
        headerInsertData(header, *data, "-");
        EXPECT_EQ(attributeCount(header), attributeCount(Imf::Header()) + 2) << magic;
        EXPECT_EQ(stringAttr(header, "KT/application"), "-");
        EXPECT_TRUE(std::regex_match(stringAttr(header, "KT/dateWritten"), kTimeStamp));
    }
    auto data = record(ktExrHeaderMagic, 3);
    const char* entries[][2] = {{"KT/dateWritten", "old"}, {"KT/application", "old app"}, {"KT/clientname", "record"}};
    for (int i = 0; i < 3; ++i) data->entries[i].name = entries[i][0], data->entries[i].text = entries[i][1];
    Imf::Header header;
    header.insert("KT/clientname", Imf::StringAttribute("set by the encoder"));
    header.insert("KT/application", Imf::StringAttribute("older stamp"));
    headerInsertData(header, *data, nullptr);
    EXPECT_TRUE(std::regex_match(stringAttr(header, "KT/dateWritten"), kTimeStamp));
    EXPECT_EQ(stringAttr(header, "KT/application"), "");
    EXPECT_EQ(stringAttr(header, "KT/clientname"), "set by the encoder");
}

// Host records gone wrong: unknown type codes are skipped, a count past the
// 410 slots and a value count past the 16 values are bounded; a name taken by
// another type raises OpenEXR's error.
TEST(HeaderInsertData, HostRecordsGoneWrong)
{
    auto data = record(ktExrHeaderMagic, 0xFFFFFFFF);
    for (int i = 0; i < 410; ++i) {
        data->entries[i].name = ("custom" + std::to_string(1000 + i)).c_str();
        data->entries[i].type = static_cast<ktExrAttrType>(i % 2 ? 7 + i % 200 : 1);
        data->entries[i].values[0].i = i;
    }
    data->entries[2].type = ktExrAttrType::FloatVector;
    data->entries[2].valueCount = 255;
    Imf::Header header;
    headerInsertData(header, *data, "-");
    EXPECT_EQ(attributeCount(header), attributeCount(Imf::Header()) + 2 + 205);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("custom1408").value(), 408);
    EXPECT_EQ(header.typedAttribute<Imf::FloatVectorAttribute>("custom1002").value().size(), 16u);
    data->count = 1;
    data->entries[0].type = ktExrAttrType::Float;
    Imf::Header taken;
    taken.insert("custom1000", Imf::IntAttribute(3));
    EXPECT_THROW(headerInsertData(taken, *data, "-"), std::exception);
}

// Loading a file fills one entry per attribute of the seven types, in name
// order, each in its own value fields; the standard attributes and other types
// are not counted, the last name met stays in the free slot. Encoding with the
// record and loading the new file gives every entry back byte for byte, with
// new stamps.
TEST(MetadataRoundTrip, LoadEncodeLoadKeepsEveryEntry)
{
    ExrPart part;
    part.tiled = true;
    const Imath::M44f matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16.5f);
    part.attribute("KT/scenename", std::string("Scene \xC3\xA9t\xC3\xA9 12")).attribute("Tiles", std::string(1500, 'n'))
        .attribute("frame", -42).attribute("exposure", 1.25f).attribute("camera.matrix", matrix)
        .attribute("weights", std::vector<float>{0.5f, -1.0f, 2.25f, 3.0f, 1e-3f}).attribute("nothing", std::vector<float>{})
        .attribute("offset", Imath::V2f(1.5f, -2.0f)).attribute("position", Imath::V3f(0.25f, 2e10f, -0.0f))
        .attribute("chroma", Imf::Chromaticities()).attribute("box", Imath::Box2i()).attribute("zz", Imath::M33f())
        .attribute("KT/dateWritten", std::string("01.01.2000")).attribute("KT/application", std::string("Renderer 5"));
    auto load = [](const Bytes& file, ktExrHeaderData& data) {
        auto buffer = fileBufferWith(file);
        ktP::_imgRGBABuffer8 image(1u);
        imgCallRecord call{buffer.get(), &image.imageInfo, &data, nullptr};
        return imgLoadHeader(&call);
    };
    auto first = record(0, 0), second = record(0, 0);
    ASSERT_EQ(load(makeExr(part), *first), 1);
    const struct {
        const char* name;
        int type;
        std::string text;
        std::vector<float> values;
    } want[] = {{"KT/application", 0, "Renderer 5", {}}, {"KT/dateWritten", 0, "01.01.2000", {}},
                {"KT/scenename", 0, "Scene \xC3\xA9t\xC3\xA9 12", {}}, {"Tiles", 0, std::string(1500, 'n'), {}},
                {"camera.matrix", 3, "", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16.5f}},
                {"exposure", 2, "", {1.25f}}, {"frame", 1, "", {}}, {"nothing", 4, "", {}},
                {"offset", 5, "", {1.5f, -2.0f}}, {"position", 6, "", {0.25f, 2e10f, -0.0f}},
                {"weights", 4, "", {0.5f, -1.0f, 2.25f, 3.0f, 1e-3f}}};
    ASSERT_EQ(first->count, std::size(want));
    for (std::size_t k = 0; k < std::size(want); ++k) {
        const ktExrHeaderEntry& e = first->entries[k];
        EXPECT_EQ(textOf(e.name), want[k].name);
        EXPECT_EQ(static_cast<int>(e.type), want[k].type) << want[k].name;
        EXPECT_EQ(textOf(e.text), want[k].text) << want[k].name;
        EXPECT_EQ(e.valueCount, want[k].type == 4 ? want[k].values.size() : 0u) << want[k].name;
        if (!want[k].values.empty()) {
            EXPECT_EQ(std::memcmp(e.values, want[k].values.data(), 4 * want[k].values.size()), 0) << want[k].name;
        }
    }
    EXPECT_EQ(first->entries[6].values[0].i, -42);
    EXPECT_EQ(textOf(first->entries[std::size(want)].name), "zz");

    ktP::_imgRGBABuffer16 image(32 * 24);
    image.setWidth(32);
    image.setHeight(24);
    image.write(4, 4, 1000, 2000, 3000, 65535);
    auto file = emptyFileBuffer(1 << 20);
    imgJobSettings settings{};
    imgCallRecord call{file.get(), &image, first.get(), &settings};
    ASSERT_EQ(imgEncode16(&call), 1);
    ASSERT_EQ(load(contentOf(*file), *second), 1);
    ASSERT_EQ(second->count, first->count);
    EXPECT_EQ(textOf(second->entries[0].text), "-");
    EXPECT_TRUE(std::regex_match(textOf(second->entries[1].text), kTimeStamp)) << textOf(second->entries[1].text);
    for (std::uint32_t i = 2; i < first->count; ++i)
        EXPECT_EQ(std::memcmp(&first->entries[i], &second->entries[i], sizeof(ktExrHeaderEntry)), 0)
            << textOf(first->entries[i].name);
}

// The description: "Exr ", the first channel's type by name, compression,
// layout, multi-part, the channel names (lower case but a capital first,
// "packed" names restored, cut at 100 characters), then the string values of
// job, client and scene (cut at 75) in that order; the whole cut at 250.
// Width and height are the display window's, alpha a channel named exactly "A".
TEST(ImgLoadHeader, DescribesTheFileInOneLine)
{
    ExrPart scene = rgbaHalf(Imf::ZIPS_COMPRESSION, box(-5, 3, 94, 52)), intJob = rgbaHalf(), emptyJob = rgbaHalf();
    ExrPart layered = rgbaHalf();
    scene.dataWindow = box(0, 10, 9, 19);
    scene.attribute("KT/clientname", std::string("client")).attribute("KT/scenename", std::string("scene"));
    scene.attribute("KT/jobID", std::string("JOB12"));
    intJob.attribute("KT/scenename", std::string("theScene")).attribute("KT/jobID", 1234);
    emptyJob.attribute("KT/jobID", std::string(""));
    layered.channels = channelList({"packedRGBA", "r", "diffuse.R", "my.PACKEDrgb", "\xE9t\xE9", "a"});
    ExrPart unfinished = rgbaHalf(Imf::NO_COMPRESSION), typed = rgbaHalf(), uintAlpha = rgbaHalf();
    unfinished.tiled = true;
    unfinished.writeLimit = 3;  // of 2 x 2 tiles
    unfinished.attribute("KT/scenename", std::string("unfinished"));
    typed.channels = {{"R", Imf::HALF}, {"G", Imf::FLOAT}};
    uintAlpha.channels = {{"Z", Imf::UINT}, {"A", Imf::HALF}};
    // n channels of five characters each, and the list as shown.
    auto many = [](int n, ExrPart& part, std::string& shown) {
        part.channels.clear();
        for (int i = 0; i < n; ++i) {
            part.channels.push_back({"ch" + std::to_string(100 + i).substr(1)});
            shown += "Ch" + std::to_string(100 + i).substr(1) + " ";
        }
        if (shown.size() > 100) shown = shown.substr(0, 100) + "...";
    };
    ExrPart list20, full, cut;  // 20 names fill the 100 characters exactly
    std::string shown20, shownFull, unused;
    many(20, list20, shown20), many(26, full, shownFull), many(26, cut, unused);
    const std::string job(90, 'j'), client(80, 'c'), scene75(75, 's');
    for (ExrPart* p : {&full, &cut})
        p->attribute("KT/jobID", job).attribute("KT/clientname", client).attribute("KT/scenename", scene75);
    cut.writeLimit = 3;  // incomplete: its error text no longer fits
    const std::string longText = ("Exr  Half Zip-16line scanline '" + shownFull + "' " + job.substr(0, 75) + " " +
                                  client.substr(0, 75) + " " + scene75).substr(0, 250);
    ExrPart second = rgbaHalf(Imf::ZIP_COMPRESSION, box(0, 0, 31, 7));
    second.channels = channelList({"Z"}, Imf::FLOAT);
    const struct {
        Bytes file;
        int status;
        std::string text;
        int width, height, alpha;
    } cases[] = {
        {makeExr(scene), 1, "Exr  Half Zip-1line scanline 'A B G R ' JOB12 client scene", 100, 50, 1},
        {makeExr(typed), 1, "Exr  Float Zip-16line scanline 'G R '", 16, 12, 0},
        {makeExr(uintAlpha), 1, "Exr  Half Zip-16line scanline 'A Z '", 16, 12, 1},
        {makeExr(layered), 1, "Exr  Half Zip-16line scanline 'A Diffuse.r My.PackedRGB PackedRGBA R \xE9t\xE9 '", 16, 12, 0},
        {makeExr(intJob), 1, "Exr  Half Zip-16line scanline 'A B G R ' theScene", 16, 12, 1},
        {makeExr(emptyJob), 1, "Exr  Half Zip-16line scanline 'A B G R ' ", 16, 12, 1},
        {makeMultiPartExr({rgbaHalf(Imf::RLE_COMPRESSION, box(0, 0, 31, 7)), second}), 1,
         "Exr  Half RLE scanline multipart 'A B G R '", 32, 8, 1},
        {makeExr(list20), 1, "Exr  Half Zip-16line scanline '" + shown20 + "'", 16, 12, 0},
        {makeExr(full), 1, longText, 16, 12, 0},
        {makeExr(cut), 14, longText, 16, 12, 0},
        {makeExr(unfinished), 14, "Exr  Half uncompr.  tiled 'A B G R ' unfinished ERR: file not completed!", 16, 12, 1},
    };
    for (const auto& c : cases) {
        HostCall host;
        EXPECT_EQ(host.load(c.file), c.status) << c.text;
        EXPECT_EQ(host.text(), c.text);
        EXPECT_EQ(host.info->imageWidth, c.width) << c.text;
        EXPECT_EQ(host.info->imageHeight, c.height) << c.text;
        EXPECT_EQ(host.info->hasAlpha, c.alpha) << c.text;
        EXPECT_EQ(host.info->bitsPerChannel, 32) << c.text;
        EXPECT_TRUE(host.info->descSize == 528 && host.info->descIndex == -1) << c.text;  // the buffer's own fields
    }
    HostCall host;  // the non-ASCII byte reaches the 16-bit text as a unit below 256, not sign-extended
    ASSERT_EQ(host.load(makeExr(layered)), 1);
    EXPECT_EQ(host.info->infoText.text[host.text().size() - 5], 0xE9);
}

// Every compression value by its name, in both layouts; the uncompressed
// flag is set for files without compression and never cleared.
TEST(ImgLoadHeader, CompressionAndLayoutNamedInTheDescription)
{
    const char* const names[] = {" uncompr. ", " RLE", " Zip-1line", " Zip-16line", " Wavelet", " lossy float",
                                 " lossy 4-by-4 static", " lossy 4-by-4 variable", " DWA32", " DWA256"};
    for (int c = 0; c < Imf::NUM_COMPRESSION_METHODS; ++c)
        for (const bool tiled : {false, true}) {
            ExrPart part = rgbaHalf(static_cast<Imf::Compression>(c));
            part.tiled = tiled;
            HostCall host;
            host.info->uncompressed = tiled ? 1 : 0;
            ASSERT_EQ(host.load(makeExr(part)), 1) << host.text();
            EXPECT_EQ(host.text(), std::string("Exr  Half") + names[c] + (tiled ? " tiled" : " scanline") + " 'A B G R '");
            EXPECT_EQ(host.info->uncompressed, c == 0 || tiled ? 1 : 0) << c;
        }
}

// The record is cleared before it is filled: 450 attributes give 401
// entries in name order, every byte past the used entries is zero.
TEST(ImgLoadHeader, MetadataRecordClearedAndRefilled)
{
    ExrPart part = rgbaHalf();
    for (int i = 0; i < 450; ++i) part.attribute("attr" + std::to_string(1000 + i), i);
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    ASSERT_EQ(host.data->magic, 0xFEBAu);
    ASSERT_EQ(host.data->count, 401u);
    for (int i = 0; i < 401; ++i) {
        ASSERT_EQ(textOf(host.data->entries[i].name), "attr" + std::to_string(1000 + i));
        ASSERT_EQ(host.data->entries[i].values[0].i, i);
    }
    const auto* rest = reinterpret_cast<const unsigned char*>(&host.data->entries[401]);
    EXPECT_TRUE(std::all_of(rest, rest + 9 * sizeof(ktExrHeaderEntry), [](unsigned char b) { return b == 0; }));
}

// A buffer holding only the head of a file asks for more (16); the same
// bytes said to be the whole file are refused (14). Once the header and the
// offset table are there, the header loads whether the pixels are or not,
// also with the same records again once the host has loaded the rest.
TEST(ImgLoadHeader, ShortBufferAsksForMoreWholeBadFileIsRefused)
{
    ExrPart part = rgbaHalf(Imf::ZIP_COMPRESSION, box(0, 0, 63, 63));
    part.attribute("KT/jobID", std::string("JOB7"));
    const Bytes file = makeExr(part);
    const std::string described = "Exr  Half Zip-16line scanline 'A B G R ' JOB7";
    for (std::size_t cut : {std::size_t{0}, std::size_t{6}, headerEnd(file) - 1, offsetTableEnd(file) - 1,
                            offsetTableEnd(file), offsetTableEnd(file) + 10}) {
        SCOPED_TRACE(cut);
        const bool opens = cut >= offsetTableEnd(file);
        HostCall partial, whole;
        EXPECT_EQ(partial.load(file, static_cast<long long>(cut)), opens ? 1 : 16);
        EXPECT_EQ(partial.text(), opens ? described : "Exr  ERR: File buffer too small!");
        EXPECT_EQ(whole.load(truncated(file, cut)), opens ? 1 : 14);
        EXPECT_EQ(whole.text(), opens ? described : "Exr  ERR: unable to init exr file!");
        EXPECT_EQ(partial.untouched() && whole.untouched() && partial.info->bitsPerChannel == 8, !opens);
        EXPECT_EQ(partial.load(file), 1);
        EXPECT_EQ(partial.text(), described);
    }
}

// Refusals before anything but the text is written: not EXR at all (14
// whole, 16 partly loaded), the magic number with an unknown version (14),
// a first channel of 32-bit unsigned integers (4, after the depth), records missing (6).
TEST(ImgLoadHeader, FilesRefusedWithTheirErrorText)
{
    const std::string text = "P6\n# not an EXR file at all\n" + std::string(500, '\x7F');
    const Bytes foreign(text.begin(), text.end());
    ExrPart uint = rgbaHalf();
    uint.channels = {{"A", Imf::UINT}, {"R", Imf::HALF}};
    const struct {
        Bytes file;
        long long loaded;
        int status;
        const char* text;
        int bits;
    } cases[] = {{foreign, kWhole, 14, "Exr  ERR: unable to init exr file!", 8},
                 {foreign, 100, 16, "Exr  ERR: File buffer too small!", 8},
                 {patched(makeExr(rgbaHalf()), 4, {99}), kWhole, 14, "Exr  ERR: unable to init exr file!", 8},
                 {makeExr(uint), kWhole, 4, "Exr  ERR: 32bit Int not supported!", 32}};
    for (const auto& c : cases) {
        HostCall host;
        EXPECT_EQ(host.load(c.file, c.loaded), c.status);
        EXPECT_EQ(host.text(), c.text);
        EXPECT_TRUE(host.untouched()) << c.text;
        EXPECT_EQ(host.info->bitsPerChannel, c.bits);
    }
    HostCall host;
    host.file = fileBufferWith(makeExr(rgbaHalf()));
    EXPECT_EQ(imgLoadHeader(nullptr), 6);
    for (imgCallRecord call : {imgCallRecord{nullptr, host.info.get(), host.data.get(), nullptr},
                               imgCallRecord{host.file.get(), host.info.get(), nullptr, nullptr},
                               imgCallRecord{host.file.get(), nullptr, host.data.get(), nullptr}})
        EXPECT_EQ(imgLoadHeader(&call), 6);
    EXPECT_EQ(host.info->infoText.length, 7);
    EXPECT_TRUE(host.untouched());
}
