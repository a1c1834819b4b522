// _ktString8_allSize<N>: the system's 8-bit text value of fixed capacity.
//
// A plain structure: a 16-bit length and N+1 characters, the last slot for
// the terminator. It never allocates and never fails; whatever does not fit
// in N characters is dropped and the text stays terminated. Hosts built
// separately share this layout and call these members by their exported
// names, so argument types are part of the interface.
//
// Conventions of every member: comparisons and searches ignore letter case
// unless the name says CaseSen, CaseSens or SameCase; positions are zero-based
// and -1 means not found; a null char pointer means "no text".
#pragma once

#include <cstddef>
#include <string>
#include <utility>

// The capacities the library instantiates; X(N) is expanded for each. The
// split only spreads the compile work over several sources.
#define KT_STRING8_CAPACITIES_SMALL(X) \
    X(6) X(7) X(8) X(10) X(12) X(14) X(15) X(16) X(20) X(25) X(29) X(30) X(40) X(50)
#define KT_STRING8_CAPACITIES_LARGE(X) X(75) X(100) X(125) X(150) X(200) X(250) X(500) X(1000) X(2000) X(3000) X(5000)
#define KT_STRING8_CAPACITIES(X) KT_STRING8_CAPACITIES_SMALL(X) KT_STRING8_CAPACITIES_LARGE(X)
// Further capacities the 16-bit strings convert into (_ktString<N> to
// _ktString8_allSize<N>); built as well so that those conversions link.
#define KT_STRING8_CONVERSION_CAPACITIES(X) X(48) X(225) X(2500)

// Opaque handle to a string in the 8-bit layout (length, then the bytes).
struct _ktString8_Uni_pointer;

template <int N>
struct _ktString8_evenSize_old;
template <int N>
struct _ktString8_UnevenSize_old;

template <int N>
struct _ktString8_allSize {
    unsigned short length;
    char text[N + 1];

    // ---- construction and assignment ------------------------------------
    _ktString8_allSize();
    // Whole-object copy: length and all N+1 characters.
    _ktString8_allSize(_ktString8_allSize const& other);
    // Null gives the empty string; the unused tail is zeroed.
    _ktString8_allSize(char const* source);
    // `count` bytes as they are, embedded zeros included.
    _ktString8_allSize(char const* source, int count);
    // 16-bit text narrowed to its low bytes (at most 1024 units read).
    _ktString8_allSize(unsigned short const* source);
    // The source's length is trusted up to the capacity.
    _ktString8_allSize(_ktString8_Uni_pointer const* source);
    _ktString8_allSize(_ktString8_evenSize_old<N> const& legacy);
    _ktString8_allSize(_ktString8_UnevenSize_old<N> const& legacy);

    _ktString8_allSize& operator=(_ktString8_allSize const& other);
    // Null sets the length to 0 and leaves the characters as they were.
    _ktString8_allSize& operator=(char const* source);
    // Throws std::out_of_range only for an inconsistent std::string.
    _ktString8_allSize& operator=(std::string const& source);
    _ktString8_allSize& operator=(char const& c);
    _ktString8_allSize& operator=(_ktString8_Uni_pointer* source);
    _ktString8_allSize& operator=(_ktString8_evenSize_old<N> const& legacy);
    _ktString8_allSize& operator=(_ktString8_UnevenSize_old<N> const& legacy);

    // `count` bytes as they are; null sets only the length to 0.
    void fromChar(char const* source, int const& count);
    void fromNr(long long const& value);
    // `count` copies of `c`; count <= 0 gives the empty string.
    void createCharString(char& c, int const& count);

    // ---- appending (everything is cut at N) -------------------------------
    void add(char const* source);
    void add(char const* source, unsigned int count);
    void add(_ktString8_allSize const& other);
    _ktString8_allSize& operator+=(_ktString8_allSize const& other);
    _ktString8_allSize& operator+=(char const* source);
    _ktString8_allSize& operator+=(char const& c);
    // Appends the unit's low byte.
    _ktString8_allSize& operator+=(unsigned short const& unit);
    _ktString8_allSize operator+(char const& c) const;
    _ktString8_allSize operator+(_ktString8_allSize const& other) const;
    _ktString8_allSize combined(char const* source) const;
    _ktString8_allSize combined(_ktString8_allSize const& other) const;
    // A host compiled against its own headers links these without const;
    // both forms are exported, the const ones serve const callers.
    _ktString8_allSize operator+(char const& c) { return std::as_const(*this) + c; }
    _ktString8_allSize operator+(_ktString8_allSize const& other) { return std::as_const(*this) + other; }
    _ktString8_allSize combined(char const* source) { return std::as_const(*this).combined(source); }
    _ktString8_allSize combined(_ktString8_allSize const& other) { return std::as_const(*this).combined(other); }

    void addNr(int const& value);
    void addNr(long long const& value);
    void addNr(unsigned long long const& value);
    // Zeros in front up to `digits` characters, in front of a minus sign too:
    // -5 with 4 digits gives "00-5".
    void addNr(int const& value, unsigned char const& digits);
    void addNr(long long const& value, unsigned char const& digits);
    // The number padded to |width| like addSpacingC.
    void addNrSpacing(long long const& value, signed char const& width);
    // Two, four, eight or sixteen upper-case hexadecimal digits; a negative
    // short is sign-extended first and so gives eight.
    void addHexCode(signed char const& value);
    void addHexCode(unsigned char const& value);
    void addHexCode(short const& value);
    void addHexCode(unsigned short const& value);
    void addHexCode(int const& value);
    void addHexCode(unsigned int const& value);
    void addHexCode(long long const& value);
    void addHexCode(unsigned long long const& value);
    // Appends `source` padded with blanks to |width|: right-aligned for a
    // negative width, left-aligned for a positive one, padding cut at N.
    void addSpacingC(char const* source, int const& width);
    // The same, but the caller guarantees length + |width| <= N.
    void addSpacing(char const* source, int const& width);

    // ---- searching ---------------------------------------------------------
    // A start outside 0..length-1 searches from 0.
    int indexOf(char const& c, int start = 0) const;
    int indexOfCaseSen(char const& c, int start = 0) const;
    // Exact search for the unit's low byte.
    int indexOf(unsigned short const& unit, int start = 0) const;
    // Exact backward search; a start outside 0..length-1 searches from the end.
    int lastIndexOf(char const& c, int start = -1) const;
    int lastIndexOf(unsigned short const& unit, int start = -1) const;
    int indexOf(_ktString8_allSize const& needle, int start = 0) const;
    int indexOfCaseSen(_ktString8_allSize const& needle, int start = 0) const;
    bool contains(char const& c) const;
    bool contains(char const* needle) const;
    bool contains(_ktString8_allSize const& needle) const;
    bool containsCaseSen(char const* needle) const;
    // Searches the first min(count, N) bytes of `needle`.
    bool containsCaseSen(char const* needle, int const& count) const;
    bool containsCaseSen(_ktString8_allSize const& needle) const;
    // Folds only this string; `needle` must be upper case already.
    bool containsUpperCaseInput(char const* needle) const;
    bool containsUpperCaseInput(_ktString8_allSize const& needle) const;
    int count(char c) const;
    int countCaseSen(char const& c) const;
    // Searches each needle from the start. A find at position 0 answers at
    // once; otherwise the LAST needle found decides the result, whatever its
    // position. `which` (may be null) receives the needle's index or -1.
    int indexOfFirstOcc(_ktString8_allSize const& a, _ktString8_allSize const& b, int* which) const;
    int indexOfFirstOcc(_ktString8_allSize const& a, _ktString8_allSize const& b, _ktString8_allSize const& c,
                        _ktString8_allSize const& d, _ktString8_allSize const& e, _ktString8_allSize const& f,
                        int* which) const;

    // ---- comparing ---------------------------------------------------------
    bool operator==(_ktString8_allSize const& other) const;
    bool operator!=(_ktString8_allSize const& other) const;
    bool operator==(char const* other) const;
    bool operator!=(char const* other) const;
    bool operator==(_ktString8_evenSize_old<N> const& legacy) const;
    bool operator==(_ktString8_UnevenSize_old<N> const& legacy) const;
    bool isEqual(_ktString8_allSize const& other) const;
    bool isEqual(char const* other, int count) const;
    bool isEqualSameCase(_ktString8_allSize const& other) const;
    bool isEqualSameCase(char const* other, int count) const;
    // This string folded to upper (lower) case against `other` as given.
    bool isEqualUpperCaseInput(_ktString8_allSize const& other) const;
    bool isEqualLowerCaseInput(_ktString8_allSize const& other) const;
    // Case-insensitive three-way result; a proper prefix is smaller.
    int compare(_ktString8_allSize const& other) const;
    // Bytes of the common length only: "abc" and "abcd" compare as 0.
    int compareSameCase(_ktString8_allSize const& other) const;
    bool operator<(_ktString8_allSize const& other) const;
    bool operator>(_ktString8_allSize const& other) const;
    bool startsWith(char const& c) const;
    bool startsWith(char const* prefix) const;
    bool startsWith(char const* prefix, int count) const;
    bool startsWith(_ktString8_allSize prefix) const;
    bool startsWithCaseSen(char const* prefix) const;
    bool startsWithCaseSen(_ktString8_allSize const& prefix) const;
    bool endsWith(char const& c) const;
    bool endsWith(char const* suffix) const;
    bool endsWith(_ktString8_allSize const& suffix) const;
    // `count` only gates the test (non-zero, at most the length); the whole
    // of `suffix` is compared.
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
    void replace(char const& from, char const& to);
    void replace(_ktString8_allSize const& from, _ktString8_allSize const& to);
    void replaceCaseSen(_ktString8_allSize const& from, _ktString8_allSize const& to);
    // Removes every occurrence and returns a copy of the result.
    _ktString8_allSize remove(char const& c);
    void remove(_ktString8_allSize const& what);
    void removeCaseSens(_ktString8_allSize const& what);
    void remove(int const& start, int const& count);
    void insert(int const& position, _ktString8_allSize const& what);
    // Returns left(delimiter, includeDelimiter) and cuts this string after
    // the delimiter; without a delimiter returns everything and clears.
    _ktString8_allSize leftNCut(char const& delimiter, bool const& includeDelimiter);

    // ---- extracting and converting -----------------------------------------
    _ktString8_allSize left(int count) const;
    // Up to the first delimiter. Found at position 0 the result is inverted:
    // empty with the delimiter included, the one character without.
    _ktString8_allSize left(char const& delimiter, bool const& includeDelimiter) const;
    // `count` characters from `start`; both are kept within the text.
    _ktString8_allSize mid(int const& start, int const& count) const;
    // Without const, as the host links them (const forms beside).
    _ktString8_allSize left(int count) { return std::as_const(*this).left(count); }
    _ktString8_allSize left(char const& delimiter, bool const& includeDelimiter) { return std::as_const(*this).left(delimiter, includeDelimiter); }
    _ktString8_allSize mid(int const& start, int const& count) { return std::as_const(*this).mid(start, count); }
    char* asChar() { return text; }
    char const* asChar() const { return text; }
    char* toChar() { return text; }
    char const* toChar() const { return text; }
    _ktString8_Uni_pointer* asUni() { return reinterpret_cast<_ktString8_Uni_pointer*>(this); }
    _ktString8_Uni_pointer const* asUni() const { return reinterpret_cast<_ktString8_Uni_pointer const*>(this); }
    // Two hexadecimal digits per character; holds the first 125 characters.
    _ktString8_allSize<250> asHexString() const;
    // With `ok` the text must be digits with an optional leading '-'; the
    // flag tells, and a rejected text gives 0. Without `ok`, plain strtol.
    int toInt(bool* ok = nullptr) const;
    long long toInt64(bool* ok = nullptr) const;
    // Without const, as the host links them (const forms beside).
    _ktString8_allSize<250> asHexString() { return std::as_const(*this).asHexString(); }
    int toInt(bool* ok = nullptr) { return std::as_const(*this).toInt(ok); }
    long long toInt64(bool* ok = nullptr) { return std::as_const(*this).toInt64(ok); }
    // Reads the first bits/4 characters as hexadecimal; with asSigned only
    // 8, 16 and 32 bits are valid and the value is sign-extended.
    // removeParsed cuts those characters from this string.
    long long toIntFromHex(int const& bits, bool const& asSigned, bool const& removeParsed, bool* ok = nullptr);
};


#define KT_DECLARE_STRING8(N) extern template struct _ktString8_allSize<N>;
KT_STRING8_CAPACITIES(KT_DECLARE_STRING8)
KT_STRING8_CONVERSION_CAPACITIES(KT_DECLARE_STRING8)
#undef KT_DECLARE_STRING8

// The layout hosts rely on.
#define KT_PIN_STRING8(N)                                                              \
    static_assert(offsetof(_ktString8_allSize<N>, length) == 0, "length leads");         \
    static_assert(offsetof(_ktString8_allSize<N>, text) == 2, "text follows the length"); \
    static_assert(sizeof(_ktString8_allSize<N>) == (N + 3 + 1) / 2 * 2, "no padding but alignment");
KT_STRING8_CAPACITIES(KT_PIN_STRING8)
KT_STRING8_CONVERSION_CAPACITIES(KT_PIN_STRING8)
#undef KT_PIN_STRING8
