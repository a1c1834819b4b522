// imgInfo fills the host's information record and nothing else of it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "plugin/ktImageExr.h"

namespace {

template <int N>
std::string text(const _ktString<N>& s)
{
    std::string out;
    for (int i = 0; i < s.length; ++i) out += static_cast<char>(s.text[i]);
    return out;
}

// A record whose every byte holds `fill`, with the host's version set.
imgPluginInfo filledRecord(unsigned char fill, unsigned short version)
{
    imgPluginInfo record;
    std::memset(static_cast<void*>(&record), fill, sizeof record);
    record.interfaceVersion = version;
    return record;
}

struct ByteRange {
    size_t first, last;  // inclusive
};

// The host's own byte ranges, which the plug-in must leave as they were.
const std::vector<ByteRange> kHostRanges = {{4, 17}, {444, 445}, {450, 497}, {499, 511}};

}  // namespace

TEST(ImgInfo, MatchingVersionFillsEveryField)
{
    imgPluginInfo record = filledRecord(0xAB, 0xA004);
    ASSERT_EQ(imgInfo(&record), 1);
    EXPECT_EQ(record.interfaceVersion, 0xA004);
    EXPECT_EQ(record.pluginKind, 2);
    EXPECT_EQ(text(record.name), "OpenExr");
    EXPECT_EQ(text(record.author), "KT, Imaging Plugin Team");
    EXPECT_EQ(text(record.interfaceText), "1.0");
    EXPECT_EQ(text(record.version), " 8.3.08");
    EXPECT_EQ(record.flagWordA, 1);
    EXPECT_EQ(record.flagWordB, 48);
    EXPECT_EQ(record.flagWordC, 0);
    EXPECT_EQ(record.flagByte, 0);
    EXPECT_EQ(record.maskA, 340u);
    EXPECT_EQ(text(record.filePatterns), "*.exr;*.cxr");
    EXPECT_EQ(record.maskB, 254);
    // Each text is terminated right after its characters.
    EXPECT_EQ(record.name.text[7], 0);
    EXPECT_EQ(record.author.text[23], 0);
    EXPECT_EQ(record.filePatterns.text[11], 0);
}

TEST(ImgInfo, TextsAndNumbersAtTheirBytePositions)
{
    imgPluginInfo record = filledRecord(0, 0xA004);
    ASSERT_EQ(imgInfo(&record), 1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    auto u16 = [&](size_t at) { return static_cast<unsigned>(bytes[at] | bytes[at + 1] << 8); };
    EXPECT_EQ(u16(0), 0xA004u);
    EXPECT_EQ(u16(2), 2u);
    EXPECT_EQ(u16(18), 7u);            // name length
    EXPECT_EQ(u16(22), unsigned('O'));  // first unit after length and reserved word
    EXPECT_EQ(u16(124), 23u);
    EXPECT_EQ(u16(330), 3u);
    EXPECT_EQ(u16(386), 7u);
    EXPECT_EQ(u16(390), unsigned(' '));
    EXPECT_EQ(u16(442), 1u);
    EXPECT_EQ(u16(446), 48u);
    EXPECT_EQ(u16(448), 0u);
    EXPECT_EQ(bytes[498], 0u);
    EXPECT_EQ(u16(512), 340u);
    EXPECT_EQ(u16(514), 0u);
    EXPECT_EQ(u16(516), 11u);
    EXPECT_EQ(u16(520), unsigned('*'));
    EXPECT_EQ(u16(622), 254u);
}

TEST(ImgInfo, HostRangesUntouched)
{
    for (unsigned short version : {0xA004, 0xA003}) {
        imgPluginInfo record = filledRecord(0x5A, version);
        imgInfo(&record);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
        for (const auto& range : kHostRanges)
            for (size_t i = range.first; i <= range.last; ++i)
                EXPECT_EQ(bytes[i], 0x5A) << "host byte " << i << " changed (version " << std::hex << version << ")";
    }
}

TEST(ImgInfo, OtherVersionRefusedAfterIdentityWritten)
{
    imgPluginInfo record = filledRecord(0x77, 0xA003);
    EXPECT_EQ(imgInfo(&record), 5);
    EXPECT_EQ(record.interfaceVersion, 0xA004);
    EXPECT_EQ(text(record.name), "OpenExr");
    EXPECT_EQ(text(record.author), "KT, Imaging Plugin Team");
    EXPECT_EQ(text(record.version), " 8.3.08");
    // The fields written only for a matching version keep the host's bytes.
    EXPECT_EQ(record.flagByte, 0x77);
    EXPECT_EQ(record.maskA, 0x77777777u);
    EXPECT_EQ(record.maskB, 0x7777);
    EXPECT_EQ(record.filePatterns.length, 0x7777);
}

TEST(ImgInfo, SecondCallGivesIdenticalRecord)
{
    imgPluginInfo first = filledRecord(0x11, 0xA004);
    ASSERT_EQ(imgInfo(&first), 1);
    imgPluginInfo second = first;
    ASSERT_EQ(imgInfo(&second), 1);
    EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
}

TEST(ImgUnload, AlwaysOne)
{
    EXPECT_EQ(imgUnload(), 1);
    EXPECT_EQ(imgUnload(), 1);
}

TEST(GammaV, ExactBitPattern)
{
    std::uint32_t bits;
    std::memcpy(&bits, &gammaV, sizeof bits);
    EXPECT_EQ(bits, 0x3EE8BA2Eu);
}
