// _ktStringList against std::vector / std::stable_sort oracles, and the number-to-text helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "strings/ktStringList.h"
#include "stringTestSupport.h"

using Item = _ktString<500>;
using Names = std::vector<std::string>;

Names contents(const _ktStringList& list)
{
    Names out;
    for (int i = 0; i < list.count; ++i) out.push_back(kttest::str(*list.at(i)));
    return out;
}

void fill(_ktStringList& list, const Names& names)
{
    list.init();
    for (const auto& n : names) list.append(Item(n.c_str()), false, false);
}

// find compares whole items, findContains searches in them; append with noDuplicates skips what find reports.
TEST(KtStringList, FindAndDuplicates)
{
    _ktStringList list;
    EXPECT_TRUE(list.count == 0 && list.at(0) == nullptr && list.find(Item("a"), false) == -1);
    fill(list, {"ABC", "def", "hello world"});
    const struct { const char* needle; bool caseSensitive; int found, contains; } cases[] = {
        {"abc", false, 0, 0}, {"abc", true, -1, -1},   {"ABC", true, 0, 0},       {"DEF", false, 1, 1},
        {"de", false, -1, 1}, {"WORLD", false, -1, 2}, {"WORLD", true, -1, -1}, {"xyz", false, -1, -1},
    };
    for (const auto& c : cases) {
        const Item needle(c.needle);
        EXPECT_EQ(list.find(needle, c.caseSensitive), c.found) << c.needle << " " << c.caseSensitive;
        EXPECT_EQ(list.findContains(needle, c.caseSensitive), c.contains) << c.needle << " " << c.caseSensitive;
    }
    list.append(Item("abc"), true, false);
    list.append(Item("abc"), true, true);
    list.append(Item("ABC"), false, true);
    EXPECT_EQ(contents(list), (Names{"ABC", "def", "hello world", "abc", "ABC"}));
}

// A negative index does nothing, insert beyond the end appends; items of the list itself survive its growth.
TEST(KtStringList, InsertAndRemoveMatchAVector)
{
    const Names start{"a", "b", "c"};
    for (int index = -2; index <= 5; ++index) {
        _ktStringList list;
        fill(list, start);
        list.insert(index, Item("x"));
        Names expected = start;
        if (index >= 0) expected.insert(expected.begin() + std::min(index, 3), "x");
        EXPECT_EQ(contents(list), expected) << "insert at " << index;
        fill(list, start);
        list.removeAt(index);
        expected = start;
        if (index >= 0 && index < 3) expected.erase(expected.begin() + index);
        EXPECT_EQ(contents(list), expected) << "remove at " << index;
    }
    _ktStringList list;
    fill(list, {"first", "second"});
    list.append(*list.at(1), false, false);
    list.insert(0, *list.at(2));
    list.insert(list.count, *list.at(0));
    EXPECT_EQ(contents(list), (Names{"second", "first", "second", "second", "second"}));
}

// An index outside the list means the first item; atAsChar keeps at most 499 low bytes.
TEST(KtStringList, OutOfRangeIndexMeansTheFirstItem)
{
    _ktStringList list;
    Item wide("ab");
    wide.text[1] = 0x0142;
    list.append(wide, false, false);
    list.append(Item(std::string(500, 'q').c_str()), false, false);
    EXPECT_TRUE(list.at(-1) == list.at(0) && list.at(2) == list.at(0) && std::string(list.atAsChar(7)) == "aB");
    EXPECT_EQ(std::string(list.atAsChar(1)), std::string(499, 'q'));
}

// The bubble sort ignores case and never swaps equal items; copyFrom is a deep copy, of the list itself too.
TEST(KtStringList, StableCaseInsensitiveSortAndCopy)
{
    const Names names{"b", "B", "a", "A", "b", "ab", "AB", "Ab", "", "a", "_x", "~y", "zeta", "Alpha"};
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
    _ktStringList source, copy;
    fill(source, {"one", "two"});
    fill(copy, {"old"});
    copy.copyFrom(source);
    source.at(0)->add("!");
    copy.copyFrom(copy);
    EXPECT_EQ(contents(copy), (Names{"one", "two"}));
}

// Every item quoted and followed by a space, the whole cut at 1000 characters.
TEST(KtStringList, AsString8QuotesEveryItemAndCutsAt1000)
{
    _ktStringList list;
    EXPECT_STREQ(list.asString8().text, "");
    for (size_t first : {1u, 496u, 497u, 499u}) {
        const Names names{std::string(first, 'a'), std::string(first == 1 ? 0 : 499, 'b')};
        fill(list, names);
        std::string expected;
        for (const auto& n : names) expected += "'" + n + "' ";
        expected.resize(std::min<size_t>(expected.size(), 1000));
        const _ktString8_allSize<1000> text = list.asString8();
        EXPECT_TRUE(text.length == expected.size() && std::string(text.text) == expected) << first;
    }
}

// A failed allocation in copyFrom, append or insert leaves an empty, usable list.
TEST(KtStringList, FailedAllocationLeavesTheListEmpty)
{
    _ktStringList list, source;
    fill(list, {"a", "b"});
    fill(source, {"c"});
    const kt::StringListAllocator saved = kt::stringListAllocator;
    kt::stringListAllocator = {[](std::size_t, std::size_t) -> void* { return nullptr; },
                               [](void*, std::size_t) -> void* { return nullptr; }};
    list.copyFrom(source);
    EXPECT_EQ(list.count, 0);
    list.append(Item("c"), false, false);
    list.insert(0, Item("d"));
    EXPECT_TRUE(list.count == 0 && list.items == nullptr);
    kt::stringListAllocator = saved;
    list.append(Item("e"), false, false);
    EXPECT_EQ(contents(list), (Names{"e"}));
}

// float2Str keeps the fraction apart: no carry into the whole part, its own minus sign, a digit even for 0 decimals.
TEST(KtNumberText, BoolIntAndFloat)
{
    using kttest::str;
    const std::pair<std::string, std::string> cases[] = {
        {str(bool2str(true, false)), "1"},     {str(bool2str(false, false)), "0"},
        {str(bool2str(true, true)), "true"},   {str(bool2str(false, true)), "false"},
        {str(int2Str(INT_MIN)), "-2147483648"}, {str(int2Str(0)), "0"},
        {str(float2Str(3.25f, 2, '.')), "3.25"}, {str(float2Str(2.5f, 0, '.')), "2.1"},
        {str(float2Str(2.4f, 0, '.')), "2.0"},   {str(float2Str(-1.0f, -3, '.')), "-1.0"},
        {str(float2Str(1.999f, 2, '.')), "1.100"}, {str(float2Str(-0.5f, 1, '.')), "0.-5"},
        {str(float2Str(-2.25f, 2, ',')), "-2,-25"}, {str(float2Str(0.05f, 3, '.')), "0.050"},
        {str(float2Str(NAN, 1, '.')), "0.0"},     {str(float2Str(1e30f, 2, '.')), "2147483647.2147483647"},
        {str(float2Str(1.5f, 1000000000, '.')), "1." + std::string(23, '0')},  // zeros until the text is full
    };
    for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
    EXPECT_EQ(float2Str(7.0f, 3, 0x2022).text[1], 0x2022);
}
