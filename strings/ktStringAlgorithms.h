// Algorithms shared by every fixed-capacity string template.
//
// The string types are plain structures without a base class (hosts built
// separately share their layout), so the behaviour lives here once, as
// function templates over the character type, and the members of each
// template only hand over their length field, their characters and their
// capacity. Nothing here allocates.
#pragma once

#include <cstring>

namespace kt::text {

// A writable view of one string object: its length field, its N+1
// characters and the capacity N.
template <class Char>
struct Span {
    unsigned short& length;
    Char* text;
    int capacity;
};

// Writes the terminator at the current length.
template <class Char>
inline void terminate(Span<Char> s) { s.text[s.length] = 0; }

// Zeroes the length and all N+1 characters.
template <class Char>
inline void clearAll(Span<Char> s)
{
    s.length = 0;
    std::memset(s.text, 0, sizeof(Char) * (static_cast<size_t>(s.capacity) + 1));
}

// Zeroes text[length] through text[N].
template <class Char>
inline void clearUnused(Span<Char> s)
{
    std::memset(s.text + s.length, 0, sizeof(Char) * (static_cast<size_t>(s.capacity) + 1 - s.length));
}

// Room left before the capacity is reached.
template <class Char>
inline int room(Span<Char> s) { return s.capacity - s.length; }

// Appends up to `count` source elements converted by `widen`, cut at the
// capacity, and terminates.
template <class Char, class Source, class Widen>
inline void appendConverted(Span<Char> s, const Source* src, long long count, Widen widen)
{
    if (count > room(s)) count = room(s);
    for (long long i = 0; i < count; ++i) s.text[s.length + i] = widen(src[i]);
    s.length = static_cast<unsigned short>(s.length + count);
    terminate(s);
}

// Appends up to `count` characters of the same type, cut at the capacity.
template <class Char>
inline void append(Span<Char> s, const Char* src, long long count)
{
    appendConverted(s, src, count, [](Char c) { return c; });
}

// Replaces the text by up to `count` source elements converted by `widen`.
template <class Char, class Source, class Widen>
inline void assignConverted(Span<Char> s, const Source* src, long long count, Widen widen)
{
    s.length = 0;
    appendConverted(s, src, count, widen);
}

// Length of a NUL-terminated 8-bit text as the strings take it: modulo 65536.
inline int narrowLength(const char* src) { return static_cast<unsigned short>(std::strlen(src)); }

// setLength: negative gives 0, above the capacity gives the capacity; the
// terminator is written at the new length, other characters stay.
template <class Char>
inline void setLength(Span<Char> s, short newLength)
{
    int n = newLength < 0 ? 0 : newLength;
    if (n > s.capacity) n = s.capacity;
    s.length = static_cast<unsigned short>(n);
    terminate(s);
}

}  // namespace kt::text
