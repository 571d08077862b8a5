#ifndef INFRA_TESTS_SUPPORT_LOGCAPTURE_H
#define INFRA_TESTS_SUPPORT_LOGCAPTURE_H

#include <string>

#include "Infra/Infra3/PrintLog.h"

namespace Tarsel
{
namespace TestSupport
{

/// Printed log lines with "level|" in the place of their prefixes: "warn|text". What begins with no
/// prefix stays as it is.
std::string leveled(const std::string& printed);

/// Takes the place of standard output for log lines while it lives, and keeps them, messages only:
/// the prefix of each line is cut off. One at a time.
class CLogCapture
{
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    /// All messages so far.
    std::string text() const;
    bool contains(const std::string& part) const;
    void clear();
    /// All messages since the last clear() or take().
    std::string take();
    /// The same with "level|" before each message.
    std::string takeLeveled();

private:
    static void print(const char* text);
    void take(const char* text);

    std::string m_text;
    std::string m_leveled;
};

} // namespace TestSupport
} // namespace Tarsel

#endif
