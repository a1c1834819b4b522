// _ktString<N>: the 16-bit counterpart of _ktString8_allSize<N>.
//
// A plain structure: a 16-bit length, a reserved 16-bit word that is always
// 0, and N+1 16-bit units, the last slot for the terminator. Same rules as
// the 8-bit string: no allocation, no failure, silent truncation at N, case
// folding of ASCII letters only. Hosts built separately share this layout
// and call these members by their exported names.
//
// Bytes become units in two ways, both kept on purpose: the constructors
// (and the comparisons with 8-bit text) widen a byte as a signed char, 0xE9
// becoming 0xFFE9; the assignment and the appends of 8-bit text widen it as
// an unsigned one, 0xE9 becoming 0x00E9. Units become bytes by keeping
// their low 8 bits.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>

#include "strings/ktString8.h"

// The capacities the library instantiates; X(N) is expanded for each.
#define KT_STRING16_CAPACITIES(X) \
    X(10) X(15) X(25) X(30) X(48) X(50) X(75) X(100) X(125) X(150) X(200) X(225) X(250) X(500) X(1000) X(2500)

// Opaque handle to a string in the 16-bit layout.
struct _ktString_Uni_pointer;

template <int N>
struct _ktString_old;

// Number of units before the first 0 unit, counting at most 1024 (a text
// with no 0 among its first 1024 units gives 1024). Not for null.
int ktCharLen(unsigned short const* text);
// '0'..'9', and also '-'.
bool ktIsDigit(unsigned short const& unit);

// A host compiled against its own headers links the queries below without
// const (only the 8-bit string marks its searches and comparisons const), so
// each gets a non-const form beside the const one it forwards to; both are
// exported. Whole overload sets are mirrored so that a call on a non-const
// string resolves exactly as it did among the const forms. Shared by the
// current and the legacy 16-bit template; `Self` is the template's name.
#define KT_STRING16_NONCONST_QUERIES(Self)                                                                    \
    int indexOf(unsigned short const& unit, int start = 0) { return std::as_const(*this).indexOf(unit, start); } \
    int indexOf(Self const& needle, int start = 0) { return std::as_const(*this).indexOf(needle, start); }         \
    int indexOf(char const* needle) { return std::as_const(*this).indexOf(needle); }                              \
    int indexOfCaseSen(unsigned short const& unit, int start = 0) { return std::as_const(*this).indexOfCaseSen(unit, start); } \
    int indexOfCaseSen(Self const& needle, int start = 0) { return std::as_const(*this).indexOfCaseSen(needle, start); } \
    int lastIndexOf(unsigned short const& unit, int start = -1) { return std::as_const(*this).lastIndexOf(unit, start); } \
    bool contains(char const& c) { return std::as_const(*this).contains(c); }                                   \
    bool contains(char const* needle) { return std::as_const(*this).contains(needle); }                         \
    bool contains(Self const& needle) { return std::as_const(*this).contains(needle); }                         \
    int count(char c) { return std::as_const(*this).count(c); }                                                 \
    int countCaseSen(char const& c) { return std::as_const(*this).countCaseSen(c); }                            \
    bool operator==(Self const& other) { return std::as_const(*this) == other; }                                \
    bool operator==(char const* other) { return std::as_const(*this) == other; }                                \
    bool operator==(unsigned short const* other) { return std::as_const(*this) == other; }                      \
    bool isEqual(Self const& other) { return std::as_const(*this).isEqual(other); }                             \
    bool isEqual(char const* other, int count) { return std::as_const(*this).isEqual(other, count); }           \
    bool isEqual(unsigned short const* other, int count) { return std::as_const(*this).isEqual(other, count); } \
    bool isEqualSameCase(Self const& other) { return std::as_const(*this).isEqualSameCase(other); }             \
    bool isEqualSameCase(char const* other, int count) { return std::as_const(*this).isEqualSameCase(other, count); } \
    bool isEqualSameCase(unsigned short const* other, int count) { return std::as_const(*this).isEqualSameCase(other, count); } \
    int compare(Self const& other) { return std::as_const(*this).compare(other); }                              \
    int compareSameCase(Self const& other) { return std::as_const(*this).compareSameCase(other); }              \
    bool operator<(Self const& other) { return std::as_const(*this) < other; }                                  \
    bool operator>(Self const& other) { return std::as_const(*this) > other; }                                  \
    bool startsWith(unsigned short const& unit) { return std::as_const(*this).startsWith(unit); }               \
    bool startsWith(char const* prefix) { return std::as_const(*this).startsWith(prefix); }                     \
    bool startsWith(char const* prefix, int count) { return std::as_const(*this).startsWith(prefix, count); }   \
    bool startsWith(Self prefix) { return std::as_const(*this).startsWith(prefix); }                            \
    bool endsWith(unsigned short const& unit) { return std::as_const(*this).endsWith(unit); }                   \
    bool endsWith(char const* suffix) { return std::as_const(*this).endsWith(suffix); }                         \
    bool endsWith(Self const& suffix) { return std::as_const(*this).endsWith(suffix); }                         \
    bool endsWith(char const* suffix, int count) { return std::as_const(*this).endsWith(suffix, count); }

template <int N>
struct _ktString {
    unsigned short length;
    unsigned short reserved;
    unsigned short text[N + 1];

    // What the conversion to a 250-character 8-bit string becomes where N
    // is 250 itself and the conversion to N already covers it.
    struct NoSecondConversion {};
    using Narrow250 = std::conditional_t<N == 250, NoSecondConversion, _ktString8_allSize<250>>;

    // ---- construction and assignment ------------------------------------
    _ktString();
    // Whole-object copy.
    _ktString(_ktString const& other);
    _ktString(char const& c);
    _ktString(char const* source);
    _ktString(char const* source, int count);
    // At most 1024 units are read from a terminated 16-bit text.
    _ktString(unsigned short const* source);
    _ktString(unsigned short const* source, int count);
    // From the 8-bit layout; null gives the empty string.
    _ktString(_ktString8_Uni_pointer const* source);
    _ktString(_ktString_Uni_pointer const* source);
    _ktString(_ktString_old<N> const& legacy);

    _ktString& operator=(_ktString const& other);
    // Null sets the length to 0 only.
    _ktString& operator=(unsigned short const* source);
    _ktString& operator=(unsigned short const& unit);
    // Null sets the length to 0 and leaves the units as they were.
    _ktString& operator=(char const* source);
    // Throws std::out_of_range only for an inconsistent std::string.
    _ktString& operator=(std::string const& source);
    _ktString& operator=(_ktString8_Uni_pointer* source);
    _ktString& operator=(_ktString_Uni_pointer* source);
    _ktString& operator=(_ktString_old<N> const& legacy);

    void fromNr(long long const& value);
    // `count` copies of `unit`; count <= 0 gives the empty string.
    void createCharString(unsigned short& unit, int const& count);

    // ---- appending (everything is cut at N) -------------------------------
    void add(char const* source);
    void add(char const* source, unsigned int count);
    void add(unsigned short const* source, unsigned int count);
    void add(_ktString const& other);
    _ktString& operator+=(_ktString const& other);
    _ktString& operator+=(char const* source);
    _ktString& operator+=(char const& c);
    _ktString& operator+=(unsigned short const& unit);
    _ktString& operator+=(unsigned short const* source);
    _ktString operator+(unsigned short const& unit) const;
    _ktString operator+(_ktString const& other) const;
    _ktString combined(char const* source) const;
    _ktString combined(_ktString const& other) const;
    // A host compiled against its own headers links these without const;
    // both forms are exported, the const ones serve const callers.
    _ktString operator+(unsigned short const& unit) { return std::as_const(*this) + unit; }
    _ktString operator+(_ktString const& other) { return std::as_const(*this) + other; }
    _ktString combined(char const* source) { return std::as_const(*this).combined(source); }
    _ktString combined(_ktString const& other) { return std::as_const(*this).combined(other); }

    void addNr(int const& value);
    void addNr(unsigned char const& value);
    void addNr(unsigned int const& value);
    void addNr(long long const& value);
    void addNr(unsigned long long const& value);
    // Zeros in front up to `digits` characters (in front of a minus sign
    // too); the number and its zeros are cut at 20 characters.
    void addNr(int const& value, unsigned char const& digits);
    void addNr(long long const& value, unsigned char const& digits);
    void addNrSpacing(long long const& value, signed char const& width);
    // Padded appends: right-aligned for a negative width, left-aligned for a
    // positive one. addSpacingC keeps the padding within N; with addSpacing
    // the caller guarantees length + |width| <= N.
    void addSpacing(unsigned short const* source, int const& width);
    void addSpacing(char const* source, int const& width);
    void addSpacingC(char const* source, int const& width);

    // ---- searching ---------------------------------------------------------
    // A start outside 0..length-1 searches from 0 (from the end backwards).
    int indexOf(unsigned short const& unit, int start = 0) const;
    int indexOfCaseSen(unsigned short const& unit, int start = 0) const;
    int lastIndexOf(unsigned short const& unit, int start = -1) const;
    int indexOf(_ktString const& needle, int start = 0) const;
    int indexOfCaseSen(_ktString const& needle, int start = 0) const;
    int indexOf(char const* needle) const;
    // The byte widened as a signed char, then searched ignoring case.
    bool contains(char const& c) const;
    bool contains(char const* needle) const;
    bool contains(_ktString const& needle) const;
    bool containsCaseSen(char const* needle) const;
    bool containsCaseSen(char const* needle, int const& count) const;
    bool containsCaseSen(_ktString const& needle) const;
    bool containsUpperCaseInput(char const* needle) const;
    bool containsUpperCaseInput(_ktString const& needle) const;
    // A byte above 127 counts as negative and never matches.
    int count(char c) const;
    int countCaseSen(char const& c) const;
    // A find at position 0 answers at once; otherwise the LAST needle found
    // decides. `which` (may be null) receives the needle's index or -1.
    int indexOfFirstOcc(_ktString const& a, _ktString const& b, int* which) const;
    int indexOfFirstOcc(_ktString const& a, _ktString const& b, _ktString const& c, _ktString const& d,
                        _ktString const& e, _ktString const& f, int* which) const;

    // ---- comparing (units compared as their bytes in memory order) ---------
    bool operator==(_ktString const& other) const;
    bool operator!=(_ktString const& other) const;
    bool operator==(char const* other) const;
    bool operator!=(char const* other) const;
    // Same unit count, then only the first `length` BYTES (half the text).
    bool operator==(unsigned short const* other) const;
    bool isEqual(_ktString const& other) const;
    bool isEqual(char const* other, int count) const;
    bool isEqual(unsigned short const* other, int count) const;
    bool isEqualSameCase(_ktString const& other) const;
    bool isEqualSameCase(char const* other, int count) const;
    bool isEqualSameCase(unsigned short const* other, int count) const;
    bool isEqualUpperCaseInput(_ktString const& other) const;
    bool isEqualLowerCaseInput(_ktString const& other) const;
    int compare(_ktString const& other) const;
    // The common length only: strings differing only in length give 0.
    int compareSameCase(_ktString const& other) const;
    bool operator<(_ktString const& other) const;
    bool operator>(_ktString const& other) const;
    bool startsWith(unsigned short const& unit) const;
    bool startsWith(char const* prefix) const;
    bool startsWith(char const* prefix, int count) const;
    bool startsWith(_ktString prefix) const;
    bool startsWithCaseSen(char const* prefix) const;
    bool startsWithCaseSen(_ktString const& prefix) const;
    bool endsWith(unsigned short const& unit) const;
    bool endsWith(char const* suffix) const;
    bool endsWith(_ktString const& suffix) const;
    // `count` only gates the test; the whole of `suffix` is compared.
    bool endsWith(char const* suffix, int count) const;
    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }

    // ---- changing in place -------------------------------------------------
    void clear();
    void clearUnused();
    void setLength(short const& newLength);
    void calcLength();
    void trim();
    void makeUpper();
    void makeLower();
    void replace(unsigned short const& from, unsigned short const& to);
    void replace(_ktString const& from, _ktString const& to);
    void replaceCaseSen(_ktString const& from, _ktString const& to);
    _ktString remove(unsigned short const& unit);
    void remove(_ktString const& what);
    void removeCaseSens(_ktString const& what);
    void remove(int const& start, int const& count);
    void insert(int const& position, _ktString const& what);
    _ktString leftNCut(unsigned short const& delimiter, bool const& includeDelimiter);

    // ---- extracting and converting -----------------------------------------
    _ktString left(int count) const;
    // Found at position 0 the result is inverted: empty with the delimiter
    // included, the one unit without.
    _ktString left(unsigned short const& delimiter, bool const& includeDelimiter) const;
    // `count` units from `start`; both are kept within the text.
    _ktString mid(int const& start, int const& count) const;
    _ktString_Uni_pointer* asUni() { return reinterpret_cast<_ktString_Uni_pointer*>(this); }
    _ktString_Uni_pointer const* asUni() const { return reinterpret_cast<_ktString_Uni_pointer const*>(this); }
    // Writes min(size - 1, length) bytes and a terminator; returns the count.
    int toChar(char* destination, unsigned short size) const;
    // Narrowing into capacity M keeps M-1 characters and a terminator but
    // the full length of this string: rely on the terminator.
    operator _ktString8_allSize<N>() const;
    operator Narrow250() const;
    _ktString8_allSize<250> to_ktString8_250() const;
    _ktString8_allSize<500> to_ktString8_500() const;
    int toInt(bool* ok = nullptr) const;
    // Without const, as the host links them (const forms beside).
    _ktString left(int count) { return std::as_const(*this).left(count); }
    _ktString left(unsigned short const& delimiter, bool const& includeDelimiter) { return std::as_const(*this).left(delimiter, includeDelimiter); }
    _ktString mid(int const& start, int const& count) { return std::as_const(*this).mid(start, count); }
    int toChar(char* destination, unsigned short size) { return std::as_const(*this).toChar(destination, size); }
    _ktString8_allSize<250> to_ktString8_250() { return std::as_const(*this).to_ktString8_250(); }
    _ktString8_allSize<500> to_ktString8_500() { return std::as_const(*this).to_ktString8_500(); }
    int toInt(bool* ok = nullptr) { return std::as_const(*this).toInt(ok); }
    KT_STRING16_NONCONST_QUERIES(_ktString)
};

#define KT_DECLARE_STRING16(N) extern template struct _ktString<N>;
KT_STRING16_CAPACITIES(KT_DECLARE_STRING16)
#undef KT_DECLARE_STRING16

// The layout hosts rely on.
#define KT_PIN_STRING16(N)                                                   \
    static_assert(offsetof(_ktString<N>, length) == 0, "length leads");     \
    static_assert(offsetof(_ktString<N>, reserved) == 2, "then reserved");  \
    static_assert(offsetof(_ktString<N>, text) == 4, "then the units");     \
    static_assert(sizeof(_ktString<N>) == 4 + 2 * (N + 1), "no padding");
KT_STRING16_CAPACITIES(KT_PIN_STRING16)
#undef KT_PIN_STRING16
