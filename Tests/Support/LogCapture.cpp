// LogCapture.cpp: log lines as text.

#include "Support/LogCapture.h"

#include <utility>

namespace Tarsel
{
namespace TestSupport
{

CLogCapture::CLogCapture()
{
    Infra::setLogPrinter(Infra::LogPrinterProc(&CLogCapture::take, this));
}

CLogCapture::~CLogCapture()
{
    Infra::setLogPrinter(Infra::LogPrinterProc());
}

std::string CLogCapture::text() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_text;
}

bool CLogCapture::contains(const std::string& part) const
{
    return text().find(part) != std::string::npos;
}

void CLogCapture::clear()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_text.clear();
}

std::string CLogCapture::take()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return std::exchange(m_text, std::string());
}

void CLogCapture::take(const char* text)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const std::string piece = text;
    const bool beginsLine = m_text.empty() || m_text.back() == '\n';
    const size_t prefix = beginsLine && piece.front() == '[' ? piece.find(']') : std::string::npos;
    m_text += prefix == std::string::npos ? piece : piece.substr(prefix + 1);
}

} // namespace TestSupport
} // namespace Tarsel
