// Function.cpp: the per-thread reuse number of delegates.

#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// A plain word, so that it is there in every thread from its first to its last instruction.
constinit thread_local uint32_t s_functionReuse = 0;

} // namespace

uint32_t getCurrentFunctionReuse()
{
    return s_functionReuse;
}

namespace Detail
{

void setCurrentFunctionReuse(uint32_t reuse)
{
    s_functionReuse = reuse;
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel
