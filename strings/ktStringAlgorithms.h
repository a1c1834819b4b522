// Algorithms shared by every fixed-capacity string template.
//
// The string types are plain structures without a base class (hosts built
// separately share their layout), so the behaviour lives here once, written
// over the character type (char or 16-bit unit) and a view of one object's
// length and characters. The members of each template only hand over their
// fields. Nothing here allocates, and nothing reads outside the views given.
//
// The function templates are defined in ktStringAlgorithms.cpp and built
// there for char and unsigned short only.
#pragma once

#include <cctype>
#include <cstring>
#include <type_traits>

struct _ktString8_Uni_pointer;
struct _ktString_Uni_pointer;

namespace kt::text {

// A writable view of one string object: its length field, its N+1
// characters and the capacity N.
template <class Char>
struct Span {
    unsigned short& length;
    Char* text;
    int capacity;
};

// A read-only run of characters; `text` may be null only when `length` is 0.
template <class Char>
struct View {
    const Char* text;
    long long length;
};

// How a search or comparison treats letter case.
enum class Match {
    exact,        // byte for byte
    folded,       // both sides folded to upper case
    foldHayOnly,  // only the searched string folded to upper case; the needle as given
    lowerHayOnly, // only the searched string folded to lower case (comparisons only)
};

// Case folding of one character. Only ASCII letters change, so bytes above
// 127 (negative chars) and units above 127 never reach toupper/tolower.
inline char upper(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    return u < 128 ? static_cast<char>(std::toupper(u)) : c;
}
inline char lower(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    return u < 128 ? static_cast<char>(std::tolower(u)) : c;
}
inline unsigned short upper(unsigned short c)
{
    return c < 128 ? static_cast<unsigned short>(std::toupper(c)) : c;
}
inline unsigned short lower(unsigned short c)
{
    return c < 128 ? static_cast<unsigned short>(std::tolower(c)) : c;
}

// A byte widened to a 16-bit unit: as a signed char (0xE9 -> 0xFFE9) or as
// an unsigned one (0xE9 -> 0x00E9). Both are in use, by different members.
inline unsigned short widenSigned(char c) { return static_cast<unsigned short>(static_cast<signed char>(c)); }
inline unsigned short widenUnsigned(char c) { return static_cast<unsigned char>(c); }

// Length of a NUL-terminated text as the strings take it: modulo 65536.
inline long long textLength(const char* src) { return src ? static_cast<unsigned short>(std::strlen(src)) : 0; }

// The view of a NUL-terminated 8-bit text (empty for null).
inline View<char> textView(const char* src) { return {src, textLength(src)}; }

// The character type and capacity of any of the string templates.
template <class S>
using CharOf = std::remove_cv_t<std::remove_extent_t<decltype(S::text)>>;
template <class S>
constexpr int capacityOf = static_cast<int>(std::extent_v<decltype(S::text)>) - 1;

// The writable view of a string object.
template <class S>
Span<CharOf<S>> spanOf(S& s) { return {s.length, s.text, capacityOf<S>}; }

// The characters in use. A length beyond the capacity (which a narrowing
// conversion leaves on purpose) is read as the capacity.
template <class S>
View<CharOf<S>> viewOf(const S& s)
{
    return {s.text, s.length <= capacityOf<S> ? s.length : capacityOf<S>};
}

// `text` itself when a 0 ends it within its N+1 characters, else a copy
// of its first N characters in `scratch` (N+1 elements), terminated.
const char* terminated(const char* text, int capacity, char* scratch);

// Number of units before the first 0 unit, counting at most 1024.
int unitLength(const unsigned short* src);

// The length and characters of a string reached through its opaque handle.
View<char> uniView(const _ktString8_Uni_pointer* source);
View<unsigned short> uniView(const _ktString_Uni_pointer* source);

// ---- storage ---------------------------------------------------------------

// Zeroes the length and all N+1 characters.
template <class Char> void clearAll(Span<Char> s);
// Zeroes text[length] through text[N].
template <class Char> void clearUnused(Span<Char> s);
// Writes the terminator at the current length.
template <class Char> void terminate(Span<Char> s);
// Negative gives 0, above the capacity gives the capacity; terminates there.
template <class Char> void setLength(Span<Char> s, int newLength);
// Length := position of the first 0 among the first N characters, else N.
template <class Char> void calcLength(Span<Char> s);

// ---- writing ---------------------------------------------------------------

// Replaces the text by as much of `src` as fits, and terminates.
template <class Char> void assign(Span<Char> s, View<Char> src);
// Appends as much of `src` as fits, and terminates. `src` may overlap `s`.
template <class Char> void append(Span<Char> s, View<Char> src);
// Appends `count` copies of `c`, cut at the capacity.
template <class Char> void appendRepeated(Span<Char> s, Char c, long long count);
// Appends 8-bit text widened to units, signed or unsigned.
void appendWidened(Span<unsigned short> s, View<char> src, bool asSigned);
// 8-bit text widened as signed chars into `buffer` (capacity units) so
// that it can be matched against a string of that capacity. Longer text
// can match nothing there: its view has length -1, which every search and
// comparison treats as not found / not equal.
View<unsigned short> widenForMatch(View<char> src, unsigned short* buffer, int capacity);
// Appends units narrowed to their low 8 bits.
void appendNarrowed(Span<char> s, View<unsigned short> src);
// Padded append: right-aligned for a negative width, left-aligned for a
// positive one. `limitPadding` keeps the padding within the capacity; without
// it the caller promises that length + |width| fits (the text is cut if not).
template <class Char>
void appendPadded(Span<Char> s, View<Char> text, long long width, bool limitPadding);

// Appends "%lld" of `value`; with digits > 0 zeros go in front (in front of
// a minus sign too) until the formatted text and the zeros reach `digits`.
void appendSigned(Span<char> s, long long value, int digits);
// Appends "%llu" of `value`.
void appendUnsigned(Span<char> s, unsigned long long value);
// Appends `value` in upper-case hexadecimal, at least `width` digits; with
// keepLast > 0 only the last `keepLast` digits of that text.
void appendHex(Span<char> s, unsigned long long value, int width, int keepLast);

// ---- searching -------------------------------------------------------------

// Forward search for one character; a start outside 0..length-1 becomes 0.
template <class Char> int findChar(View<Char> s, Char c, int start, Match match);
// Exact backward search; a start outside 0..length-1 becomes length-1.
template <class Char> int findLastChar(View<Char> s, Char c, int start);
template <class Char> int countChar(View<Char> s, Char c, Match match);
// Substring search from `start` with the rolling sum; -1 when not found
// and for an empty needle.
template <class Char> int findText(View<Char> hay, View<Char> needle, int start, Match match);
// The case-insensitive search for each needle in turn; see indexOfFirstOcc.
template <class Char>
int firstOccurrence(View<Char> hay, const View<Char>* needles, int count, int* which);

// ---- comparing -------------------------------------------------------------

// Same length and the same characters.
template <class Char> bool equal(View<Char> a, View<Char> b, Match match);
// First characters, then lengths, then all characters, exactly.
template <class Char> bool equalStrings(View<Char> a, View<Char> b);
// Case-insensitive three-way comparison; a shorter prefix is smaller.
template <class Char> int compareFolded(View<Char> a, View<Char> b);
// Byte comparison of the first min(lengths) characters only.
template <class Char> int compareBytes(View<Char> a, View<Char> b);
// Unsigned byte order; on a tie the shorter is the smaller.
template <class Char> bool lessBytes(View<Char> a, View<Char> b);
// Prefix / suffix tests; false for an empty string, an empty affix or an
// affix longer than the string.
template <class Char> bool startsWith(View<Char> s, View<Char> prefix, Match match);
template <class Char> bool endsWith(View<Char> s, View<Char> suffix, Match match);
// Every character a digit, or '-' at index 0 (the empty text passes).
template <class Char> bool isDecimal(View<Char> s);

// ---- changing in place -----------------------------------------------------

// Strips zero bytes, blanks, tabs, CR and LF at the end, then at the start.
template <class Char> void trim(Span<Char> s);
template <class Char> void fold(Span<Char> s, bool toUpper);
// Every character equal to `from` case-insensitively becomes `to`.
template <class Char> void replaceChar(Span<Char> s, Char from, Char to);
// Replaces every occurrence of `from` by `to`; the replacement is never
// searched again. Neither view may point into `s`.
template <class Char> void replaceText(Span<Char> s, View<Char> from, View<Char> to, Match match);
// Removes every case-insensitive occurrence of one character.
template <class Char> void removeChar(Span<Char> s, Char c);
// Keeps text[0..start) and text[start+count..length); out-of-range parts are ignored.
template <class Char> void removeRange(Span<Char> s, long long start, long long count);
// Head + `what` + tail, cut at the capacity; `what` may not point into `s`.
template <class Char> void insert(Span<Char> s, long long position, View<Char> what);

// How many characters left(delimiter, includeDelimiter) keeps, or -1 when
// the delimiter is absent (the whole string). Found at 0 the answer is
// inverted: 0 with the delimiter included, 1 without.
template <class Char> int leftLength(View<Char> s, Char delimiter, bool includeDelimiter);

// The view of `count` characters from `start`, clamped to the text.
template <class Char> View<Char> midView(View<Char> s, long long start, long long count);

}  // namespace kt::text
