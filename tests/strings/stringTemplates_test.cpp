// Behaviour every string template shares: the cut at the capacity for every
// capacity the library builds, the rest at the smallest, a middle and the largest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <string>

#include "strings/ktStringLegacy.h"
#include "stringTestSupport.h"

using namespace kttest;

namespace {

// A type list joined from the capacity lists, so that every capacity built is tested.
template <class... T> struct List {};
template <class... A, class... B> List<A..., B...> operator+(List<A...>, List<B...>);
template <class L> struct AsTypes;
template <class... T> struct AsTypes<List<T...>> { using type = ::testing::Types<T...>; };
#define KT_ALL8(N) +List<_ktString8_allSize<N>>()
#define KT_ALL16(N) +List<_ktString<N>>()
#define KT_EVEN(N) +List<_ktString8_evenSize_old<N>>()
#define KT_UNEVEN(N) +List<_ktString8_UnevenSize_old<N>>()
#define KT_OLD16(N) +List<_ktString_old<N>>()
using EveryCapacity = AsTypes<decltype(List<>() KT_STRING8_CAPACITIES(KT_ALL8) KT_STRING8_CONVERSION_CAPACITIES(KT_ALL8)
    KT_STRING16_CAPACITIES(KT_ALL16) KT_STRING8_EVEN_OLD_CAPACITIES(KT_EVEN) KT_STRING8_UNEVEN_OLD_CAPACITIES(KT_UNEVEN)
        KT_STRING16_OLD_CAPACITIES(KT_OLD16))>::type;
using Boundaries = ::testing::Types<_ktString8_allSize<6>, _ktString8_allSize<250>, _ktString8_allSize<5000>,
    _ktString<10>, _ktString<2500>, _ktString8_evenSize_old<6>, _ktString8_UnevenSize_old<125>,
    _ktString8_evenSize_old<5000>, _ktString_old<10>, _ktString_old<2500>>;

template <class S>
class AtCapacity : public ::testing::Test {};
TYPED_TEST_SUITE(AtCapacity, EveryCapacity);
template <class S>
class StringTemplate : public ::testing::Test {};
TYPED_TEST_SUITE(StringTemplate, Boundaries);

int sign(int v) { return (v > 0) - (v < 0); }

// Left-to-right replacement of every non-overlapping occurrence.
std::string replaceAll(const std::string& text, const std::string& from, const std::string& to, bool ignoreCase)
{
    std::string out;
    size_t p = 0;
    for (int q; (q = find(text, from, p, ignoreCase)) >= 0; p = static_cast<size_t>(q) + from.size())
        out += text.substr(p, static_cast<size_t>(q) - p) + to;
    return out + text.substr(p);
}

}  // namespace

// Every writer cuts at N characters, not N-1, and a full string ignores
// appends; clear zeroes all N+1 characters, a C string and clearUnused those
// after the length; calcLength stops at a zero or at N; copies take the whole object.
TYPED_TEST(AtCapacity, WritersCutAtTheCapacity)
{
    using S = TypeParam;
    constexpr int n = capacity<S>;
    for (int len : {0, n - 1, n, n + 1}) {
        std::string text;  // neighbours differ, so that a shifted copy shows
        for (int i = 0; i < len; ++i) text += static_cast<char>('a' + i % 26);
        const S s(text.c_str());
        EXPECT_TRUE(str(s) == text.substr(0, n) && std::count(s.text, s.text + n + 1, 0) == n + 1 - s.length) << len;
        EXPECT_EQ(after(S(text.c_str(), len), [](S&) {}), text.substr(0, n));
        EXPECT_EQ(after(S("x"), [&](S& t) { t.add(text.c_str()); }), ("x" + text).substr(0, n));
        EXPECT_EQ(after(S("x"), [&](S& t) { t.insert(0, make<S>(text)); }), (text + "x").substr(0, n));
    }
    const std::string head(n - 3, 'h');
    EXPECT_EQ(after(make<S>(head), [](S& s) {
        s.add("0123");
        s += "x";
        s += unit<S>('y');
        s += make<S>("q");
        s.add("q", 1u);
    }), head + "012");
    auto c = unit<S>('z');
    S s;
    s.createCharString(c, n + 3);
    EXPECT_EQ(after(s, [](S&) {}), std::string(n, 'z'));
    s.text[n] = c;  // foreign data: no terminator in the storage
    s.calcLength();
    EXPECT_TRUE(s.length == n && s.text[n] == 0);
    s.text[2] = 0;
    s.calcLength();
    s.text[5] = c;
    const S copy(s);
    EXPECT_TRUE(s.length == 2 && std::memcmp(&copy, &s, sizeof(S)) == 0);
    s.clearUnused();
    EXPECT_TRUE(str(s) == "zz" && s.hasData() && std::count(s.text, s.text + n + 1, 0) == n - 1);
    s.setLength(static_cast<short>(n + 5));
    EXPECT_TRUE(s.length == n && s.text[n] == 0 && s.text[1] == c);
    s.setLength(-1);
    EXPECT_TRUE(s.length == 0 && s.text[0] == 0 && s.text[1] == c && s.isEmpty() && !s.hasData());
    s.clear();
    EXPECT_TRUE(s.length == 0 && std::count(s.text, s.text + n + 1, 0) == n + 1);
}

// Every edit. Padding: the C form keeps it within the capacity, the other lets
// the text fall off the end; a growing replacement is cut before the search
// goes on; left(delimiter) found at 0 is inverted; leftNCut cuts the delimiter off.
TYPED_TEST(StringTemplate, EditsGiveHandCheckedTexts)
{
    using S = TypeParam;
    const auto u = [](char c) { return unit<S>(c); };
    const std::string full(capacity<S> - 2, 'f'), cs(capacity<S> - 5, 'c');
    const auto cutAt = [](const char* text, char delimiter, bool include) {
        S s = make<S>(text);
        const S left = s.leftNCut(unit<S>(delimiter), include);
        return str(left) + "|" + str(s);
    };
    const std::pair<std::string, std::string> cases[] = {
        {after(make<S>("ab"), [](S& s) { s.add(static_cast<const char*>(nullptr), 3u); }), "ab"},
        {after(make<S>("ab"), [](S& s) { s.add("c\0d", 3u); }), std::string("abc\0d", 5)},
        {after(make<S>("ab"), [](S& s) { s = s + make<S>("c") + unit<S>('d'); }), "abcd"},
        {after(make<S>("ab"), [](S& s) { s = s.combined("c").combined(make<S>("d")); }), "abcd"},
        {after(make<S>("ab"), [](S& s) { s.add(s); s += s; }), std::string("abababab").substr(0, capacity<S>)},
        {after(S(), [](S& s) { s.addSpacingC("ab", 5); }), "ab   "},
        {after(S(), [](S& s) { s.addSpacing("ab", -5); }), "   ab"},
        {after(S(), [](S& s) { s.addSpacingC("abc", -2); s.addSpacing("", 0); }), "abc"},
        {after(S(), [](S& s) { s.addSpacing("abc", 2); s.addSpacingC("", 0); }), "abc"},
        {after(make<S>("x"), [](S& s) { s.addSpacingC(nullptr, 3); }), "x   "},
        {after(make<S>("x"), [](S& s) { s.addSpacing("", -2); }), "x  "},
        {after(make<S>(full), [](S& s) { s.addSpacingC("a", -5); }), full + " a"},
        {after(make<S>(full), [](S& s) { s.addSpacing("a", -5); }), full + "  "},
        {after(S(), [](S& s) { s.addNrSpacing(-42LL, static_cast<signed char>(-6)); }), "   -42"},
        {after(make<S>(" \t a b \r\n"), [](S& s) { s.trim(); }), "a b"},
        {after(make<S>(std::string("\0a\0\0", 4)), [](S& s) { s.trim(); }), "a"},
        {after(make<S>("  "), [](S& s) { s.trim(); }), ""},
        {after(make<S>("\va\v"), [](S& s) { s.trim(); }), "\va\v"},
        {after(make<S>("aBc-9z"), [](S& s) { s.makeUpper(); }), "ABC-9Z"},
        {after(make<S>("aBc-9z"), [](S& s) { s.makeLower(); s.replace(unit<S>('B'), unit<S>('#')); }), "a#c-9z"},
        {after(make<S>("aAbA"), [](S& s) { s = s.remove(unit<S>('a')); }), "b"},
        {after(make<S>("abc"), [](S& s) { s.replace(S(), make<S>("x")); }), "abc"},
        {after(make<S>("ab" + cs + "ab"), [](S& s) { s.replace(make<S>("ab"), make<S>("wxyz")); }), "wxyz" + cs + "a"},
        {after(make<S>("abcdef"), [](S& s) { s.remove(1, 2); }), "adef"},
        {after(make<S>("abcdef"), [](S& s) { s.remove(4, 9); }), "abcd"},
        {after(make<S>("abcdef"), [](S& s) { s.remove(6, 1); s.remove(0, 0); }), "abcdef"},
        {after(make<S>("abc"), [](S& s) { s.insert(1, make<S>("XY")); s.insert(40, make<S>("Z")); }), "aXYbcZ"},
        {after(make<S>("ab"), [](S& s) { s.insert(1, s); }), "aabb"},
        {after(make<S>("ab"), [](S& s) { s.replace(make<S>("b"), s); }), "aab"},
        {after(make<S>("ab"), [](S& s) { s.replace(s, make<S>("x")); }), "x"},
        {after(make<S>("ab"), [](S& s) { s.remove(s); }), ""},
        {str(make<S>("abcdef").left(4)) + str(make<S>("abcdef").left(-1)) + str(make<S>("ab").left(9)), "abcdab"},
        {str(make<S>("abcdef").mid(2, 3)) + "|" + str(make<S>("abcdef").mid(6, 0)), "cde|"},
        {str(make<S>("k=val").left(u('='), false)) + "|" + str(make<S>("k=val").left(u('='), true)), "k|k="},
        {str(make<S>("abXde").left(u('x'), false)) + "|" + str(make<S>("none").left(u('='), false)), "ab|none"},
        {str(make<S>("xyz").left(u('x'), true)) + "|" + str(make<S>("xyz").left(u('x'), false)), "|x"},
        {cutAt("k=val", '=', true), "k=|val"},
        {cutAt("none", '=', false), "none|"},
        {cutAt("xyz", 'x', false), "x|yz"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
}

// Searching, comparing, replacing and removing against std::string oracles,
// over texts where partial matches and equal character sums are frequent.
TYPED_TEST(StringTemplate, AgreesWithStdStringOracles)
{
    using S = TypeParam;
    std::minstd_rand gen(17);
    const auto text = [&](size_t length, const char* alphabet = "abAB") {
        std::string out;
        while (out.size() < length) out += alphabet[gen() % 4];
        return out;
    };
    for (int round = 0; round < 200; ++round) {
        const std::string hay = text(static_cast<size_t>(std::min(capacity<S>, 1 + round % 13)));
        const std::string other = text(gen() % 7);
        const std::string needle = round % 3 ? text(1 + gen() % 2) : hay.substr(gen() % hay.size());
        const std::string to = text(gen() % 3, "xyAB"), context = hay + " / " + needle + " / " + other + " / " + to;
        const S h = make<S>(hay), o = make<S>(other), nd = make<S>(needle);
        for (size_t start = 0; start <= hay.size(); ++start) {
            ASSERT_EQ(h.indexOf(nd, static_cast<int>(start)), find(hay, needle, start, true)) << context;
            ASSERT_EQ(h.indexOfCaseSen(nd, static_cast<int>(start)), find(hay, needle, start, false)) << context;
        }
        ASSERT_EQ(sign(h.compare(o)), sign(upper(hay).compare(upper(other)))) << context;
        ASSERT_TRUE((h < o) == (hay < other) && (h > o) == (hay > other) && (h == o) == (hay == other)) << context;
        ASSERT_TRUE(h.isEqual(o) == (upper(hay) == upper(other)) && (h != o) == (hay != other)) << context;
        if (static_cast<int>(replaceAll(hay, needle, to, true).size()) > capacity<S>) continue;
        ASSERT_EQ(after(h, [&](S& s) { s.replace(nd, make<S>(to)); }), replaceAll(hay, needle, to, true)) << context;
        ASSERT_EQ(after(h, [&](S& s) { s.replaceCaseSen(nd, make<S>(to)); }), replaceAll(hay, needle, to, false))
            << context;
        ASSERT_EQ(after(h, [&](S& s) { s.remove(nd); }), replaceAll(hay, needle, "", true)) << context;
        ASSERT_EQ(after(h, [&](S& s) { s.removeCaseSens(nd); }), replaceAll(hay, needle, "", false)) << context;
    }
    EXPECT_EQ(make<S>("ab").indexOf(S(), 0), -1);
}

// The needles are searched in order and the last one found wins, whatever
// its position; only a find at position 0 ends the search.
TYPED_TEST(StringTemplate, FirstOccurrenceLetsTheLastNeedleFoundWin)
{
    using S = TypeParam;
    const struct { const char *text, *a, *b; int expected, which; } cases[] = {
        {"xxbxa", "a", "b", 2, 1}, {"xbxa", "b", "a", 3, 1}, {"xxxxa", "a", "b", 4, 0},
        {"xxxx", "a", "b", -1, -1}, {"axb", "a", "b", 0, 0},  {"xbxA", "Q", "a", 3, 1},
    };
    int which = 99;
    for (const auto& c : cases) {
        EXPECT_EQ(make<S>(c.text).indexOfFirstOcc(make<S>(c.a), make<S>(c.b), &which), c.expected) << c.text;
        EXPECT_EQ(which, c.which) << c.text;
    }
    const S s = make<S>("cdab"), b = make<S>("b"), q = make<S>("q"), d = make<S>("d");
    EXPECT_TRUE(s.indexOfFirstOcc(b, make<S>("zz"), make<S>("a"), q, q, d, &which) == 1 && which == 5);
    EXPECT_EQ(s.indexOfFirstOcc(q, make<S>("C"), make<S>("a"), q, q, d, nullptr), 0);
}

// Hand-checked results. Forward searches start from 0 when the start lies
// outside the text, backward ones from the end, exactly; compareSameCase
// looks at the common length only, compare orders a prefix first; the
// *CaseInput forms fold this string only; affix tests are false for an empty
// string or affix, and a count only gates the test.
TYPED_TEST(StringTemplate, SearchCompareAndAffixResults)
{
    using S = TypeParam;
    const auto u = [](char c) { return unit<S>(c); };
    const auto m = [](const char* text) { return make<S>(text); };
    const char* null = nullptr;
    const S s = m("abcabc"), t = m("aAbA"), abc = m("abc"), e;
    const int cases[][2] = {
        {s.indexOf(u('b'), 2), 4}, {s.indexOf(u('b'), -1), 1}, {s.indexOf(u('b'), 6), 1}, {s.indexOf(u('B'), 0), 1},
        {s.indexOfCaseSen(u('B'), 0), -1}, {s.lastIndexOf(u('a'), -1), 3}, {s.lastIndexOf(u('a'), 2), 0},
        {s.lastIndexOf(u('a'), 99), 3}, {s.lastIndexOf(u('A'), -1), -1}, {e.lastIndexOf(u('a'), -1), -1},
        {t.count('A'), 3}, {t.countCaseSen('A'), 2}, {s.contains('C'), 1}, {s.contains(m("Ca")), 1},
        {s.contains(null), 0}, {s.containsCaseSen("BC"), 0}, {s.containsCaseSen("bcX", 2), 1},
        {s.containsCaseSen("bcX", 3), 0}, {s.containsCaseSen(m("ca")), 1}, {s.containsUpperCaseInput("BC"), 1},
        {s.containsUpperCaseInput(m("ca")), 0}, {abc.compare(m("abcd")) < 0, 1}, {m("ABC").compare(m("abd")) < 0, 1},
        {abc.compare(m("ABC")), 0}, {abc.compareSameCase(m("abcd")), 0}, {abc.compareSameCase(m("ABC")) > 0, 1},
        {abc == "abc", 1}, {abc == null, 0}, {abc.isEqual("ABCxyz", 3), 1}, {abc.isEqual("ABC", 2), 0},
        {abc.isEqual(null, 3), 0}, {abc.isEqualSameCase("aBc", 3), 0}, {abc.isEqualSameCase(m("abC")), 0},
        {abc.isEqualUpperCaseInput(m("ABC")), 1}, {abc.isEqualUpperCaseInput(abc), 0},
        {m("AbC").isEqualLowerCaseInput(abc), 1}, {m("AbC").isEqualLowerCaseInput(m("ABC")), 0},
        {s.startsWith("ABC"), 1}, {s.startsWith(m("ABC")), 1}, {s.startsWithCaseSen("ABC"), 0},
        {s.startsWithCaseSen(m("abc")), 1}, {s.startsWith(""), 0}, {s.startsWith(null), 0}, {e.startsWith("a"), 0},
        {abc.startsWith("abcd"), 0}, {s.startsWith("ABx", 2), 1}, {s.startsWith("ABx", 3), 0},
        {s.endsWith("BC"), 1}, {s.endsWith(m("BC")), 1}, {abc.endsWith(m("xabc")), 0}, {s.endsWith(null), 0},
        {s.endsWith("abc", 1), 1}, {s.endsWith("abc", 0), 0}, {s.endsWith("abc", 7), 0}, {s.endsWith("xyz", 3), 0},
        {s.startsWith(u('a')), 1}, {s.startsWith(u('A')), 0}, {s.endsWith(u('c')), 1}, {e.endsWith(u('\0')), 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i][0], cases[i][1]) << "case " << i;
}
