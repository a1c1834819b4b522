// Behaviour every fixed-capacity string template shares: the 8-bit and the
// 16-bit string, and their legacy layouts, at their smallest, a middle and
// their largest capacity. Results are checked against std::string oracles
// where the behaviour is the ordinary one and against hand-written values
// where it is the system's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "strings/ktString16.h"
#include "strings/ktString8.h"
#include "strings/ktStringLegacy.h"
#include "stringTestSupport.h"

using kttest::capacity;
using kttest::make;
using kttest::str;
using kttest::terminated;
using kttest::TextGenerator;
using kttest::unit;

namespace {

template <class S>
class StringTemplate : public ::testing::Test {};

using AllTemplates =
    ::testing::Types<_ktString8_allSize<6>, _ktString8_allSize<250>, _ktString8_allSize<5000>, _ktString<10>,
                     _ktString<250>, _ktString<2500>, _ktString8_evenSize_old<6>, _ktString8_UnevenSize_old<125>,
                     _ktString8_evenSize_old<5000>, _ktString_old<10>, _ktString_old<2500>>;
TYPED_TEST_SUITE(StringTemplate, AllTemplates);

std::string filler(int length, const char* alphabet = "xyz")
{
    return TextGenerator(static_cast<unsigned>(length) + 7u).next(static_cast<size_t>(std::max(length, 0)), alphabet);
}

int sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

// ---- construction and storage -------------------------------------------------

// Text is cut at N characters (not N-1); the constructor from a C string
// zeroes everything after the terminator, the counted one keeps embedded zeros.
TYPED_TEST(StringTemplate, ConstructionCutsAtCapacityAndZeroesTheTail)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    for (int len : {0, n - 1, n, n + 1}) {
        const std::string text = filler(len);
        const S s(text.c_str());
        EXPECT_EQ(str(s), text.substr(0, static_cast<size_t>(std::min(len, n)))) << "length " << len;
        for (int i = s.length; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << "length " << len << " index " << i;
        EXPECT_EQ(str(S(text.c_str(), len)), str(s));
    }
    const S empty(static_cast<const char*>(nullptr));
    EXPECT_TRUE(empty.length == 0 && empty.text[0] == 0);
    const S s("ab\0cd", 5);
    ASSERT_EQ(s.length, 5);
    EXPECT_TRUE(s.text[2] == 0 && s.text[3] == unit<S>('c') && terminated(s));
}

// A copy takes the whole object, characters after the terminator included.
TYPED_TEST(StringTemplate, CopyTakesTheWholeObject)
{
    using S = TypeParam;
    S a = make<S>("abc");
    a.text[5] = unit<S>('Q');
    const S b(a);
    EXPECT_EQ(std::memcmp(&a, &b, sizeof(S)), 0);
    S c = make<S>("zzzzzz");
    c = a;
    EXPECT_EQ(std::memcmp(&a, &c, sizeof(S)), 0);
}

// setLength clamps to 0..N and terminates there, leaving the other
// characters; calcLength stops at the first zero or at N; clear zeroes all
// N+1 characters, clearUnused those after the length.
TYPED_TEST(StringTemplate, LengthAndClearing)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("abcd");
    s.setLength(2);
    EXPECT_TRUE(str(s) == "ab" && s.text[2] == 0 && s.text[3] == unit<S>('d'));
    s.setLength(-1);
    EXPECT_TRUE(s.length == 0 && s.text[0] == 0);
    s.setLength(static_cast<short>(n + 5));
    EXPECT_TRUE(s.length == n && s.text[n] == 0);

    for (int i = 0; i <= n; ++i) s.text[i] = unit<S>('x');
    s.calcLength();
    EXPECT_TRUE(s.length == n && s.text[n] == 0);
    s.text[1] = 0;
    s.calcLength();
    EXPECT_EQ(s.length, 1);
    for (int i = 1; i <= n; ++i) s.text[i] = unit<S>('x');
    s.clearUnused();
    EXPECT_EQ(str(s), "x");
    for (int i = 1; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << i;
    EXPECT_TRUE(s.hasData());
    for (int i = 0; i <= n; ++i) s.text[i] = unit<S>('x');
    s.clear();
    for (int i = 0; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << i;
    EXPECT_TRUE(s.length == 0 && s.isEmpty() && !s.hasData());
}

TYPED_TEST(StringTemplate, CharacterAssignmentAndRepeatedCharacters)
{
    using S = TypeParam;
    S s = make<S>("abc");
    s = unit<S>('q');
    EXPECT_TRUE(str(s) == "q" && terminated(s));
    auto c = unit<S>('z');
    s.createCharString(c, capacity<S> + 3);
    EXPECT_EQ(str(s), std::string(capacity<S>, 'z'));
    s.createCharString(c, -4);
    EXPECT_EQ(s.length, 0);
}

// ---- appending -----------------------------------------------------------------

// Every append form keeps what fits and stays terminated; a full string ignores them all.
TYPED_TEST(StringTemplate, AppendingStopsAtCapacity)
{
    using S = TypeParam;
    const std::string head = filler(capacity<S> - 3);
    S s = make<S>(head);
    s.add("0123456789");
    EXPECT_TRUE(str(s) == head + "012" && terminated(s));
    const S full = s;
    s.add("x");
    s += "x";
    s += unit<S>('y');
    s += make<S>("q");
    s.add(make<S>("q"));
    s.add("q", 1u);
    EXPECT_TRUE(str(s) == str(full) && terminated(s));
}

TYPED_TEST(StringTemplate, AppendFormsAndTheirNothingCases)
{
    using S = TypeParam;
    S s = make<S>("ab");
    s.add(static_cast<const char*>(nullptr));
    s.add("");
    s.add(static_cast<const char*>(nullptr), 3u);
    s.add("cd", 0u);
    EXPECT_EQ(str(s), "ab");
    s.add("c\0d", 3u);  // counted: bytes as they are
    EXPECT_TRUE(s.length == 5 && s.text[3] == 0 && s.text[4] == unit<S>('d'));
    s = make<S>("ab");
    s += unit<S>('c');
    s += "de";
    s += make<S>("f");
    EXPECT_EQ(str(s), "abcdef");
    s = make<S>("ab");
    EXPECT_TRUE(str(s + make<S>("cd")) == "abcd" && str(s + unit<S>('c')) == "abc");
    EXPECT_TRUE(str(s.combined("xy")) == "abxy" && str(s.combined(make<S>("z"))) == "abz" && str(s) == "ab");
    s.add(s);  // appending the string to itself
    s += s;
    EXPECT_EQ(str(s), std::string("abababab").substr(0, capacity<S>));
}

// Right-aligned for a negative width, left-aligned for a positive one; the
// C form keeps the padding within the capacity, the other does not.
TYPED_TEST(StringTemplate, PaddedAppend)
{
    using S = TypeParam;
    const struct { const char *start, *text; int width; const char* expected; } cases[] = {
        {"", "ab", 5, "ab   "}, {"", "ab", -5, "   ab"},   {"", "ab", 0, "ab"},  {"", "abc", 2, "abc"},
        {"", "abc", -2, "abc"}, {"x", nullptr, 3, "x   "}, {"x", "", -2, "x  "}, {"", "", 0, ""},
    };
    for (const auto& c : cases) {
        S s = make<S>(c.start), t = make<S>(c.start);
        s.addSpacingC(c.text, c.width);
        t.addSpacing(c.text, c.width);
        EXPECT_TRUE(str(s) == c.expected && str(t) == c.expected && terminated(s))
            << "'" << (c.text ? c.text : "(null)") << "' width " << c.width << ": '" << str(s) << "', '" << str(t) << "'";
    }
    const std::string head = filler(capacity<S> - 2);
    S limited = make<S>(head), unlimited = make<S>(head);
    limited.addSpacingC("a", -5);  // padding limited to the two free places
    unlimited.addSpacing("a", -5);  // four blanks wanted: the text falls off the end
    EXPECT_EQ(str(limited), head + " a");
    EXPECT_TRUE(str(unlimited) == head + "  " && terminated(unlimited));
    S number;
    number.addNrSpacing(-42LL, static_cast<signed char>(-6));
    EXPECT_EQ(str(number), "   -42");
}

// ---- searching -----------------------------------------------------------------

TYPED_TEST(StringTemplate, SubstringSearchAgreesWithFind)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    TextGenerator gen(17);
    for (int round = 0; round < 60; ++round) {
        const std::string hay = gen.next(static_cast<size_t>(std::min(n, 5 + round % 30)));
        const std::string needles[] = {gen.next(1 + gen.step() % 3), hay.substr(gen.step() % hay.size(), 2), hay,
                                       hay.substr(1)};
        const S h = make<S>(hay);
        for (const auto& needle : needles) {
            if (needle.empty() || static_cast<int>(needle.size()) > n) continue;
            const S nd = make<S>(needle);
            for (size_t start = 0; start <= hay.size(); ++start) {
                const int st = static_cast<int>(start);
                ASSERT_EQ(h.indexOf(nd, st), kttest::find(hay, needle, start, true)) << needle << " in " << hay << " from " << st;
                ASSERT_EQ(h.indexOfCaseSen(nd, st), kttest::find(hay, needle, start, false)) << needle << " in " << hay;
            }
        }
    }
    const S s = make<S>("abcab");
    EXPECT_EQ(s.indexOf(S(), 0), -1);  // empty needle
    EXPECT_EQ(s.indexOf(make<S>("ABCAB"), 0), 0);
    EXPECT_EQ(s.indexOfCaseSen(make<S>("ABCAB"), 0), -1);
}

// Forward searches start from 0 when the start lies outside the text,
// backward searches from the end; the backward search is exact.
TYPED_TEST(StringTemplate, CharacterSearchAndItsStartRule)
{
    using S = TypeParam;
    const S s = make<S>("abcabc");
    const struct { int got, expected; } cases[] = {
        {s.indexOf(unit<S>('b'), 2), 4},        {s.indexOf(unit<S>('b'), -1), 1},       {s.indexOf(unit<S>('b'), 6), 1},
        {s.indexOf(unit<S>('B'), 0), 1},        {s.indexOfCaseSen(unit<S>('B'), 0), -1}, {s.indexOf(unit<S>('q'), 0), -1},
        {s.lastIndexOf(unit<S>('a'), -1), 3},   {s.lastIndexOf(unit<S>('a'), 2), 0},     {s.lastIndexOf(unit<S>('a'), 99), 3},
        {s.lastIndexOf(unit<S>('A'), -1), -1},  {S().lastIndexOf(unit<S>('a'), -1), -1},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].got, cases[i].expected) << "case " << i;
}

TYPED_TEST(StringTemplate, CountingAndContaining)
{
    using S = TypeParam;
    const S s = make<S>("aAbA"), t = make<S>("abcd");
    EXPECT_EQ(s.count('A'), 3);
    EXPECT_EQ(s.countCaseSen('A'), 2);
    EXPECT_TRUE(t.contains('C') && !t.contains('x'));
    EXPECT_TRUE(t.contains("BC") && !t.contains(static_cast<const char*>(nullptr)) && t.contains(make<S>("Cd")));
    EXPECT_TRUE(!t.containsCaseSen("BC") && t.containsCaseSen("bc") && t.containsCaseSen(make<S>("cd")));
    EXPECT_TRUE(t.containsCaseSen("bcX", 2) && !t.containsCaseSen("bcX", 3) && !t.containsCaseSen("bc", 0));
    // Only this string is folded; the argument is taken as given.
    EXPECT_TRUE(t.containsUpperCaseInput("BC") && !t.containsUpperCaseInput("bc"));
    EXPECT_TRUE(t.containsUpperCaseInput(make<S>("ABCD")));
}

// The needles are searched in order and the last one found wins, whatever
// its position; only a find at position 0 ends the search.
TYPED_TEST(StringTemplate, FirstOccurrenceLetsTheLastNeedleFoundWin)
{
    using S = TypeParam;
    const struct { const char *text, *a, *b; int expected, which; } cases[] = {
        {"xxbxa", "a", "b", 2, 1}, {"xbxa", "b", "a", 3, 1}, {"xxxxa", "a", "b", 4, 0}, {"xxxx", "a", "b", -1, -1},
        {"axb", "a", "b", 0, 0},   {"xbxA", "Q", "a", 3, 1},
    };
    for (const auto& c : cases) {
        int which = 99;
        EXPECT_EQ(make<S>(c.text).indexOfFirstOcc(make<S>(c.a), make<S>(c.b), &which), c.expected) << c.text;
        EXPECT_EQ(which, c.which) << c.text;
        EXPECT_EQ(make<S>(c.text).indexOfFirstOcc(make<S>(c.a), make<S>(c.b), nullptr), c.expected);
    }
    int which = 99;
    const S s = make<S>("cdab");
    EXPECT_EQ(s.indexOfFirstOcc(make<S>("b"), make<S>("zz"), make<S>("a"), make<S>("q"), make<S>("r"), make<S>("d"), &which), 1);
    EXPECT_EQ(which, 5);
    EXPECT_EQ(s.indexOfFirstOcc(make<S>("q"), make<S>("C"), make<S>("a"), make<S>("q"), make<S>("r"), make<S>("d"), &which), 0);
    EXPECT_EQ(which, 1);
}

// ---- comparing -----------------------------------------------------------------

// compareSameCase looks at the common length only, so a prefix compares as
// equal; compare and the operators order a shorter prefix first.
TYPED_TEST(StringTemplate, ComparisonTable)
{
    using S = TypeParam;
    const struct { const char *a, *b; int compare, compareSameCase; bool less, greater; } cases[] = {
        {"abc", "abcd", -1, 0, true, false}, {"abcd", "abc", 1, 0, false, true}, {"ABC", "abd", -1, -1, true, false},
        {"abc", "ABC", 0, 1, false, true},   {"", "", 0, 0, false, false},       {"", "a", -1, 0, true, false},
    };
    for (const auto& c : cases) {
        const S a = make<S>(c.a), b = make<S>(c.b);
        EXPECT_EQ(sign(a.compare(b)), c.compare) << c.a << " / " << c.b;
        EXPECT_EQ(sign(a.compareSameCase(b)), c.compareSameCase) << c.a << " / " << c.b;
        EXPECT_EQ(a < b, c.less) << c.a << " / " << c.b;
        EXPECT_EQ(a > b, c.greater) << c.a << " / " << c.b;
    }
    TextGenerator gen(5);
    for (int round = 0; round < 200; ++round) {
        const unsigned most = static_cast<unsigned>(std::min(capacity<S>, 8)) + 1;
        const std::string a = gen.next(gen.step() % most), b = gen.next(gen.step() % most);
        const S sa = make<S>(a), sb = make<S>(b);
        ASSERT_EQ(sign(sa.compare(sb)), sign(kttest::upper(a).compare(kttest::upper(b)))) << a << " / " << b;
        ASSERT_TRUE((sa < sb) == (a < b) && (sa > sb) == (a > b) && (sa == sb) == (a == b)) << a << " / " << b;
        ASSERT_EQ(sa.isEqual(sb), kttest::upper(a) == kttest::upper(b)) << a << " / " << b;
    }
}

TYPED_TEST(StringTemplate, EqualityForms)
{
    using S = TypeParam;
    const S s = make<S>("abc");
    EXPECT_TRUE(s == make<S>("abc") && !(s == make<S>("ABC")) && s != make<S>("ab"));
    EXPECT_TRUE(s == "abc" && !(s == "abcd") && !(s == static_cast<const char*>(nullptr)));
    EXPECT_TRUE(s.isEqual(make<S>("ABC")) && s.isEqual("ABCxyz", 3));
    EXPECT_FALSE(s.isEqual("ABC", 2));  // the count must be the length
    EXPECT_FALSE(s.isEqual(static_cast<const char*>(nullptr), 3));
    EXPECT_TRUE(s.isEqualSameCase(make<S>("abc")) && s.isEqualSameCase("abc", 3) && !s.isEqualSameCase("aBc", 3));
    EXPECT_TRUE(s.isEqualUpperCaseInput(make<S>("ABC")) && !s.isEqualUpperCaseInput(make<S>("abc")));
    EXPECT_TRUE(make<S>("AbC").isEqualLowerCaseInput(make<S>("abc")) && !make<S>("AbC").isEqualLowerCaseInput(make<S>("ABC")));
}

// Prefix and suffix tests are false for an empty string, a null or empty
// affix and an affix longer than the string.
TYPED_TEST(StringTemplate, PrefixAndSuffixTable)
{
    using S = TypeParam;
    const struct { const char *text, *affix; bool startsWith, startsCaseSen, endsWith; } cases[] = {
        {"abcdef", "ABC", true, false, false}, {"abcdef", "abc", true, true, false}, {"abcdef", "DEF", false, false, true},
        {"abcdef", "", false, false, false},    {"", "a", false, false, false},       {"abc", "abcd", false, false, false},
        {"abc", "abc", true, true, true},
    };
    for (const auto& c : cases) {
        const S s = make<S>(c.text), affix = make<S>(c.affix);
        EXPECT_TRUE(s.startsWith(c.affix) == c.startsWith && s.startsWith(affix) == c.startsWith) << c.text << " / " << c.affix;
        EXPECT_TRUE(s.startsWithCaseSen(c.affix) == c.startsCaseSen && s.startsWithCaseSen(affix) == c.startsCaseSen)
            << c.text << " / " << c.affix;
        EXPECT_TRUE(s.endsWith(c.affix) == c.endsWith && s.endsWith(affix) == c.endsWith) << c.text << " / " << c.affix;
    }
    const S s = make<S>("abcdef");
    EXPECT_FALSE(s.startsWith(static_cast<const char*>(nullptr)) || s.endsWith(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(s.startsWith("ABx", 2) && !s.startsWith("ABx", 3));
    // The count only gates the test; the whole argument is compared.
    EXPECT_TRUE(s.endsWith("def", 1) && !s.endsWith("def", 0) && !s.endsWith("def", 7) && !s.endsWith("xyz", 3));
    EXPECT_TRUE(s.startsWith(unit<S>('a')) && !s.startsWith(unit<S>('A')) && s.endsWith(unit<S>('f')));
    EXPECT_FALSE(S().startsWith(unit<S>('\0')) || S().endsWith(unit<S>('\0')));
}

// ---- changing in place ---------------------------------------------------------

// Zero bytes, blanks, tabs, CR and LF are stripped at both ends, nothing else.
TYPED_TEST(StringTemplate, TrimAndFolding)
{
    using S = TypeParam;
    const std::pair<std::string, std::string> cases[] = {
        {" \t a b \r\n", "a b"}, {"   ", ""}, {"", ""}, {std::string("a\0\0", 3), "a"}, {"\va\v", "\va\v"},
    };
    for (const auto& c : cases) {
        S s = make<S>(c.first);
        s.trim();
        EXPECT_TRUE(str(s) == c.second && terminated(s)) << str(s);
    }
    S s = make<S>("aBc-9z");
    s.makeUpper();
    EXPECT_EQ(str(s), "ABC-9Z");
    s.makeLower();
    EXPECT_EQ(str(s), "abc-9z");
    s.replace(unit<S>('B'), unit<S>('#'));  // matches ignoring case
    EXPECT_EQ(str(s), "a#c-9z");
}

// Replacing and removing every occurrence, left to right, the replacement
// never searched again, against a std::string oracle.
TYPED_TEST(StringTemplate, ReplaceAndRemoveAgreeWithReplaceAll)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    TextGenerator gen(99);
    for (int round = 0; round < 150; ++round) {
        const std::string text = gen.next(gen.step() % static_cast<unsigned>(std::min(n, 12) + 1));
        const std::string from = gen.next(1 + gen.step() % 2);
        const std::string to = gen.next(gen.step() % 3, "xyAB");
        const std::string expected = kttest::replaceAll(text, from, to, true);
        if (static_cast<int>(expected.size()) > n) continue;  // cut texts: below
        S s = make<S>(text), exact = make<S>(text), r = make<S>(text), rExact = make<S>(text);
        s.replace(make<S>(from), make<S>(to));
        exact.replaceCaseSen(make<S>(from), make<S>(to));
        r.remove(make<S>(from));
        rExact.removeCaseSens(make<S>(from));
        ASSERT_EQ(str(s), expected) << text << " '" << from << "' -> '" << to << "'";
        ASSERT_EQ(str(exact), kttest::replaceAll(text, from, to, false)) << text << " '" << from << "' -> '" << to << "'";
        ASSERT_EQ(str(r), kttest::replaceAll(text, from, "", true)) << text << " remove " << from;
        ASSERT_EQ(str(rExact), kttest::replaceAll(text, from, "", false)) << text << " remove " << from;
    }
    S s = make<S>("abc");
    s.replace(S(), make<S>("x"));
    EXPECT_EQ(str(s), "abc");
    s = make<S>("aAbA");
    const S copy = s.remove(unit<S>('a'));
    EXPECT_TRUE(str(s) == "b" && str(copy) == "b");
    // A replacement that grows the text cuts it at the capacity before the
    // search goes on: the second "ab" is cut to "a" before it is reached.
    const std::string cs(n - 5, 'c');
    s = make<S>("ab" + cs + "ab");
    s.replace(make<S>("ab"), make<S>("wxyz"));
    EXPECT_TRUE(str(s) == "wxyz" + cs + "a" && terminated(s));
}

// remove(start, count) and insert against std::string; insert cuts at the capacity.
TYPED_TEST(StringTemplate, RemoveRangeAndInsertAgreeWithStdString)
{
    using S = TypeParam;
    const std::string base = "abcdef";
    for (int start = 0; start <= 7; ++start) {
        for (int count = 0; count <= 8; ++count) {
            S s = make<S>(base);
            s.remove(start, count);
            std::string expected = base;
            if (static_cast<size_t>(start) < expected.size()) expected.erase(static_cast<size_t>(start), static_cast<size_t>(count));
            ASSERT_EQ(str(s), expected) << start << "," << count;
        }
    }
    for (int position : {0, 2, 6, 40}) {
        const std::string what = filler(capacity<S>);
        S s = make<S>(base);
        s.insert(position, make<S>(what));
        std::string expected = base;
        expected.insert(std::min<size_t>(static_cast<size_t>(position), base.size()), what);
        EXPECT_TRUE(str(s) == expected.substr(0, capacity<S>) && terminated(s)) << position;
    }
}

TYPED_TEST(StringTemplate, ArgumentsThatAreTheStringItself)
{
    using S = TypeParam;
    S s = make<S>("ab");
    s.insert(1, s);
    EXPECT_EQ(str(s), "aabb");
    s = make<S>("ab");
    s.replace(make<S>("b"), s);
    EXPECT_EQ(str(s), "aab");
    s = make<S>("ab");
    s.replace(s, make<S>("x"));
    EXPECT_EQ(str(s), "x");
    s = make<S>("ab");
    s.remove(s);
    EXPECT_EQ(s.length, 0);
}

// ---- extracting ----------------------------------------------------------------

TYPED_TEST(StringTemplate, LeftAndMid)
{
    using S = TypeParam;
    const S s = make<S>("abcdef");
    for (int count = -1; count <= 8; ++count)
        EXPECT_EQ(str(s.left(count)), std::string("abcdef").substr(0, static_cast<size_t>(std::max(count, 0))));
    EXPECT_EQ(str(s.mid(2, 3)), "cde");
    EXPECT_EQ(str(s.mid(6, 0)), "");
    EXPECT_TRUE(terminated(s.mid(1, 2)));
}

// Up to a delimiter found ignoring case; found at position 0 the result is
// inverted. leftNCut always cuts the delimiter from the string, and an
// absent delimiter takes everything.
TYPED_TEST(StringTemplate, LeftUpToADelimiterAndCutting)
{
    using S = TypeParam;
    const struct { const char* text; char delimiter; bool include; const char *left, *rest; } cases[] = {
        {"k=val", '=', false, "k", "val"}, {"k=val", '=', true, "k=", "val"}, {"abXde", 'x', false, "ab", "de"},
        {"none", '=', false, "none", ""},  {"xyz", 'x', true, "", "yz"},      {"xyz", 'x', false, "x", "yz"},
    };
    for (const auto& c : cases) {
        const S s = make<S>(c.text);
        EXPECT_EQ(str(s.left(unit<S>(c.delimiter), c.include)), c.left) << c.text;
        S cut = make<S>(c.text);
        EXPECT_EQ(str(cut.leftNCut(unit<S>(c.delimiter), c.include)), c.left) << c.text;
        EXPECT_EQ(str(cut), c.rest) << c.text;
    }
}
