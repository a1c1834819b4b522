// The legacy layouts: values arriving from a separately built program in
// the characters-first layout, their conversions into the current strings,
// and the few rules in which the legacy templates differ.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "strings/ktString16.h"
#include "strings/ktString8.h"
#include "strings/ktStringLegacy.h"
#include "stringTestSupport.h"

using kttest::str;
using kttest::terminated;

TEST(LegacyConversion, EvenCapacityIntoTheCurrentString)
{
    const _ktString8_evenSize_old<100> legacy("abc");
    const _ktString8_allSize<100> s(legacy);
    EXPECT_EQ(str(s), "abc");
    EXPECT_EQ(s.length, 3);
    EXPECT_TRUE(terminated(s));
    EXPECT_TRUE(s == legacy);
    EXPECT_FALSE(_ktString8_allSize<100>("abd") == legacy);
    _ktString8_allSize<100> assigned("something longer");
    assigned = legacy;
    EXPECT_EQ(str(assigned), "abc");
    EXPECT_EQ(std::strlen(assigned.text), 3u);
}

TEST(LegacyConversion, OddCapacityIntoTheCurrentString)
{
    const _ktString8_UnevenSize_old<7> legacy("abcdefghij");
    EXPECT_EQ(str(legacy), "abcdefg");
    const _ktString8_allSize<7> s(legacy);
    EXPECT_EQ(str(s), "abcdefg");
    EXPECT_TRUE(terminated(s));
    EXPECT_TRUE(s == legacy);
}

TEST(LegacyConversion, BytesLaidOutByAnotherProgram)
{
    // _ktString8_UnevenSize_old<7>: eight characters, then the length.
    const unsigned char bytes[10] = {'h', 'e', 'y', 0, '?', '?', '?', '?', 3, 0};
    _ktString8_UnevenSize_old<7> legacy;
    static_assert(sizeof legacy == sizeof bytes);
    std::memcpy(static_cast<void*>(&legacy), bytes, sizeof bytes);
    const _ktString8_allSize<7> s(legacy);
    EXPECT_EQ(str(s), "hey");
    EXPECT_TRUE(terminated(s));

    // _ktString8_evenSize_old<6>: seven characters, a padding byte, the length.
    const unsigned char evenBytes[10] = {'x', 'y', 0, 0, 0, 0, 0, 0xEE, 2, 0};
    _ktString8_evenSize_old<6> even;
    static_assert(sizeof even == sizeof evenBytes);
    std::memcpy(static_cast<void*>(&even), evenBytes, sizeof evenBytes);
    EXPECT_EQ(str(_ktString8_allSize<6>(even)), "xy");

    // _ktString_old<10>: eleven units, then the length.
    alignas(2) unsigned char wideBytes[24] = {};
    wideBytes[0] = 'o';
    wideBytes[2] = 'k';
    wideBytes[3] = 0x01;
    wideBytes[22] = 2;
    _ktString_old<10> wide;
    static_assert(sizeof wide == sizeof wideBytes);
    std::memcpy(static_cast<void*>(&wide), wideBytes, sizeof wideBytes);
    const _ktString<10> current(wide);
    ASSERT_EQ(current.length, 2);
    EXPECT_EQ(current.text[0], 'o');
    EXPECT_EQ(current.text[1], 0x016B);
    EXPECT_EQ(current.reserved, 0);
    EXPECT_TRUE(terminated(current));
}

TEST(LegacyConversion, ALengthBeyondTheCapacityIsCut)
{
    _ktString8_evenSize_old<6> legacy("abcdef");
    legacy.length = 900;  // a damaged value
    const _ktString8_allSize<6> s(legacy);
    EXPECT_EQ(s.length, 6);
    EXPECT_TRUE(terminated(s));
}

TEST(LegacyConversion, SixteenBitIntoTheCurrentString)
{
    _ktString_old<48> legacy("units");
    legacy += static_cast<unsigned short>(0x263A);
    const _ktString<48> s(legacy);
    ASSERT_EQ(s.length, 6);
    EXPECT_EQ(s.text[5], 0x263A);
    EXPECT_TRUE(terminated(s));
    _ktString<48> assigned("longer text here");
    assigned = legacy;
    EXPECT_EQ(assigned.length, 6);
    EXPECT_TRUE(terminated(assigned));
    EXPECT_EQ(str(assigned), str(s));
}

TEST(LegacyConversion, SixteenBitNarrowedKeepsItsLength)
{
    _ktString_old<500> legacy;
    for (int i = 0; i < 499; ++i) legacy += static_cast<unsigned short>('n');
    const _ktString8_allSize<250> small = legacy;
    EXPECT_EQ(small.length, 499);
    EXPECT_EQ(std::strlen(small.text), 249u);
    const _ktString8_allSize<500> large = legacy;
    EXPECT_EQ(std::strlen(large.text), 499u);
    EXPECT_EQ(legacy.to_ktString8_250().length, 499);
    EXPECT_EQ(std::strlen(legacy.to_ktString8_500().text), 499u);
}

TEST(LegacyRules, NullAssignmentLeavesTheSixteenBitLegacyUnchanged)
{
    _ktString_old<25> legacy("x");
    legacy = static_cast<const char*>(nullptr);
    EXPECT_EQ(str(legacy), "x");
    _ktString<25> current("x");
    current = static_cast<const char*>(nullptr);
    EXPECT_EQ(current.length, 0);

    legacy = "\xE9";  // widened as unsigned
    EXPECT_EQ(legacy.text[0], 0x00E9);
    EXPECT_EQ(_ktString_old<25>("\xE9").text[0], 0xFFE9);  // the constructor widens as signed
}

TEST(LegacyRules, ClearOfTheOddLayoutZeroesEveryByte)
{
    _ktString8_UnevenSize_old<15> odd("abc");
    std::memset(static_cast<void*>(&odd), 0xAB, sizeof odd);
    odd.clear();
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&odd);
    for (size_t i = 0; i < sizeof odd; ++i) EXPECT_EQ(bytes[i], 0) << i;

    // The even layout clears the characters and the length, not the
    // padding byte between them.
    _ktString8_evenSize_old<14> even("abc");
    std::memset(static_cast<void*>(&even), 0xAB, sizeof even);
    even.clear();
    const unsigned char* evenBytes = reinterpret_cast<const unsigned char*>(&even);
    for (size_t i = 0; i < 15; ++i) EXPECT_EQ(evenBytes[i], 0) << i;
    EXPECT_EQ(evenBytes[15], 0xAB);
    EXPECT_EQ(even.length, 0);
}

TEST(LegacyRules, StartsWithAByte)
{
    const _ktString_old<10> legacy("abc");
    EXPECT_TRUE(legacy.startsWith('a'));
    EXPECT_FALSE(legacy.startsWith('A'));
    EXPECT_FALSE(_ktString_old<10>().startsWith('\0'));
    EXPECT_TRUE(_ktString_old<10>("\xE9").startsWith('\xE9'));
}

TEST(LegacyRules, SixteenBitNumbers)
{
    _ktString_old<30> legacy;
    legacy.addNr(-9000000000LL);
    legacy.addNr(7LL, static_cast<unsigned char>(3));
    EXPECT_EQ(str(legacy), "-9000000000007");
    legacy.fromNr(12);
    bool ok = false;
    EXPECT_EQ(legacy.toInt(&ok), 12);
    EXPECT_TRUE(ok);
}
