// LogFront.cpp: the library's own messages, sent or kept back.

#include "Infra3/LogFront.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
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
    if (t_hold != nullptr) {
        t_hold->keep(level, place, format, arguments);
    } else {
        logFilterEx(level, "Infra", place.file, place.function, place.line, INFRA_REVISION, format,
                    arguments);
    }
    va_end(arguments);
}

/// Without memory the message is lost; nothing else is.
void CLogHold::keep(int level, const LogPlace& place, const char* format, va_list arguments)
{
    const int error = errno;
    try {
        m_messages.push_back({level, place, formatted(format, arguments)});
    } catch (const std::bad_alloc&) {
    }
    errno = error;
}

void CLogHold::printNow()
{
    for (const Message& message : m_messages) {
        Infra_logFilter(message.level, "Infra", message.place.file, message.place.function,
                        message.place.line, INFRA_REVISION, "%s", message.text.c_str());
    }
    m_messages.clear();
}

void printHeldMessages()
{
    if (t_hold != nullptr) {
        t_hold->printNow();
    }
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
