// The legacy 16-bit string template: member definitions and every capacity.
#include <cstdlib>
#include <cstring>

#include "strings/ktStringAlgorithms.h"
#include "strings/ktStringLegacy.h"

namespace txt = kt::text;

#define KT_STRING16 _ktString_old
#include "strings/ktString16Common.inc"
#undef KT_STRING16

template <int N>
void _ktString_old<N>::clear() { txt::clearAll(txt::spanOf(*this)); }

// Null leaves the string entirely unchanged.
template <int N>
_ktString_old<N>& _ktString_old<N>::operator=(char const* source)
{
    if (!source) return *this;
    length = 0;
    txt::appendWidened(txt::spanOf(*this), txt::textView(source), false);
    return *this;
}

template <int N>
bool _ktString_old<N>::startsWith(char const& c) const
{
    return length > 0 && text[0] == static_cast<unsigned short>(c);
}

template <int N>
_ktString_old<N>::operator _ktString8_allSize<250>() const { return narrowed<250>(*this); }

template <int N>
_ktString_old<N>::operator _ktString8_allSize<500>() const { return narrowed<500>(*this); }

// ---- every capacity ------------------------------------------------------------

#define KT_INSTANTIATE(N) template struct _ktString_old<N>;
KT_STRING16_OLD_CAPACITIES(KT_INSTANTIATE)
#undef KT_INSTANTIATE
