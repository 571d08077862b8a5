#ifndef INFRA_SRC_INFRA3_ERRORTEXT_H
#define INFRA_SRC_INFRA3_ERRORTEXT_H

#include <cstring>

namespace Tarsel
{
namespace Infra
{

/// The system's text for one of its errors; any number has one. The text lives as long as this.
class CErrorText
{
public:
    explicit CErrorText(int error) : m_text(strerror_r(error, m_room, sizeof(m_room))) {}
    CErrorText(const CErrorText&) = delete;
    CErrorText& operator=(const CErrorText&) = delete;

    const char* c_str() const { return m_text; }

private:
    char m_room[64]; ///< for numbers without a text of their own
    const char* const m_text;
};

} // namespace Infra
} // namespace Tarsel

#endif
