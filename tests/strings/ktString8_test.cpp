// What only the 8-bit string does: its assignments and conversions, number
// formatting, hexadecimal forms and parsing. Expectations are written out by
// hand or produced by snprintf/strtol directly.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
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

// A null C string empties the string but writes no terminator; a null count
// copy does the same. std::string and counted copies keep embedded zeros and cut at N.
TYPED_TEST(String8, AssignmentsCutAtCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s("xyz");
    s = static_cast<const char*>(nullptr);
    EXPECT_TRUE(s.length == 0 && s.text[0] == 'x');
    s = "ab";
    EXPECT_TRUE(str(s) == "ab" && terminated(s));
    s.fromChar(nullptr, 3);
    EXPECT_TRUE(s.length == 0 && s.text[0] == 'a');

    const std::string longer(static_cast<size_t>(n) + 3, 'k');
    s = std::string("ab\0cd", 5);
    EXPECT_TRUE(s.length == 5 && s.text[2] == 0);
    s = longer;
    EXPECT_TRUE(str(s) == longer.substr(0, n) && terminated(s));
    s.fromChar("a\0bc", 4);
    EXPECT_TRUE(s.length == 4 && s.text[2] == 'b');
    s.fromChar(longer.c_str(), n + 3);
    EXPECT_TRUE(s.length == n && terminated(s));
}

// Units are narrowed to their low byte, at most 1024 of them read; a handle
// of another capacity is taken up to N.
TYPED_TEST(String8, UnitsAndHandles)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const unsigned short units[] = {0x41, 0x1E9, 0xFF42, 0x20, 0x0, 0x43};
    EXPECT_EQ(str(S(units)), std::string("A\xE9" "B ").substr(0, n));
    EXPECT_TRUE(terminated(S(units)));
    std::vector<unsigned short> many(2000, 'u');
    many.push_back(0);
    EXPECT_EQ(S(many.data()).length, std::min(n, 1024));
    EXPECT_EQ(S(static_cast<const unsigned short*>(nullptr)).length, 0);

    _ktString8_allSize<5000> source;
    char w = 'w';
    source.createCharString(w, 300);
    const S s(source.asUni());
    EXPECT_TRUE(str(s) == std::string(static_cast<size_t>(std::min(n, 300)), 'w') && terminated(s));
    S t("zz");
    t = source.asUni();
    EXPECT_TRUE(t.length == std::min(n, 300) && terminated(t));

    S u("aBc");  // the unit forms use the low byte, exactly
    EXPECT_EQ(u.indexOf(static_cast<unsigned short>(0x142), 0), 1);
    EXPECT_EQ(u.indexOf(static_cast<unsigned short>('b'), 0), -1);
    EXPECT_EQ(u.lastIndexOf(static_cast<unsigned short>(0x363), -1), 2);
    u += static_cast<unsigned short>(0x141);
    EXPECT_EQ(str(u), std::string("aBcA").substr(0, n));
}

TYPED_TEST(String8, NullAndBytesAboveAscii)
{
    using S = TypeParam;
    const S s("ab");
    EXPECT_TRUE(s != static_cast<const char*>(nullptr) && !(s != "ab") && s != "abc");
    EXPECT_FALSE(S("ab\0c", 4) == "ab");  // strlen gives 2, the string holds 4
    // Bytes above 127 are neither folded nor signed: 0xE9 sorts after 'z'.
    S t("\xE9z\xC9");
    t.makeUpper();
    EXPECT_EQ(str(t), "\xE9Z\xC9");
    EXPECT_TRUE(t.indexOf('\xC9', 0) == 2 && t.count('\xE9') == 1 && !S("\xE9").isEqual(S("\xC9")));
    EXPECT_TRUE(S("z") < S("\xE9") && S("\xE9").compareSameCase(S("z")) > 0 && S("\xE9").compare(S("z")) > 0);
}

// ---- numbers -----------------------------------------------------------------

TYPED_TEST(String8, DecimalNumbersMatchPrintf)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    for (int v : {0, -1, INT_MIN, INT_MAX}) {
        S s;
        s.addNr(v);
        EXPECT_TRUE(str(s) == format("%d", v).substr(0, n) && terminated(s)) << v;
    }
    for (long long v : {LLONG_MIN, LLONG_MAX}) {
        S s, f("junk");
        s.addNr(v);
        f.fromNr(v);
        EXPECT_TRUE(str(s) == format("%lld", v).substr(0, n) && str(f) == str(s)) << v;
    }
    S u;
    u.addNr(ULLONG_MAX);
    EXPECT_EQ(str(u), format("%llu", ULLONG_MAX).substr(0, n));
}

// Zeros go in front of the formatted text, minus sign included, while the text and the zeros are fewer than `digits`.
TYPED_TEST(String8, ZeroPaddingGoesInFrontOfTheSign)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const struct {
        long long value;
        unsigned char digits;
        const char* expected;
    } cases[] = {{-5, 4, "00-5"}, {42, 5, "00042"}, {123, 2, "123"}, {0, 3, "000"}};
    for (const auto& c : cases) {
        S a, b;
        a.addNr(static_cast<int>(c.value), c.digits);
        b.addNr(c.value, c.digits);
        EXPECT_TRUE(str(a) == std::string(c.expected).substr(0, n) && str(b) == str(a)) << c.value << "/" << int(c.digits);
    }
    // Nearly full: the zeros fill it and the digits are dropped.
    S s(std::string(static_cast<size_t>(n) - 2, 'x').c_str());
    s.addNr(7, static_cast<unsigned char>(5));
    EXPECT_EQ(str(s), std::string(static_cast<size_t>(n) - 2, 'x') + "00");
}

// Two digits for bytes (the last two of a sign-extended negative one), four
// for 16-bit values (eight for a negative short, sign-extended), eight and sixteen.
TEST(String8Hex, EveryWidth)
{
    struct Case {
        std::string expected;
        void (*append)(S50&);
    };
    const Case cases[] = {
        {"FF", [](S50& s) { s.addHexCode(static_cast<signed char>(-1)); }},
        {"05", [](S50& s) { s.addHexCode(static_cast<unsigned char>(5)); }},
        {"FFFF8000", [](S50& s) { s.addHexCode(static_cast<short>(-32768)); }},
        {"0012", [](S50& s) { s.addHexCode(static_cast<short>(0x12)); }},
        {"00FF", [](S50& s) { s.addHexCode(static_cast<unsigned short>(255)); }},
        {"FFFFFFFF", [](S50& s) { s.addHexCode(-1); }},
        {"DEADBEEF", [](S50& s) { s.addHexCode(0xDEADBEEFu); }},
        {"FFFFFFFFFFFFFFFE", [](S50& s) { s.addHexCode(-2LL); }},
        {"0000000000000123", [](S50& s) { s.addHexCode(0x123ULL); }},
    };
    for (const auto& c : cases) {
        S50 s("#");
        c.append(s);
        EXPECT_TRUE(str(s) == "#" + c.expected && terminated(s)) << c.expected;
    }
    _ktString8_allSize<6> small;
    small.addHexCode(0x123ULL);
    EXPECT_EQ(str(small), "000000");

    EXPECT_EQ(str(S50("AZ").asHexString()), "415A");
    EXPECT_EQ(str(S50("\xE9\x01").asHexString()), "E901");
    _ktString8_allSize<500> many;
    char a = 'a';
    many.createCharString(a, 200);
    std::string expected;
    for (int i = 0; i < 125; ++i) expected += "61";
    EXPECT_TRUE(str(many.asHexString()) == expected && terminated(many.asHexString()));  // only 125 characters fit
}

// ---- parsing -------------------------------------------------------------------

// With the check every character must be a digit or a leading '-'; without
// it the text goes to strtol unchecked.
TEST(String8Parse, DecimalWithAndWithoutTheCheck)
{
    const struct { const char* text; long long withCheck; bool ok; long long plain; } cases[] = {
        {"-12", -12, true, -12}, {"1-2", 0, false, 1}, {" 12", 0, false, 12}, {"", 0, true, 0},
        {"+5", 0, false, 5},     {"12a", 0, false, 12}, {"-", 0, true, 0},
    };
    for (const auto& c : cases) {
        const S50 s(c.text);
        bool ok = !c.ok, ok64 = !c.ok;
        EXPECT_TRUE(s.toInt(&ok) == c.withCheck && ok == c.ok && s.toInt() == c.plain) << c.text;
        EXPECT_TRUE(s.toInt64(&ok64) == c.withCheck && ok64 == c.ok) << c.text;
    }
    EXPECT_EQ(S50("9000000000").toInt64(nullptr), 9000000000LL);
    _ktString8_allSize<6> full("123456");
    full.text[6] = '7';  // foreign data: no terminator anywhere in the storage
    EXPECT_EQ(full.toInt(), 123456);
}

// The first bits/4 characters as hexadecimal; signed: narrowed to the width
// and sign-extended, only 8, 16 and 32 bits; removeParsed cuts them off.
TEST(String8Parse, HexOfAGivenWidth)
{
    const struct { const char* text; int bits; bool asSigned; long long expected; bool ok; } cases[] = {
        {"FF", 8, true, -1, true},           {"7F", 8, true, 127, true},      {"8000", 16, true, -32768, true},
        {"FFFFFFFF", 32, true, -1, true},    {"FF", 8, false, 255, true},     {"FFFF1234", 16, false, 0xFFFF, true},
        {"abc", 12, true, 0, false},         {"zz", 8, true, 0, false},       {"G1", 8, false, 0, true},
        {"123456789ABCDEF0", 64, false, 0x123456789ABCDEF0LL, true},
    };
    for (const auto& c : cases) {
        S50 s(c.text);
        bool ok = !c.ok;
        EXPECT_EQ(s.toIntFromHex(c.bits, c.asSigned, false, &ok), c.expected) << c.text;
        EXPECT_TRUE(ok == c.ok && str(s) == c.text) << c.text;
        EXPECT_EQ(s.toIntFromHex(c.bits, c.asSigned, false, nullptr), c.expected) << c.text;
    }
    S50 s("ABCDrest");
    EXPECT_EQ(s.toIntFromHex(16, false, true, nullptr), 0xABCD);
    EXPECT_EQ(str(s), "rest");
}
