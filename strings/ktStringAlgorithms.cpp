#include "strings/ktStringAlgorithms.h"

#include <cstdio>

namespace kt::text {

namespace {

inline long long minimum(long long a, long long b) { return a < b ? a : b; }

template <class Char>
View<Char> spanView(Span<Char> s) { return {s.text, s.length}; }

template <class Char>
long long room(Span<Char> s) { return s.capacity - s.length; }

// Copies `count` characters; a zero count never touches the pointers, which
// may then be null.
template <class Char>
void moveChars(Char* to, const Char* from, long long count)
{
    if (count > 0) std::memmove(to, from, sizeof(Char) * static_cast<size_t>(count));
}

// The value the rolling sum adds for one character: bytes count as signed.
inline long long sumValue(char c) { return static_cast<signed char>(c); }
inline long long sumValue(unsigned short c) { return c; }

template <class Char>
Char foldFor(Char c, Match match, bool isHay)
{
    if (match == Match::folded || (match == Match::foldHayOnly && isHay)) return upper(c);
    if (match == Match::lowerHayOnly && isHay) return lower(c);
    return c;
}

// Whether hay[at..at+needle.length) matches the needle.
template <class Char>
bool matchesAt(View<Char> hay, long long at, View<Char> needle, Match match)
{
    if (match == Match::exact)
        return std::memcmp(hay.text + at, needle.text, sizeof(Char) * static_cast<size_t>(needle.length)) == 0;
    for (long long i = 0; i < needle.length; ++i)
        if (foldFor(hay.text[at + i], match, true) != foldFor(needle.text[i], match, false)) return false;
    return true;
}

// Replaces `removeCount` characters at `at` by `insert`, as rebuilding the
// string from head, insert and tail with the truncating append would.
template <class Char>
void splice(Span<Char> s, long long at, long long removeCount, View<Char> insert)
{
    const long long tailStart = at + removeCount;
    const long long tailLength = s.length - tailStart;
    const long long inserted = minimum(insert.length, s.capacity - at);
    const long long tailKept = minimum(tailLength, s.capacity - at - inserted);
    moveChars(s.text + at + inserted, s.text + tailStart, tailKept);
    moveChars(s.text + at, insert.text, inserted);
    s.length = static_cast<unsigned short>(at + inserted + tailKept);
    terminate(s);
}

// A length beyond the capacity is cut back before the text is rebuilt.
template <class Char>
void normalize(Span<Char> s)
{
    if (s.length > s.capacity) s.length = static_cast<unsigned short>(s.capacity);
}

template <class Char>
bool isBlank(Char c) { return c == 0 || c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

const char* terminated(const char* text, int capacity, char* scratch)
{
    if (std::memchr(text, 0, static_cast<size_t>(capacity) + 1)) return text;
    std::memcpy(scratch, text, static_cast<size_t>(capacity));
    scratch[capacity] = 0;
    return scratch;
}

int unitLength(const unsigned short* src)
{
    int n = 0;
    while (n < 1024 && src[n] != 0) ++n;
    return n;
}

View<char> uniView(const _ktString8_Uni_pointer* source)
{
    if (!source) return {nullptr, 0};
    unsigned short length;
    std::memcpy(&length, source, sizeof length);
    return {reinterpret_cast<const char*>(source) + 2, length};
}

View<unsigned short> uniView(const _ktString_Uni_pointer* source)
{
    if (!source) return {nullptr, 0};
    unsigned short length;
    std::memcpy(&length, source, sizeof length);
    // The 16-bit layout: length, a reserved word, then the units.
    return {reinterpret_cast<const unsigned short*>(reinterpret_cast<const char*>(source) + 4), length};
}

// ---- storage ---------------------------------------------------------------

template <class Char>
void clearAll(Span<Char> s)
{
    s.length = 0;
    std::memset(s.text, 0, sizeof(Char) * (static_cast<size_t>(s.capacity) + 1));
}

template <class Char>
void clearUnused(Span<Char> s)
{
    if (s.length > s.capacity) return;
    std::memset(s.text + s.length, 0, sizeof(Char) * (static_cast<size_t>(s.capacity) + 1 - s.length));
}

template <class Char>
void terminate(Span<Char> s)
{
    // A length beyond the capacity only arrives from outside (a narrowed
    // conversion or a foreign object); never write past the storage.
    s.text[s.length <= s.capacity ? s.length : s.capacity] = 0;
}

template <class Char>
void setLength(Span<Char> s, int newLength)
{
    if (newLength < 0) newLength = 0;
    if (newLength > s.capacity) newLength = s.capacity;
    s.length = static_cast<unsigned short>(newLength);
    terminate(s);
}

template <class Char>
void calcLength(Span<Char> s)
{
    int n = 0;
    while (n < s.capacity && s.text[n] != 0) ++n;
    s.length = static_cast<unsigned short>(n);
    if (n == s.capacity) s.text[n] = 0;
}

// ---- writing ---------------------------------------------------------------

template <class Char>
void assign(Span<Char> s, View<Char> src)
{
    const long long count = minimum(src.length < 0 ? 0 : src.length, s.capacity);
    moveChars(s.text, src.text, count);
    s.length = static_cast<unsigned short>(count);
    terminate(s);
}

template <class Char>
void append(Span<Char> s, View<Char> src)
{
    normalize(s);
    const long long count = minimum(src.length < 0 ? 0 : src.length, room(s));
    moveChars(s.text + s.length, src.text, count);
    s.length = static_cast<unsigned short>(s.length + count);
    terminate(s);
}

template <class Char>
void appendRepeated(Span<Char> s, Char c, long long count)
{
    normalize(s);
    count = minimum(count < 0 ? 0 : count, room(s));
    for (long long i = 0; i < count; ++i) s.text[s.length + i] = c;
    s.length = static_cast<unsigned short>(s.length + count);
    terminate(s);
}

void appendWidened(Span<unsigned short> s, View<char> src, bool asSigned)
{
    normalize(s);
    const long long count = minimum(src.length < 0 ? 0 : src.length, room(s));
    for (long long i = 0; i < count; ++i)
        s.text[s.length + i] = asSigned ? widenSigned(src.text[i]) : widenUnsigned(src.text[i]);
    s.length = static_cast<unsigned short>(s.length + count);
    terminate(s);
}

View<unsigned short> widenForMatch(View<char> src, unsigned short* buffer, int capacity)
{
    if (src.length > capacity) return {nullptr, -1};
    for (long long i = 0; i < src.length; ++i) buffer[i] = widenSigned(src.text[i]);
    return {buffer, src.length < 0 ? 0 : src.length};
}

void appendNarrowed(Span<char> s, View<unsigned short> src)
{
    normalize(s);
    const long long count = minimum(src.length < 0 ? 0 : src.length, room(s));
    for (long long i = 0; i < count; ++i) s.text[s.length + i] = static_cast<char>(src.text[i] & 0xFF);
    s.length = static_cast<unsigned short>(s.length + count);
    terminate(s);
}

template <class Char>
void appendPadded(Span<Char> s, View<Char> text, long long width, bool limitPadding)
{
    if (text.length == 0 && width == 0) return;
    normalize(s);
    const long long space = room(s);
    const long long t = minimum(text.length, space);
    const long long magnitude = width < 0 ? -width : width;
    const long long pad = (limitPadding ? minimum(magnitude, space) : magnitude) - t;
    if (width < 0 && pad > 0) appendRepeated(s, static_cast<Char>(' '), pad);
    append(s, View<Char>{text.text, t});
    if (width > 0 && pad > 0) appendRepeated(s, static_cast<Char>(' '), pad);
    terminate(s);
}

void appendSigned(Span<char> s, long long value, int digits)
{
    char formatted[32];
    const int n = std::snprintf(formatted, sizeof formatted, "%lld", value);
    if (digits > n) appendRepeated(s, '0', digits - n);
    append(s, View<char>{formatted, n});
}

void appendUnsigned(Span<char> s, unsigned long long value)
{
    char formatted[32];
    const int n = std::snprintf(formatted, sizeof formatted, "%llu", value);
    append(s, View<char>{formatted, n});
}

void appendHex(Span<char> s, unsigned long long value, int width, int keepLast)
{
    char formatted[32];
    int n = std::snprintf(formatted, sizeof formatted, "%0*llX", width, value);
    const char* from = formatted;
    if (keepLast > 0 && n > keepLast) {
        from += n - keepLast;
        n = keepLast;
    }
    append(s, View<char>{from, n});
}

// ---- searching -------------------------------------------------------------

template <class Char>
int findChar(View<Char> s, Char c, int start, Match match)
{
    if (start < 0 || start >= s.length) start = 0;
    const Char wanted = foldFor(c, match, false);
    for (long long i = start; i < s.length; ++i)
        if (foldFor(s.text[i], match, true) == wanted) return static_cast<int>(i);
    return -1;
}

template <class Char>
int findLastChar(View<Char> s, Char c, int start)
{
    if (start < 0 || start >= s.length) start = static_cast<int>(s.length - 1);
    for (long long i = start; i >= 0; --i)
        if (s.text[i] == c) return static_cast<int>(i);
    return -1;
}

template <class Char>
int countChar(View<Char> s, Char c, Match match)
{
    const Char wanted = foldFor(c, match, false);
    int n = 0;
    for (long long i = 0; i < s.length; ++i)
        if (foldFor(s.text[i], match, true) == wanted) ++n;
    return n;
}

template <class Char>
int findText(View<Char> hay, View<Char> needle, int start, Match match)
{
    if (needle.length <= 0) return -1;
    if (start < 0) start = 0;
    if (needle.length + start > hay.length) return -1;
    if (needle.length == hay.length) return matchesAt(hay, 0, needle, match) ? 0 : -1;

    // Compare characters only where the sums of the window and the needle agree.
    long long needleSum = 0;
    long long windowSum = 0;
    for (long long i = 0; i < needle.length; ++i) {
        needleSum += sumValue(foldFor(needle.text[i], match, false));
        windowSum += sumValue(foldFor(hay.text[start + i], match, true));
    }
    const long long last = hay.length - needle.length;
    for (long long p = start; p <= last; ++p) {
        if (windowSum == needleSum && matchesAt(hay, p, needle, match)) return static_cast<int>(p);
        if (p < last)
            windowSum += sumValue(foldFor(hay.text[p + needle.length], match, true)) -
                         sumValue(foldFor(hay.text[p], match, true));
    }
    return -1;
}

template <class Char>
int firstOccurrence(View<Char> hay, const View<Char>* needles, int count, int* which)
{
    // The last needle found wins, whatever its position; only a find at
    // position 0 ends the search early.
    int result = 65535;
    if (which) *which = -1;
    for (int i = 0; i < count; ++i) {
        const int p = findText(hay, needles[i], 0, Match::folded);
        if (p == 0) {
            if (which) *which = i;
            return 0;
        }
        if (p > 0) {
            result = p;
            if (which) *which = i;
        }
    }
    return result == 65535 ? -1 : result;
}

// ---- comparing -------------------------------------------------------------

template <class Char>
bool equal(View<Char> a, View<Char> b, Match match)
{
    return a.length == b.length && (a.length == 0 || matchesAt(a, 0, b, match));
}

template <class Char>
bool equalStrings(View<Char> a, View<Char> b)
{
    return a.text[0] == b.text[0] && equal(a, b, Match::exact);
}

template <class Char>
int compareFolded(View<Char> a, View<Char> b)
{
    const long long m = minimum(a.length, b.length);
    for (long long i = 0; i < m; ++i) {
        const Char fa = upper(a.text[i]);
        const Char fb = upper(b.text[i]);
        if (fa != fb) return std::memcmp(&fa, &fb, sizeof(Char));  // memory order of the unit's bytes
    }
    if (a.length != b.length) return a.length < b.length ? -1 : 1;
    return 0;
}

template <class Char>
int compareBytes(View<Char> a, View<Char> b)
{
    const long long m = minimum(a.length, b.length);
    return m > 0 ? std::memcmp(a.text, b.text, sizeof(Char) * static_cast<size_t>(m)) : 0;
}

template <class Char>
bool lessBytes(View<Char> a, View<Char> b)
{
    const int r = compareBytes(a, b);
    return r != 0 ? r < 0 : a.length < b.length;
}

template <class Char>
bool startsWith(View<Char> s, View<Char> prefix, Match match)
{
    if (s.length == 0 || prefix.length <= 0 || prefix.length > s.length) return false;
    return matchesAt(s, 0, prefix, match);
}

template <class Char>
bool endsWith(View<Char> s, View<Char> suffix, Match match)
{
    if (s.length == 0 || suffix.length <= 0 || suffix.length > s.length) return false;
    return matchesAt(s, s.length - suffix.length, suffix, match);
}

template <class Char>
bool isDecimal(View<Char> s)
{
    for (long long i = 0; i < s.length; ++i) {
        const Char c = s.text[i];
        if (c >= '0' && c <= '9') continue;
        if (c == '-' && i == 0) continue;
        return false;
    }
    return true;
}

// ---- changing in place -----------------------------------------------------

template <class Char>
void trim(Span<Char> s)
{
    normalize(s);
    long long end = s.length;
    while (end > 0 && isBlank(s.text[end - 1])) --end;
    long long first = 0;
    while (first < end && isBlank(s.text[first])) ++first;
    moveChars(s.text, s.text + first, end - first);
    s.length = static_cast<unsigned short>(end - first);
    terminate(s);
}

template <class Char>
void fold(Span<Char> s, bool toUpper)
{
    for (long long i = 0; i < s.length && i < s.capacity; ++i) s.text[i] = toUpper ? upper(s.text[i]) : lower(s.text[i]);
}

template <class Char>
void replaceChar(Span<Char> s, Char from, Char to)
{
    const Char wanted = upper(from);
    for (long long i = 0; i < s.length && i < s.capacity; ++i)
        if (upper(s.text[i]) == wanted) s.text[i] = to;
}

template <class Char>
void replaceText(Span<Char> s, View<Char> from, View<Char> to, Match match)
{
    normalize(s);
    int p = findText(spanView(s), from, 0, match);
    while (p >= 0) {
        splice(s, p, from.length, to);
        p = findText(spanView(s), from, static_cast<int>(p + to.length), match);
    }
}

template <class Char>
void removeChar(Span<Char> s, Char c)
{
    normalize(s);
    const Char wanted = upper(c);
    for (long long i = static_cast<long long>(s.length) - 1; i >= 0; --i)
        if (upper(s.text[i]) == wanted) splice(s, i, 1, View<Char>{nullptr, 0});
    terminate(s);
}

template <class Char>
void removeRange(Span<Char> s, long long start, long long count)
{
    normalize(s);
    long long end = start + count;
    if (start < 0) start = 0;
    if (start > s.length) start = s.length;
    if (end > s.length) end = s.length;
    if (end <= start) return;
    splice(s, start, end - start, View<Char>{nullptr, 0});
}

template <class Char>
void insert(Span<Char> s, long long position, View<Char> what)
{
    normalize(s);
    if (position < 0) position = 0;
    if (position > s.length) position = s.length;
    splice(s, position, 0, what);
}

template <class Char>
int leftLength(View<Char> s, Char delimiter, bool includeDelimiter)
{
    const int p = findChar(s, delimiter, 0, Match::folded);
    if (p < 0) return -1;
    if (p == 0) return includeDelimiter ? 0 : 1;
    return includeDelimiter ? p + 1 : p;
}

template <class Char>
View<Char> midView(View<Char> s, long long start, long long count)
{
    if (start < 0) start = 0;
    if (start > s.length) start = s.length;
    if (count < 0) count = 0;
    if (count > s.length - start) count = s.length - start;
    return {s.text + start, count};
}

// ---- the two character types -----------------------------------------------

#define KT_TEXT_INSTANTIATE(Char)                                                              \
    template void clearAll(Span<Char>);                                                        \
    template void clearUnused(Span<Char>);                                                     \
    template void terminate(Span<Char>);                                                       \
    template void setLength(Span<Char>, int);                                                  \
    template void calcLength(Span<Char>);                                                      \
    template void assign(Span<Char>, View<Char>);                                              \
    template void append(Span<Char>, View<Char>);                                              \
    template void appendRepeated(Span<Char>, Char, long long);                                 \
    template void appendPadded(Span<Char>, View<Char>, long long, bool);                       \
    template int findChar(View<Char>, Char, int, Match);                                       \
    template int findLastChar(View<Char>, Char, int);                                          \
    template int countChar(View<Char>, Char, Match);                                           \
    template int findText(View<Char>, View<Char>, int, Match);                                 \
    template int firstOccurrence(View<Char>, const View<Char>*, int, int*);                    \
    template bool equal(View<Char>, View<Char>, Match);                                        \
    template bool equalStrings(View<Char>, View<Char>);                                        \
    template int compareFolded(View<Char>, View<Char>);                                        \
    template int compareBytes(View<Char>, View<Char>);                                         \
    template bool lessBytes(View<Char>, View<Char>);                                           \
    template bool startsWith(View<Char>, View<Char>, Match);                                   \
    template bool endsWith(View<Char>, View<Char>, Match);                                     \
    template bool isDecimal(View<Char>);                                                       \
    template void trim(Span<Char>);                                                            \
    template void fold(Span<Char>, bool);                                                      \
    template void replaceChar(Span<Char>, Char, Char);                                         \
    template void replaceText(Span<Char>, View<Char>, View<Char>, Match);                      \
    template void removeChar(Span<Char>, Char);                                                \
    template void removeRange(Span<Char>, long long, long long);                               \
    template void insert(Span<Char>, long long, View<Char>);                                   \
    template int leftLength(View<Char>, Char, bool);                                           \
    template View<Char> midView(View<Char>, long long, long long);

KT_TEXT_INSTANTIATE(char)
KT_TEXT_INSTANTIATE(unsigned short)

#undef KT_TEXT_INSTANTIATE

}  // namespace kt::text
