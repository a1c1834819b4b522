// _ktString<N> for every capacity, and the two free functions of the
// 16-bit strings.
#include "strings/ktString16Members.inc"

int ktCharLen(unsigned short const* text) { return txt::unitLength(text); }

bool ktIsDigit(unsigned short const& unit) { return (unit >= '0' && unit <= '9') || unit == '-'; }

#define KT_INSTANTIATE_STRING16(N) template struct _ktString<N>;
KT_STRING16_CAPACITIES(KT_INSTANTIATE_STRING16)
