#ifndef INFRA_SRC_INFRA3_ASSERTFRONT_H
#define INFRA_SRC_INFRA3_ASSERTFRONT_H

// The library's own way to stop a broken program, in every build. Never for a full pool, a missing
// file or a caller's text; one thing a line.

#include "Infra/Infra3/AssertionFailed.h"

/// Ends the process with the expression's text unless it holds.
#define INFRA_ASSERT(expr) INFRA_ASSERT_TEXT(expr, #expr)

/// The same with a text of its own, where the report has to read differently from the code.
#define INFRA_ASSERT_TEXT(expr, text)                                                              \
    (__builtin_expect(!(expr), 0)                                                                  \
         ? ::Tarsel::Infra::Detail::assertionFailed((text), __func__, __FILE__, __LINE__)          \
         : (void)0)

/// The system's own assertion report alone ("program: file:line: function: Assertion `text'
/// failed."), which unlike the macro assert() does not vanish with NDEBUG.
#define INFRA_SYSTEM_ASSERT(expr) INFRA_SYSTEM_ASSERT_TEXT(expr, #expr)
#define INFRA_SYSTEM_ASSERT_TEXT(expr, text)                                                       \
    (__builtin_expect(!(expr), 0)                                                                  \
         ? ::Tarsel::Infra::systemAssertionFailed((text), __func__, __FILE__, __LINE__)            \
         : (void)0)

namespace Tarsel
{
namespace Infra
{

/// Prints and flushes what was logged, then calls the system's assertion routine. `function` may be
/// null.
[[noreturn]] void systemAssertionFailed(const char* expr, const char* function, const char* file,
                                        long line);

} // namespace Infra
} // namespace Tarsel

#endif
