// What only the 16-bit string does: the two ways bytes widen, narrowing into
// 8-bit strings, unit comparisons in memory order, the halved comparison
// with a unit text, and the free functions. Expected units are written out
// by hand.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "strings/ktString16.h"
#include "strings/ktString8.h"
#include "stringTestSupport.h"

using kttest::capacity;
using kttest::str;
using kttest::terminated;

namespace {

template <class S>
class String16 : public ::testing::Test {};

using Capacities = ::testing::Types<_ktString<10>, _ktString<250>, _ktString<2500>>;
TYPED_TEST_SUITE(String16, Capacities);

using S250 = _ktString<250>;

std::vector<unsigned short> units(std::initializer_list<unsigned short> list)
{
    std::vector<unsigned short> v(list);
    v.push_back(0);
    return v;
}

}  // namespace

// ---- free functions ------------------------------------------------------------

TEST(String16Free, CharLenCountsAtMost1024Units)
{
    std::vector<unsigned short> text(2000, 'x');
    text.push_back(0);
    EXPECT_EQ(ktCharLen(text.data()), 1024);
    text[1023] = 0;
    EXPECT_EQ(ktCharLen(text.data()), 1023);
    text[1023] = 'x';
    text[1024] = 0;
    EXPECT_EQ(ktCharLen(text.data()), 1024);
    EXPECT_EQ(ktCharLen(units({}).data()), 0);
    EXPECT_EQ(ktCharLen(units({0x100, 0xFFFF, 'a'}).data()), 3);
}

TEST(String16Free, DigitsAndTheMinusSign)
{
    for (unsigned short u : {'0', '5', '9', '-'}) EXPECT_TRUE(ktIsDigit(u)) << u;
    for (unsigned short u : std::initializer_list<unsigned short>{'/', ':', '+', ' ', 0, 0xFF10, 0x130, 0x12D})
        EXPECT_FALSE(ktIsDigit(u)) << u;
}

// ---- widening and narrowing ----------------------------------------------------

TEST(String16Widening, ConstructorsSignedAssignmentAndAppendsUnsigned)
{
    EXPECT_EQ(S250("\xE9").text[0], 0xFFE9);
    EXPECT_EQ(S250("\xE9", 1).text[0], 0xFFE9);
    EXPECT_EQ(S250('\xE9').text[0], 0xFFE9);
    _ktString8_allSize<20> bytes("\xE9");
    EXPECT_EQ(S250(bytes.asUni()).text[0], 0xFFE9);

    S250 s;
    s = "\xE9";
    EXPECT_EQ(s.text[0], 0x00E9);
    s.add("\xE9");
    s += "\xE9";
    s += '\xE9';
    s.add("\xE9", 1u);
    ASSERT_EQ(s.length, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(s.text[i], 0x00E9) << i;
}

TYPED_TEST(String16, StdStringAssignmentCutsAtCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s;
    s = std::string("a\0b", 3);
    ASSERT_EQ(s.length, 3);
    EXPECT_EQ(s.text[1], 0);
    EXPECT_EQ(s.text[2], 'b');
    const std::string longer(static_cast<size_t>(n) + 2, 'm');
    s = longer;
    EXPECT_EQ(str(s), longer.substr(0, n));
    EXPECT_TRUE(terminated(s));
}

TEST(String16Narrowing, LongerThanTheTargetKeepsItsLength)
{
    _ktString<500> s;
    for (int i = 0; i < 499; ++i) s += static_cast<unsigned short>('q');
    const _ktString8_allSize<250> narrow = s;
    EXPECT_EQ(narrow.length, 499);
    EXPECT_EQ(std::strlen(narrow.text), 249u);
    EXPECT_EQ(std::string(narrow.text), std::string(249, 'q'));
    EXPECT_EQ(s.to_ktString8_250().length, 499);
    EXPECT_EQ(std::strlen(s.to_ktString8_250().text), 249u);
    const _ktString8_allSize<500> wide = s.to_ktString8_500();
    EXPECT_EQ(wide.length, 499);
    EXPECT_EQ(std::strlen(wide.text), 499u);
    const _ktString8_allSize<500> same = s;  // the conversion to N itself
    EXPECT_EQ(std::strlen(same.text), 499u);
}

TYPED_TEST(String16, NarrowingToTheSameCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s;
    for (int i = 0; i < n; ++i) s += static_cast<unsigned short>(0x141);  // low byte 'A'
    const _ktString8_allSize<n> narrow = s;
    EXPECT_EQ(narrow.length, n);
    EXPECT_EQ(std::string(narrow.text), std::string(static_cast<size_t>(n) - 1, 'A'));
    const S shortText("abc");
    const _ktString8_allSize<n> fits = shortText;
    EXPECT_EQ(str(fits), "abc");
    EXPECT_TRUE(terminated(fits));
}

TYPED_TEST(String16, ToCharWritesWhatFitsAndATerminator)
{
    using S = TypeParam;
    S s("abcde");
    s.text[0] = 0x141;
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(s.toChar(buffer, 4), 3);
    EXPECT_EQ(std::string(buffer), "Abc");
    EXPECT_EQ(buffer[4], '#');
    EXPECT_EQ(s.toChar(buffer, 8), 5);
    EXPECT_EQ(std::string(buffer), "Abcde");
    EXPECT_EQ(s.toChar(buffer, 1), 0);
    EXPECT_EQ(buffer[0], 0);
    buffer[0] = '#';
    EXPECT_EQ(s.toChar(buffer, 0), 0);
    EXPECT_EQ(buffer[0], '#');
}

// ---- units --------------------------------------------------------------------

TYPED_TEST(String16, ConstructorsWriteTheReservedWordAsZero)
{
    using S = TypeParam;
    alignas(S) unsigned char storage[sizeof(S)];
    const unsigned short word[] = {'h', 'i', 0};
    const auto check = [&](auto construct) {
        std::memset(storage, 0xFF, sizeof storage);
        S* s = construct(static_cast<void*>(storage));
        EXPECT_EQ(s->reserved, 0);
        EXPECT_TRUE(terminated(*s));
    };
    check([](void* p) { return new (p) S(); });
    check([](void* p) { return new (p) S("abc"); });
    check([](void* p) { return new (p) S('c'); });
    check([](void* p) { return new (p) S("abc", 2); });
    check([&](void* p) { return new (p) S(word); });
    check([&](void* p) { return new (p) S(word, 1); });
}

TYPED_TEST(String16, UnitTextsAndCounts)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const auto text = units({'a', 0, 'b', 0x100});
    const S counted(text.data(), 4);
    ASSERT_EQ(counted.length, 4);
    EXPECT_EQ(counted.text[1], 0);
    EXPECT_EQ(counted.text[3], 0x100);
    EXPECT_EQ(S(text.data()).length, 1);

    S s = S("x");
    s = static_cast<const unsigned short*>(nullptr);
    EXPECT_EQ(s.length, 0);
    EXPECT_EQ(s.text[0], 'x');
    s = units({'p', 'q'}).data();
    EXPECT_EQ(str(s), "pq");
    s += units({'r'}).data();
    s.add(units({'s', 't', 'u'}).data(), 2u);
    EXPECT_EQ(str(s), "pqrst");
    s = static_cast<unsigned short>('z');
    EXPECT_EQ(str(s), "z");

    S padded;
    padded.addSpacing(units({'a', 'b'}).data(), -4);
    EXPECT_EQ(str(padded), "  ab");
    std::vector<unsigned short> longText(static_cast<size_t>(n) + 5, 'w');
    longText.push_back(0);
    S full(longText.data());
    EXPECT_EQ(full.length, n < 1024 ? n : 1024);  // at most 1024 units are read
    EXPECT_TRUE(terminated(full));
}

TYPED_TEST(String16, FoldingLeavesUnitsAboveAsciiAlone)
{
    using S = TypeParam;
    S s;
    for (unsigned short u : std::initializer_list<unsigned short>{0x0161, 0x00E9, 'a', 0xFF41}) s += u;
    s.makeUpper();
    EXPECT_EQ(s.text[0], 0x0161);  // not folded through its low byte
    EXPECT_EQ(s.text[1], 0x00E9);
    EXPECT_EQ(s.text[2], 'A');
    EXPECT_EQ(s.text[3], 0xFF41);
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>(0x0141), 0), -1);
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>('a'), 0), 2);
    EXPECT_EQ(s.indexOfCaseSen(static_cast<unsigned short>('a'), 0), -1);
}

TYPED_TEST(String16, BytesAboveAsciiInCountsAndContains)
{
    using S = TypeParam;
    S s("\xE9");  // the unit 0xFFE9
    s += "\xE9";  // the unit 0x00E9
    EXPECT_EQ(s.count('\xE9'), 0);  // a negative byte matches no unit
    EXPECT_EQ(s.countCaseSen('\xE9'), 0);
    EXPECT_TRUE(s.contains('\xE9'));  // widened as signed: finds 0xFFE9
    S t;
    t += "\xE9";
    EXPECT_FALSE(t.contains('\xE9'));
    EXPECT_EQ(S("aAa").count('a'), 3);
    EXPECT_EQ(S("aAa").countCaseSen('a'), 2);
}

TEST(String16Compare, UnitsCompareAsTheirBytesInMemory)
{
    S250 a, b;
    a += static_cast<unsigned short>(0x0102);
    b += static_cast<unsigned short>(0x0201);
    // In memory 0x0102 is 02 01 and 0x0201 is 01 02, so a sorts after b
    // although its value is smaller.
    EXPECT_GT(a.compareSameCase(b), 0);
    EXPECT_GT(a.compare(b), 0);
    EXPECT_TRUE(a > b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(a == b);
}

TEST(String16Compare, UnitTextEqualityLooksAtHalfTheBytes)
{
    const S250 s("abcd");
    EXPECT_TRUE(s == units({'a', 'b', 'c', 'd'}).data());
    EXPECT_TRUE(s == units({'a', 'b', 'X', 'Y'}).data());  // only units 0 and 1 are looked at
    EXPECT_FALSE(s == units({'a', 'X', 'c', 'd'}).data());
    EXPECT_FALSE(s == units({'a', 'b', 'c'}).data());       // the unit count must agree
    EXPECT_FALSE(s == static_cast<const unsigned short*>(nullptr));
    // One unit: only its low byte.
    S250 one;
    one += static_cast<unsigned short>(0x0141);
    EXPECT_TRUE(one == units({0x0241}).data());
}

TEST(String16Compare, EightBitArguments)
{
    const S250 s("Hello");
    EXPECT_EQ(s.indexOf("LL"), 2);
    EXPECT_EQ(s.indexOf("xyz"), -1);
    EXPECT_TRUE(s == "Hello");
    EXPECT_TRUE(s != "hello");
    EXPECT_TRUE(s != static_cast<const char*>(nullptr));
    EXPECT_TRUE(s.isEqual(units({'h', 'E', 'l', 'l', 'o'}).data(), 5));
    EXPECT_FALSE(s.isEqualSameCase(units({'h', 'E', 'l', 'l', 'o'}).data(), 5));
    EXPECT_TRUE(s.isEqualSameCase(units({'H', 'e', 'l', 'l', 'o'}).data(), 5));
    // An argument longer than the capacity can match nothing.
    const _ktString<10> small("abcdefghij");
    EXPECT_FALSE(small.startsWith("abcdefghijk"));
    EXPECT_FALSE(small.contains("abcdefghijk"));
    EXPECT_TRUE(small.startsWith("ABCDEFGHIJ"));
    EXPECT_TRUE(small.containsCaseSen("ijk", 2));
    EXPECT_EQ(S250("\xE9").indexOf("\xE9"), 0);  // both widened as signed
}

// ---- numbers and parsing ---------------------------------------------------------

TEST(String16Numbers, EveryArgumentType)
{
    S250 s;
    s.addNr(INT_MIN);
    s += ' ';
    s.addNr(static_cast<unsigned char>(255));
    s += ' ';
    s.addNr(4294967295u);
    s += ' ';
    s.addNr(ULLONG_MAX);
    s += ' ';
    s.addNr(LLONG_MIN);
    EXPECT_EQ(str(s), "-2147483648 255 4294967295 18446744073709551615 -9223372036854775808");
    s.clear();
    s.addNr(-5LL, static_cast<unsigned char>(4));
    s.addNr(42, static_cast<unsigned char>(5));
    EXPECT_EQ(str(s), "00-500042");
    s.fromNr(-77);
    EXPECT_EQ(str(s), "-77");
    // The number and its zeros are formatted into twenty characters first.
    s.clear();
    s.addNr(5LL, static_cast<unsigned char>(30));
    EXPECT_EQ(str(s), std::string(20, '0'));
}

TEST(String16Numbers, ParsingThroughTheNarrowedText)
{
    bool ok = false;
    EXPECT_EQ(S250("-12").toInt(&ok), -12);
    EXPECT_TRUE(ok);
    EXPECT_EQ(S250(" 12").toInt(&ok), 0);
    EXPECT_FALSE(ok);
    EXPECT_EQ(S250(" 12").toInt(), 12);
    S250 wide;
    wide += static_cast<unsigned short>(0x0131);  // low byte '1', but not a digit
    EXPECT_EQ(wide.toInt(&ok), 0);
    EXPECT_FALSE(ok);
}

// ---- handles -------------------------------------------------------------------

TYPED_TEST(String16, HandlesOfEitherLayout)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    _ktString<2500> source;
    for (int i = 0; i < 300; ++i) source += static_cast<unsigned short>(0x100 + i % 7);
    const S s(source.asUni());
    ASSERT_EQ(s.length, n < 300 ? n : 300);
    EXPECT_EQ(s.text[3], 0x103);
    EXPECT_TRUE(terminated(s));
    S t("old");
    t = source.asUni();
    EXPECT_EQ(t.length, n < 300 ? n : 300);
    EXPECT_TRUE(terminated(t));

    _ktString8_allSize<20> bytes("ab\xE9");
    S u(bytes.asUni());
    EXPECT_EQ(u.length, 3);
    EXPECT_EQ(u.text[2], 0xFFE9);
    u = bytes.asUni();
    EXPECT_EQ(u.text[2], 0xFFE9);
    EXPECT_EQ(S(static_cast<const _ktString8_Uni_pointer*>(nullptr)).length, 0);
}

TEST(String16Handles, RawLayoutsFromAnotherProgram)
{
    // Byte blocks as a separately built host lays them out.
    const unsigned char eightBit[] = {3, 0, 'a', 'b', 'c', 0};
    const S250 a(reinterpret_cast<const _ktString8_Uni_pointer*>(eightBit));
    EXPECT_EQ(str(a), "abc");
    alignas(2) const unsigned char sixteenBit[] = {2, 0, 0, 0, 'h', 0x01, 'i', 0, 0, 0};
    const S250 b(reinterpret_cast<const _ktString_Uni_pointer*>(sixteenBit));
    ASSERT_EQ(b.length, 2);
    EXPECT_EQ(b.text[0], 0x0168);
    EXPECT_EQ(b.text[1], 'i');
}
