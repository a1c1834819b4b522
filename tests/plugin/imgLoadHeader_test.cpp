// imgLoadHeader as the host calls it: whole, partial, damaged and foreign files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using namespace kt::test;

namespace {

constexpr unsigned char kFill = 0xA5;

// The host's records around one call: an image-information record as an RGBA
// buffer's constructor leaves it (with garbage in the text and the sizes),
// and a metadata record full of garbage.
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
    int load(const Bytes& bytes, long long sizeLoaded = kWhole, long long fileSize = kWhole)
    {
        file = fileBufferWith(bytes, sizeLoaded, fileSize);
        imgCallRecord record{file.get(), info.get(), data.get(), nullptr};
        return imgLoadHeader(&record);
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

// The description: "Exr ", the first channel's type by name, compression,
// layout, multi-part, the channel names (lower case but a capital first,
// "packed" names restored, cut at 100 characters), then the string values of
// job, client and scene (cut at 75) in that order; the whole cut at 250.
// Width and height are the display window's, alpha a channel named exactly "A".
TEST(ImgLoadHeader, DescribesTheFileInOneLine)
{
    ExrPart scene = rgbaHalf(Imf::ZIPS_COMPRESSION, box(-5, 3, 94, 52));
    scene.dataWindow = box(0, 10, 9, 19);
    scene.attribute("KT/clientname", std::string("client")).attribute("KT/scenename", std::string("scene"));
    scene.attribute("KT/jobID", std::string("JOB12"));
    ExrPart intJob = rgbaHalf(), emptyJob = rgbaHalf(), layered = rgbaHalf();
    intJob.attribute("KT/scenename", std::string("theScene")).attribute("KT/jobID", 1234).attribute("KT/clientname", std::string("theClient"));
    emptyJob.attribute("KT/jobID", std::string(""));
    layered.channels = channelList({"packedRGBA", "r", "diffuse.R", "my.PACKEDrgb", "\xE9t\xE9", "a"});
    auto typed = [](std::vector<ExrChannel> channels) {
        ExrPart part;
        part.channels = std::move(channels);
        return makeExr(part);
    };
    // n channels of five characters each, and the list as shown.
    auto many = [](int n, ExrPart& part, std::string& shown) {
        part.channels.clear();
        for (int i = 0; i < n; ++i) part.channels.push_back({"ch" + std::to_string(100 + i).substr(1)}), shown += "Ch" + std::to_string(100 + i).substr(1) + " ";
        if (shown.size() > 100) shown = shown.substr(0, 100) + "...";
    };
    ExrPart list20, list21, list40, full, cut;
    std::string shown20, shown21, shown40, shownFull, unused;
    many(20, list20, shown20), many(21, list21, shown21), many(40, list40, shown40), many(26, full, shownFull), many(26, cut, unused);
    const std::string job(90, 'j'), client(80, 'c'), scene75(75, 's');
    for (ExrPart* p : {&full, &cut}) p->attribute("KT/jobID", job).attribute("KT/clientname", client).attribute("KT/scenename", scene75);
    cut.writeLimit = 3;  // incomplete: its error text no longer fits
    const std::string longText = ("Exr  Half Zip-16line scanline '" + shownFull + "' " + job.substr(0, 75) + " " + client.substr(0, 75) + " " + scene75).substr(0, 250);
    ExrPart second = rgbaHalf(Imf::ZIP_COMPRESSION, box(0, 0, 31, 7));
    second.channels = channelList({"Z"}, Imf::FLOAT);
    second.dataWindow = box(0, 0, 3, 3);
    const struct {
        Bytes file;
        int status;
        std::string text;
        int width, height, alpha;
    } cases[] = {
        {makeExr(scene), 1, "Exr  Half Zip-1line scanline 'A B G R ' JOB12 client scene", 100, 50, 1},
        {typed({{"R", Imf::HALF}, {"G", Imf::FLOAT}}), 1, "Exr  Float Zip-16line scanline 'G R '", 16, 12, 0},
        {typed({{"R", Imf::FLOAT}, {"G", Imf::HALF}}), 1, "Exr  Half Zip-16line scanline 'G R '", 16, 12, 0},
        {typed({{"Z", Imf::UINT}, {"A", Imf::HALF}}), 1, "Exr  Half Zip-16line scanline 'A Z '", 16, 12, 1},
        {makeExr(layered), 1, "Exr  Half Zip-16line scanline 'A Diffuse.r My.PackedRGB PackedRGBA R \xE9t\xE9 '", 16, 12, 0},
        {makeExr(intJob), 1, "Exr  Half Zip-16line scanline 'A B G R ' theClient theScene", 16, 12, 1},
        {makeExr(emptyJob), 1, "Exr  Half Zip-16line scanline 'A B G R ' ", 16, 12, 1},
        {makeMultiPartExr({rgbaHalf(Imf::RLE_COMPRESSION, box(0, 0, 31, 7)), second}), 1, "Exr  Half RLE scanline multipart 'A B G R '", 32, 8, 1},
        {makeExr(list20), 1, "Exr  Half Zip-16line scanline '" + shown20 + "'", 16, 12, 0},
        {makeExr(list21), 1, "Exr  Half Zip-16line scanline '" + shown21 + "'", 16, 12, 0},
        {makeExr(list40), 1, "Exr  Half Zip-16line scanline '" + shown40 + "'", 16, 12, 0},
        {makeExr(full), 1, longText, 16, 12, 0},
        {makeExr(cut), 14, longText, 16, 12, 0},
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
    for (std::size_t cut : {std::size_t{0}, std::size_t{2}, std::size_t{6}, headerEnd(file) / 2, headerEnd(file) - 1,
                            headerEnd(file) + 4, offsetTableEnd(file) - 1, offsetTableEnd(file), offsetTableEnd(file) + 10}) {
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
        EXPECT_EQ(partial.info->imageWidth, 64);
    }
}

TEST(ImgLoadHeader, IncompleteFileKeepsItsSizeAndMetadata)
{
    for (bool tiled : {false, true}) {
        ExrPart part = rgbaHalf(Imf::NO_COMPRESSION, box(0, 0, 19, 29));
        part.writeLimit = 5;
        part.tiled = tiled;
        part.attribute("KT/scenename", std::string("unfinished"));
        HostCall host;
        EXPECT_EQ(host.load(makeExr(part)), 14);
        EXPECT_EQ(host.text(), std::string("Exr  Half uncompr. ") + (tiled ? " tiled" : " scanline") + " 'A B G R ' unfinished ERR: file not completed!");
        EXPECT_EQ(host.info->imageWidth * host.info->imageHeight, 20 * 30);
        EXPECT_EQ(host.info->hasAlpha, 1);
        ASSERT_EQ(host.data->count, 1u);
        EXPECT_EQ(textOf(host.data->entries[0].text), "unfinished");
    }
}

// Refusals before anything but the text is written: not EXR at all (14
// whole, 16 partly loaded), the magic number with an unknown version (14),
// a first channel of 32-bit unsigned integers (4, after the depth).
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
    HostCall host;  // records missing: refused with nothing touched
    host.file = fileBufferWith(makeExr(rgbaHalf()));
    EXPECT_EQ(imgLoadHeader(nullptr), 6);
    for (imgCallRecord record : {imgCallRecord{nullptr, host.info.get(), host.data.get(), nullptr},
                                 imgCallRecord{host.file.get(), host.info.get(), nullptr, nullptr},
                                 imgCallRecord{host.file.get(), nullptr, host.data.get(), nullptr}})
        EXPECT_EQ(imgLoadHeader(&record), 6);
    EXPECT_EQ(host.info->infoText.length, 7);
    EXPECT_TRUE(host.untouched());
}
