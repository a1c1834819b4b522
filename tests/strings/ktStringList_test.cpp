// _ktStringList against std::vector / std::stable_sort oracles, its
// out-of-memory paths, and the number-to-text helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <climits>
#include <string>
#include <vector>

#include "strings/ktStringList.h"
#include "stringTestSupport.h"

namespace {

using Item = _ktString<500>;
using Names = std::vector<std::string>;

template <int N>
std::u16string units(const _ktString<N>& s)
{
    return std::u16string(s.text, s.text + s.length);
}

std::string narrow(const Item& s)
{
    std::string out;
    for (int i = 0; i < s.length; ++i) out += static_cast<char>(s.text[i]);
    return out;
}

Names contents(const _ktStringList& list)
{
    Names out;
    for (int i = 0; i < list.count; ++i) out.push_back(narrow(*list.at(i)));
    return out;
}

void fill(_ktStringList& list, const Names& names)
{
    list.init();
    for (const auto& n : names) list.append(Item(n.c_str()), false, false);
}

TEST(KtStringList, EmptyListHasNoItems)
{
    _ktStringList list;
    list.removeAt(0);
    list.sort(false);
    EXPECT_TRUE(list.count == 0 && list.at(0) == nullptr && list.find(Item("a"), false) == -1);
    EXPECT_STREQ(list.atAsChar(3), "");
    EXPECT_STREQ(list.asString8().text, "");
}

// find compares whole items, findContains searches in them; with
// noDuplicates, append skips an item find would report.
TEST(KtStringList, FindAndDuplicates)
{
    _ktStringList list;
    fill(list, {"ABC", "def", "hello world"});
    const struct { const char* needle; bool caseSensitive; int found, contains; } cases[] = {
        {"abc", false, 0, 0}, {"abc", true, -1, -1}, {"ABC", true, 0, 0},  {"DEF", false, 1, 1},
        {"de", false, -1, 1}, {"WORLD", false, -1, 2}, {"WORLD", true, -1, -1}, {"xyz", false, -1, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(list.find(Item(c.needle), c.caseSensitive), c.found) << c.needle << " " << c.caseSensitive;
        EXPECT_EQ(list.findContains(Item(c.needle), c.caseSensitive), c.contains) << c.needle << " " << c.caseSensitive;
    }
    list.append(Item("abc"), true, false);
    EXPECT_EQ(list.count, 3);
    list.append(Item("abc"), true, true);
    list.append(Item("ABC"), false, true);
    EXPECT_EQ(contents(list), (Names{"ABC", "def", "hello world", "abc", "ABC"}));
}

// A negative index does nothing; insert at or beyond the end appends.
TEST(KtStringList, InsertAndRemoveMatchAVector)
{
    const Names start{"a", "b", "c"};
    for (int index = -2; index <= 5; ++index) {
        _ktStringList list;
        fill(list, start);
        list.insert(index, Item("x"));
        Names expected = start;
        if (index >= 0) expected.insert(expected.begin() + std::min<size_t>(index, expected.size()), "x");
        EXPECT_EQ(contents(list), expected) << "insert at " << index;

        fill(list, start);
        list.removeAt(index);
        expected = start;
        if (index >= 0 && index < 3) expected.erase(expected.begin() + index);
        EXPECT_EQ(contents(list), expected) << "remove at " << index;
    }
}

// Items passed from the list itself survive its growth.
TEST(KtStringList, ItemsFromTheListItselfSurviveGrowth)
{
    _ktStringList list;
    fill(list, {"first", "second"});
    list.append(*list.at(1), false, false);
    list.insert(0, *list.at(2));
    list.insert(list.count, *list.at(0));
    EXPECT_EQ(contents(list), (Names{"second", "first", "second", "second", "second"}));
}

// An index outside the list means the first item; atAsChar narrows to the
// low byte and keeps at most 499 characters.
TEST(KtStringList, OutOfRangeIndexMeansTheFirstItem)
{
    _ktStringList list;
    Item wide("ab");
    wide.text[1] = 0x0142;  // narrowed to its low byte 'B'
    list.append(wide, false, false);
    list.append(Item("z"), false, false);
    EXPECT_TRUE(list.at(-1) == list.at(0) && list.at(2) == list.at(0));
    EXPECT_STREQ(list.atAsChar(7), "aB");
    EXPECT_STREQ(list.atAsChar(1), "z");

    Item longest;
    for (int i = 0; i < 500; ++i) longest.add("q");
    list.insert(0, longest);
    EXPECT_EQ(std::string(list.atAsChar(0)), std::string(499, 'q'));
}

// The bubble sort compares ignoring case and never swaps equal items, as a stable sort.
TEST(KtStringList, BubbleSortIsStableAndCaseInsensitive)
{
    const Names tables[] = {
        {"b", "A", "c"},
        {"b", "B", "a", "A", "b", "ab", "AB", "Ab", "", "a"},
        {"zeta", "Alpha", "alpha", "ALPHA", "beta", "Zeta", "al", "_x", "~y"},
    };
    for (const auto& names : tables) {
        for (bool descending : {false, true}) {
            _ktStringList list;
            fill(list, names);
            list.sort(descending);
            Names expected = names;
            std::stable_sort(expected.begin(), expected.end(), [&](const std::string& l, const std::string& r) {
                return descending ? kttest::upper(l) > kttest::upper(r) : kttest::upper(l) < kttest::upper(r);
            });
            EXPECT_EQ(contents(list), expected) << "descending " << descending;
        }
    }
}

// copyFrom replaces the list by a deep copy, of itself too.
TEST(KtStringList, CopyFromIsDeep)
{
    _ktStringList source, copy, empty;
    fill(source, {"one", "two"});
    fill(copy, {"old"});
    copy.copyFrom(source);
    source.at(0)->add("!");
    copy.copyFrom(copy);
    EXPECT_EQ(contents(copy), (Names{"one", "two"}));
    copy.copyFrom(empty);
    EXPECT_EQ(copy.count, 0);
}

// Every item quoted and followed by a space, the whole cut at 1000 characters.
TEST(KtStringList, AsString8QuotesEveryItemAndCutsAt1000)
{
    _ktStringList list;
    fill(list, {"x"});
    EXPECT_STREQ(list.asString8().text, "'x' ");

    for (size_t first : {496u, 497u, 499u}) {
        const Names names{std::string(first, 'a'), std::string(499, 'b'), std::string(10, 'c')};
        fill(list, names);
        std::string expected;
        for (const auto& n : names) expected += "'" + n + "' ";
        expected.resize(std::min<size_t>(expected.size(), 1000));
        const _ktString8_allSize<1000> text = list.asString8();
        EXPECT_TRUE(text.length == expected.size() && std::string(text.text) == expected) << first;
    }
}

struct FailingAllocation {
    FailingAllocation()
    {
        kt::stringListAllocator.allocateZeroed = [](std::size_t, std::size_t) -> void* { return nullptr; };
        kt::stringListAllocator.reallocate = [](void*, std::size_t) -> void* { return nullptr; };
    }
    ~FailingAllocation() { kt::stringListAllocator = saved; }
    kt::StringListAllocator saved = kt::stringListAllocator;
};

// A failed allocation in append, insert or copyFrom leaves an empty, usable list.
TEST(KtStringList, FailedAllocationLeavesTheListEmpty)
{
    _ktStringList list, source;
    fill(list, {"a", "b"});
    fill(source, {"c"});
    {
        FailingAllocation failing;
        list.append(Item("c"), false, false);
        EXPECT_TRUE(list.count == 0 && list.items == nullptr);
        list.insert(0, Item("d"));
        EXPECT_EQ(list.count, 0);
        fill(list, {"a"});
        list.copyFrom(source);
        EXPECT_EQ(list.count, 0);
    }
    list.append(Item("e"), false, false);  // usable again afterwards
    EXPECT_EQ(contents(list), (Names{"e"}));
}

TEST(KtNumberText, BoolAndInt)
{
    EXPECT_TRUE(units(bool2str(true, false)) == u"1" && units(bool2str(false, false)) == u"0");
    EXPECT_TRUE(units(bool2str(true, true)) == u"true" && units(bool2str(false, true)) == u"false");
    for (int v : {0, -1, INT_MAX, INT_MIN}) {
        const std::string s = std::to_string(v);
        EXPECT_EQ(units(int2Str(v)), std::u16string(s.begin(), s.end()));
    }
}

// No carry from the fraction into the whole part, the minus sign inside the
// fraction, a separator and one digit even for no decimals: as stored texts have it.
TEST(KtNumberText, FloatKeepsItsFractionApart)
{
    const struct { float value; int decimals; char16_t separator; const char16_t* text; } cases[] = {
        {3.25f, 2, '.', u"3.25"},   {2.5f, 0, '.', u"2.1"},   {2.4f, 0, '.', u"2.0"},  {-1.0f, -3, '.', u"-1.0"},
        {1.999f, 2, '.', u"1.100"}, {-0.5f, 1, '.', u"0.-5"}, {-2.25f, 2, ',', u"-2,-25"},
        {0.05f, 3, '.', u"0.050"},  {7.0f, 3, u'\u2022', u"7\u2022000"}, {NAN, 1, '.', u"0.0"},
    };
    for (const auto& c : cases) EXPECT_EQ(units(float2Str(c.value, c.decimals, c.separator)), c.text) << c.value << " " << c.decimals;

    // Many decimals: zeros until the text is full, never more than 25 units.
    const _ktString<25> padded = float2Str(1.5f, 1000000000, '.');
    EXPECT_EQ(units(padded), u"1." + std::u16string(23, u'0'));
    // Beyond the int range both parts saturate.
    EXPECT_EQ(units(float2Str(1e30f, 2, '.')), u"2147483647.2147483647");
}

}  // namespace
