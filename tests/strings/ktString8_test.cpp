// What only the 8-bit string does: its assignments and conversions, number
// formatting, hexadecimal forms and parsing. Expectations are written out by
// hand or produced by snprintf/strtol directly.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>
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
class String8 : public ::testing::Test {};

using Capacities = ::testing::Types<_ktString8_allSize<6>, _ktString8_allSize<250>, _ktString8_allSize<5000>>;
TYPED_TEST_SUITE(String8, Capacities);

template <class... Args>
std::string format(const char* pattern, Args... args)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, pattern, args...);
    return buffer;
}

using S50 = _ktString8_allSize<50>;

}  // namespace

// ---- assignment and conversion -------------------------------------------------

TYPED_TEST(String8, NullAssignmentEmptiesButKeepsTheCharacters)
{
    TypeParam s("xyz");
    s = static_cast<const char*>(nullptr);
    EXPECT_EQ(s.length, 0);
    EXPECT_EQ(s.text[0], 'x');  // no terminator written
    s = "ab";
    EXPECT_EQ(str(s), "ab");
    EXPECT_TRUE(terminated(s));
}

TYPED_TEST(String8, StdStringAssignmentCutsAtCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s;
    s = std::string("ab\0cd", 5);
    EXPECT_EQ(s.length, 5);
    EXPECT_EQ(s.text[2], 0);
    const std::string longer(static_cast<size_t>(n) + 3, 'k');
    s = longer;
    EXPECT_EQ(str(s), longer.substr(0, n));
    EXPECT_TRUE(terminated(s));
}

TYPED_TEST(String8, UnitsAreNarrowedToTheirLowByte)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const unsigned short units[] = {0x41, 0x1E9, 0xFF42, 0x20, 0x0, 0x43};
    const S s(units);
    ASSERT_EQ(s.length, 4);
    EXPECT_EQ(static_cast<unsigned char>(s.text[0]), 0x41);
    EXPECT_EQ(static_cast<unsigned char>(s.text[1]), 0xE9);
    EXPECT_EQ(static_cast<unsigned char>(s.text[2]), 0x42);
    EXPECT_TRUE(terminated(s));

    // At most 1024 units are read, however long the text.
    std::vector<unsigned short> many(2000, 'u');
    many.push_back(0);
    const S t(many.data());
    EXPECT_EQ(t.length, n < 1024 ? n : 1024);
    EXPECT_EQ(S(static_cast<const unsigned short*>(nullptr)).length, 0);
}

TYPED_TEST(String8, HandleOfAnotherCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    _ktString8_allSize<5000> source;
    char w = 'w';
    source.createCharString(w, 300);
    const S s(source.asUni());
    EXPECT_EQ(str(s), std::string(static_cast<size_t>(n < 300 ? n : 300), 'w'));
    EXPECT_TRUE(terminated(s));
    S t("zz");
    t = source.asUni();
    EXPECT_EQ(t.length, n < 300 ? n : 300);
    EXPECT_TRUE(terminated(t));
}

TYPED_TEST(String8, FromCharCopiesCountedBytes)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s("keep");
    s.fromChar(nullptr, 3);
    EXPECT_EQ(s.length, 0);
    EXPECT_EQ(s.text[0], 'k');
    s.fromChar("a\0bc", 4);
    EXPECT_EQ(s.length, 4);
    EXPECT_EQ(s.text[2], 'b');
    const std::string longer(static_cast<size_t>(n) + 9, 'f');
    s.fromChar(longer.c_str(), static_cast<int>(longer.size()));
    EXPECT_EQ(s.length, n);
    EXPECT_TRUE(terminated(s));
}

TYPED_TEST(String8, UnitFormsUseTheLowByteExactly)
{
    TypeParam s("aBc");
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>(0x142), 0), 1);
    EXPECT_EQ(s.indexOf(static_cast<unsigned short>('b'), 0), -1);  // exact
    EXPECT_EQ(s.lastIndexOf(static_cast<unsigned short>(0x363), -1), 2);
    s += static_cast<unsigned short>(0x141);
    EXPECT_EQ(str(s), "aBcA");
}

TYPED_TEST(String8, NullComparisons)
{
    const TypeParam s("ab");
    EXPECT_FALSE(s == static_cast<const char*>(nullptr));
    EXPECT_TRUE(s != static_cast<const char*>(nullptr));
    EXPECT_FALSE(s != "ab");
    EXPECT_TRUE(s != "abc");
    const TypeParam embedded("ab\0c", 4);
    EXPECT_FALSE(embedded == "ab");  // strlen gives 2, the string holds 4
}

TYPED_TEST(String8, BytesAboveAsciiAreNeitherFoldedNorSigned)
{
    using S = TypeParam;
    S s("\xE9z\xC9");
    s.makeUpper();
    EXPECT_EQ(str(s), "\xE9Z\xC9");
    s.makeLower();
    EXPECT_EQ(str(s), "\xE9z\xC9");
    EXPECT_EQ(s.indexOf('\xC9', 0), 2);
    EXPECT_EQ(s.count('\xE9'), 1);  // 0xC9 is not its upper case here
    EXPECT_FALSE(S("\xE9").isEqual(S("\xC9")));
    // Byte order is unsigned: 0xE9 sorts after 'z'.
    EXPECT_TRUE(S("z") < S("\xE9"));
    EXPECT_GT(S("\xE9").compareSameCase(S("z")), 0);
    EXPECT_GT(S("\xE9").compare(S("z")), 0);
}

TEST(String8Trim, BlanksTabsAndLineEndsOnBothSides)
{
    S50 s(" \t a b \r\n");
    s.trim();
    EXPECT_EQ(str(s), "a b");
}

// ---- numbers -----------------------------------------------------------------

TYPED_TEST(String8, DecimalNumbersMatchPrintf)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    for (int v : {0, -1, 7, INT_MIN, INT_MAX}) {
        S s;
        s.addNr(v);
        EXPECT_EQ(str(s), format("%d", v).substr(0, n));
        EXPECT_TRUE(terminated(s));
    }
    for (long long v : {LLONG_MIN, LLONG_MAX, -40000000000LL}) {
        S s;
        s.addNr(v);
        EXPECT_EQ(str(s), format("%lld", v).substr(0, n));
        S f;
        f.fromNr(v);
        EXPECT_EQ(str(f), format("%lld", v).substr(0, n));
    }
    for (unsigned long long v : {0ULL, ULLONG_MAX}) {
        S s;
        s.addNr(v);
        EXPECT_EQ(str(s), format("%llu", v).substr(0, n));
    }
}

struct DigitsCase {
    long long value;
    unsigned char digits;
    const char* expected;
};

TYPED_TEST(String8, ZeroPaddingGoesInFrontOfTheSign)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const DigitsCase cases[] = {{-5, 4, "00-5"}, {42, 5, "00042"}, {123, 2, "123"}, {0, 3, "000"}, {-12, 0, "-12"}};
    for (const auto& c : cases) {
        S a;
        a.addNr(static_cast<int>(c.value), c.digits);
        EXPECT_EQ(str(a), std::string(c.expected).substr(0, n)) << c.value << "/" << int(c.digits);
        S b;
        b.addNr(c.value, c.digits);
        EXPECT_EQ(str(b), std::string(c.expected).substr(0, n)) << c.value << "/" << int(c.digits);
    }
    // Nearly full: the zeros fill it and the digits are dropped.
    S s(std::string(static_cast<size_t>(n) - 2, 'x').c_str());
    s.addNr(7, static_cast<unsigned char>(5));
    EXPECT_EQ(str(s), std::string(static_cast<size_t>(n) - 2, 'x') + "00");
}

TEST(String8Hex, EveryWidth)
{
    struct Case {
        std::string expected;
        void (*append)(S50&);
    };
    const Case cases[] = {
        {"FF", [](S50& s) { s.addHexCode(static_cast<signed char>(-1)); }},
        {"7F", [](S50& s) { s.addHexCode(static_cast<signed char>(0x7F)); }},
        {"AB", [](S50& s) { s.addHexCode(static_cast<unsigned char>(0xAB)); }},
        {"05", [](S50& s) { s.addHexCode(static_cast<unsigned char>(5)); }},
        {"FFFFFFFF", [](S50& s) { s.addHexCode(static_cast<short>(-1)); }},
        {"FFFF8000", [](S50& s) { s.addHexCode(static_cast<short>(-32768)); }},
        {"0012", [](S50& s) { s.addHexCode(static_cast<short>(0x12)); }},
        {"00FF", [](S50& s) { s.addHexCode(static_cast<unsigned short>(255)); }},
        {"FFFF", [](S50& s) { s.addHexCode(static_cast<unsigned short>(0xFFFF)); }},
        {"FFFFFFFF", [](S50& s) { s.addHexCode(-1); }},
        {"00001234", [](S50& s) { s.addHexCode(0x1234); }},
        {"DEADBEEF", [](S50& s) { s.addHexCode(0xDEADBEEFu); }},
        {"FFFFFFFFFFFFFFFE", [](S50& s) { s.addHexCode(-2LL); }},
        {"0000000000000123", [](S50& s) { s.addHexCode(0x123ULL); }},
    };
    for (const auto& c : cases) {
        S50 s("#");
        c.append(s);
        EXPECT_EQ(str(s), "#" + c.expected);
        EXPECT_TRUE(terminated(s));
    }
    _ktString8_allSize<6> small;
    small.addHexCode(0x123ULL);
    EXPECT_EQ(str(small), "000000");
}

TEST(String8Hex, HexStringOfEveryCharacter)
{
    EXPECT_EQ(str(S50("AZ").asHexString()), "415A");
    EXPECT_EQ(str(S50("\xE9\x01").asHexString()), "E901");
    EXPECT_EQ(S50().asHexString().length, 0);
    _ktString8_allSize<500> many;
    char a = 'a';
    many.createCharString(a, 200);
    const _ktString8_allSize<250> hex = many.asHexString();
    std::string expected;
    for (int i = 0; i < 125; ++i) expected += "61";
    EXPECT_EQ(str(hex), expected);  // only the first 125 characters fit
    EXPECT_TRUE(terminated(hex));
}

// ---- parsing -------------------------------------------------------------------

struct ParseCase {
    const char* text;
    long long withCheck;
    bool ok;
    long long plain;  // strtol without the check
};

TEST(String8Parse, DecimalWithAndWithoutTheCheck)
{
    const ParseCase cases[] = {
        {"-12", -12, true, -12}, {"1-2", 0, false, 1}, {" 12", 0, false, 12}, {"", 0, true, 0},
        {"+5", 0, false, 5},     {"12a", 0, false, 12}, {"0042", 42, true, 42}, {"-", 0, true, 0},
    };
    for (const auto& c : cases) {
        const S50 s(c.text);
        bool ok = !c.ok;
        EXPECT_EQ(s.toInt(&ok), c.withCheck) << c.text;
        EXPECT_EQ(ok, c.ok) << c.text;
        EXPECT_EQ(s.toInt(), c.plain) << c.text;
        ok = !c.ok;
        EXPECT_EQ(s.toInt64(&ok), c.withCheck) << c.text;
        EXPECT_EQ(ok, c.ok) << c.text;
    }
    bool ok = false;
    EXPECT_EQ(S50("9000000000").toInt64(&ok), 9000000000LL);
    EXPECT_TRUE(ok);
    EXPECT_EQ(S50("-9223372036854775808").toInt64(nullptr), LLONG_MIN);
}

struct HexCase {
    const char* text;
    int bits;
    bool asSigned;
    long long expected;
    bool ok;
};

TEST(String8Parse, HexOfAGivenWidth)
{
    const HexCase cases[] = {
        {"FF", 8, true, -1, true},           {"7F", 8, true, 127, true},
        {"8000", 16, true, -32768, true},    {"FFFFFFFF", 32, true, -1, true},
        {"7FFFFFFF", 32, true, INT_MAX, true}, {"FF", 8, false, 255, true},
        {"FFFF1234", 16, false, 0xFFFF, true}, {"abc", 12, true, 0, false},
        {"zz", 8, true, 0, false},           {"G1", 8, false, 0, true},
        {"123456789ABCDEF0", 64, false, 0x123456789ABCDEF0LL, true},
    };
    for (const auto& c : cases) {
        S50 s(c.text);
        bool ok = !c.ok;
        EXPECT_EQ(s.toIntFromHex(c.bits, c.asSigned, false, &ok), c.expected) << c.text;
        EXPECT_EQ(ok, c.ok) << c.text;
        EXPECT_EQ(str(s), c.text);  // not asked to remove anything
        EXPECT_EQ(s.toIntFromHex(c.bits, c.asSigned, false, nullptr), c.expected) << c.text;
    }
    S50 s("ABCDrest");
    EXPECT_EQ(s.toIntFromHex(16, false, true, nullptr), 0xABCD);
    EXPECT_EQ(str(s), "rest");
    EXPECT_EQ(s.toIntFromHex(8, true, true, nullptr), 0);  // "re" is not hexadecimal
    EXPECT_EQ(str(s), "st");
}

TEST(String8Parse, TextWithoutATerminatorIsReadWithinTheObject)
{
    _ktString8_allSize<6> s("123456");
    s.text[6] = '7';  // foreign data: no terminator anywhere in the storage
    EXPECT_EQ(s.toInt(), 123456);
}
