#ifndef INFRA_INFRA3_SYSTEMCALL_H
#define INFRA_INFRA3_SYSTEMCALL_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

/// Logs `command` at debug level and runs it through the shell, waiting for its end. The caller's
/// SIGCHLD is blocked meanwhile, and the process ignores SIGINT and SIGQUIT.
/// @return what the system's `system` returns; 1 for a null command, and nothing is run
INFRA_API int systemCall(const char* command);

/// The process id.
INFRA_API int getCurrectProcessID();

} // namespace Infra
} // namespace Tarsel

#endif
