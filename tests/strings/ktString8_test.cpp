// What only the 8-bit string does: its assignments and conversions, number
// formatting, hexadecimal forms and parsing, against hand-written values.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "strings/ktString8.h"
#include "stringTestSupport.h"

using kttest::after;
using kttest::str;
using kttest::terminated;
using S6 = _ktString8_allSize<6>;
using S50 = _ktString8_allSize<50>;

// A null C string or count copy empties the string but writes no terminator;
// std::string, counted copies and handles keep zeros and cut at N; units and
// the unit forms use the low byte; bytes above 127 are neither folded nor signed.
TEST(String8, AssignmentsAndBytes)
{
    const unsigned short units[] = {0x41, 0x1E9, 0xFF42, 0x20, 0x0, 0x43};
    const _ktString8_allSize<5000> source(std::string(300, 'w').c_str());
    const std::pair<std::string, std::string> cases[] = {
        {after(S6(), [](auto& s) { s = std::string("ab\0cd", 5); }), std::string("ab\0cd", 5)},
        {after(S6(), [](auto& s) { s = std::string("abcdefgh"); }), "abcdef"},
        {after(S6(), [](auto& s) { s.fromChar("a\0bcdefgh", 9); }), std::string("a\0bcde", 6)},
        {after(S6(), [&](auto& s) { s = source.asUni(); }), "wwwwww"},
        {str(S50(source.asUni())), std::string(50, 'w')},
        {str(S50(units)), "A\xE9" "B "},
        {str(S6(static_cast<const unsigned short*>(nullptr))), ""},
        {after(S50("aB"), [](auto& s) { s += static_cast<unsigned short>(0x163); }), "aBc"},
        {after(S50("\xE9z\xC9"), [](auto& s) { s.makeUpper(); }), "\xE9Z\xC9"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
    S6 null("xyz"), nullCount("xyz");
    null = static_cast<const char*>(nullptr);
    nullCount.fromChar(nullptr, 3);
    EXPECT_TRUE(null.length == 0 && null.text[0] == 'x' && nullCount.length == 0 && nullCount.text[0] == 'x');
    const S50 s("aBc"), e("\xE9"), z("z");
    using U = unsigned short;
    EXPECT_TRUE(s.indexOf(U(0x142), 0) == 1 && s.indexOf(U('b'), 0) == -1 && s.lastIndexOf(U(0x363), -1) == 2);
    EXPECT_TRUE(s != static_cast<const char*>(nullptr));
    EXPECT_TRUE(!(s != "aBc") && !(S50("ab\0c", 4) == "ab") && !e.isEqual(S50("\xC9")));
    EXPECT_TRUE(z < e && e.compareSameCase(z) > 0 && e.compare(z) > 0);
}

// Numbers as printf writes them; zeros go in front of the formatted text,
// minus sign included, and a nearly full string keeps only the zeros. Hex:
// two digits for bytes, four for 16-bit values (eight for a negative short,
// sign-extended), eight and sixteen; asHexString writes two per character.
TEST(String8, NumbersAndHex)
{
    const _ktString8_allSize<500> many(std::string(200, '3').c_str());  // 125 characters fit as 250 digits
    const std::pair<std::string, std::string> cases[] = {
        {after(S50(), [](auto& s) { s.addNr(INT_MIN); }), "-2147483648"},
        {after(S50(), [](auto& s) { s.addNr(LLONG_MIN); }), "-9223372036854775808"},
        {after(S50(), [](auto& s) { s.addNr(ULLONG_MAX); }), "18446744073709551615"},
        {after(S50("x"), [](auto& s) { s.fromNr(LLONG_MAX); }), "9223372036854775807"},
        {after(S50(), [](auto& s) { s.addNr(-5, static_cast<unsigned char>(4)); }), "00-5"},
        {after(S50(), [](auto& s) { s.addNr(42LL, static_cast<unsigned char>(5)); }), "00042"},
        {after(S50(), [](auto& s) { s.addNr(123, static_cast<unsigned char>(2)); }), "123"},
        {after(S6("xxxx"), [](auto& s) { s.addNr(7, static_cast<unsigned char>(5)); }), "xxxx00"},
        {after(S50(), [](auto& s) { s.addHexCode(static_cast<signed char>(-1)); }), "FF"},
        {after(S50(), [](auto& s) { s.addHexCode(static_cast<unsigned char>(5)); }), "05"},
        {after(S50(), [](auto& s) { s.addHexCode(static_cast<short>(-32768)); }), "FFFF8000"},
        {after(S50(), [](auto& s) { s.addHexCode(static_cast<short>(0x12)); }), "0012"},
        {after(S50(), [](auto& s) { s.addHexCode(static_cast<unsigned short>(255)); }), "00FF"},
        {after(S50(), [](auto& s) { s.addHexCode(-1); }), "FFFFFFFF"},
        {after(S50(), [](auto& s) { s.addHexCode(0xDEADBEEFu); }), "DEADBEEF"},
        {after(S50(), [](auto& s) { s.addHexCode(-2LL); }), "FFFFFFFFFFFFFFFE"},
        {after(S50(), [](auto& s) { s.addHexCode(0x123ULL); }), "0000000000000123"},
        {after(S6(), [](auto& s) { s.addHexCode(0x123ULL); }), "000000"},
        {str(S50("Z\xE9\x01").asHexString()), "5AE901"},
        {str(many.asHexString()), std::string(250, '3')},
    };
    for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
}

// With the check every character must be a digit or a leading '-'; without
// it the text goes to strtol unchecked.
TEST(String8, DecimalParsing)
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
    S6 full("123456");
    full.text[6] = '7';  // foreign data: no terminator anywhere in the storage
    EXPECT_TRUE(S50("9000000000").toInt64(nullptr) == 9000000000LL && full.toInt() == 123456);
}

// The first bits/4 characters as hexadecimal; signed: narrowed to the width
// and sign-extended, only 8, 16 and 32 bits; removeParsed cuts them off.
TEST(String8, HexParsing)
{
    const struct { const char* text; int bits; bool asSigned; long long expected; bool ok; } cases[] = {
        {"FF", 8, true, -1, true},        {"7F", 8, true, 127, true},  {"8000", 16, true, -32768, true},
        {"FFFFFFFF", 32, true, -1, true}, {"FF", 8, false, 255, true}, {"FFFF1234", 16, false, 0xFFFF, true},
        {"abc", 12, true, 0, false},      {"zz", 8, true, 0, false},   {"G1", 8, false, 0, true},
        {"123456789ABCDEF0", 64, false, 0x123456789ABCDEF0LL, true},
    };
    for (const auto& c : cases) {
        S50 s(c.text);
        bool ok = !c.ok;
        EXPECT_EQ(s.toIntFromHex(c.bits, c.asSigned, false, &ok), c.expected) << c.text;
        EXPECT_TRUE(ok == c.ok && str(s) == c.text) << c.text;
    }
    S50 s("ABCDrest");
    EXPECT_TRUE(s.toIntFromHex(16, false, true, nullptr) == 0xABCD && str(s) == "rest");
}
