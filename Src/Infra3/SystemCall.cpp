// SystemCall.cpp: process helpers.

#include "Infra/Infra3/SystemCall.h"

#include <unistd.h>

#include <cstdlib>

#include "Infra/Infra3/PrintLog.h"

namespace Tarsel
{
namespace Infra
{

int systemCall(const char* command)
{
    if (command == nullptr) {
        return 1;
    }
    logLibName(logLevelDebug, "Infra", "systemcall command:%s\n", command);
    return system(command); // NOLINT(cert-env33-c,concurrency-mt-unsafe)
}

int getCurrectProcessID()
{
    return getpid();
}

} // namespace Infra
} // namespace Tarsel
