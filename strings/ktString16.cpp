#include "strings/ktString16.h"

#include "strings/ktStringAlgorithms.h"

namespace {
template <int N>
kt::text::Span<unsigned short> span(_ktString<N>& s) { return {s.length, s.text, N}; }
// The constructors widen a byte as a signed char (0xE9 becomes 0xFFE9) ...
unsigned short widenSigned(char c) { return static_cast<unsigned short>(static_cast<signed char>(c)); }
// ... the assignment and the appends as an unsigned one (0xE9 becomes 0x00E9).
unsigned short widenUnsigned(char c) { return static_cast<unsigned char>(c); }
}  // namespace

template <int N>
_ktString<N>::_ktString() { clear(); }

template <int N>
_ktString<N>::_ktString(char const* source)
{
    clear();
    if (!source) return;
    kt::text::assignConverted(span(*this), source, kt::text::narrowLength(source), widenSigned);
    clearUnused();
}

template <int N>
_ktString<N>& _ktString<N>::operator=(char const* source)
{
    if (!source) { length = 0; return *this; }
    kt::text::assignConverted(span(*this), source, kt::text::narrowLength(source), widenUnsigned);
    return *this;
}

template <int N>
void _ktString<N>::add(char const* source)
{
    if (!source || !*source) return;
    kt::text::appendConverted(span(*this), source, kt::text::narrowLength(source), widenUnsigned);
}

template <int N>
void _ktString<N>::clear()
{
    reserved = 0;
    kt::text::clearAll(span(*this));
}

template <int N>
void _ktString<N>::clearUnused() { kt::text::clearUnused(span(*this)); }

template <int N>
void _ktString<N>::setLength(short const& newLength) { kt::text::setLength(span(*this), newLength); }

#define KT_INSTANTIATE_STRING16(N) template struct _ktString<N>;
KT_STRING16_CAPACITIES(KT_INSTANTIATE_STRING16)
