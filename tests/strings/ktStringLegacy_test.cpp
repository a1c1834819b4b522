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

namespace {

// A legacy value as another program laid it out, byte by byte.
template <class Legacy, size_t Size>
Legacy fromBytes(const unsigned char (&bytes)[Size])
{
    static_assert(sizeof(Legacy) == Size, "the legacy layout");
    Legacy legacy;
    std::memcpy(static_cast<void*>(&legacy), bytes, Size);
    return legacy;
}

}  // namespace

// The current string takes the legacy length and characters and terminates
// them; a damaged length is cut at the capacity; operator== compares the two.
TEST(LegacyConversion, EightBitIntoTheCurrentString)
{
    const _ktString8_evenSize_old<100> even("abc");
    const _ktString8_allSize<100> s(even);
    EXPECT_TRUE(str(s) == "abc" && terminated(s) && s == even && !(_ktString8_allSize<100>("abd") == even));
    _ktString8_allSize<100> assigned("something longer");
    assigned = even;
    EXPECT_TRUE(str(assigned) == "abc" && std::strlen(assigned.text) == 3u);

    const _ktString8_UnevenSize_old<7> odd("abcdefghij");
    const _ktString8_allSize<7> fromOdd(odd);
    EXPECT_TRUE(str(fromOdd) == "abcdefg" && terminated(fromOdd) && fromOdd == odd);

    // <7>: eight characters, then the length; <6>: seven, a padding byte, the length.
    const unsigned char oddBytes[10] = {'h', 'e', 'y', 0, '?', '?', '?', '?', 3, 0};
    const unsigned char evenBytes[10] = {'x', 'y', 0, 0, 0, 0, 0, 0xEE, 2, 0};
    EXPECT_EQ(str(_ktString8_allSize<7>(fromBytes<_ktString8_UnevenSize_old<7>>(oddBytes))), "hey");
    EXPECT_EQ(str(_ktString8_allSize<6>(fromBytes<_ktString8_evenSize_old<6>>(evenBytes))), "xy");

    _ktString8_evenSize_old<6> damaged("abcdef");
    damaged.length = 900;
    const _ktString8_allSize<6> cut(damaged);
    EXPECT_TRUE(cut.length == 6 && terminated(cut));
}

TEST(LegacyConversion, SixteenBitIntoTheCurrentStringAndNarrowed)
{
    // <10>: eleven units, then the length.
    unsigned char wideBytes[24] = {'o', 0, 'k', 0x01};
    wideBytes[22] = 2;
    const _ktString<10> current(fromBytes<_ktString_old<10>>(wideBytes));
    EXPECT_TRUE(current.length == 2 && current.text[0] == 'o' && current.text[1] == 0x016B);
    EXPECT_TRUE(current.reserved == 0 && terminated(current));

    _ktString_old<48> legacy("units");
    legacy += static_cast<unsigned short>(0x263A);
    _ktString<48> assigned("longer text here");
    assigned = legacy;
    EXPECT_TRUE(assigned.length == 6 && assigned.text[5] == 0x263A && terminated(assigned));

    _ktString_old<500> many;
    for (int i = 0; i < 499; ++i) many += static_cast<unsigned short>('n');
    const _ktString8_allSize<250> small = many;
    const _ktString8_allSize<500> large = many;
    EXPECT_TRUE(small.length == 499 && std::strlen(small.text) == 249u && std::strlen(large.text) == 499u);
    EXPECT_TRUE(many.to_ktString8_250().length == 499 && std::strlen(many.to_ktString8_500().text) == 499u);
}

// A null pointer leaves the 16-bit legacy string as it was (the current one
// empties); its assignment widens as unsigned, its constructor as signed;
// it alone tests its first unit against a byte.
TEST(LegacyRules, SixteenBitAssignmentNumbersAndFirstByte)
{
    _ktString_old<25> legacy("x");
    legacy = static_cast<const char*>(nullptr);
    EXPECT_EQ(str(legacy), "x");
    _ktString<25> current("x");
    current = static_cast<const char*>(nullptr);
    EXPECT_EQ(current.length, 0);
    legacy = "\xE9";
    EXPECT_EQ(legacy.text[0], 0x00E9);
    EXPECT_EQ(_ktString_old<25>("\xE9").text[0], 0xFFE9);

    EXPECT_TRUE(_ktString_old<10>("abc").startsWith('a') && !_ktString_old<10>("abc").startsWith('A'));
    EXPECT_TRUE(!_ktString_old<10>().startsWith('\0') && _ktString_old<10>("\xE9").startsWith('\xE9'));

    _ktString_old<30> numbers;
    numbers.addNr(-9000000000LL);
    numbers.addNr(7LL, static_cast<unsigned char>(3));
    EXPECT_EQ(str(numbers), "-9000000000007");
    numbers.fromNr(12);
    bool ok = false;
    EXPECT_TRUE(numbers.toInt(&ok) == 12 && ok);
}

// clear() of the odd layout zeroes the whole object; the even one zeroes the
// characters and the length, not the padding byte between them.
TEST(LegacyRules, ClearOfEitherLayout)
{
    _ktString8_UnevenSize_old<15> odd("abc");
    std::memset(static_cast<void*>(&odd), 0xAB, sizeof odd);
    odd.clear();
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&odd);
    for (size_t i = 0; i < sizeof odd; ++i) EXPECT_EQ(bytes[i], 0) << i;

    _ktString8_evenSize_old<14> even("abc");
    std::memset(static_cast<void*>(&even), 0xAB, sizeof even);
    even.clear();
    const unsigned char* evenBytes = reinterpret_cast<const unsigned char*>(&even);
    for (size_t i = 0; i < 15; ++i) EXPECT_EQ(evenBytes[i], 0) << i;
    EXPECT_TRUE(evenBytes[15] == 0xAB && even.length == 0);
}
