#ifndef INFRA_SRC_INFRA3_VERSIONINTERNAL_H
#define INFRA_SRC_INFRA3_VERSIONINTERNAL_H

#include "Infra/Infra3/Version.h"

namespace Tarsel
{
namespace Infra
{

/// This library's own record, "Infra" 3.0.0. Made at load time, at its end (IncludeVersion.cpp), or
/// on a first use before that; never destroyed. Making it logs nothing.
const CVersion& libraryVersion();

} // namespace Infra
} // namespace Tarsel

#endif
