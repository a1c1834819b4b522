// The two legacy 8-bit string templates: member definitions and every
// capacity. The 16-bit legacy template is built in
// ktStringInstancesLegacy16.cpp.
#include "strings/ktStringLegacy.h"

#include <cstring>

#include "strings/ktStringAlgorithms.h"

namespace txt = kt::text;

// ---- the two 8-bit layouts ---------------------------------------------------

#define KT_STRING8 _ktString8_evenSize_old
#include "strings/ktString8Common.inc"
#undef KT_STRING8

#define KT_STRING8 _ktString8_UnevenSize_old
#include "strings/ktString8Common.inc"
#undef KT_STRING8

// Zeroes the characters and the length; the padding byte between them is
// left alone.
template <int N>
void _ktString8_evenSize_old<N>::clear() { txt::clearAll(txt::spanOf(*this)); }

// Zeroes the whole object.
template <int N>
void _ktString8_UnevenSize_old<N>::clear() { std::memset(static_cast<void*>(this), 0, sizeof *this); }

// ---- every capacity ------------------------------------------------------------

#define KT_INSTANTIATE(N) template struct _ktString8_evenSize_old<N>;
KT_STRING8_EVEN_OLD_CAPACITIES(KT_INSTANTIATE)
#undef KT_INSTANTIATE
#define KT_INSTANTIATE(N) template struct _ktString8_UnevenSize_old<N>;
KT_STRING8_UNEVEN_OLD_CAPACITIES(KT_INSTANTIATE)
#undef KT_INSTANTIATE
