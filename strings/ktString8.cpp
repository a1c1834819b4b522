// _ktString8_allSize<N> for the smaller capacities; the larger ones are
// built in ktString8InstancesLarge.cpp.
#include "strings/ktString8Members.inc"

#define KT_INSTANTIATE_STRING8(N) template struct _ktString8_allSize<N>;
KT_STRING8_CAPACITIES_SMALL(KT_INSTANTIATE_STRING8)
