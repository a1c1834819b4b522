// The older fixed-capacity string layouts, kept because values in them are
// still exchanged with hosts: the characters come first and the length
// last. They behave like _ktString8_allSize<N> and _ktString<N> (same
// truncation at N, terminator and case rules) with fewer operations, and
// the current templates convert from them.
//
// The two 8-bit templates are one layout kept apart by the parity of N:
// even capacities use _ktString8_evenSize_old, odd ones
// _ktString8_UnevenSize_old.
#pragma once

#include <cstddef>
#include <utility>

#include "strings/ktString16.h"
#include "strings/ktString8.h"

// The capacities the library instantiates; X(N) is expanded for each.
#define KT_STRING8_EVEN_OLD_CAPACITIES(X) \
    X(6) X(8) X(10) X(12) X(14) X(20) X(30) X(40) X(50) X(100) X(150) X(200) X(250) X(500) X(1000) X(3000) X(5000)
#define KT_STRING8_UNEVEN_OLD_CAPACITIES(X) X(7) X(15) X(25) X(75) X(125)
#define KT_STRING16_OLD_CAPACITIES(X) \
    X(10) X(15) X(25) X(30) X(48) X(50) X(75) X(100) X(125) X(150) X(200) X(225) X(250) X(500) X(1000) X(2500)

// Legacy 8-bit string of even capacity. clear() zeroes the characters and
// the length (not the padding byte between them).
template <int N>
struct _ktString8_evenSize_old {
    char text[N + 1];
    unsigned short length;

    _ktString8_evenSize_old();
    _ktString8_evenSize_old(_ktString8_evenSize_old const& other);
    _ktString8_evenSize_old(char const* source);
    _ktString8_evenSize_old(char const* source, int count);
    _ktString8_evenSize_old& operator=(_ktString8_evenSize_old const& other);
    // Null sets the length to 0 and leaves the characters as they were.
    _ktString8_evenSize_old& operator=(char const* source);
    _ktString8_evenSize_old& operator=(char const& c);
    void createCharString(char& c, int const& count);

    void add(char const* source);
    void add(char const* source, unsigned int count);
    void add(_ktString8_evenSize_old const& other);
    _ktString8_evenSize_old& operator+=(_ktString8_evenSize_old const& other);
    _ktString8_evenSize_old& operator+=(char const* source);
    _ktString8_evenSize_old& operator+=(char const& c);
    _ktString8_evenSize_old operator+(char const& c) const;
    _ktString8_evenSize_old operator+(_ktString8_evenSize_old const& other) const;
    _ktString8_evenSize_old combined(char const* source) const;
    _ktString8_evenSize_old combined(_ktString8_evenSize_old const& other) const;
    // A host compiled against its own headers links these without const;
    // both forms are exported, the const ones serve const callers.
    _ktString8_evenSize_old operator+(char const& c) { return std::as_const(*this) + c; }
    _ktString8_evenSize_old operator+(_ktString8_evenSize_old const& other) { return std::as_const(*this) + other; }
    _ktString8_evenSize_old combined(char const* source) { return std::as_const(*this).combined(source); }
    _ktString8_evenSize_old combined(_ktString8_evenSize_old const& other) { return std::as_const(*this).combined(other); }
    void addNrSpacing(long long const& value, signed char const& width);
    void addSpacingC(char const* source, int const& width);
    void addSpacing(char const* source, int const& width);

    int indexOf(char const& c, int start = 0) const;
    int indexOfCaseSen(char const& c, int start = 0) const;
    int lastIndexOf(char const& c, int start = -1) const;
    int indexOf(_ktString8_evenSize_old const& needle, int start = 0) const;
    int indexOfCaseSen(_ktString8_evenSize_old const& needle, int start = 0) const;
    bool contains(char const& c) const;
    bool contains(char const* needle) const;
    bool contains(_ktString8_evenSize_old const& needle) const;
    bool containsCaseSen(char const* needle) const;
    bool containsCaseSen(char const* needle, int const& count) const;
    bool containsCaseSen(_ktString8_evenSize_old const& needle) const;
    bool containsUpperCaseInput(char const* needle) const;
    bool containsUpperCaseInput(_ktString8_evenSize_old const& needle) const;
    int count(char c) const;
    int countCaseSen(char const& c) const;
    int indexOfFirstOcc(_ktString8_evenSize_old const& a, _ktString8_evenSize_old const& b, int* which) const;
    int indexOfFirstOcc(_ktString8_evenSize_old const& a, _ktString8_evenSize_old const& b,
                        _ktString8_evenSize_old const& c, _ktString8_evenSize_old const& d,
                        _ktString8_evenSize_old const& e, _ktString8_evenSize_old const& f, int* which) const;

    bool operator==(_ktString8_evenSize_old const& other) const;
    bool operator!=(_ktString8_evenSize_old const& other) const;
    bool operator==(char const* other) const;
    bool isEqual(_ktString8_evenSize_old const& other) const;
    bool isEqual(char const* other, int count) const;
    bool isEqualSameCase(_ktString8_evenSize_old const& other) const;
    bool isEqualSameCase(char const* other, int count) const;
    bool isEqualUpperCaseInput(_ktString8_evenSize_old const& other) const;
    bool isEqualLowerCaseInput(_ktString8_evenSize_old const& other) const;
    int compare(_ktString8_evenSize_old const& other) const;
    int compareSameCase(_ktString8_evenSize_old const& other) const;
    bool operator<(_ktString8_evenSize_old const& other) const;
    bool operator>(_ktString8_evenSize_old const& other) const;
    bool startsWith(char const& c) const;
    bool startsWith(char const* prefix) const;
    bool startsWith(char const* prefix, int count) const;
    bool startsWith(_ktString8_evenSize_old prefix) const;
    bool startsWithCaseSen(char const* prefix) const;
    bool startsWithCaseSen(_ktString8_evenSize_old const& prefix) const;
    bool endsWith(char const& c) const;
    bool endsWith(char const* suffix) const;
    bool endsWith(_ktString8_evenSize_old const& suffix) const;
    bool endsWith(char const* suffix, int count) const;
    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }

    void clear();
    void clearUnused();
    void setLength(short const& newLength);
    void calcLength();
    void trim();
    void makeUpper();
    void makeLower();
    void replace(char const& from, char const& to);
    void replace(_ktString8_evenSize_old const& from, _ktString8_evenSize_old const& to);
    void replaceCaseSen(_ktString8_evenSize_old const& from, _ktString8_evenSize_old const& to);
    _ktString8_evenSize_old remove(char const& c);
    void remove(_ktString8_evenSize_old const& what);
    void removeCaseSens(_ktString8_evenSize_old const& what);
    void remove(int const& start, int const& count);
    void insert(int const& position, _ktString8_evenSize_old const& what);
    _ktString8_evenSize_old leftNCut(char const& delimiter, bool const& includeDelimiter);

    _ktString8_evenSize_old left(int count) const;
    _ktString8_evenSize_old left(char const& delimiter, bool const& includeDelimiter) const;
    _ktString8_evenSize_old mid(int const& start, int const& count) const;
    // Without const, as the host links them (const forms beside).
    _ktString8_evenSize_old left(int count) { return std::as_const(*this).left(count); }
    _ktString8_evenSize_old left(char const& delimiter, bool const& includeDelimiter) { return std::as_const(*this).left(delimiter, includeDelimiter); }
    _ktString8_evenSize_old mid(int const& start, int const& count) { return std::as_const(*this).mid(start, count); }
};

// Legacy 8-bit string of odd capacity: the operations of the even form.
// clear() zeroes the whole object.
template <int N>
struct _ktString8_UnevenSize_old {
    char text[N + 1];
    unsigned short length;

    _ktString8_UnevenSize_old();
    _ktString8_UnevenSize_old(_ktString8_UnevenSize_old const& other);
    _ktString8_UnevenSize_old(char const* source);
    _ktString8_UnevenSize_old(char const* source, int count);
    _ktString8_UnevenSize_old& operator=(_ktString8_UnevenSize_old const& other);
    _ktString8_UnevenSize_old& operator=(char const* source);
    _ktString8_UnevenSize_old& operator=(char const& c);
    void createCharString(char& c, int const& count);

    void add(char const* source);
    void add(char const* source, unsigned int count);
    void add(_ktString8_UnevenSize_old const& other);
    _ktString8_UnevenSize_old& operator+=(_ktString8_UnevenSize_old const& other);
    _ktString8_UnevenSize_old& operator+=(char const* source);
    _ktString8_UnevenSize_old& operator+=(char const& c);
    _ktString8_UnevenSize_old operator+(char const& c) const;
    _ktString8_UnevenSize_old operator+(_ktString8_UnevenSize_old const& other) const;
    _ktString8_UnevenSize_old combined(char const* source) const;
    _ktString8_UnevenSize_old combined(_ktString8_UnevenSize_old const& other) const;
    // A host compiled against its own headers links these without const;
    // both forms are exported, the const ones serve const callers.
    _ktString8_UnevenSize_old operator+(char const& c) { return std::as_const(*this) + c; }
    _ktString8_UnevenSize_old operator+(_ktString8_UnevenSize_old const& other) { return std::as_const(*this) + other; }
    _ktString8_UnevenSize_old combined(char const* source) { return std::as_const(*this).combined(source); }
    _ktString8_UnevenSize_old combined(_ktString8_UnevenSize_old const& other) { return std::as_const(*this).combined(other); }
    void addNrSpacing(long long const& value, signed char const& width);
    void addSpacingC(char const* source, int const& width);
    void addSpacing(char const* source, int const& width);

    int indexOf(char const& c, int start = 0) const;
    int indexOfCaseSen(char const& c, int start = 0) const;
    int lastIndexOf(char const& c, int start = -1) const;
    int indexOf(_ktString8_UnevenSize_old const& needle, int start = 0) const;
    int indexOfCaseSen(_ktString8_UnevenSize_old const& needle, int start = 0) const;
    bool contains(char const& c) const;
    bool contains(char const* needle) const;
    bool contains(_ktString8_UnevenSize_old const& needle) const;
    bool containsCaseSen(char const* needle) const;
    bool containsCaseSen(char const* needle, int const& count) const;
    bool containsCaseSen(_ktString8_UnevenSize_old const& needle) const;
    bool containsUpperCaseInput(char const* needle) const;
    bool containsUpperCaseInput(_ktString8_UnevenSize_old const& needle) const;
    int count(char c) const;
    int countCaseSen(char const& c) const;
    int indexOfFirstOcc(_ktString8_UnevenSize_old const& a, _ktString8_UnevenSize_old const& b, int* which) const;
    int indexOfFirstOcc(_ktString8_UnevenSize_old const& a, _ktString8_UnevenSize_old const& b,
                        _ktString8_UnevenSize_old const& c, _ktString8_UnevenSize_old const& d,
                        _ktString8_UnevenSize_old const& e, _ktString8_UnevenSize_old const& f, int* which) const;

    bool operator==(_ktString8_UnevenSize_old const& other) const;
    bool operator!=(_ktString8_UnevenSize_old const& other) const;
    bool operator==(char const* other) const;
    bool isEqual(_ktString8_UnevenSize_old const& other) const;
    bool isEqual(char const* other, int count) const;
    bool isEqualSameCase(_ktString8_UnevenSize_old const& other) const;
    bool isEqualSameCase(char const* other, int count) const;
    bool isEqualUpperCaseInput(_ktString8_UnevenSize_old const& other) const;
    bool isEqualLowerCaseInput(_ktString8_UnevenSize_old const& other) const;
    int compare(_ktString8_UnevenSize_old const& other) const;
    int compareSameCase(_ktString8_UnevenSize_old const& other) const;
    bool operator<(_ktString8_UnevenSize_old const& other) const;
    bool operator>(_ktString8_UnevenSize_old const& other) const;
    bool startsWith(char const& c) const;
    bool startsWith(char const* prefix) const;
    bool startsWith(char const* prefix, int count) const;
    bool startsWith(_ktString8_UnevenSize_old prefix) const;
    bool startsWithCaseSen(char const* prefix) const;
    bool startsWithCaseSen(_ktString8_UnevenSize_old const& prefix) const;
    bool endsWith(char const& c) const;
    bool endsWith(char const* suffix) const;
    bool endsWith(_ktString8_UnevenSize_old const& suffix) const;
    bool endsWith(char const* suffix, int count) const;
    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }

    void clear();
    void clearUnused();
    void setLength(short const& newLength);
    void calcLength();
    void trim();
    void makeUpper();
    void makeLower();
    void replace(char const& from, char const& to);
    void replace(_ktString8_UnevenSize_old const& from, _ktString8_UnevenSize_old const& to);
    void replaceCaseSen(_ktString8_UnevenSize_old const& from, _ktString8_UnevenSize_old const& to);
    _ktString8_UnevenSize_old remove(char const& c);
    void remove(_ktString8_UnevenSize_old const& what);
    void removeCaseSens(_ktString8_UnevenSize_old const& what);
    void remove(int const& start, int const& count);
    void insert(int const& position, _ktString8_UnevenSize_old const& what);
    _ktString8_UnevenSize_old leftNCut(char const& delimiter, bool const& includeDelimiter);

    _ktString8_UnevenSize_old left(int count) const;
    _ktString8_UnevenSize_old left(char const& delimiter, bool const& includeDelimiter) const;
    _ktString8_UnevenSize_old mid(int const& start, int const& count) const;
    // Without const, as the host links them (const forms beside).
    _ktString8_UnevenSize_old left(int count) { return std::as_const(*this).left(count); }
    _ktString8_UnevenSize_old left(char const& delimiter, bool const& includeDelimiter) { return std::as_const(*this).left(delimiter, includeDelimiter); }
    _ktString8_UnevenSize_old mid(int const& start, int const& count) { return std::as_const(*this).mid(start, count); }
};

// Legacy 16-bit string: the operations of _ktString<N> except the handle
// and legacy conversions, asUni, the int/unsigned addNr forms,
// operator!=(char const*) and the std::string assignment.
template <int N>
struct _ktString_old {
    unsigned short text[N + 1];
    unsigned short length;

    _ktString_old();
    _ktString_old(_ktString_old const& other);
    _ktString_old(char const& c);
    _ktString_old(char const* source);
    _ktString_old(char const* source, int count);
    _ktString_old(unsigned short const* source);
    _ktString_old(unsigned short const* source, int count);

    _ktString_old& operator=(_ktString_old const& other);
    _ktString_old& operator=(unsigned short const* source);
    _ktString_old& operator=(unsigned short const& unit);
    // Null leaves the string entirely unchanged; bytes widen as unsigned.
    _ktString_old& operator=(char const* source);

    void fromNr(long long const& value);
    void createCharString(unsigned short& unit, int const& count);

    void add(char const* source);
    void add(char const* source, unsigned int count);
    void add(unsigned short const* source, unsigned int count);
    void add(_ktString_old const& other);
    _ktString_old& operator+=(_ktString_old const& other);
    _ktString_old& operator+=(char const* source);
    _ktString_old& operator+=(char const& c);
    _ktString_old& operator+=(unsigned short const& unit);
    _ktString_old& operator+=(unsigned short const* source);
    _ktString_old operator+(unsigned short const& unit) const;
    _ktString_old operator+(_ktString_old const& other) const;
    _ktString_old combined(char const* source) const;
    _ktString_old combined(_ktString_old const& other) const;
    // A host compiled against its own headers links these without const;
    // both forms are exported, the const ones serve const callers.
    _ktString_old operator+(unsigned short const& unit) { return std::as_const(*this) + unit; }
    _ktString_old operator+(_ktString_old const& other) { return std::as_const(*this) + other; }
    _ktString_old combined(char const* source) { return std::as_const(*this).combined(source); }
    _ktString_old combined(_ktString_old const& other) { return std::as_const(*this).combined(other); }
    void addNr(long long const& value);
    void addNr(long long const& value, unsigned char const& digits);
    void addNrSpacing(long long const& value, signed char const& width);
    void addSpacing(unsigned short const* source, int const& width);
    void addSpacing(char const* source, int const& width);
    void addSpacingC(char const* source, int const& width);

    int indexOf(unsigned short const& unit, int start = 0) const;
    int indexOfCaseSen(unsigned short const& unit, int start = 0) const;
    int lastIndexOf(unsigned short const& unit, int start = -1) const;
    int indexOf(_ktString_old const& needle, int start = 0) const;
    int indexOfCaseSen(_ktString_old const& needle, int start = 0) const;
    int indexOf(char const* needle) const;
    bool contains(char const& c) const;
    bool contains(char const* needle) const;
    bool contains(_ktString_old const& needle) const;
    bool containsCaseSen(char const* needle) const;
    bool containsCaseSen(char const* needle, int const& count) const;
    bool containsCaseSen(_ktString_old const& needle) const;
    bool containsUpperCaseInput(char const* needle) const;
    bool containsUpperCaseInput(_ktString_old const& needle) const;
    int count(char c) const;
    int countCaseSen(char const& c) const;
    int indexOfFirstOcc(_ktString_old const& a, _ktString_old const& b, int* which) const;
    int indexOfFirstOcc(_ktString_old const& a, _ktString_old const& b, _ktString_old const& c,
                        _ktString_old const& d, _ktString_old const& e, _ktString_old const& f, int* which) const;

    bool operator==(_ktString_old const& other) const;
    bool operator!=(_ktString_old const& other) const;
    bool operator==(char const* other) const;
    bool operator==(unsigned short const* other) const;
    bool isEqual(_ktString_old const& other) const;
    bool isEqual(char const* other, int count) const;
    bool isEqual(unsigned short const* other, int count) const;
    bool isEqualSameCase(_ktString_old const& other) const;
    bool isEqualSameCase(char const* other, int count) const;
    bool isEqualSameCase(unsigned short const* other, int count) const;
    bool isEqualUpperCaseInput(_ktString_old const& other) const;
    bool isEqualLowerCaseInput(_ktString_old const& other) const;
    int compare(_ktString_old const& other) const;
    int compareSameCase(_ktString_old const& other) const;
    bool operator<(_ktString_old const& other) const;
    bool operator>(_ktString_old const& other) const;
    // Exact test of the first unit against a byte.
    bool startsWith(char const& c) const;
    bool startsWith(unsigned short const& unit) const;
    bool startsWith(char const* prefix) const;
    bool startsWith(char const* prefix, int count) const;
    bool startsWith(_ktString_old prefix) const;
    bool startsWithCaseSen(char const* prefix) const;
    bool startsWithCaseSen(_ktString_old const& prefix) const;
    bool endsWith(unsigned short const& unit) const;
    bool endsWith(char const* suffix) const;
    bool endsWith(_ktString_old const& suffix) const;
    bool endsWith(char const* suffix, int count) const;
    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }

    void clear();
    void clearUnused();
    void setLength(short const& newLength);
    void calcLength();
    void trim();
    void makeUpper();
    void makeLower();
    void replace(unsigned short const& from, unsigned short const& to);
    void replace(_ktString_old const& from, _ktString_old const& to);
    void replaceCaseSen(_ktString_old const& from, _ktString_old const& to);
    _ktString_old remove(unsigned short const& unit);
    void remove(_ktString_old const& what);
    void removeCaseSens(_ktString_old const& what);
    void remove(int const& start, int const& count);
    void insert(int const& position, _ktString_old const& what);
    _ktString_old leftNCut(unsigned short const& delimiter, bool const& includeDelimiter);

    _ktString_old left(int count) const;
    _ktString_old left(unsigned short const& delimiter, bool const& includeDelimiter) const;
    _ktString_old mid(int const& start, int const& count) const;
    int toChar(char* destination, unsigned short size) const;
    // Narrowing keeps M-1 characters and a terminator but the full length.
    operator _ktString8_allSize<250>() const;
    operator _ktString8_allSize<500>() const;
    _ktString8_allSize<250> to_ktString8_250() const;
    _ktString8_allSize<500> to_ktString8_500() const;
    int toInt(bool* ok = nullptr) const;
    // Without const, as the host links them (const forms beside).
    _ktString_old left(int count) { return std::as_const(*this).left(count); }
    _ktString_old left(unsigned short const& delimiter, bool const& includeDelimiter) { return std::as_const(*this).left(delimiter, includeDelimiter); }
    _ktString_old mid(int const& start, int const& count) { return std::as_const(*this).mid(start, count); }
    int toChar(char* destination, unsigned short size) { return std::as_const(*this).toChar(destination, size); }
    _ktString8_allSize<250> to_ktString8_250() { return std::as_const(*this).to_ktString8_250(); }
    _ktString8_allSize<500> to_ktString8_500() { return std::as_const(*this).to_ktString8_500(); }
    int toInt(bool* ok = nullptr) { return std::as_const(*this).toInt(ok); }
    KT_STRING16_NONCONST_QUERIES(_ktString_old)
    bool startsWith(char const& c) { return std::as_const(*this).startsWith(c); }
};

#define KT_DECLARE_LEGACY(N) extern template struct _ktString8_evenSize_old<N>;
KT_STRING8_EVEN_OLD_CAPACITIES(KT_DECLARE_LEGACY)
#undef KT_DECLARE_LEGACY
#define KT_DECLARE_LEGACY(N) extern template struct _ktString8_UnevenSize_old<N>;
KT_STRING8_UNEVEN_OLD_CAPACITIES(KT_DECLARE_LEGACY)
#undef KT_DECLARE_LEGACY
#define KT_DECLARE_LEGACY(N) extern template struct _ktString_old<N>;
KT_STRING16_OLD_CAPACITIES(KT_DECLARE_LEGACY)
#undef KT_DECLARE_LEGACY

// The layouts hosts rely on: characters first, the length after them
// (after one padding byte where N+1 is odd).
#define KT_PIN_LEGACY8(Template, N)                                                      \
    static_assert(offsetof(Template<N>, text) == 0, "characters lead");                  \
    static_assert(offsetof(Template<N>, length) == (N + 2) / 2 * 2, "length aligned");   \
    static_assert(sizeof(Template<N>) == (N + 2) / 2 * 2 + 2, "nothing after the length");
#define KT_PIN_EVEN(N) KT_PIN_LEGACY8(_ktString8_evenSize_old, N)
#define KT_PIN_UNEVEN(N) KT_PIN_LEGACY8(_ktString8_UnevenSize_old, N)
#define KT_PIN_OLD16(N)                                                          \
    static_assert(offsetof(_ktString_old<N>, text) == 0, "units lead");          \
    static_assert(offsetof(_ktString_old<N>, length) == 2 * (N + 1), "length"); \
    static_assert(sizeof(_ktString_old<N>) == 2 * (N + 2), "nothing after the length");
KT_STRING8_EVEN_OLD_CAPACITIES(KT_PIN_EVEN)
KT_STRING8_UNEVEN_OLD_CAPACITIES(KT_PIN_UNEVEN)
KT_STRING16_OLD_CAPACITIES(KT_PIN_OLD16)
#undef KT_PIN_OLD16
#undef KT_PIN_UNEVEN
#undef KT_PIN_EVEN
#undef KT_PIN_LEGACY8
