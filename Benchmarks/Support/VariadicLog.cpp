#include "Benchmarks/Support/VariadicLog.h"

#include <cstdarg>
#include <cstdio>

namespace Bench
{
namespace
{

volatile int s_level = 4;

} // namespace

int variadicLog(int level, const char*, const char*, const char*, int, const char*,
                const char* format, ...)
{
    if (level > s_level) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = vfprintf(stdout, format, arguments);
    va_end(arguments);
    return length;
}

} // namespace Bench
