// imgLoadHeader as the host calls it: whole, partial, damaged and foreign files.
#include <gtest/gtest.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfChromaticitiesAttribute.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

constexpr unsigned char kFill = 0xA5;

// The host's records around one call: an image-information record as an RGBA
// buffer's constructor leaves it (with garbage in the text), and a metadata
// record full of garbage.
struct HostCall {
    std::unique_ptr<imgImageInfo> info = std::make_unique<imgImageInfo>();
    std::unique_ptr<ktExrHeaderData> data = std::make_unique<ktExrHeaderData>();
    std::unique_ptr<ktP::_imgFileBuffer> file;
    int status = 0;

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

    int load(const Bytes& bytes, long long sizeLoaded = kWhole, long long fileSize = kWhole)
    {
        file = fileBufferWith(bytes, sizeLoaded, fileSize);
        return call();
    }

    int call()
    {
        imgCallRecord record{file.get(), info.get(), data.get(), nullptr};
        status = imgLoadHeader(&record);
        return status;
    }

    std::string text() const
    {
        std::string out;
        for (int i = 0; i < info->infoText.length; ++i) out += static_cast<char>(info->infoText.text[i]);
        EXPECT_EQ(info->infoText.text[info->infoText.length], 0) << "infoText not terminated";
        return out;
    }

    bool metadataUntouched() const
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(data.get());
        for (size_t i = 0; i < sizeof *data; ++i)
            if (bytes[i] != kFill) return false;
        return true;
    }

    // Width and height as the garbage fill left them.
    bool sizeUntouched() const
    {
        std::int32_t garbage;
        std::memset(&garbage, kFill, sizeof garbage);
        return info->imageWidth == garbage && info->imageHeight == garbage;
    }
};

// A metadata entry by name, or null.
const ktExrHeaderEntry* entry(const ktExrHeaderData& data, const std::string& name)
{
    for (std::uint32_t i = 0; i < data.count && i < 410; ++i)
        if (std::string(data.entries[i].name.text, data.entries[i].name.length) == name) return &data.entries[i];
    return nullptr;
}

std::string text8(const _ktString8_allSize<2000>& s) { return std::string(s.text, s.length); }

ExrPart rgbaHalf(Imf::Compression compression = Imf::ZIP_COMPRESSION)
{
    ExrPart part;
    part.channels = channelList({"A", "B", "G", "R"});
    part.compression = compression;
    return part;
}

}  // namespace

// ---------------------------------------------------------------- the description

TEST(ImgLoadHeader, DescribesAScanLineFileWithItsJobClientAndScene)
{
    ExrPart part = rgbaHalf(Imf::ZIPS_COMPRESSION);
    part.displayWindow = box(-5, 3, 94, 52);
    part.dataWindow = box(0, 10, 9, 19);
    part.attribute("KT/clientname", std::string("client"));
    part.attribute("KT/scenename", std::string("scene"));
    part.attribute("KT/jobID", std::string("JOB12"));
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    EXPECT_EQ(host.text(), "Exr  Half Zip-1line scanline 'A B G R ' JOB12 client scene");
    EXPECT_EQ(host.info->imageWidth, 100);
    EXPECT_EQ(host.info->imageHeight, 50);
    EXPECT_EQ(host.info->hasAlpha, 1);
    EXPECT_EQ(host.info->bitsPerChannel, 32);
    EXPECT_EQ(host.info->uncompressed, 0);
    EXPECT_EQ(host.info->descSize, 528);
    EXPECT_EQ(host.info->descIndex, -1);
    EXPECT_EQ(host.data->magic, 0xFEBAu);
    EXPECT_EQ(host.data->count, 3u);
}

struct CompressionCase {
    Imf::Compression compression;
    const char* text;
};

class ImgLoadHeaderCompression : public testing::TestWithParam<CompressionCase> {};

TEST_P(ImgLoadHeaderCompression, NamedInTheDescriptionForBothLayouts)
{
    const auto& c = GetParam();
    for (bool tiled : {false, true}) {
        ExrPart part = rgbaHalf(c.compression);
        part.tiled = tiled;
        for (unsigned char before : {0, 1}) {
            HostCall host;
            host.info->uncompressed = before;
            ASSERT_EQ(host.load(makeExr(part)), 1) << host.text();
            EXPECT_EQ(host.text(), std::string("Exr  Half") + c.text + (tiled ? " tiled" : " scanline") + " 'A B G R '");
            // Set for uncompressed files, never cleared.
            EXPECT_EQ(host.info->uncompressed, c.compression == Imf::NO_COMPRESSION ? 1 : before);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryValue, ImgLoadHeaderCompression,
    testing::Values(CompressionCase{Imf::NO_COMPRESSION, " uncompr. "}, CompressionCase{Imf::RLE_COMPRESSION, " RLE"},
                    CompressionCase{Imf::ZIPS_COMPRESSION, " Zip-1line"},
                    CompressionCase{Imf::ZIP_COMPRESSION, " Zip-16line"},
                    CompressionCase{Imf::PIZ_COMPRESSION, " Wavelet"},
                    CompressionCase{Imf::PXR24_COMPRESSION, " lossy float"},
                    CompressionCase{Imf::B44_COMPRESSION, " lossy 4-by-4 static"},
                    CompressionCase{Imf::B44A_COMPRESSION, " lossy 4-by-4 variable"},
                    CompressionCase{Imf::DWAA_COMPRESSION, " DWA32"},
                    CompressionCase{Imf::DWAB_COMPRESSION, " DWA256"}));

TEST(ImgLoadHeader, PixelTypeOfTheFirstChannelByName)
{
    struct Case {
        std::vector<ExrChannel> channels;
        int status;
        const char* text;
    };
    const std::vector<Case> cases = {
        {{{"R", Imf::HALF}, {"G", Imf::FLOAT}}, 1, "Exr  Float Zip-16line scanline 'G R '"},
        {{{"R", Imf::FLOAT}, {"G", Imf::HALF}}, 1, "Exr  Half Zip-16line scanline 'G R '"},
        {{{"Z", Imf::UINT}, {"A", Imf::HALF}}, 1, "Exr  Half Zip-16line scanline 'A Z '"},
        {{{"A", Imf::UINT}, {"R", Imf::HALF}}, 4, "Exr  ERR: 32bit Int not supported!"},
    };
    for (const auto& c : cases) {
        ExrPart part;
        part.channels = c.channels;
        HostCall host;
        EXPECT_EQ(host.load(makeExr(part)), c.status) << c.text;
        EXPECT_EQ(host.text(), c.text);
        EXPECT_EQ(host.info->bitsPerChannel, 32) << c.text;
        if (c.status == 4) {
            // Refused before anything else is written.
            EXPECT_TRUE(host.sizeUntouched());
            EXPECT_EQ(host.info->hasAlpha, kFill);
            EXPECT_TRUE(host.metadataUntouched());
        }
    }
}

TEST(ImgLoadHeader, ChannelNamesInLowerCaseWithACapitalFirst)
{
    ExrPart part;
    part.channels = channelList({"packedRGBA", "r", "diffuse.R", "my.PACKEDrgb", "\xE9t\xE9", "a"});
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    // Name order is byte order: "a" < "diffuse.R" < "my..." < "packedRGBA" < "r" < "\xE9...".
    EXPECT_EQ(host.text(), "Exr  Half Zip-16line scanline 'A Diffuse.r My.PackedRGB PackedRGBA R \xE9t\xE9 '");
    // The non-ASCII byte reaches the 16-bit text as a unit below 256.
    EXPECT_EQ(host.info->infoText.text[host.text().size() - 5], 0xE9);
    // Only a channel named exactly "A" counts as alpha.
    EXPECT_EQ(host.info->hasAlpha, 0);
}

TEST(ImgLoadHeader, ChannelListCutAfterOneHundredCharacters)
{
    for (int channels : {20, 21, 40}) {
        ExrPart part;
        part.channels.clear();
        std::string list;
        for (int i = 0; i < channels; ++i) {
            const std::string name = "ch" + std::string(i < 10 ? "0" : "") + std::to_string(i);
            part.channels.push_back({name});
            list += "C" + name.substr(1) + " ";
        }
        if (list.size() > 100) list = list.substr(0, 100) + "...";
        HostCall host;
        ASSERT_EQ(host.load(makeExr(part)), 1);
        EXPECT_EQ(host.text(), "Exr  Half Zip-16line scanline '" + list + "'") << channels;
    }
}

TEST(ImgLoadHeader, DescriptionCutAtTwoHundredFiftyCharacters)
{
    const std::string job(90, 'j'), client(80, 'c'), scene(75, 's');
    for (bool complete : {true, false}) {
        ExrPart part;
        part.channels.clear();
        std::string list;
        for (int i = 0; i < 26; ++i) {
            part.channels.push_back({"x" + std::to_string(10 + i)});
            list += "X" + std::to_string(10 + i) + " ";
        }
        part.attribute("KT/jobID", job);
        part.attribute("KT/clientname", client);
        part.attribute("KT/scenename", scene);
        if (!complete) part.writeLimit = 3;
        const std::string full = "Exr  Half Zip-16line scanline '" + list.substr(0, 100) + "...' " + job.substr(0, 75) +
                                 " " + client.substr(0, 75) + " " + scene;
        ASSERT_GT(full.size(), 250u);
        HostCall host;
        EXPECT_EQ(host.load(makeExr(part)), complete ? 1 : 14);
        // The error text of an incomplete file no longer fits.
        EXPECT_EQ(host.text(), full.substr(0, 250));
    }
}

TEST(ImgLoadHeader, OnlyStringMetadataShowsInItsOwnOrder)
{
    ExrPart part = rgbaHalf();
    part.attribute("KT/scenename", std::string("theScene"));
    part.attribute("KT/jobID", 1234);
    part.attribute("KT/clientname", std::string("theClient"));
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    EXPECT_EQ(host.text(), "Exr  Half Zip-16line scanline 'A B G R ' theClient theScene");
    // Still copied into the metadata, as an int.
    const ktExrHeaderEntry* id = entry(*host.data, "KT/jobID");
    ASSERT_NE(id, nullptr);
    EXPECT_EQ(static_cast<int>(id->type), 1);
    EXPECT_EQ(id->values[0].i, 1234);

    ExrPart empty = rgbaHalf();
    empty.attribute("KT/jobID", std::string(""));
    HostCall second;
    ASSERT_EQ(second.load(makeExr(empty)), 1);
    EXPECT_EQ(second.text(), "Exr  Half Zip-16line scanline 'A B G R ' ");
}

TEST(ImgLoadHeader, TiledAndMultiPartLayouts)
{
    ExrPart tiled = rgbaHalf(Imf::PIZ_COMPRESSION);
    tiled.tiled = true;
    tiled.levelMode = Imf::MIPMAP_LEVELS;
    HostCall one;
    ASSERT_EQ(one.load(makeExr(tiled)), 1);
    EXPECT_EQ(one.text(), "Exr  Half Wavelet tiled 'A B G R '");

    ExrPart second;
    second.channels = channelList({"Z"}, Imf::FLOAT);
    second.dataWindow = box(0, 0, 3, 3);
    second.displayWindow = box(0, 0, 31, 7);
    ExrPart first = rgbaHalf(Imf::RLE_COMPRESSION);
    first.displayWindow = second.displayWindow;
    HostCall multi;
    const Bytes file = makeMultiPartExr({first, second});
    ASSERT_NE(readExr(file, 0, false).version & 0x1000, 0);
    ASSERT_EQ(multi.load(file), 1);
    EXPECT_EQ(multi.text(), "Exr  Half RLE scanline multipart 'A B G R '");
    EXPECT_EQ(multi.info->imageWidth, 32);
    EXPECT_EQ(multi.info->imageHeight, 8);
    const ktExrHeaderEntry* name = entry(*multi.data, "name");
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(text8(name->text), "part0");
}

// ---------------------------------------------------------------- the metadata record

TEST(ImgLoadHeader, MetadataRecordClearedAndRefilled)
{
    ExrPart part = rgbaHalf();
    part.attribute("s", std::string("text"));
    part.attribute("i", -9);
    part.attribute("f", 1.5f);
    part.attribute("m", Imath::M44f(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
    part.attribute("v", Imf::FloatVector(12, 0.5f));
    part.attribute("x", Imath::V2f(1, 2));
    part.attribute("y", Imath::V3f(3, 4, 5));
    part.attribute("box", Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(1, 1)));
    part.attribute("chroma", Imf::Chromaticities());
    part.attribute("d", 2.0);
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    ASSERT_EQ(host.data->magic, 0xFEBAu);
    ASSERT_EQ(host.data->count, 7u);
    EXPECT_EQ(text8(entry(*host.data, "s")->text), "text");
    EXPECT_EQ(entry(*host.data, "i")->values[0].i, -9);
    EXPECT_EQ(entry(*host.data, "f")->values[0].f, 1.5f);
    EXPECT_EQ(entry(*host.data, "m")->values[15].f, 16.0f);
    EXPECT_EQ(entry(*host.data, "v")->valueCount, 10);
    EXPECT_EQ(entry(*host.data, "x")->values[1].f, 2.0f);
    EXPECT_EQ(entry(*host.data, "y")->values[2].f, 5.0f);
    // Everything past the used entries was cleared, the garbage is gone.
    const auto* bytes = reinterpret_cast<const unsigned char*>(&host.data->entries[8]);
    for (size_t i = 0; i < 402 * sizeof(ktExrHeaderEntry); ++i) ASSERT_EQ(bytes[i], 0) << i;
}

TEST(ImgLoadHeader, FourHundredFiftyAttributesFillFourHundredOneEntries)
{
    ExrPart part = rgbaHalf();
    for (int i = 0; i < 450; ++i) part.attribute("attr" + std::to_string(1000 + i), i);
    HostCall host;
    ASSERT_EQ(host.load(makeExr(part)), 1);
    ASSERT_EQ(host.data->count, 401u);
    // In name order; the rest of the header is dropped.
    for (int i = 0; i < 401; ++i) {
        const ktExrHeaderEntry& e = host.data->entries[i];
        ASSERT_EQ(std::string(e.name.text, e.name.length), "attr" + std::to_string(1000 + i));
        ASSERT_EQ(e.values[0].i, i);
    }
    // The slots past the 401st are as the clearing left them.
    for (int i = 401; i < 410; ++i) EXPECT_EQ(host.data->entries[i].name.length, 0) << i;
}

// ---------------------------------------------------------------- partial and broken buffers

TEST(ImgLoadHeader, ShortBufferAsksForMoreWholeBadFileIsRefused)
{
    ExrPart part = rgbaHalf();
    part.displayWindow = box(0, 0, 63, 63);
    part.attribute("KT/jobID", std::string("JOB7"));
    const Bytes file = makeExr(part);
    const struct {
        const char* where;
        size_t length;
    } cuts[] = {
        {"no byte", 0},
        {"inside the magic number", 2},
        {"inside the version field", 6},
        {"inside the header", headerEnd(file) / 2},
        {"one byte short of the header's end", headerEnd(file) - 1},
        {"inside the offset table", headerEnd(file) + 4},
        {"one byte short of the offset table's end", offsetTableEnd(file) - 1},
    };
    for (const auto& cut : cuts) {
        SCOPED_TRACE(cut.where);
        HostCall partial;
        EXPECT_EQ(partial.load(file, cut.length), 16);
        EXPECT_EQ(partial.text(), "Exr  ERR: File buffer too small!");
        EXPECT_TRUE(partial.sizeUntouched());
        EXPECT_TRUE(partial.metadataUntouched());
        EXPECT_EQ(partial.info->bitsPerChannel, 8);

        // The same bytes said to be the whole file.
        HostCall whole;
        EXPECT_EQ(whole.load(truncated(file, cut.length)), 14);
        EXPECT_EQ(whole.text(), "Exr  ERR: unable to init exr file!");
        EXPECT_TRUE(whole.sizeUntouched());
        EXPECT_TRUE(whole.metadataUntouched());

        // The host loads the rest and calls again with the same records.
        partial.file = fileBufferWith(file);
        EXPECT_EQ(partial.call(), 1);
        EXPECT_EQ(partial.text(), "Exr  Half Zip-16line scanline 'A B G R ' JOB7");
        EXPECT_EQ(partial.info->imageWidth, 64);
    }
}

TEST(ImgLoadHeader, BufferCutInsideThePixelData)
{
    ExrPart part = rgbaHalf();
    part.displayWindow = box(0, 0, 63, 63);
    const Bytes file = makeExr(part);
    for (bool sayWhole : {false, true}) {
        // The header and the offset table are all the opening needs.
        HostCall host;
        const size_t length = offsetTableEnd(file) + 10;
        EXPECT_EQ(sayWhole ? host.load(truncated(file, length)) : host.load(file, length), 1);
        EXPECT_EQ(host.text(), "Exr  Half Zip-16line scanline 'A B G R '");
        EXPECT_EQ(host.info->imageWidth, 64);
    }
}

TEST(ImgLoadHeader, IncompleteFileKeepsItsSizeAndMetadata)
{
    ExrPart part = rgbaHalf(Imf::NO_COMPRESSION);
    part.displayWindow = box(0, 0, 19, 29);
    part.writeLimit = 5;
    part.attribute("KT/scenename", std::string("unfinished"));
    const Bytes file = makeExr(part);
    ASSERT_FALSE(readExr(file, 0, false).complete);
    for (bool tiled : {false, true}) {
        part.tiled = tiled;
        HostCall host;
        EXPECT_EQ(host.load(makeExr(part)), 14);
        EXPECT_EQ(host.text(), std::string("Exr  Half uncompr. ") + (tiled ? " tiled" : " scanline") +
                                   " 'A B G R ' unfinished ERR: file not completed!");
        EXPECT_EQ(host.info->imageWidth, 20);
        EXPECT_EQ(host.info->imageHeight, 30);
        EXPECT_EQ(host.info->hasAlpha, 1);
        EXPECT_EQ(host.info->uncompressed, 1);
        EXPECT_EQ(host.data->count, 1u);
        EXPECT_EQ(text8(host.data->entries[0].text), "unfinished");
    }
}

TEST(ImgLoadHeader, ForeignBytesAreNotAnExrFile)
{
    std::string text = "P6\n# not an EXR file at all\n";
    text += std::string(500, '\x7F');
    const Bytes foreign(text.begin(), text.end());
    HostCall whole;
    EXPECT_EQ(whole.load(foreign), 14);
    EXPECT_EQ(whole.text(), "Exr  ERR: unable to init exr file!");
    EXPECT_TRUE(whole.metadataUntouched());
    // Partly loaded, the same bytes cannot be told from the head of a longer file.
    HostCall partial;
    EXPECT_EQ(partial.load(foreign, 100), 16);
    EXPECT_EQ(partial.text(), "Exr  ERR: File buffer too small!");
    // The magic number with a version this library does not know.
    HostCall version;
    EXPECT_EQ(version.load(patched(makeExr(rgbaHalf()), 4, {99})), 14);
    EXPECT_EQ(version.text(), "Exr  ERR: unable to init exr file!");
}

namespace {

long peakMemoryKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// The file with the data window's corner (xMax, yMax) replaced.
Bytes withDataWindowMax(const Bytes& file, std::int32_t xMax, std::int32_t yMax)
{
    // name, NUL, "box2i", NUL, the value's size, then xMin yMin xMax yMax.
    const size_t value = findBytes(file, "dataWindow") + sizeof "dataWindow" + sizeof "box2i" + 4;
    auto le = [](std::int32_t v, int byte) { return static_cast<unsigned char>(static_cast<std::uint32_t>(v) >> (8 * byte)); };
    return patched(file, value + 8, {le(xMax, 0), le(xMax, 1), le(xMax, 2), le(xMax, 3), le(yMax, 0), le(yMax, 1), le(yMax, 2), le(yMax, 3)});
}

}  // namespace

TEST(ImgLoadHeader, DamagedWindowsRefusedBeforeOpenExrSizesBuffersByThem)
{
    // Two billion scan lines announce a 16 GB offset table in a file of a few hundred bytes.
    ExrPart tall = rgbaHalf(Imf::NO_COMPRESSION);
    const Bytes tallFile = withDataWindowMax(makeExr(tall), 15, 0x7FFFFFF0);
    // A luminance/chroma image a billion pixels wide needs conversion buffers of hundreds of GB.
    ExrPart wide;
    wide.channels = {ExrChannel("Y"), ExrChannel("RY", Imf::HALF, 2, 2), ExrChannel("BY", Imf::HALF, 2, 2)};
    const Bytes wideFile = withDataWindowMax(makeExr(wide), 0x3FFFFFFF, 11);
    ASSERT_EQ(readExr(makeExr(wide), 0, false).header.dataWindow().max.x, 15);

    const long peakBefore = peakMemoryKb();
    for (const Bytes* file : {&tallFile, &wideFile}) {
        HostCall whole;
        EXPECT_EQ(whole.load(*file), 14);
        EXPECT_EQ(whole.text(), "Exr  ERR: unable to init exr file!");
        HostCall partial;
        EXPECT_EQ(partial.load(*file, static_cast<long long>(file->size()), 1 << 20), 16);
    }
    // Refused, not merely survived: nothing of that size was ever touched.
    EXPECT_LT(peakMemoryKb() - peakBefore, 256 * 1024);
}

TEST(ImgLoadHeader, MissingRecordsAreRefusedWithoutTouchingAnything)
{
    HostCall host;
    host.file = fileBufferWith(makeExr(rgbaHalf()));
    EXPECT_EQ(imgLoadHeader(nullptr), 6);
    imgCallRecord noFile{nullptr, host.info.get(), host.data.get(), nullptr};
    EXPECT_EQ(imgLoadHeader(&noFile), 6);
    imgCallRecord noData{host.file.get(), host.info.get(), nullptr, nullptr};
    EXPECT_EQ(imgLoadHeader(&noData), 6);
    EXPECT_EQ(host.info->infoText.length, 7);
    imgCallRecord noInfo{host.file.get(), nullptr, host.data.get(), nullptr};
    EXPECT_EQ(imgLoadHeader(&noInfo), 6);
    EXPECT_TRUE(host.metadataUntouched());
}

// ---------------------------------------------------------------- files made elsewhere

namespace {

// Every file of a corpus folder, whatever its name ends with (damaged files carry no ".exr").
std::vector<std::string> everyFileIn(const std::string& folder)
{
    std::vector<std::string> files;
    if (corpusDirectory().empty()) return files;
    std::error_code error;
    for (const auto& e : std::filesystem::directory_iterator(corpusDirectory() + "/" + folder, error))
        if (e.is_regular_file() && e.path().extension() != ".rst") files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

TEST(ImgLoadHeaderCorpus, ValidImagesLoadWithOpenExrsOwnSize)
{
    size_t seen = 0;
    for (const char* folder : {"ScanLines", "Tiles", "TestImages", "DisplayWindow"}) {
        for (const auto& path : corpusFiles(folder)) {
            SCOPED_TRACE(path);
            ++seen;
            const Bytes bytes = readFileBytes(path);
            const DecodedExr oracle = readExr(bytes, 0, false);
            const Imath::Box2i window = oracle.header.displayWindow();
            HostCall host;
            EXPECT_EQ(host.load(bytes), 1) << host.text();
            EXPECT_EQ(host.info->imageWidth, window.max.x - window.min.x + 1);
            EXPECT_EQ(host.info->imageHeight, window.max.y - window.min.y + 1);
            EXPECT_EQ(host.info->hasAlpha, oracle.header.channels().findChannel("A") ? 1 : 0);
            EXPECT_EQ(host.text().rfind("Exr  ", 0), 0u);
            EXPECT_EQ(host.text().find(oracle.header.hasTileDescription() ? " tiled '" : " scanline '") !=
                          std::string::npos,
                      true)
                << host.text();
        }
    }
    if (seen == 0) GTEST_SKIP() << "the real-world EXR corpus is absent";
}

TEST(ImgLoadHeaderCorpus, DamagedFilesGetAStatusAndAnErrorText)
{
    const auto files = everyFileIn("Damaged");
    if (files.empty()) GTEST_SKIP() << "the real-world EXR corpus is absent";
    for (const auto& path : files) {
        SCOPED_TRACE(path);
        HostCall host;
        const int status = host.load(readFileBytes(path));
        EXPECT_TRUE(status == 1 || status == 4 || status == 6 || status == 14) << status;
        if (status == 4 || status == 14) {
            EXPECT_NE(host.text().find(" ERR: "), std::string::npos) << host.text();
        }
    }
}
