// _ktString8_allSize<N> for the larger capacities, and for the capacities
// only the 16-bit strings' conversions produce.
#include "strings/ktString8Members.inc"

#define KT_INSTANTIATE_STRING8(N) template struct _ktString8_allSize<N>;
KT_STRING8_CAPACITIES_LARGE(KT_INSTANTIATE_STRING8)
KT_STRING8_CONVERSION_CAPACITIES(KT_INSTANTIATE_STRING8)
