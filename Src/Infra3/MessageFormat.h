#ifndef INFRA_SRC_INFRA3_MESSAGEFORMAT_H
#define INFRA_SRC_INFRA3_MESSAGEFORMAT_H

#include <cstdarg>
#include <cstddef>

namespace Tarsel
{
namespace Infra
{

/// vsnprintf, several times as fast where a format has nothing but the plain conversions of log
/// messages. `room` is at least 1. The same bytes, the same result, and -1 where that fails.
__attribute__((format(printf, 3, 0))) int formatMessage(char* buffer, size_t room,
                                                        const char* format, va_list arguments);

} // namespace Infra
} // namespace Tarsel

#endif
