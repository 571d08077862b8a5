// TimeRecord.cpp: where the time went.

#include <algorithm>
#include <climits>
#include <new>

#include "Infra/Time.h"
#include "Infra3/BoundedText.h"
#include "Infra3/LogFront.h"

using Tarsel::Infra::textOrEmpty;

namespace
{

int shownMicroSeconds(uint64_t us)
{
    return static_cast<int>(std::min<uint64_t>(us, INT_MAX));
}

} // namespace

CTimeRecord::CTimeRecord(const char* name, int size)
    : m_points(new (std::nothrow) TimePoint[static_cast<size_t>(std::max(size, 0))]),
      m_name(textOrEmpty(name)),
      m_size(m_points == nullptr ? 0 : std::max(size, 0)),
      m_pos(0),
      m_saidFull(false)
{}

CTimeRecord::~CTimeRecord()
{
    delete[] m_points;
}

void CTimeRecord::sample(const char* name)
{
    if (m_pos < m_size) {
        m_points[m_pos++] = {textOrEmpty(name), CTime::getCurrentMicroSecond()};
    } else if (!m_saidFull) {
        m_saidFull = true;
        INFRA_LOG_WARN("CTimeRecord::sample %s is full, size:%d\n", m_name, m_size);
    }
}

void CTimeRecord::reset()
{
    m_pos = 0;
    m_saidFull = false;
}

void CTimeRecord::stat(unsigned int threshold)
{
    // A printer of the application may take samples, or reset this, between the lines.
    const int count = m_pos;
    if (count == 0) {
        return;
    }
    const uint64_t end = CTime::getCurrentMicroSecond();
    if (threshold != 0 && end - m_points[0].us < threshold) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        const uint64_t next = i + 1 < count ? m_points[i + 1].us : end;
        INFRA_LOG_INFO("%s-%s : %d us\n", m_name, m_points[i].name,
                       shownMicroSeconds(next - m_points[i].us));
    }
}
