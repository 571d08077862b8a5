#ifndef INFRA_SRC_INCLUDEVERSIONINTERNAL_H
#define INFRA_SRC_INCLUDEVERSIONINTERNAL_H

#include "Infra/CheckIncludeVersion.h"

/// This library's registration of the header sets that it was built against. Made at load time or,
/// for a library that comes before, on first use.
CCheckIncludeVersion& libraryIncludeCheck();

#endif
