#include "strings/ktString8.h"

#include "strings/ktStringAlgorithms.h"

namespace {
template <int N>
kt::text::Span<char> span(_ktString8_allSize<N>& s) { return {s.length, s.text, N}; }
char asIs(char c) { return c; }
}  // namespace

template <int N>
_ktString8_allSize<N>::_ktString8_allSize() { clear(); }

template <int N>
_ktString8_allSize<N>::_ktString8_allSize(char const* source)
{
    if (!source) { clear(); return; }
    kt::text::assignConverted(span(*this), source, kt::text::narrowLength(source), asIs);
    clearUnused();
}

template <int N>
_ktString8_allSize<N>& _ktString8_allSize<N>::operator=(char const* source)
{
    // A null source empties the string but leaves the characters as they were.
    if (!source) { length = 0; return *this; }
    kt::text::assignConverted(span(*this), source, kt::text::narrowLength(source), asIs);
    return *this;
}

template <int N>
void _ktString8_allSize<N>::add(char const* source)
{
    if (!source || !*source) return;
    kt::text::appendConverted(span(*this), source, kt::text::narrowLength(source), asIs);
}

template <int N>
void _ktString8_allSize<N>::clear() { kt::text::clearAll(span(*this)); }

template <int N>
void _ktString8_allSize<N>::clearUnused() { kt::text::clearUnused(span(*this)); }

template <int N>
void _ktString8_allSize<N>::setLength(short const& newLength) { kt::text::setLength(span(*this), newLength); }

#define KT_INSTANTIATE_STRING8(N) template struct _ktString8_allSize<N>;
KT_STRING8_CAPACITIES(KT_INSTANTIATE_STRING8)
