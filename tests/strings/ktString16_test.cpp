// What only the 16-bit string does: the two ways bytes widen, narrowing into
// 8-bit strings, unit comparisons in memory order, numbers and handles.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "strings/ktString16.h"
#include "stringTestSupport.h"

using S250 = _ktString<250>;
using Units = std::vector<unsigned short>;

// The constructors widen bytes as signed chars, assignment and the appends as
// unsigned ones, searches their argument as signed; units above 127 never
// fold; at most 1024 units are counted; '-' counts as a digit.
TEST(String16, WideningAndUnitTexts)
{
    const _ktString8_allSize<20> bytes("\xE9");
    for (const S250& s : {S250("\xE9"), S250("\xE9", 1), S250('\xE9'), S250(bytes.asUni())})
        EXPECT_EQ(s.text[0], 0xFFE9);
    S250 s;
    s = "\xE9";
    s.add("\xE9");
    s += "\xE9";
    s += '\xE9';
    s.add("\xE9", 1u);
    EXPECT_EQ(s.length, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(s.text[i], 0x00E9) << i;
    EXPECT_TRUE(S250("\xE9").indexOf("\xE9") == 0 && s.count('\xE9') == 0 && !s.contains('\xE9'));
    s.text[1] = 0x0161;
    s.makeUpper();
    EXPECT_TRUE(s.text[0] == 0xE9 && s.text[1] == 0x0161 && s.indexOf(static_cast<unsigned short>(0x0141), 0) == -1);

    Units text(2000, 'x');
    text.push_back(0);
    EXPECT_TRUE(ktCharLen(text.data()) == 1024 && _ktString<2500>(text.data()).length == 1024);
    text[3] = 0;
    s = static_cast<const unsigned short*>(nullptr);  // length 0, units untouched
    EXPECT_TRUE(ktCharLen(text.data()) == 3 && s.length == 0 && s.text[0] == 0xE9 && S250(text.data(), 5).text[3] == 0);
    EXPECT_TRUE(ktIsDigit('-') && ktIsDigit('0') && ktIsDigit('9') && !ktIsDigit('/') && !ktIsDigit(':'));
    s.addSpacing(text.data(), -5);
    EXPECT_EQ(kttest::str(s), "  xxx");
}

// Narrowing into M characters copies at most M-1 low bytes and a terminator,
// then keeps this string's length, even beyond what was copied.
TEST(String16, NarrowingKeepsTheLengthBehindTheTerminator)
{
    _ktString<500> s;
    for (int i = 0; i < 499; ++i) s += static_cast<unsigned short>(0x141);  // low byte 'A'
    const _ktString8_allSize<250> small = s, small2 = s.to_ktString8_250();
    const _ktString8_allSize<500> large = s.to_ktString8_500();
    EXPECT_TRUE(std::string(small.text) == std::string(249, 'A') && std::string(large.text) == std::string(499, 'A'));
    EXPECT_TRUE(small.length == 499 && small2.length == 499 && large.length == 499 && std::strlen(small2.text) == 249);
    s += static_cast<unsigned short>('B');
    const _ktString8_allSize<500> full = s;
    EXPECT_TRUE(full.length == 500 && std::strlen(full.text) == 499);
    char buffer[8] = "#######";
    EXPECT_TRUE(S250("Abcde").toChar(buffer, 4) == 3 && std::string(buffer) == "Abc" && buffer[4] == '#');
    EXPECT_TRUE(s.toChar(buffer, 0) == 0 && buffer[0] == 'A' && s.toChar(buffer, 1) == 0 && buffer[0] == 0);
}

// Units compare as their two bytes in memory, low byte first: 0x0102 sorts
// after 0x0201. The comparison with a unit text looks at the first half of
// the units only, and at the low byte of a single unit.
TEST(String16, MemoryOrderAndTheHalvedUnitTextComparison)
{
    S250 a, b, one;
    a += static_cast<unsigned short>(0x0102);
    b += static_cast<unsigned short>(0x0201);
    one += static_cast<unsigned short>(0x0141);
    EXPECT_TRUE(a.compareSameCase(b) > 0 && a.compare(b) > 0 && a > b && !(a < b) && !(a == b));
    const S250 s("abcd"), hello("Hello");
    const Units same{'a', 'b', 'c', 'd', 0}, secondHalf{'a', 'b', 'X', 'Y', 0}, firstHalf{'a', 'X', 'c', 'd', 0};
    const Units shorter{'a', 'b', 'c', 0}, low{0x0241, 0}, folded{'h', 'E', 'l', 'l', 'o', 0};
    EXPECT_TRUE(s == same.data() && s == secondHalf.data() && one == low.data() && hello.isEqual(folded.data(), 5));
    EXPECT_FALSE(s == firstHalf.data() || s == shorter.data() || hello.isEqualSameCase(folded.data(), 5));
    // An 8-bit argument longer than the capacity can match nothing.
    const _ktString<10> small("abcdefghij");
    EXPECT_FALSE(small.startsWith("abcdefghijk") || small.contains("abcdefghijk"));
}

// Numbers of every argument type, zero-padded ones formatted into twenty
// characters first; parsing checks the units, not their low bytes. Handles of
// either layout, laid out byte by byte by another program, are taken up to N.
TEST(String16, NumbersAndHandles)
{
    S250 s, notDigit;
    s.addNr(INT_MIN);
    s.addNr(static_cast<unsigned char>(255));
    s.addNr(ULLONG_MAX);
    s.addNr(-5LL, static_cast<unsigned char>(4));
    s.addNr(5LL, static_cast<unsigned char>(30));
    EXPECT_EQ(kttest::str(s), "-2147483648" "255" "18446744073709551615" "00-5" "00000000000000000000");
    notDigit = static_cast<unsigned short>(0x0131);  // low byte '1', but not a digit
    bool ok = true;
    EXPECT_TRUE(notDigit.toInt(&ok) == 0 && !ok);

    _ktString<2500> source;
    for (int i = 0; i < 300; ++i) source += static_cast<unsigned short>(0x100 + i % 7);
    s = source.asUni();
    const _ktString<10> cut(source.asUni());
    EXPECT_TRUE(s.length == 250 && s.text[3] == 0x103 && kttest::terminated(s) && cut.length == 10);
    const unsigned char eightBit[] = {3, 0, 'a', 'b', 0xE9, 0};
    alignas(2) const unsigned char sixteenBit[] = {2, 0, 0, 0, 'h', 0x01, 'i', 0, 0, 0};
    const S250 narrow(reinterpret_cast<const _ktString8_Uni_pointer*>(eightBit));
    const S250 wide(reinterpret_cast<const _ktString_Uni_pointer*>(sixteenBit));
    EXPECT_TRUE(narrow.length == 3 && narrow.text[1] == 'b' && narrow.text[2] == 0xFFE9);
    EXPECT_TRUE(wide.length == 2 && wide.text[0] == 0x0168 && wide.text[1] == 'i');
}
