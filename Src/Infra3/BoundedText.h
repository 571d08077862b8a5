#ifndef INFRA_SRC_INFRA3_BOUNDEDTEXT_H
#define INFRA_SRC_INFRA3_BOUNDEDTEXT_H

// Text into fixed arrays: one helper to copy, one to format, both always terminate.

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace Tarsel
{
namespace Infra
{

/// Copies the first `Size` - 1 characters of `source` at most; null is the empty text.
template <size_t Size>
inline void copyText(char (&target)[Size], const char* source)
{
    static_assert(Size > 0, "room for the terminator");
    const size_t length = source == nullptr ? 0 : strnlen(source, Size - 1);
    memcpy(target, source == nullptr ? "" : source, length);
    target[length] = '\0';
}

/// Formats as far as `target` has room. The result is the length of what stands there now.
template <size_t Size>
__attribute__((format(printf, 2, 3))) inline size_t formatText(char (&target)[Size],
                                                               const char* format, ...)
{
    static_assert(Size > 0, "room for the terminator");
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(target, Size, format, arguments);
    va_end(arguments);
    if (length < 0) {
        target[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(length) < Size ? static_cast<size_t>(length) : Size - 1;
}

/// `text`, or "" for null.
inline const char* textOrEmpty(const char* text)
{
    return text == nullptr ? "" : text;
}

/// `text` as a log line shows it: "(null)" for null, as the system's printf does.
inline const char* shownText(const char* text)
{
    return text == nullptr ? "(null)" : text;
}

} // namespace Infra
} // namespace Tarsel

#endif
