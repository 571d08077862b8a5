#ifndef INFRA_SUPPORT_H
#define INFRA_SUPPORT_H

#include "Infra/Infra3/Detail/Export.h"

/// Tarsel::Infra::systemCall.
INFRA_API int systemCall(const char* command);

/// Tarsel::Utils::log2i for any unsigned long: the largest k with 2^k <= `x`; 0 for 0.
INFRA_API int log2i(unsigned long x);

#endif
