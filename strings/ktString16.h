// _ktString<N>: the 16-bit counterpart of _ktString8_allSize<N>.
//
// A plain structure: a 16-bit length, a reserved 16-bit word that is always
// 0, and N+1 16-bit units, the last slot for the terminator. Same rules as
// the 8-bit string: no allocation, no failure, silent truncation at N.
#pragma once

#include "strings/ktString8.h"

// The capacities the library instantiates; X(N) is expanded for each.
#define KT_STRING16_CAPACITIES(X) \
    X(10) X(15) X(25) X(30) X(48) X(50) X(75) X(100) X(125) X(150) X(200) X(225) X(250) X(500) X(1000) X(2500)

// Opaque handle to a string in the 16-bit layout.
struct _ktString_Uni_pointer;

template <int N>
struct _ktString {
    unsigned short length;
    unsigned short reserved;
    unsigned short text[N + 1];

    _ktString();
    _ktString(char const* source);

    _ktString& operator=(char const* source);

    void add(char const* source);

    void clear();
    void clearUnused();
    void setLength(short const& newLength);

    bool isEmpty() const { return length == 0; }
    bool hasData() const { return length != 0; }
};

#define KT_DECLARE_STRING16(N) extern template struct _ktString<N>;
KT_STRING16_CAPACITIES(KT_DECLARE_STRING16)
#undef KT_DECLARE_STRING16
