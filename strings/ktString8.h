// _ktString8_allSize<N>: the system's 8-bit text value of fixed capacity.
//
// A plain structure: a 16-bit length and N+1 characters, the last slot for
// the terminator. It never allocates and never fails; whatever does not fit
// in N characters is dropped. Hosts built separately share this layout.
#pragma once

#include <cstddef>

// The capacities the library instantiates; X(N) is expanded for each.
#define KT_STRING8_CAPACITIES(X)                                                      \
    X(6) X(7) X(8) X(10) X(12) X(14) X(15) X(16) X(20) X(25) X(29) X(30) X(40) X(50) \
    X(75) X(100) X(125) X(150) X(200) X(250) X(500) X(1000) X(2000) X(3000) X(5000)

// Opaque handle to a string in the 8-bit layout (length, then the bytes).
struct _ktString8_Uni_pointer;

template <int N>
struct _ktString8_allSize {
    unsigned short length;
    char text[N + 1];

    _ktString8_allSize();
    _ktString8_allSize(char const* source);

    _ktString8_allSize& operator=(char const* source);

    void add(char const* source);

    void clear();
    void clearUnused();
    void setLength(short const& newLength);

    char* asChar() { return text; }
    char const* asChar() const { return text; }
    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }
};

#define KT_DECLARE_STRING8(N) extern template struct _ktString8_allSize<N>;
KT_STRING8_CAPACITIES(KT_DECLARE_STRING8)
#undef KT_DECLARE_STRING8
