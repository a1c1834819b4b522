// imgInfo fills the host's information record and nothing else of it.
#include <gtest/gtest.h>

#include <cstring>

#include "plugin/ktImageExr.h"
#include "tests/support/exrBuilder.h"

using kt::test::textOf;

namespace {

// A record whose every byte holds `fill`, with the host's version set.
imgPluginInfo filledRecord(unsigned char fill, unsigned short version)
{
    imgPluginInfo record;
    std::memset(static_cast<void*>(&record), fill, sizeof record);
    record.interfaceVersion = version;
    return record;
}

}  // namespace

// The identity is written whatever the version; the patterns, flag byte and
// masks only for 0xA004. The host's own byte ranges are never touched, and
// a second call gives the same record.
TEST(ImgInfo, FillsTheIdentityAndLeavesTheHostsBytes)
{
    for (unsigned short version : {0xA004, 0xA003}) {
        imgPluginInfo record = filledRecord(0x77, version);
        EXPECT_EQ(imgInfo(&record), version == 0xA004 ? 1 : 5);
        EXPECT_EQ(record.interfaceVersion, 0xA004);
        EXPECT_EQ(record.pluginKind, 2);
        EXPECT_EQ(textOf(record.name), "OpenExr");
        EXPECT_EQ(textOf(record.author), "KT, Imaging Plugin Team");
        EXPECT_EQ(textOf(record.interfaceText), "1.0");
        EXPECT_EQ(textOf(record.version), " 8.3.08");
        EXPECT_EQ(record.name.text[7] | record.author.text[23] | record.interfaceText.text[3] | record.version.text[7], 0);
        EXPECT_EQ(record.flagWordA, 1);
        EXPECT_EQ(record.flagWordB, 48);
        EXPECT_EQ(record.flagWordC, 0);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
        for (const auto& [first, last] : {std::pair{4, 17}, {444, 445}, {450, 497}, {499, 511}})
            for (int i = first; i <= last; ++i) EXPECT_EQ(bytes[i], 0x77) << "host byte " << i << ", version " << std::hex << version;
        if (version != 0xA004) {
            EXPECT_EQ(record.flagByte, 0x77);
            EXPECT_EQ(record.maskA, 0x77777777u);
            EXPECT_EQ(record.maskB, 0x7777);
            EXPECT_EQ(record.filePatterns.length, 0x7777);
            continue;
        }
        EXPECT_EQ(record.flagByte, 0);
        EXPECT_EQ(record.maskA, 340u);
        EXPECT_EQ(textOf(record.filePatterns), "*.exr;*.cxr");
        EXPECT_EQ(record.filePatterns.text[11], 0);
        EXPECT_EQ(record.maskB, 254);
        imgPluginInfo second = record;
        ASSERT_EQ(imgInfo(&second), 1);
        EXPECT_EQ(std::memcmp(&record, &second, sizeof record), 0);
    }
}
