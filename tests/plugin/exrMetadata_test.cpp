// Render metadata between OpenEXR headers and the host's record, and job-ID texts.
#include <gtest/gtest.h>

#include <OpenEXR/ImfBoxAttribute.h>
#include <OpenEXR/ImfChromaticitiesAttribute.h>
#include <OpenEXR/ImfDoubleAttribute.h>
#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfFloatVectorAttribute.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMatrixAttribute.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfVecAttribute.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "plugin/exrMetadata.h"

namespace {

template <int N>
std::string str(const _ktString8_allSize<N>& s)
{
    return std::string(s.text, s.length);
}

// The record is far too big for a test thread's stack.
std::unique_ptr<ktExrHeaderData> emptyRecord()
{
    auto data = std::make_unique<ktExrHeaderData>();
    std::memset(static_cast<void*>(data.get()), 0, sizeof *data);
    data->magic = 0xFEBA;
    return data;
}

std::unique_ptr<ktExrHeaderData> read(Imf::Header& header)
{
    auto data = emptyRecord();
    bool flag = false;
    headerGetData(header, *data, flag);
    return data;
}

std::string name3(int i)
{
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "custom%03d", i);
    return buffer;
}

Imath::M44f sampleMatrix()
{
    Imath::M44f m;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) m[r][c] = static_cast<float>(r * 10 + c) + 0.25f;
    return m;
}

}  // namespace

// ---------------------------------------------------------------- job IDs

struct IdCase {
    unsigned long long id;
    const char* text;
};

class JobIdText : public testing::TestWithParam<IdCase> {};

TEST_P(JobIdText, MatchesHandComputedText)
{
    EXPECT_EQ(str(ID2str_local(GetParam().id)), GetParam().text) << std::hex << GetParam().id;
}

INSTANTIATE_TEST_SUITE_P(
    Table, JobIdText,
    testing::Values(IdCase{0, "{AAA}"}, IdCase{1, "{AAAa}"}, IdCase{25, "{AAAba}"}, IdCase{255, "{AAAlq}"},
                    IdCase{0x00FFFFFFFF000080ull, "{HPRfh}"},
                    IdCase{24, "{AAAz}"},                          // v = 23: the last small letter alone
                    IdCase{26, "{AAAbb}"},                         // v = 25
                    IdCase{0xFFFF00ull, "{AAA}"},                  // bits 8 to 23 never show
                    IdCase{0xFF00000000000000ull, "{AAA}"},        // nor do bits 56 to 63
                    IdCase{9999ull << 24, "{AAA}"},                // below 10,000
                    IdCase{10000ull << 24, "{AAB}"},               // least significant letter last
                    IdCase{360000ull << 24, "{ABA}"},              // 36
                    IdCase{12960000ull << 24, "{BAA}"},            // 1,296
                    IdCase{466550000ull << 24 | 2, "{---b}"},      // 46,655: every letter the last one
                    IdCase{466560000ull << 24, "{AAA}"},           // 46,656 wraps round
                    IdCase{(80000ull << 24) | 49, "{AAJca}"}));    // 8 -> J (no I); v = 48

TEST(JobIdText, AlphabetsSetAtLoad)
{
    EXPECT_EQ(str(ktExrIdAlphabetBig), "ABCDEFGHJKLMNOPQRSTUVWXYZ1234567890-");
    EXPECT_EQ(str(ktExrIdAlphabetSmall), "abcdefghjklnopqrstuvwxyz");
}

TEST(JobIdText, EveryLowByteDecodesBack)
{
    const std::string small = "abcdefghjklnopqrstuvwxyz";
    for (unsigned b = 0; b < 256; ++b) {
        const std::string t = str(ID2str_local(0x1234500000000ull | b));
        ASSERT_GE(t.size(), 5u);
        ASSERT_EQ(t.front(), '{');
        ASSERT_EQ(t.back(), '}');
        const std::string letters = t.substr(4, t.size() - 5);
        if (b == 0) {
            EXPECT_EQ(letters, "") << b;
            continue;
        }
        const unsigned v = b - 1;
        std::string expected;
        if (v / 24) expected += small[v / 24];
        expected += small[v % 24];
        EXPECT_EQ(letters, expected) << b;
    }
}

TEST(JobIdText, AlphabetLengthsAreReadAtEachCall)
{
    const auto saved = ktExrIdAlphabetSmall;
    ktExrIdAlphabetSmall = "xy";
    // v = 4: index 4 mod 2 = 0, then (4 div 2) mod 2 = 0.
    EXPECT_EQ(str(ID2str_local(5)), "{AAAxx}");
    ktExrIdAlphabetSmall.setLength(0);
    EXPECT_EQ(str(ID2str_local(5)), "{AAA}");
    ktExrIdAlphabetSmall = saved;
    EXPECT_EQ(str(ID2str_local(5)), "{AAAe}");
}

// ------------------------------------------------------- header to record

TEST(HeaderGetData, EveryTypeOfTheTable)
{
    Imf::Header header;
    header.insert("s", Imf::StringAttribute("hello \xE9t\xE9"));
    header.insert("i", Imf::IntAttribute(-123456));
    header.insert("f", Imf::FloatAttribute(-2.5f));
    header.insert("m", Imf::M44fAttribute(sampleMatrix()));
    header.insert("v", Imf::FloatVectorAttribute(Imf::FloatVector{1.5f, -2.0f, 3.25f}));
    header.insert("x", Imf::V2fAttribute(Imath::V2f(7.5f, -8.5f)));
    header.insert("y", Imf::V3fAttribute(Imath::V3f(1e-3f, 2e10f, -0.0f)));
    auto data = read(header);

    ASSERT_EQ(data->count, 7u);
    EXPECT_EQ(data->magic, 0xFEBAu);
    // Header order is ascending by name: f i m s v x y.
    const ktExrHeaderEntry* e = data->entries;
    EXPECT_EQ(str(e[0].name), "f");
    EXPECT_EQ(static_cast<int>(e[0].type), 2);
    EXPECT_EQ(e[0].values[0].f, -2.5f);
    EXPECT_EQ(str(e[1].name), "i");
    EXPECT_EQ(static_cast<int>(e[1].type), 1);
    EXPECT_EQ(e[1].values[0].i, -123456);
    EXPECT_EQ(str(e[2].name), "m");
    EXPECT_EQ(static_cast<int>(e[2].type), 3);
    for (int k = 0; k < 16; ++k) EXPECT_EQ(e[2].values[k].f, static_cast<float>((k / 4) * 10 + k % 4) + 0.25f) << k;
    EXPECT_EQ(str(e[3].name), "s");
    EXPECT_EQ(static_cast<int>(e[3].type), 0);
    EXPECT_EQ(str(e[3].text), "hello \xE9t\xE9");
    EXPECT_EQ(str(e[4].name), "v");
    EXPECT_EQ(static_cast<int>(e[4].type), 4);
    EXPECT_EQ(e[4].valueCount, 3);
    EXPECT_EQ(e[4].values[0].f, 1.5f);
    EXPECT_EQ(e[4].values[1].f, -2.0f);
    EXPECT_EQ(e[4].values[2].f, 3.25f);
    EXPECT_EQ(str(e[5].name), "x");
    EXPECT_EQ(static_cast<int>(e[5].type), 5);
    EXPECT_EQ(e[5].values[0].f, 7.5f);
    EXPECT_EQ(e[5].values[1].f, -8.5f);
    EXPECT_EQ(str(e[6].name), "y");
    EXPECT_EQ(static_cast<int>(e[6].type), 6);
    EXPECT_EQ(e[6].values[0].f, 1e-3f);
    EXPECT_EQ(e[6].values[1].f, 2e10f);
    EXPECT_TRUE(std::signbit(e[6].values[2].f));
}

TEST(HeaderGetData, StandardAttributesNeverCopied)
{
    Imf::Header header(64, 32);
    header.setTileDescription(Imf::TileDescription(16, 16));
    header.insert("type", Imf::StringAttribute("tiledimage"));
    header.insert("Type", Imf::StringAttribute("case matters"));
    auto data = read(header);
    ASSERT_EQ(data->count, 1u);
    EXPECT_EQ(str(data->entries[0].name), "Type");
    EXPECT_EQ(str(data->entries[0].text), "case matters");
    // The last name met stays in the free slot, uncounted.
    EXPECT_EQ(str(data->entries[1].name), "type");
}

TEST(HeaderGetData, OtherTypesAreSkippedWithoutDisturbingTheNext)
{
    Imf::Header header;
    header.insert("a", Imf::IntAttribute(1));
    header.insert("b", Imf::Box2iAttribute(Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(3, 3))));
    header.insert("c", Imf::ChromaticitiesAttribute(Imf::Chromaticities()));
    header.insert("d", Imf::DoubleAttribute(2.0));
    header.insert("e", Imf::V2iAttribute(Imath::V2i(1, 2)));
    header.insert("f", Imf::M33fAttribute(Imath::M33f()));
    header.insert("g", Imf::StringAttribute("after"));
    header.insert("zh", Imf::V3dAttribute(Imath::V3d(1, 2, 3)));
    auto data = read(header);
    ASSERT_EQ(data->count, 2u);
    EXPECT_EQ(str(data->entries[0].name), "a");
    EXPECT_EQ(data->entries[0].values[0].i, 1);
    EXPECT_EQ(str(data->entries[1].name), "g");
    EXPECT_EQ(static_cast<int>(data->entries[1].type), 0);
    EXPECT_EQ(str(data->entries[1].text), "after");
    // A skipped attribute met last keeps its name in the free slot.
    EXPECT_EQ(str(data->entries[2].name), "zh");
}

TEST(HeaderGetData, LimitsOfNamesTextsAndVectors)
{
    Imf::Header header;
    const std::string longName = "N" + std::string(99, 'n');
    const std::string longText(2500, 't');
    const std::string text2000 = std::string(1999, 'u') + "\xFF";
    header.insert(longName, Imf::StringAttribute(longText));
    header.insert("t2000", Imf::StringAttribute(text2000));
    header.insert("vec12", Imf::FloatVectorAttribute(Imf::FloatVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    header.insert("vec10", Imf::FloatVectorAttribute(Imf::FloatVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    header.insert("vec0", Imf::FloatVectorAttribute(Imf::FloatVector{}));
    auto data = read(header);
    ASSERT_EQ(data->count, 5u);
    const ktExrHeaderEntry* e = data->entries;
    EXPECT_EQ(str(e[0].name), longName.substr(0, 75));
    EXPECT_EQ(str(e[0].text), longText.substr(0, 2000));
    EXPECT_EQ(e[0].text.text[2000], 0);
    EXPECT_EQ(str(e[1].text), text2000);
    EXPECT_EQ(str(e[2].name), "vec0");
    EXPECT_EQ(e[2].valueCount, 0);
    EXPECT_EQ(str(e[3].name), "vec10");
    EXPECT_EQ(e[3].valueCount, 10);
    EXPECT_EQ(str(e[4].name), "vec12");
    EXPECT_EQ(e[4].valueCount, 10);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(e[4].values[k].f, static_cast<float>(k + 1));
    EXPECT_EQ(e[4].values[10].f, 0.0f);
}

TEST(HeaderGetData, AppendsAfterTheGivenCountAndLeavesMagicAndFlag)
{
    Imf::Header header;
    header.insert("one", Imf::IntAttribute(1));
    auto data = emptyRecord();
    data->magic = 0x1234;
    data->count = 5;
    for (bool flag : {false, true}) {
        bool f = flag;
        headerGetData(header, *data, f);
        EXPECT_EQ(f, flag);
    }
    EXPECT_EQ(data->magic, 0x1234u);
    EXPECT_EQ(data->count, 7u);
    EXPECT_EQ(str(data->entries[5].name), "one");
    EXPECT_EQ(str(data->entries[6].name), "one");
    EXPECT_EQ(data->entries[4].name.length, 0);

    // A count already past the last index takes nothing more.
    data->count = 401;
    bool unused = false;
    headerGetData(header, *data, unused);
    EXPECT_EQ(data->count, 401u);
    EXPECT_EQ(data->entries[401].name.length, 0);
}

// ------------------------------------------------------- record to header

namespace {

std::string stringAttr(const Imf::Header& h, const char* name)
{
    const auto* a = h.findTypedAttribute<Imf::StringAttribute>(name);
    return a ? a->value() : std::string("<absent>");
}

size_t attributeCount(const Imf::Header& h)
{
    size_t n = 0;
    for (auto it = h.begin(); it != h.end(); ++it) ++n;
    return n;
}

const std::regex kTimeStamp(R"(^[A-Z][a-z]{2} \d{2}\. \d{2}:\d{2}\.\d{2}$)");

}  // namespace

TEST(HeaderInsertData, StampsOnlyWhenTheRecordIsEmpty)
{
    for (std::uint32_t magic : {0u, 0xFEBBu, 0xFEBAu}) {
        auto data = emptyRecord();
        data->magic = magic;
        data->count = magic == 0xFEBA ? 0 : 3;  // entries present but not marked, or marked but none
        data->entries[0].name = "ignored";
        Imf::Header header;
        const size_t before = attributeCount(header);
        headerInsertData(header, *data, "-");
        EXPECT_EQ(attributeCount(header), before + 2) << magic;
        EXPECT_EQ(stringAttr(header, "KT/application"), "-");
        EXPECT_TRUE(std::regex_match(stringAttr(header, "KT/dateWritten"), kTimeStamp))
            << stringAttr(header, "KT/dateWritten");
        EXPECT_EQ(stringAttr(header, "ignored"), "<absent>");
    }
}

TEST(HeaderInsertData, RoundTripThroughTheRecordKeepsEveryValue)
{
    Imf::Header source;
    source.insert("s", Imf::StringAttribute("text"));
    source.insert("i", Imf::IntAttribute(-7));
    source.insert("f", Imf::FloatAttribute(0.125f));
    source.insert("m", Imf::M44fAttribute(sampleMatrix()));
    source.insert("v", Imf::FloatVectorAttribute(Imf::FloatVector{4, 5}));
    source.insert("e", Imf::FloatVectorAttribute(Imf::FloatVector{}));
    source.insert("x", Imf::V2fAttribute(Imath::V2f(1, 2)));
    source.insert("y", Imf::V3fAttribute(Imath::V3f(3, 4, 5)));
    auto data = read(source);
    ASSERT_EQ(data->count, 8u);

    Imf::Header target;
    headerInsertData(target, *data, "app");
    EXPECT_EQ(stringAttr(target, "s"), "text");
    EXPECT_EQ(target.typedAttribute<Imf::IntAttribute>("i").value(), -7);
    EXPECT_EQ(target.typedAttribute<Imf::FloatAttribute>("f").value(), 0.125f);
    EXPECT_EQ(target.typedAttribute<Imf::M44fAttribute>("m").value(), sampleMatrix());
    EXPECT_EQ(target.typedAttribute<Imf::FloatVectorAttribute>("v").value(), (Imf::FloatVector{4, 5}));
    EXPECT_TRUE(target.typedAttribute<Imf::FloatVectorAttribute>("e").value().empty());
    EXPECT_EQ(target.typedAttribute<Imf::V2fAttribute>("x").value(), Imath::V2f(1, 2));
    EXPECT_EQ(target.typedAttribute<Imf::V3fAttribute>("y").value(), Imath::V3f(3, 4, 5));
    EXPECT_EQ(stringAttr(target, "KT/application"), "app");
    EXPECT_EQ(attributeCount(target), attributeCount(Imf::Header()) + 8 + 2);
}

TEST(HeaderInsertData, StringsAlreadyInTheHeaderWin)
{
    auto data = emptyRecord();
    data->count = 3;
    data->entries[0].name = "KT/dateWritten";
    data->entries[0].text = "Jan 01. 00:00.00 from an old file";
    data->entries[1].name = "KT/application";
    data->entries[1].text = "old app";
    data->entries[2].name = "KT/clientname";
    data->entries[2].text = "from the record";

    Imf::Header header;
    header.insert("KT/clientname", Imf::StringAttribute("set by the encoder"));
    header.insert("KT/application", Imf::StringAttribute("older stamp"));
    headerInsertData(header, *data, nullptr);
    EXPECT_TRUE(std::regex_match(stringAttr(header, "KT/dateWritten"), kTimeStamp));
    // The stamp replaces an older one; a null application stamps an empty text.
    EXPECT_EQ(stringAttr(header, "KT/application"), "");
    EXPECT_EQ(stringAttr(header, "KT/clientname"), "set by the encoder");
}

TEST(HeaderInsertData, UnknownTypeCodesAreSkippedAndHostCountsClamped)
{
    auto data = emptyRecord();
    data->count = 0xFFFFFFFF;  // a host record gone wrong: only the 410 slots are read
    for (int i = 0; i < 410; ++i) {
        data->entries[i].name = name3(i).c_str();
        data->entries[i].type = static_cast<ktExrAttrType>(i % 2 ? 7 + i % 200 : 1);
        data->entries[i].values[0].i = i;
    }
    Imf::Header header;
    headerInsertData(header, *data, "-");
    EXPECT_EQ(attributeCount(header), attributeCount(Imf::Header()) + 2 + 205);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("custom408").value(), 408);
    EXPECT_EQ(header.findTypedAttribute<Imf::IntAttribute>("custom409"), nullptr);
}

TEST(HeaderInsertData, HostValueCountIsBoundedBySlots)
{
    auto data = emptyRecord();
    data->count = 1;
    data->entries[0].name = "vec";
    data->entries[0].type = ktExrAttrType::FloatVector;
    data->entries[0].valueCount = 255;
    for (int k = 0; k < 16; ++k) data->entries[0].values[k].f = static_cast<float>(k);
    Imf::Header header;
    headerInsertData(header, *data, "-");
    EXPECT_EQ(header.typedAttribute<Imf::FloatVectorAttribute>("vec").value().size(), 16u);
}

TEST(HeaderInsertData, NameTakenByAnotherTypeRaisesTheLibraryError)
{
    auto data = emptyRecord();
    data->count = 1;
    data->entries[0].name = "taken";
    data->entries[0].type = ktExrAttrType::Float;
    Imf::Header header;
    header.insert("taken", Imf::IntAttribute(3));
    EXPECT_THROW(headerInsertData(header, *data, "-"), std::exception);
    EXPECT_EQ(header.typedAttribute<Imf::IntAttribute>("taken").value(), 3);
}
