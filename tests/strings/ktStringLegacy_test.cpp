// The legacy layouts as another program lays them out, their conversions and the rules in which they differ.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "strings/ktString16.h"
#include "strings/ktStringLegacy.h"
#include "stringTestSupport.h"

using kttest::str;
using kttest::terminated;

template <class Legacy, size_t Size>
Legacy fromBytes(const unsigned char (&bytes)[Size])
{
    static_assert(sizeof(Legacy) == Size, "the legacy layout");
    Legacy legacy;
    std::memcpy(static_cast<void*>(&legacy), bytes, Size);
    return legacy;
}

// The current string takes the legacy length (cut at the capacity) and
// characters and terminates them; narrowing keeps the length behind the terminator.
TEST(Legacy, ConversionsIntoTheCurrentStrings)
{
    // <7>: eight characters, then the length; <6>: seven, a padding byte, the length; <10>: eleven units, the length.
    const unsigned char odd[10] = {'h', 'e', 'y', 0, '?', '?', '?', '?', 3, 0};
    const unsigned char even[10] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 0xEE, 0x84, 3};  // length 900
    unsigned char wide[24] = {'o', 0, 'k', 0x01};
    wide[22] = 2;
    const _ktString8_allSize<7> fromOdd(fromBytes<_ktString8_UnevenSize_old<7>>(odd));
    _ktString8_allSize<6> fromEven("xyz");
    fromEven = fromBytes<_ktString8_evenSize_old<6>>(even);
    EXPECT_TRUE(str(fromOdd) == "hey" && terminated(fromOdd) && fromOdd == _ktString8_UnevenSize_old<7>("hey"));
    EXPECT_TRUE(str(fromEven) == "abcdef" && terminated(fromEven) && !(fromOdd == _ktString8_UnevenSize_old<7>("hex")));
    _ktString<10> current("longer text");
    current = fromBytes<_ktString_old<10>>(wide);
    EXPECT_TRUE(current.length == 2 && current.text[0] == 'o' && current.text[1] == 0x016B && terminated(current));
    _ktString_old<500> many;
    for (int i = 0; i < 499; ++i) many += static_cast<unsigned short>('n');
    const _ktString8_allSize<250> small = many, small2 = many.to_ktString8_250();
    const _ktString8_allSize<500> large = many, large2 = many.to_ktString8_500();
    EXPECT_TRUE(small.length == 499 && std::strlen(small.text) == 249 && std::strlen(small2.text) == 249);
    EXPECT_TRUE(large2.length == 499 && std::strlen(large.text) == 499 && std::strlen(large2.text) == 499);
}

// A null pointer leaves the 16-bit legacy string as it was; its assignment widens as unsigned,
// its constructor as signed. clear() of the odd 8-bit layout zeroes all, the even one not the padding.
TEST(Legacy, RulesInWhichTheyDiffer)
{
    _ktString_old<25> legacy("x");
    _ktString<25> current("x");
    legacy = static_cast<const char*>(nullptr);
    current = static_cast<const char*>(nullptr);
    EXPECT_TRUE(str(legacy) == "x" && current.length == 0);
    legacy = "\xE9";
    const _ktString_old<10> signedWide("\xE9"), a("a");
    EXPECT_TRUE(legacy.text[0] == 0x00E9 && signedWide.text[0] == 0xFFE9 && signedWide.startsWith('\xE9'));
    EXPECT_TRUE(a.startsWith('a') && !a.startsWith('A') && !_ktString_old<10>().startsWith('\0'));

    _ktString8_UnevenSize_old<15> odd("abc");
    _ktString8_evenSize_old<14> even("abc");
    std::memset(static_cast<void*>(&odd), 0xAB, sizeof odd);
    std::memset(static_cast<void*>(&even), 0xAB, sizeof even);
    odd.clear();
    even.clear();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&odd), sizeof odd), std::string(sizeof odd, '\0'));
    const std::string evenBytes(reinterpret_cast<const char*>(&even), sizeof even);
    EXPECT_EQ(evenBytes, std::string(15, '\0') + "\xAB" + std::string(2, '\0'));
}
