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

TEST(String16Free, CharLenCountsAtMost1024UnitsAndDigitsIncludeTheMinusSign)
{
    std::vector<unsigned short> text(2000, 'x');
    text.push_back(0);
    EXPECT_EQ(ktCharLen(text.data()), 1024);
    text[1023] = 0;
    EXPECT_EQ(ktCharLen(text.data()), 1023);
    EXPECT_EQ(ktCharLen(units({0x100, 0xFFFF, 'a'}).data()), 3);
    for (unsigned short u : {'0', '9', '-'}) EXPECT_TRUE(ktIsDigit(u)) << u;
    for (unsigned short u : std::initializer_list<unsigned short>{'/', ':', '+', 0, 0x130}) EXPECT_FALSE(ktIsDigit(u)) << u;
}

// ---- widening and narrowing ----------------------------------------------------

// The constructors widen bytes as signed chars; assignment and the appends as unsigned ones.
TEST(String16Widening, ConstructorsSignedAssignmentAndAppendsUnsigned)
{
    _ktString8_allSize<20> bytes("\xE9");
    for (const S250& s : {S250("\xE9"), S250("\xE9", 1), S250('\xE9'), S250(bytes.asUni())}) EXPECT_EQ(s.text[0], 0xFFE9);
    S250 s;
    s = "\xE9";
    s.add("\xE9");
    s += "\xE9";
    s += '\xE9';
    s.add("\xE9", 1u);
    ASSERT_EQ(s.length, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(s.text[i], 0x00E9) << i;
    EXPECT_EQ(S250("\xE9").indexOf("\xE9"), 0);  // the 8-bit search argument widens as signed
}

TYPED_TEST(String16, StdStringAssignmentCutsAtCapacity)
{
    using S = TypeParam;
    S s;
    s = std::string("a\0b", 3);
    EXPECT_TRUE(s.length == 3 && s.text[1] == 0 && s.text[2] == 'b');
    const std::string longer(static_cast<size_t>(capacity<S>) + 2, 'm');
    s = longer;
    EXPECT_TRUE(str(s) == longer.substr(0, capacity<S>) && terminated(s));
}

// Narrowing into M characters copies at most M-1 low bytes and a terminator,
// then keeps this string's length, even beyond what was copied.
TYPED_TEST(String16, NarrowingKeepsTheLengthBehindTheTerminator)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s;
    for (int i = 0; i < n; ++i) s += static_cast<unsigned short>(0x141);  // low byte 'A'
    const _ktString8_allSize<n> narrow = s;
    EXPECT_TRUE(narrow.length == n && std::string(narrow.text) == std::string(n - 1, 'A'));
    const _ktString8_allSize<n> fits = S("abc");
    EXPECT_TRUE(str(fits) == "abc" && terminated(fits));
    const _ktString8_allSize<250> small = s, small2 = s.to_ktString8_250();
    const _ktString8_allSize<500> large = s.to_ktString8_500();
    for (const char* text : {small.text, small2.text}) EXPECT_EQ(std::string(text), std::string(std::min(n, 249), 'A'));
    EXPECT_TRUE(small.length == n && small2.length == n && large.length == n);
    EXPECT_EQ(std::string(large.text), std::string(std::min(n, 499), 'A'));
}

TYPED_TEST(String16, ToCharWritesWhatFitsAndATerminator)
{
    using S = TypeParam;
    S s("abcde");
    s.text[0] = 0x141;
    char buffer[8];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(s.toChar(buffer, 4), 3);
    EXPECT_TRUE(std::string(buffer) == "Abc" && buffer[4] == '#');
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
        EXPECT_TRUE(s->reserved == 0 && terminated(*s));
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
    EXPECT_TRUE(counted.length == 4 && counted.text[1] == 0 && counted.text[3] == 0x100);
    EXPECT_EQ(S(text.data()).length, 1);

    S s = S("x");
    s = static_cast<const unsigned short*>(nullptr);  // length 0, units untouched
    EXPECT_TRUE(s.length == 0 && s.text[0] == 'x');
    s = units({'p', 'q'}).data();
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
    const S full(longText.data());
    EXPECT_TRUE(full.length == std::min(n, 1024) && terminated(full));  // at most 1024 units are read
}

// Only ASCII letters fold; the unit search ignores case, its exact form does
// not; a byte above 127 counts as a negative number and matches no unit,
// while contains widens it as signed.
TYPED_TEST(String16, FoldingAndBytesAboveAscii)
{
    using S = TypeParam;
    S s;
    for (unsigned short u : std::initializer_list<unsigned short>{0x0161, 0x00E9, 'a', 0xFF41}) s += u;
    s.makeUpper();
    EXPECT_TRUE(s.text[0] == 0x0161 && s.text[1] == 0x00E9 && s.text[2] == 'A' && s.text[3] == 0xFF41);
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>(0x0141), 0), -1);
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>('a'), 0), 2);
    EXPECT_EQ(s.indexOfCaseSen(static_cast<unsigned short>('a'), 0), -1);

    S e("\xE9");  // the unit 0xFFE9
    e += "\xE9";  // the unit 0x00E9
    EXPECT_TRUE(e.count('\xE9') == 0 && e.countCaseSen('\xE9') == 0 && e.contains('\xE9'));
    S t;
    t += "\xE9";
    EXPECT_FALSE(t.contains('\xE9'));
    EXPECT_TRUE(S("aAa").count('a') == 3 && S("aAa").countCaseSen('a') == 2);
}

// Units compare as their two bytes in memory, low byte first: 0x0102 sorts
// after 0x0201. The comparison with a unit text looks at the first half of
// the units only, and at the low byte of a single unit.
TEST(String16Compare, MemoryOrderAndTheHalvedUnitTextComparison)
{
    S250 a, b;
    a += static_cast<unsigned short>(0x0102);
    b += static_cast<unsigned short>(0x0201);
    EXPECT_TRUE(a.compareSameCase(b) > 0 && a.compare(b) > 0 && a > b && !(a < b) && !(a == b));

    const S250 s("abcd");
    EXPECT_TRUE(s == units({'a', 'b', 'c', 'd'}).data());
    EXPECT_TRUE(s == units({'a', 'b', 'X', 'Y'}).data());
    EXPECT_FALSE(s == units({'a', 'X', 'c', 'd'}).data());
    EXPECT_FALSE(s == units({'a', 'b', 'c'}).data());  // the unit count must agree
    EXPECT_FALSE(s == static_cast<const unsigned short*>(nullptr));
    S250 one;
    one += static_cast<unsigned short>(0x0141);
    EXPECT_TRUE(one == units({0x0241}).data());
}

TEST(String16Compare, EightBitArguments)
{
    const S250 s("Hello");
    EXPECT_TRUE(s.indexOf("LL") == 2 && s.indexOf("xyz") == -1);
    EXPECT_TRUE(s == "Hello" && s != "hello" && s != static_cast<const char*>(nullptr));
    EXPECT_TRUE(s.isEqual(units({'h', 'E', 'l', 'l', 'o'}).data(), 5));
    EXPECT_FALSE(s.isEqualSameCase(units({'h', 'E', 'l', 'l', 'o'}).data(), 5));
    EXPECT_TRUE(s.isEqualSameCase(units({'H', 'e', 'l', 'l', 'o'}).data(), 5));
    // An argument longer than the capacity can match nothing.
    const _ktString<10> small("abcdefghij");
    EXPECT_FALSE(small.startsWith("abcdefghijk") || small.contains("abcdefghijk"));
    EXPECT_TRUE(small.startsWith("ABCDEFGHIJ") && small.containsCaseSen("ijk", 2));
}

// ---- numbers and parsing ---------------------------------------------------------

TEST(String16Numbers, EveryArgumentTypeAndParsing)
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
    s.clear();
    s.addNr(5LL, static_cast<unsigned char>(30));  // formatted into twenty characters first
    EXPECT_EQ(str(s), std::string(20, '0'));

    bool ok = false;
    EXPECT_TRUE(S250("-12").toInt(&ok) == -12 && ok);
    EXPECT_TRUE(S250(" 12").toInt(&ok) == 0 && !ok);
    EXPECT_EQ(S250(" 12").toInt(), 12);
    S250 wide;
    wide += static_cast<unsigned short>(0x0131);  // low byte '1', but not a digit
    EXPECT_TRUE(wide.toInt(&ok) == 0 && !ok);
}

// ---- handles -------------------------------------------------------------------

// Handles of either layout, from this program or laid out byte by byte by another one.
TYPED_TEST(String16, HandlesOfEitherLayout)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    _ktString<2500> source;
    for (int i = 0; i < 300; ++i) source += static_cast<unsigned short>(0x100 + i % 7);
    const S s(source.asUni());
    EXPECT_TRUE(s.length == std::min(n, 300) && s.text[3] == 0x103 && terminated(s));
    S t("old");
    t = source.asUni();
    EXPECT_TRUE(t.length == std::min(n, 300) && terminated(t));

    _ktString8_allSize<20> bytes("ab\xE9");
    S u(bytes.asUni());
    EXPECT_TRUE(u.length == 3 && u.text[2] == 0xFFE9);
    u = bytes.asUni();
    EXPECT_EQ(u.text[2], 0xFFE9);
    EXPECT_EQ(S(static_cast<const _ktString8_Uni_pointer*>(nullptr)).length, 0);

    const unsigned char eightBit[] = {3, 0, 'a', 'b', 'c', 0};
    EXPECT_EQ(str(S(reinterpret_cast<const _ktString8_Uni_pointer*>(eightBit))), "abc");
    alignas(2) const unsigned char sixteenBit[] = {2, 0, 0, 0, 'h', 0x01, 'i', 0, 0, 0};
    const S w(reinterpret_cast<const _ktString_Uni_pointer*>(sixteenBit));
    EXPECT_TRUE(w.length == 2 && w.text[0] == 0x0168 && w.text[1] == 'i');
}
