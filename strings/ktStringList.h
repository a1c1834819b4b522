// _ktStringList: a growable list of 16-bit strings of capacity 500, kept in
// one flat heap block so that it can be handed over whole. Also the small
// number-to-text helpers bool2str, int2Str and float2Str.
//
// The list owns its block (calloc/realloc, released by the destructor) and
// copies items in and out whole; it never keeps pointers to callers'
// strings. Nothing throws: a failed allocation leaves the list empty.
#pragma once

#include <cstddef>

#include "strings/ktString16.h"
#include "strings/ktString8.h"

class _ktStringList {
public:
    _ktString<500>* items;  // exactly `count` items in use; null until first use
    int count;
    mutable char charBuffer[500];  // scratch of atAsChar, overwritten by each call

    _ktStringList();
    ~_ktStringList();
    // Items are large values in a raw block: copy with copyFrom.
    _ktStringList(const _ktStringList&) = delete;
    _ktStringList& operator=(const _ktStringList&) = delete;

    // Frees the block and empties the list.
    void init();
    // Item `index`; outside 0..count-1 the first slot of the block, which is
    // null for a list that never held anything. Do not dereference the
    // result of an empty list.
    _ktString<500>* at(int const& index) const;
    // Item `index` (the first slot when out of range) narrowed to its low 8
    // bits, at most 499 characters, in charBuffer; empty when there is none.
    char* atAsChar(int const& index) const;
    // Index of the first item equal to `item`, or -1.
    int find(_ktString<500> const& item, bool const& caseSensitive);
    // Index of the first item that contains `item`, or -1.
    int findContains(_ktString<500> const& item, bool const& caseSensitive);
    // Adds a copy at the end; with noDuplicates nothing happens when find()
    // already finds it. A failed allocation empties the list.
    void append(_ktString<500> const& item, bool const& noDuplicates, bool const& caseSensitive);
    // Puts a copy at `index`, moving later items up; an index at or past the
    // end appends, a negative one does nothing.
    void insert(int const& index, _ktString<500> const& item);
    // Removes item `index`; out of range does nothing. The block keeps its size.
    void removeAt(int const& index);
    // Replaces this list by a deep copy of `other`; empty if that fails.
    void copyFrom(_ktStringList const& other);
    // Stable bubble sort, case-insensitive.
    void sort(bool const& descending);
    // 'first' 'second' ... with a trailing space, cut at 1000 characters.
    _ktString8_allSize<1000> asString8();
};

static_assert(offsetof(_ktStringList, items) == 0, "_ktStringList::items");
static_assert(offsetof(_ktStringList, count) == 8, "_ktStringList::count");
static_assert(offsetof(_ktStringList, charBuffer) == 12, "_ktStringList::charBuffer");
static_assert(sizeof(_ktStringList) == 512, "_ktStringList size");

// "true"/"false" with asWord, else "1"/"0".
_ktString<500> bool2str(bool const& value, bool const& asWord);
// The value in decimal.
_ktString<25> int2Str(int const& value);
// Whole part, separator, then the fraction scaled by 10^decimals and rounded,
// zero-padded to `decimals` digits. The fraction never carries into the
// whole part (1.999 with 2 decimals reads "1.100") and keeps its own sign
// (-0.5 with 1 decimal reads "0.-5"); stored files hold such texts. Parts
// beyond the int range saturate; cut at 25 units.
_ktString<25> float2Str(float value, int const& decimals, unsigned short const& separator);

namespace kt {
// The list's allocation functions; replaceable to reach the out-of-memory paths.
struct StringListAllocator {
    void* (*allocateZeroed)(std::size_t count, std::size_t size);
    void* (*reallocate)(void* block, std::size_t size);
};
extern StringListAllocator stringListAllocator;
}  // namespace kt
