#include "strings/ktStringList.h"

#include <cfloat>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

kt::StringListAllocator kt::stringListAllocator = {std::calloc, std::realloc};

namespace {

using Item = _ktString<500>;

// Float to int, truncating toward zero and saturating instead of overflowing.
int truncatedInt(double v)
{
    if (v != v) return 0;
    if (v >= 2147483648.0) return INT_MAX;
    if (v <= -2147483649.0) return INT_MIN;
    return static_cast<int>(v);
}

}  // namespace

_ktStringList::_ktStringList() : items(nullptr), count(0) { init(); }

_ktStringList::~_ktStringList() { std::free(items); }

void _ktStringList::init()
{
    std::free(items);
    items = nullptr;
    count = 0;
    std::memset(charBuffer, 0, sizeof charBuffer);
}

_ktString<500>* _ktStringList::at(int const& index) const
{
    if (index < 0 || index >= count) return items;
    return items + index;
}

char* _ktStringList::atAsChar(int const& index) const
{
    const Item* item = at(index);
    const int length = item ? (item->length < 499 ? item->length : 499) : 0;
    for (int i = 0; i < length; ++i) charBuffer[i] = static_cast<char>(item->text[i] & 0xFF);
    charBuffer[length] = 0;
    return charBuffer;
}

int _ktStringList::find(_ktString<500> const& item, bool const& caseSensitive)
{
    for (int i = 0; i < count; ++i)
        if (caseSensitive ? items[i] == item : items[i].isEqual(item)) return i;
    return -1;
}

int _ktStringList::findContains(_ktString<500> const& item, bool const& caseSensitive)
{
    for (int i = 0; i < count; ++i)
        if ((caseSensitive ? items[i].indexOfCaseSen(item, 0) : items[i].indexOf(item, 0)) >= 0) return i;
    return -1;
}

void _ktStringList::append(_ktString<500> const& item, bool const& noDuplicates, bool const& caseSensitive)
{
    if (noDuplicates && find(item, caseSensitive) >= 0) return;
    const Item copy = item;  // `item` may live in the block that is about to move
    void* grown = kt::stringListAllocator.reallocate(items, sizeof(Item) * (static_cast<std::size_t>(count) + 1));
    if (!grown) {
        init();
        return;
    }
    items = static_cast<Item*>(grown);
    new (items + count) Item(copy);
    ++count;
}

void _ktStringList::insert(int const& index, _ktString<500> const& item)
{
    if (index < 0) return;
    const int position = index;  // `index` may refer into this list too
    append(item, false, false);
    if (count == 0 || position >= count - 1) return;
    const Item added = items[count - 1];
    for (int i = count - 1; i > position; --i) items[i] = items[i - 1];
    items[position] = added;
}

void _ktStringList::removeAt(int const& index)
{
    if (index < 0 || index >= count) return;
    for (int i = index; i < count - 1; ++i) items[i] = items[i + 1];
    --count;
}

void _ktStringList::copyFrom(_ktStringList const& other)
{
    if (&other == this) return;
    init();
    if (other.count <= 0) return;
    void* block = kt::stringListAllocator.allocateZeroed(static_cast<std::size_t>(other.count), sizeof(Item));
    if (!block) return;
    items = static_cast<Item*>(block);
    for (int i = 0; i < other.count; ++i) new (items + i) Item(other.items[i]);
    count = other.count;
}

void _ktStringList::sort(bool const& descending)
{
    // count-1 passes without an early exit; equal neighbours never swap.
    for (int pass = 0; pass < count - 1; ++pass) {
        for (int i = 0; i < count - 1 - pass; ++i) {
            const int order = items[i].compare(items[i + 1]);
            if (descending ? order < 0 : order > 0) {
                const Item held = items[i];
                items[i] = items[i + 1];
                items[i + 1] = held;
            }
        }
    }
}

_ktString8_allSize<1000> _ktStringList::asString8()
{
    _ktString8_allSize<1000> out;
    for (int i = 0; i < count; ++i) {
        out += '\'';
        for (int u = 0; u < items[i].length; ++u) out += items[i].text[u];
        out.add("' ");
    }
    return out;
}

_ktString<500> bool2str(bool const& value, bool const& asWord)
{
    if (asWord) return _ktString<500>(value ? "true" : "false");
    return _ktString<500>(value ? "1" : "0");
}

_ktString<25> int2Str(int const& value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    return _ktString<25>(text);
}

_ktString<25> float2Str(float value, int const& decimals, unsigned short const& separator)
{
    // Single precision throughout, as the stored texts were made.
    float scale = 1.0f;
    for (int i = 0; i < decimals && scale <= FLT_MAX; ++i) scale *= 10.0f;
    const int whole = truncatedInt(value);
    const float fraction = (value - static_cast<float>(whole)) * scale;

    char text[16];
    std::snprintf(text, sizeof text, "%d", whole);
    _ktString<25> result(text);
    const int digits = truncatedInt(fraction < 0 ? fraction - 0.5 : fraction + 0.5);
    std::snprintf(text, sizeof text, "%d", digits);
    if (result.length < 25) result += separator;
    for (int shown = static_cast<int>(std::strlen(text)); shown < decimals && result.length < 25; ++shown) result.add("0");
    result.add(text);
    return result;
}
