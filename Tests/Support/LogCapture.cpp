// LogCapture.cpp: log lines as text.

#include "Support/LogCapture.h"

#include <mutex>
#include <utility>

namespace Tarsel
{
namespace TestSupport
{
namespace
{

/// One text that begins a line, or goes on with one.
struct Message
{
    std::string level; ///< "" without a prefix
    std::string text;

    std::string leveled() const { return level.empty() ? text : level + "|" + text; }
};

/// Takes "[12:00:00 warn Infra:1 7 File.cpp:1]text" apart.
Message withoutPrefix(const std::string& printed)
{
    const size_t end = printed.rfind('[', 0) == 0 ? printed.find(']') : std::string::npos;
    const size_t levelAt = printed.find(' ') + 1;
    if (end == std::string::npos || levelAt == 0 || levelAt > end) {
        return {"", printed};
    }
    return {printed.substr(levelAt, printed.find(' ', levelAt) - levelAt), printed.substr(end + 1)};
}

/// Who takes what is printed. It stays: a thread may be in the printer when the one who takes ends.
struct Printing
{
    std::mutex mutex; // guards the pointer, and the texts behind it
    CLogCapture* current = nullptr;
};

Printing& printing()
{
    static Printing& s_printing = *new Printing;
    return s_printing;
}

typedef std::lock_guard<std::mutex> Guard;

} // namespace

std::string leveled(const std::string& printed)
{
    std::string lines;
    for (size_t begin = 0, end = 0; begin < printed.size(); begin = end) {
        end = printed.find('\n', begin);
        end = end == std::string::npos ? printed.size() : end + 1;
        lines += withoutPrefix(printed.substr(begin, end - begin)).leveled();
    }
    return lines;
}

CLogCapture::CLogCapture()
{
    {
        const Guard guard(printing().mutex);
        printing().current = this;
    }
    Infra::setLogPrinter(&CLogCapture::print);
}

CLogCapture::~CLogCapture()
{
    Infra::setLogPrinter(Infra::LogPrinterProc());
    const Guard guard(printing().mutex);
    printing().current = nullptr;
}

void CLogCapture::print(const char* text)
{
    const Guard guard(printing().mutex);
    if (printing().current != nullptr) {
        printing().current->take(text);
    }
}

std::string CLogCapture::text() const
{
    const Guard guard(printing().mutex);
    return m_text;
}

bool CLogCapture::contains(const std::string& part) const
{
    return text().find(part) != std::string::npos;
}

void CLogCapture::clear()
{
    const Guard guard(printing().mutex);
    m_text.clear();
    m_leveled.clear();
}

std::string CLogCapture::take()
{
    const Guard guard(printing().mutex);
    m_leveled.clear();
    return std::exchange(m_text, std::string());
}

std::string CLogCapture::takeLeveled()
{
    const Guard guard(printing().mutex);
    m_text.clear();
    return std::exchange(m_leveled, std::string());
}

void CLogCapture::take(const char* text)
{
    const bool beginsLine = m_text.empty() || m_text.back() == '\n';
    const Message message = beginsLine ? withoutPrefix(text) : Message{"", text};
    m_text += message.text;
    m_leveled += message.leveled();
}

} // namespace TestSupport
} // namespace Tarsel
