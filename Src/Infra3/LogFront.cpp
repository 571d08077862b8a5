// LogFront.cpp: the library's own messages, sent or kept back.

#include "Infra3/LogFront.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace Tarsel
{
namespace Infra
{
namespace
{

/// The outermost hold of the calling thread.
constinit thread_local CLogHold* t_hold = nullptr;

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    std::string text(length < 0 ? 0 : static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

} // namespace

void logFront(int level, const LogPlace& place, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // After a fatal message nobody comes back to let it go.
    if (t_hold != nullptr && level > logLevelFatal) {
        const int error = errno;
        t_hold->m_messages.push_back({level, place, formatted(format, arguments)});
        errno = error;
    } else {
        logFilterEx(level, "Infra", place.file, place.function, place.line, INFRA_REVISION, format,
                    arguments);
    }
    va_end(arguments);
}

CLogHold::CLogHold()
{
    if (t_hold == nullptr) {
        t_hold = this;
    }
}

CLogHold::~CLogHold()
{
    if (t_hold != this) {
        return;
    }
    t_hold = nullptr;
    for (const Message& message : m_messages) {
        logFront(message.level, message.place, "%s", message.text.c_str());
    }
}

} // namespace Infra
} // namespace Tarsel
