// Render metadata between OpenEXR headers and the host's record, through the
// exports and on its own, and job-ID texts.
#include <gtest/gtest.h>

#include <OpenEXR/ImfChromaticitiesAttribute.h>

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

using kt::test::textOf;

namespace {

// The record is far too big for a test thread's stack.
std::unique_ptr<ktExrHeaderData> emptyRecord(std::uint32_t magic = ktExrHeaderMagic, std::uint32_t count = 0)
{
    auto data = std::make_unique<ktExrHeaderData>();
    std::memset(static_cast<void*>(data.get()), 0, sizeof *data);
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

const std::regex kTimeStamp(R"(^[A-Z][a-z]{2} \d{2}\. \d{2}:\d{2}\.\d{2}$)");

}  // namespace

// "{", three capitals from bits 24 to 55 divided by 10,000 (most significant
// first), up to two small letters from the low byte less one, "}".
TEST(JobIdText, MatchesHandComputedTexts)
{
    const struct {
        unsigned long long id;
        const char* text;
    } cases[] = {
        {0, "{AAA}"}, {1, "{AAAa}"}, {24, "{AAAz}"}, {25, "{AAAba}"}, {26, "{AAAbb}"}, {255, "{AAAlq}"},
        {0x00FFFFFFFF000080ull, "{HPRfh}"},
        {0xFFFF00ull, "{AAA}"}, {0xFF00000000000000ull, "{AAA}"},  // bits 8 to 23 and 56 to 63 never show
        {9999ull << 24, "{AAA}"}, {10000ull << 24, "{AAB}"}, {360000ull << 24, "{ABA}"}, {12960000ull << 24, "{BAA}"},
        {466550000ull << 24 | 2, "{---b}"}, {466560000ull << 24, "{AAA}"},  // 46,655 is the last; 46,656 wraps
        {(80000ull << 24) | 49, "{AAJca}"},  // 8 is J: no I
    };
    for (const auto& c : cases) EXPECT_EQ(textOf(ID2str_local(c.id)), c.text) << std::hex << c.id;
    EXPECT_EQ(textOf(ktExrIdAlphabetBig), "ABCDEFGHJKLMNOPQRSTUVWXYZ1234567890-");
    EXPECT_EQ(textOf(ktExrIdAlphabetSmall), "abcdefghjklnopqrstuvwxyz");
}

TEST(JobIdText, AlphabetLengthsAreReadAtEachCall)
{
    const auto saved = ktExrIdAlphabetSmall;
    ktExrIdAlphabetSmall = "xy";
    EXPECT_EQ(textOf(ID2str_local(5)), "{AAAxx}");  // v = 4: 4 mod 2, then (4 div 2) mod 2
    ktExrIdAlphabetSmall.setLength(0);
    EXPECT_EQ(textOf(ID2str_local(5)), "{AAA}");
    ktExrIdAlphabetSmall = saved;
    EXPECT_EQ(textOf(ID2str_local(5)), "{AAAe}");
}

// Names cut at 75, texts at 2,000, vectors at 10 values; appending starts at
// the given count and leaves magic and flag alone.
TEST(HeaderGetData, LimitsOfTheRecord)
{
    Imf::Header header;
    const std::string longName = "N" + std::string(99, 'n'), longText(2500, 't'), text2000 = std::string(1999, 'u') + "\xFF";
    header.insert(longName, Imf::StringAttribute(longText));
    header.insert("t2000", Imf::StringAttribute(text2000));
    header.insert("vec10", Imf::FloatVectorAttribute(Imf::FloatVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    header.insert("vec12", Imf::FloatVectorAttribute(Imf::FloatVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    auto data = emptyRecord(0x1234, 5);
    bool flag = true;
    headerGetData(header, *data, flag);
    EXPECT_TRUE(flag);
    EXPECT_EQ(data->magic, 0x1234u);
    ASSERT_EQ(data->count, 9u);
    const ktExrHeaderEntry* e = data->entries + 5;
    EXPECT_EQ(data->entries[4].name.length, 0);
    EXPECT_EQ(textOf(e[0].name), longName.substr(0, 75));
    EXPECT_EQ(textOf(e[0].text), longText.substr(0, 2000));
    EXPECT_EQ(e[0].text.text[2000], 0);
    EXPECT_EQ(textOf(e[1].text), text2000);
    EXPECT_EQ(e[2].valueCount + e[3].valueCount, 20);
    EXPECT_EQ(e[3].values[9].f, 10.0f);
    EXPECT_EQ(e[3].values[10].f, 0.0f);
}

// Only the two stamps unless the record is marked and holds entries.
TEST(HeaderInsertData, StampsOnlyWhenTheRecordIsEmpty)
{
    for (std::uint32_t magic : {0u, 0xFEBBu, 0xFEBAu}) {
        auto data = emptyRecord(magic, magic == 0xFEBA ? 0 : 3);  // entries not marked, or marked but none
        data->entries[0].name = "ignored";
        Imf::Header header;
        headerInsertData(header, *data, "-");
        EXPECT_EQ(attributeCount(header), attributeCount(Imf::Header()) + 2) << magic;
        EXPECT_EQ(stringAttr(header, "KT/application"), "-");
        EXPECT_TRUE(std::regex_match(stringAttr(header, "KT/dateWritten"), kTimeStamp)) << stringAttr(header, "KT/dateWritten");
    }
}

// String attributes already in the header (the stamps, the encoder's client)
// win over the record; a null application stamps an empty text.
TEST(HeaderInsertData, StringsAlreadyInTheHeaderWin)
{
    auto data = emptyRecord(ktExrHeaderMagic, 3);
    const char* entries[][2] = {{"KT/dateWritten", "Jan 01. 00:00.00 old"}, {"KT/application", "old app"}, {"KT/clientname", "record"}};
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
    auto data = emptyRecord(ktExrHeaderMagic, 0xFFFFFFFF);
    for (int i = 0; i < 410; ++i) {
        data->entries[i].name = ("custom" + std::to_string(1000 + i)).c_str();
        data->entries[i].type = static_cast<ktExrAttrType>(i % 2 ? 7 + i % 200 : 1);
        data->entries[i].values[0].i = i;
    }
    data->entries[2] = ktExrHeaderEntry{};
    data->entries[2].name = "vec";
    data->entries[2].type = ktExrAttrType::FloatVector;
    data->entries[2].valueCount = 255;
    Imf::Header header;
    headerInsertData(header, *data, "-");
    EXPECT_EQ(attributeCount(header), attributeCount(Imf::Header()) + 2 + 205);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("custom1408").value(), 408);
    EXPECT_EQ(header.typedAttribute<Imf::FloatVectorAttribute>("vec").value().size(), 16u);

    data->count = 1;
    data->entries[0].type = ktExrAttrType::Float;
    Imf::Header taken;
    taken.insert("custom1000", Imf::IntAttribute(3));
    EXPECT_THROW(headerInsertData(taken, *data, "-"), std::exception);
    EXPECT_EQ(taken.typedAttribute<Imf::IntAttribute>("custom1000").value(), 3);
}

// Loading a file fills one entry per attribute of the seven types, in name
// order, each in its own value fields; the ten standard attributes (exact
// names) and other types are not counted, the last name met stays in the
// free slot. Encoding with the record and loading the new file gives every
// entry back byte for byte, with new stamps.
TEST(MetadataRoundTrip, LoadEncodeLoadKeepsEveryEntry)
{
    kt::test::ExrPart part;
    part.tiled = true;
    const Imath::M44f matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16.5f);
    part.attribute("KT/scenename", std::string("Scene \xC3\xA9t\xC3\xA9 12")).attribute("Tiles", std::string(1500, 'n'))
        .attribute("frame", -42).attribute("exposure", 1.25f).attribute("camera.matrix", matrix)
        .attribute("weights", std::vector<float>{0.5f, -1.0f, 2.25f, 3.0f, 1e-3f}).attribute("nothing", std::vector<float>{})
        .attribute("offset", Imath::V2f(1.5f, -2.0f)).attribute("position", Imath::V3f(0.25f, 2e10f, -0.0f))
        .attribute("chroma", Imf::Chromaticities()).attribute("box", Imath::Box2i()).attribute("zz", Imath::M33f())
        .attribute("KT/dateWritten", std::string("01.01.2000")).attribute("KT/application", std::string("Renderer 5"));
    auto load = [](const kt::test::Bytes& file, ktExrHeaderData& record) {
        auto buffer = kt::test::fileBufferWith(file);
        ktP::_imgRGBABuffer8 image(1u);
        imgCallRecord call{buffer.get(), &image.imageInfo, &record, nullptr};
        return imgLoadHeader(&call);
    };
    auto first = std::make_unique<ktExrHeaderData>(), second = std::make_unique<ktExrHeaderData>();
    ASSERT_EQ(load(kt::test::makeExr(part), *first), 1);
    const struct {
        const char* name;
        int type;
        std::string text;
        std::vector<float> values;
    } want[] = {{"KT/application", 0, "Renderer 5", {}}, {"KT/dateWritten", 0, "01.01.2000", {}},
                {"KT/scenename", 0, "Scene \xC3\xA9t\xC3\xA9 12", {}}, {"Tiles", 0, std::string(1500, 'n'), {}},
                {"camera.matrix", 3, "", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16.5f}}, {"exposure", 2, "", {1.25f}},
                {"frame", 1, "", {}}, {"nothing", 4, "", {}}, {"offset", 5, "", {1.5f, -2.0f}}, {"position", 6, "", {0.25f, 2e10f, -0.0f}},
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
    auto file = kt::test::emptyFileBuffer(1 << 20);
    imgJobSettings settings{};
    imgCallRecord call{file.get(), &image, first.get(), &settings};
    ASSERT_EQ(imgEncode16(&call), 1);
    ASSERT_EQ(load(kt::test::contentOf(*file), *second), 1);
    ASSERT_EQ(second->count, first->count);
    EXPECT_EQ(textOf(second->entries[0].text), "-");
    EXPECT_TRUE(std::regex_match(textOf(second->entries[1].text), kTimeStamp)) << textOf(second->entries[1].text);
    for (std::uint32_t i = 2; i < first->count; ++i)
        EXPECT_EQ(std::memcmp(&first->entries[i], &second->entries[i], sizeof(ktExrHeaderEntry)), 0) << textOf(first->entries[i].name);
}
