#ifndef INFRA_BENCHMARKS_SUPPORT_VARIADICLOG_H
#define INFRA_BENCHMARKS_SUPPORT_VARIADICLOG_H

namespace Bench
{

/// The least that a log call across the border of a shared library can be: returns 0 if `level` is
/// above 4, else prints. As long an argument list as logFilter has.
__attribute__((visibility("default"), format(printf, 7, 8))) int
variadicLog(int level, const char* module, const char* file, const char* function, int line,
            const char* revision, const char* format, ...);

} // namespace Bench

#endif
