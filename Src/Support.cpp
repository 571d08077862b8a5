// Support.cpp: free functions of the older interface.

#include "Infra/Support.h"

#include "Infra/Infra3/SystemCall.h"
#include "Infra3/Arithmetic.h"

int systemCall(const char* command)
{
    return Tarsel::Infra::systemCall(command);
}

int log2i(unsigned long x)
{
    return Tarsel::Infra::log2Floor(x);
}
