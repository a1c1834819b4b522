// Behaviour every fixed-capacity string template shares: the 8-bit and the
// 16-bit string, and their legacy layouts, at their smallest, a middle and
// their largest capacity. Results are checked against std::string oracles
// where the behaviour is the ordinary one and against hand-written values
// where it is the system's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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

template <class S>
std::string filler(int length, const char* alphabet = "xyz")
{
    return TextGenerator(static_cast<unsigned>(length) + 7u).next(static_cast<size_t>(std::max(length, 0)), alphabet);
}

int sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

// ---- construction and storage -------------------------------------------------

TYPED_TEST(StringTemplate, TextIsCutAtCapacityAndTheTailZeroed)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    for (int len : {0, 1, n - 1, n, n + 1, 2 * n}) {
        const std::string text = filler<S>(len);
        const S s(text.c_str());
        EXPECT_EQ(str(s), text.substr(0, static_cast<size_t>(std::min(len, n)))) << "length " << len;
        for (int i = s.length; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << "length " << len << " index " << i;
    }
    const S empty(static_cast<const char*>(nullptr));
    EXPECT_EQ(empty.length, 0);
    EXPECT_EQ(empty.text[0], 0);
}

TYPED_TEST(StringTemplate, CountedConstructorKeepsEmbeddedZeros)
{
    using S = TypeParam;
    const S s("ab\0cd", 5);
    ASSERT_EQ(s.length, 5);
    EXPECT_EQ(s.text[2], 0);
    EXPECT_EQ(s.text[3], unit<S>('c'));
    EXPECT_TRUE(terminated(s));

    const std::string longer = filler<S>(capacity<S> + 4);
    const S cut(longer.c_str(), static_cast<int>(longer.size()));
    EXPECT_EQ(str(cut), longer.substr(0, capacity<S>));
}

TYPED_TEST(StringTemplate, CopyTakesTheWholeObject)
{
    using S = TypeParam;
    S a = make<S>("abc");
    a.text[5] = unit<S>('Q');  // after the terminator: kept by a copy all the same
    const S b(a);
    EXPECT_EQ(std::memcmp(&a, &b, sizeof(S)), 0);
    S c = make<S>("zzzzzz");
    c = a;
    EXPECT_EQ(std::memcmp(&a, &c, sizeof(S)), 0);
}

TYPED_TEST(StringTemplate, SetLengthClampsAndTerminates)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("abcd");
    s.setLength(2);
    EXPECT_EQ(str(s), "ab");
    EXPECT_EQ(s.text[2], 0);
    EXPECT_EQ(s.text[3], unit<S>('d'));  // other characters untouched
    s.setLength(-1);
    EXPECT_EQ(s.length, 0);
    EXPECT_EQ(s.text[0], 0);
    s.setLength(static_cast<short>(n + 5));
    EXPECT_EQ(s.length, n);
    EXPECT_EQ(s.text[n], 0);
}

TYPED_TEST(StringTemplate, CalcLengthStopsAtTheFirstZeroOrTheCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("abcdef");
    s.text[3] = 0;
    s.calcLength();
    EXPECT_EQ(s.length, 3);
    for (int i = 0; i <= n; ++i) s.text[i] = unit<S>('x');
    s.calcLength();
    EXPECT_EQ(s.length, n);
    EXPECT_EQ(s.text[n], 0);
}

TYPED_TEST(StringTemplate, ClearAndClearUnused)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("ab");
    for (int i = 2; i <= n; ++i) s.text[i] = unit<S>('x');
    s.clearUnused();
    EXPECT_EQ(str(s), "ab");
    for (int i = 2; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << i;
    for (int i = 0; i <= n; ++i) s.text[i] = unit<S>('x');
    s.clear();
    EXPECT_EQ(s.length, 0);
    for (int i = 0; i <= n; ++i) ASSERT_EQ(s.text[i], 0) << i;
    EXPECT_TRUE(s.isEmpty());
    EXPECT_FALSE(s.hasData());
}

TYPED_TEST(StringTemplate, CharacterAssignmentAndRepeatedCharacters)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("abc");
    s = unit<S>('q');
    EXPECT_EQ(str(s), "q");
    EXPECT_TRUE(terminated(s));
    auto c = unit<S>('z');
    s.createCharString(c, n + 3);
    EXPECT_EQ(str(s), std::string(n, 'z'));
    s.createCharString(c, 0);
    EXPECT_EQ(s.length, 0);
    s.createCharString(c, -4);
    EXPECT_EQ(s.length, 0);
}

// ---- appending -----------------------------------------------------------------

TYPED_TEST(StringTemplate, AppendingStopsAtCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const std::string head = filler<S>(n - 3);
    S s = make<S>(head);
    s.add("0123456789");
    EXPECT_EQ(str(s), head + "012");
    EXPECT_TRUE(terminated(s));
    const S full = s;
    s.add("x");
    s += "x";
    s += unit<S>('y');
    s += make<S>("q");
    s.add(make<S>("q"));
    EXPECT_EQ(str(s), str(full));
    EXPECT_TRUE(terminated(s));
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
    EXPECT_EQ(s.length, 5);
    EXPECT_EQ(s.text[3], 0);
    EXPECT_EQ(s.text[4], unit<S>('d'));
    s = make<S>("ab");
    s += unit<S>('c');
    s += "de";
    s += make<S>("f");
    EXPECT_EQ(str(s), "abcdef");
}

TYPED_TEST(StringTemplate, AppendingItselfDoublesTheText)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    S s = make<S>("abc");
    s.add(s);
    EXPECT_EQ(str(s), std::string("abcabc").substr(0, n));
    s = make<S>("ab");
    s += s;
    EXPECT_EQ(str(s), "abab");
}

TYPED_TEST(StringTemplate, PlusAndCombinedLeaveTheOriginal)
{
    using S = TypeParam;
    const S s = make<S>("ab");
    EXPECT_EQ(str(s + make<S>("cd")), "abcd");
    EXPECT_EQ(str(s + unit<S>('c')), "abc");
    EXPECT_EQ(str(s.combined("xy")), "abxy");
    EXPECT_EQ(str(s.combined(make<S>("z"))), "abz");
    EXPECT_EQ(str(s), "ab");
}

struct PaddingCase {
    const char* start;
    const char* text;
    int width;
    const char* expected;
};

TYPED_TEST(StringTemplate, PaddedAppend)
{
    using S = TypeParam;
    const PaddingCase cases[] = {
        {"", "ab", 5, "ab   "},   {"", "ab", -5, "   ab"},  {"", "ab", 0, "ab"},      {"", "abc", 2, "abc"},
        {"", "abc", -2, "abc"},   {"x", nullptr, 3, "x   "}, {"x", nullptr, 0, "x"},   {"x", "", -2, "x  "},
        {"", "", 0, ""},
    };
    for (const auto& c : cases) {
        S s = make<S>(c.start);
        s.addSpacingC(c.text, c.width);
        EXPECT_EQ(str(s), c.expected) << "'" << (c.text ? c.text : "(null)") << "' width " << c.width;
        EXPECT_TRUE(terminated(s));
        S t = make<S>(c.start);
        t.addSpacing(c.text, c.width);
        EXPECT_EQ(str(t), c.expected) << "unlimited form";
    }
}

TYPED_TEST(StringTemplate, PaddingNearTheCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    const std::string head = filler<S>(n - 2);
    S limited = make<S>(head);
    limited.addSpacingC("a", -5);  // padding limited to the two free places
    EXPECT_EQ(str(limited), head + " a");
    S unlimited = make<S>(head);
    unlimited.addSpacing("a", -5);  // four blanks wanted: the text falls off the end
    EXPECT_EQ(str(unlimited), head + "  ");
    EXPECT_TRUE(terminated(unlimited));
}

TYPED_TEST(StringTemplate, NumberWithSpacing)
{
    using S = TypeParam;
    S s;
    s.addNrSpacing(-42LL, static_cast<signed char>(6));
    EXPECT_EQ(str(s), "-42   ");
    s.clear();
    s.addNrSpacing(-42LL, static_cast<signed char>(-6));
    EXPECT_EQ(str(s), "   -42");
}

// ---- searching -----------------------------------------------------------------

TYPED_TEST(StringTemplate, SubstringSearchAgreesWithFind)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    TextGenerator gen(17);
    for (int round = 0; round < 60; ++round) {
        const std::string hay = gen.next(static_cast<size_t>(std::min(n, 5 + round % 30)));
        std::vector<std::string> needles = {gen.next(1 + gen.step() % 3), hay.substr(gen.step() % hay.size(), 2),
                                            hay, hay.substr(1)};
        const S h = make<S>(hay);
        for (const auto& needle : needles) {
            if (needle.empty() || static_cast<int>(needle.size()) > n) continue;
            const S nd = make<S>(needle);
            for (size_t start = 0; start <= hay.size(); ++start) {
                const int st = static_cast<int>(start);
                ASSERT_EQ(h.indexOf(nd, st), kttest::find(hay, needle, start, true))
                    << "'" << needle << "' in '" << hay << "' from " << start;
                ASSERT_EQ(h.indexOfCaseSen(nd, st), kttest::find(hay, needle, start, false))
                    << "'" << needle << "' in '" << hay << "' from " << start;
            }
        }
    }
}

TYPED_TEST(StringTemplate, SubstringSearchEdges)
{
    using S = TypeParam;
    const S s = make<S>("abcab");
    EXPECT_EQ(s.indexOf(S(), 0), -1);                // empty needle
    EXPECT_EQ(s.indexOf(make<S>("ABCAB"), 0), 0);    // as long as the text
    EXPECT_EQ(s.indexOfCaseSen(make<S>("ABCAB"), 0), -1);
    EXPECT_EQ(s.indexOf(make<S>("abcabc"), 0), -1);  // longer than the text
    EXPECT_EQ(s.indexOf(make<S>("ab"), 3), 3);
    EXPECT_EQ(s.indexOf(make<S>("ab"), 4), -1);      // would run past the end
    EXPECT_EQ(s.indexOf(make<S>("ba"), 0), -1);      // same sum as "ab", different text
}

TYPED_TEST(StringTemplate, CharacterSearchAndItsStartRule)
{
    using S = TypeParam;
    const S s = make<S>("abcabc");
    EXPECT_EQ(s.indexOf(unit<S>('b'), 2), 4);
    EXPECT_EQ(s.indexOf(unit<S>('b'), -1), 1);  // outside: from the start
    EXPECT_EQ(s.indexOf(unit<S>('b'), 6), 1);
    EXPECT_EQ(s.indexOf(unit<S>('B'), 0), 1);   // ignoring case
    EXPECT_EQ(s.indexOfCaseSen(unit<S>('B'), 0), -1);
    EXPECT_EQ(s.indexOf(unit<S>('q'), 0), -1);
    EXPECT_EQ(s.lastIndexOf(unit<S>('a'), -1), 3);  // outside: from the end
    EXPECT_EQ(s.lastIndexOf(unit<S>('a'), 2), 0);
    EXPECT_EQ(s.lastIndexOf(unit<S>('a'), 99), 3);
    EXPECT_EQ(s.lastIndexOf(unit<S>('A'), -1), -1);  // exact
    EXPECT_EQ(S().lastIndexOf(unit<S>('a'), -1), -1);
}

TYPED_TEST(StringTemplate, CountingAndContaining)
{
    using S = TypeParam;
    const S s = make<S>("aAbA");
    EXPECT_EQ(s.count('A'), 3);
    EXPECT_EQ(s.countCaseSen('A'), 2);
    const S t = make<S>("abcd");
    EXPECT_TRUE(t.contains('C'));
    EXPECT_FALSE(t.contains('x'));
    EXPECT_TRUE(t.contains("BC"));
    EXPECT_FALSE(t.contains(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(t.contains(make<S>("Cd")));
    EXPECT_FALSE(t.containsCaseSen("BC"));
    EXPECT_TRUE(t.containsCaseSen("bc"));
    EXPECT_TRUE(t.containsCaseSen("bcX", 2));   // only the first two bytes
    EXPECT_FALSE(t.containsCaseSen("bcX", 3));
    EXPECT_FALSE(t.containsCaseSen("bc", 0));
    EXPECT_TRUE(t.containsCaseSen(make<S>("cd")));
    EXPECT_TRUE(t.containsUpperCaseInput("BC"));
    EXPECT_FALSE(t.containsUpperCaseInput("bc"));  // the argument is taken as given
    EXPECT_TRUE(t.containsUpperCaseInput(make<S>("ABCD")));
}

struct FirstOccurrenceCase {
    const char* text;
    const char* a;
    const char* b;
    int expected;
    int which;
};

TYPED_TEST(StringTemplate, FirstOccurrenceLetsTheLastNeedleFoundWin)
{
    using S = TypeParam;
    const FirstOccurrenceCase cases[] = {
        {"xxbxa", "a", "b", 2, 1},  {"xxxxa", "a", "b", 4, 0}, {"xxxx", "a", "b", -1, -1},
        {"axb", "a", "b", 0, 0},    {"xbxa", "b", "a", 3, 1},  {"xbxA", "Q", "a", 3, 1},
    };
    for (const auto& c : cases) {
        int which = 99;
        EXPECT_EQ(make<S>(c.text).indexOfFirstOcc(make<S>(c.a), make<S>(c.b), &which), c.expected) << c.text;
        EXPECT_EQ(which, c.which) << c.text;
        EXPECT_EQ(make<S>(c.text).indexOfFirstOcc(make<S>(c.a), make<S>(c.b), nullptr), c.expected);
    }
    int which = 99;
    const S s = make<S>("cdab");
    EXPECT_EQ(s.indexOfFirstOcc(make<S>("b"), make<S>("zz"), make<S>("a"), make<S>("q"), make<S>("r"), make<S>("d"),
                                &which),
              1);
    EXPECT_EQ(which, 5);
    EXPECT_EQ(s.indexOfFirstOcc(make<S>("q"), make<S>("C"), make<S>("a"), make<S>("q"), make<S>("r"), make<S>("d"),
                                &which),
              0);
    EXPECT_EQ(which, 1);
}

// ---- comparing -----------------------------------------------------------------

struct CompareCase {
    const char* a;
    const char* b;
    int compare;          // sign, ignoring case
    int compareSameCase;  // sign, common length only
    bool less;
    bool greater;
};

TYPED_TEST(StringTemplate, ComparisonTable)
{
    using S = TypeParam;
    const CompareCase cases[] = {
        {"abc", "abcd", -1, 0, true, false}, {"abcd", "abc", 1, 0, false, true}, {"ABC", "abd", -1, -1, true, false},
        {"abc", "ABC", 0, 1, false, true},   {"", "", 0, 0, false, false},       {"b", "abc", 1, 1, false, true},
        {"", "a", -1, 0, true, false},       {"abc", "abc", 0, 0, false, false},
    };
    for (const auto& c : cases) {
        const S a = make<S>(c.a);
        const S b = make<S>(c.b);
        EXPECT_EQ(sign(a.compare(b)), c.compare) << c.a << " / " << c.b;
        EXPECT_EQ(sign(a.compareSameCase(b)), c.compareSameCase) << c.a << " / " << c.b;
        EXPECT_EQ(a < b, c.less) << c.a << " / " << c.b;
        EXPECT_EQ(a > b, c.greater) << c.a << " / " << c.b;
    }
}

TYPED_TEST(StringTemplate, CompareAgreesWithStdStringOrder)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    TextGenerator gen(5);
    for (int round = 0; round < 200; ++round) {
        const std::string a = gen.next(gen.step() % static_cast<unsigned>(std::min(n, 8) + 1), "aAbB");
        const std::string b = gen.next(gen.step() % static_cast<unsigned>(std::min(n, 8) + 1), "aAbB");
        const S sa = make<S>(a), sb = make<S>(b);
        ASSERT_EQ(sign(sa.compare(sb)), sign(kttest::upper(a).compare(kttest::upper(b)))) << a << " / " << b;
        ASSERT_EQ(sa < sb, a < b) << a << " / " << b;
        ASSERT_EQ(sa > sb, a > b) << a << " / " << b;
        ASSERT_EQ(sa == sb, a == b) << a << " / " << b;
        ASSERT_EQ(sa.isEqual(sb), kttest::upper(a) == kttest::upper(b)) << a << " / " << b;
    }
}

TYPED_TEST(StringTemplate, EqualityForms)
{
    using S = TypeParam;
    const S s = make<S>("abc");
    EXPECT_TRUE(s == make<S>("abc"));
    EXPECT_FALSE(s == make<S>("ABC"));
    EXPECT_TRUE(s != make<S>("ab"));
    EXPECT_TRUE(s == "abc");
    EXPECT_FALSE(s == "abcd");
    EXPECT_FALSE(s == static_cast<const char*>(nullptr));
    EXPECT_TRUE(s.isEqual(make<S>("ABC")));
    EXPECT_TRUE(s.isEqual("ABCxyz", 3));
    EXPECT_FALSE(s.isEqual("ABC", 2));  // the count must be the length
    EXPECT_FALSE(s.isEqual(static_cast<const char*>(nullptr), 3));
    EXPECT_TRUE(s.isEqualSameCase(make<S>("abc")));
    EXPECT_TRUE(s.isEqualSameCase("abc", 3));
    EXPECT_FALSE(s.isEqualSameCase("aBc", 3));
    EXPECT_TRUE(s.isEqualUpperCaseInput(make<S>("ABC")));
    EXPECT_FALSE(s.isEqualUpperCaseInput(make<S>("abc")));
    EXPECT_TRUE(make<S>("AbC").isEqualLowerCaseInput(make<S>("abc")));
    EXPECT_FALSE(make<S>("AbC").isEqualLowerCaseInput(make<S>("ABC")));
}

struct AffixCase {
    const char* text;
    const char* affix;
    bool startsWith;      // ignoring case
    bool startsCaseSen;
    bool endsWith;        // ignoring case
};

TYPED_TEST(StringTemplate, PrefixAndSuffixTable)
{
    using S = TypeParam;
    const AffixCase cases[] = {
        {"abcdef", "ABC", true, false, false}, {"abcdef", "abc", true, true, false}, {"abcdef", "DEF", false, false, true},
        {"abcdef", "", false, false, false},    {"", "a", false, false, false},       {"abc", "abcd", false, false, false},
        {"abc", "abc", true, true, true},       {"abc", "x", false, false, false},
    };
    for (const auto& c : cases) {
        const S s = make<S>(c.text);
        EXPECT_EQ(s.startsWith(c.affix), c.startsWith) << c.text << " / " << c.affix;
        EXPECT_EQ(s.startsWith(make<S>(c.affix)), c.startsWith) << c.text << " / " << c.affix;
        EXPECT_EQ(s.startsWithCaseSen(c.affix), c.startsCaseSen) << c.text << " / " << c.affix;
        EXPECT_EQ(s.startsWithCaseSen(make<S>(c.affix)), c.startsCaseSen) << c.text << " / " << c.affix;
        EXPECT_EQ(s.endsWith(c.affix), c.endsWith) << c.text << " / " << c.affix;
        EXPECT_EQ(s.endsWith(make<S>(c.affix)), c.endsWith) << c.text << " / " << c.affix;
    }
    const S s = make<S>("abcdef");
    EXPECT_FALSE(s.startsWith(static_cast<const char*>(nullptr)));
    EXPECT_FALSE(s.endsWith(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(s.startsWith("ABx", 2));
    EXPECT_FALSE(s.startsWith("ABx", 3));
    // The count only gates the test; the whole argument is compared.
    EXPECT_TRUE(s.endsWith("def", 1));
    EXPECT_FALSE(s.endsWith("def", 0));
    EXPECT_FALSE(s.endsWith("def", 7));
    EXPECT_FALSE(s.endsWith("xyz", 3));
    EXPECT_TRUE(s.startsWith(unit<S>('a')));
    EXPECT_FALSE(s.startsWith(unit<S>('A')));
    EXPECT_TRUE(s.endsWith(unit<S>('f')));
    EXPECT_FALSE(S().startsWith(unit<S>('\0')));
    EXPECT_FALSE(S().endsWith(unit<S>('\0')));
}

// ---- changing in place ---------------------------------------------------------

TYPED_TEST(StringTemplate, TrimTable)
{
    using S = TypeParam;
    const std::pair<std::string, std::string> cases[] = {
        {"\t a b\n", "a b"}, {"   ", ""}, {"", ""}, {"x", "x"}, {"\r\nx", "x"}, {std::string("a\0\0", 3), "a"},
        {"\va\v", "\va\v"},  // a vertical tab is not stripped
        {"a  b", "a  b"},
    };
    for (const auto& c : cases) {
        S s = make<S>(c.first);
        s.trim();
        EXPECT_EQ(str(s), c.second);
        EXPECT_TRUE(terminated(s));
    }
}

TYPED_TEST(StringTemplate, FoldingCase)
{
    using S = TypeParam;
    S s = make<S>("aBc-9z");
    s.makeUpper();
    EXPECT_EQ(str(s), "ABC-9Z");
    s.makeLower();
    EXPECT_EQ(str(s), "abc-9z");
    s.replace(unit<S>('B'), unit<S>('#'));  // matches ignoring case
    EXPECT_EQ(str(s), "a#c-9z");
}

struct ReplaceCase {
    const char* text;
    const char* from;
    const char* to;
    const char* ignoringCase;
    const char* exact;
};

TYPED_TEST(StringTemplate, ReplaceTable)
{
    using S = TypeParam;
    const ReplaceCase cases[] = {
        {"aXbxc", "x", "--", "a--b--c", "aXb--c"},
        {"aaa", "a", "aa", "aaaaaa", "aaaaaa"},  // the replacement is not searched again
        {"AbAB", "ab", "x", "xx", "AbAB"},
        {"abc", "", "x", "abc", "abc"},
        {"abc", "abc", "", "", ""},
        {"abab", "b", "", "aa", "aa"},
    };
    for (const auto& c : cases) {
        S s = make<S>(c.text);
        s.replace(make<S>(c.from), make<S>(c.to));
        EXPECT_EQ(str(s), std::string(c.ignoringCase).substr(0, capacity<S>)) << c.text;
        S t = make<S>(c.text);
        t.replaceCaseSen(make<S>(c.from), make<S>(c.to));
        EXPECT_EQ(str(t), std::string(c.exact).substr(0, capacity<S>)) << c.text;
    }
}

TYPED_TEST(StringTemplate, ReplaceAgreesWithReplaceAll)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    TextGenerator gen(99);
    for (int round = 0; round < 150; ++round) {
        const std::string text = gen.next(gen.step() % static_cast<unsigned>(std::min(n, 12) + 1));
        const std::string from = gen.next(1 + gen.step() % 2);
        const std::string to = gen.next(gen.step() % 3, "xyAB");
        const std::string expected = kttest::replaceAll(text, from, to, true);
        if (static_cast<int>(expected.size()) > n) continue;  // cut texts: see the table
        S s = make<S>(text);
        s.replace(make<S>(from), make<S>(to));
        ASSERT_EQ(str(s), expected) << text << " '" << from << "' -> '" << to << "'";
        S r = make<S>(text);
        r.removeCaseSens(make<S>(from));
        ASSERT_EQ(str(r), kttest::replaceAll(text, from, "", false)) << text << " remove " << from;
    }
}

TYPED_TEST(StringTemplate, ReplaceThatOverflowsCutsBeforeSearchingOn)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    // "ab" + c...c + "ab", one short of full: the first replacement grows the
    // text by two, which cuts the second "ab" to "a" before it is reached.
    const std::string cs(n - 5, 'c');
    S s = make<S>("ab" + cs + "ab");
    s.replace(make<S>("ab"), make<S>("wxyz"));
    EXPECT_EQ(str(s), "wxyz" + cs + "a");
    EXPECT_TRUE(terminated(s));
}

TYPED_TEST(StringTemplate, RemoveForms)
{
    using S = TypeParam;
    S s = make<S>("aXbxc");
    s.remove(make<S>("x"));
    EXPECT_EQ(str(s), "abc");
    s = make<S>("aXbxc");
    s.removeCaseSens(make<S>("x"));
    EXPECT_EQ(str(s), "aXbc");
    s = make<S>("aaaaa");
    s.remove(make<S>("aa"));
    EXPECT_EQ(str(s), "a");
    s = make<S>("aAbA");
    const S copy = s.remove(unit<S>('a'));
    EXPECT_EQ(str(s), "b");
    EXPECT_EQ(str(copy), "b");
}

TYPED_TEST(StringTemplate, RemoveRangeAndInsertAgreeWithStdString)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
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
        const std::string what = filler<S>(n);
        S s = make<S>(base);
        s.insert(position, make<S>(what));
        std::string expected = base;
        expected.insert(std::min<size_t>(static_cast<size_t>(position), base.size()), what);
        EXPECT_EQ(str(s), expected.substr(0, n)) << position;
        EXPECT_TRUE(terminated(s));
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
    EXPECT_EQ(str(s.mid(0, 6)), "abcdef");
    EXPECT_EQ(str(s.mid(6, 0)), "");
    EXPECT_TRUE(terminated(s.mid(1, 2)));
}

struct DelimiterCase {
    const char* text;
    char delimiter;
    bool include;
    const char* left;
    const char* rest;  // what leftNCut leaves
};

TYPED_TEST(StringTemplate, LeftUpToADelimiterAndCutting)
{
    using S = TypeParam;
    const DelimiterCase cases[] = {
        {"k=val", '=', false, "k", "val"}, {"k=val", '=', true, "k=", "val"},
        {"abXde", 'x', false, "ab", "de"}, {"none", '=', false, "none", ""},
        {"xyz", 'x', true, "", "yz"},              // found at 0: the result is inverted
        {"xyz", 'x', false, "x", "yz"},
    };
    for (const auto& c : cases) {
        const S s = make<S>(c.text);
        EXPECT_EQ(str(s.left(unit<S>(c.delimiter), c.include)), c.left) << c.text;
        S cut = make<S>(c.text);
        EXPECT_EQ(str(cut.leftNCut(unit<S>(c.delimiter), c.include)), c.left) << c.text;
        EXPECT_EQ(str(cut), c.rest) << c.text;
    }
}
