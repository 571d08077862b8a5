// LogFileComplaints.cpp: complaints about the log file, kept until its lock is free.

#include "Infra3/LogFileComplaints.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace Tarsel
{
namespace Infra
{

constinit thread_local CLogFileComplaints* CLogFileComplaints::t_kept = nullptr;

CLogFileComplaints::CLogFileComplaints()
{
    t_kept = this;
}

CLogFileComplaints::~CLogFileComplaints()
{
    t_kept = nullptr;
    if (m_length > 0) {
        fwrite(m_text, 1, m_length, stdout);
    }
}

void complain(const char* file, int line, const char* format, ...)
{
    CLogFileComplaints* const kept = CLogFileComplaints::t_kept;
    if (kept == nullptr) {
        return;
    }
    const auto add = [kept](auto print) {
        const size_t room = sizeof(kept->m_text) - kept->m_length;
        const int length = print(kept->m_text + kept->m_length, room);
        kept->m_length += std::min(static_cast<size_t>(std::max(length, 0)), room - 1);
    };
    va_list arguments;
    va_start(arguments, format);
    add([&](char* out, size_t room) { return snprintf(out, room, "[%s:%d]", file, line); });
    add([&](char* out, size_t room) { return vsnprintf(out, room, format, arguments); });
    va_end(arguments);
}

} // namespace Infra
} // namespace Tarsel
