// TimerSchedule.cpp: the timing wheel.

#include "Infra3/TimerSchedule.h"

#include <algorithm>

#include "Infra3/TimerInternal.h"

namespace Tarsel
{
namespace Infra
{

CTimerSchedule::CTimerSchedule(uint64_t now) : m_now(now) {}

int CTimerSchedule::levelOf(uint64_t time) const
{
    const uint64_t difference = time ^ m_now;
    return difference == 0 ? 0 : (63 - __builtin_clzll(difference)) / digitBits;
}

int CTimerSchedule::slotOf(uint64_t time, int level)
{
    return static_cast<int>(time >> (level * digitBits)) & (slotCount - 1);
}

uint64_t CTimerSchedule::slotStart(int level, int slot) const
{
    const int shift = level * digitBits;
    const uint64_t above = level + 1 == levelCount ? 0 : m_now >> (shift + digitBits);
    return ((above << digitBits) | static_cast<uint64_t>(slot)) << shift;
}

int CTimerSchedule::lowestOccupiedLevel() const
{
    int level = 0;
    while (level < levelCount && m_occupied[level] == 0) {
        ++level;
    }
    return level;
}

void CTimerSchedule::insert(TimerInternal& timer)
{
    if (timer.m_CallTime < m_now) {
        insertInDue(timer);
    } else {
        insertInWheel(timer);
    }
}

void CTimerSchedule::insertInWheel(TimerInternal& timer)
{
    const int level = levelOf(timer.m_CallTime);
    const int slot = slotOf(timer.m_CallTime, level);
    TimerInternal*& head = m_slots[level][slot];
    timer.m_pPrev = nullptr;
    timer.m_pNext = head;
    if (head != nullptr) {
        head->m_pPrev = &timer;
    }
    head = &timer;
    m_occupied[level] |= uint64_t{1} << slot;
}

void CTimerSchedule::insertInDue(TimerInternal& timer)
{
    TimerInternal* after = nullptr;
    TimerInternal* before = m_dueHead;
    while (before != nullptr && before->m_CallTime < timer.m_CallTime) {
        after = before;
        before = before->m_pNext;
    }
    timer.m_pPrev = after;
    timer.m_pNext = before;
    (after != nullptr ? after->m_pNext : m_dueHead) = &timer;
    (before != nullptr ? before->m_pPrev : m_dueTail) = &timer;
    ++m_dueCount;
}

void CTimerSchedule::remove(TimerInternal& timer)
{
    m_dueCount -= timer.m_CallTime < m_now ? 1 : 0;
    if (timer.m_pNext != nullptr) {
        timer.m_pNext->m_pPrev = timer.m_pPrev;
    } else if (m_dueTail == &timer) {
        m_dueTail = timer.m_pPrev;
    }
    if (timer.m_pPrev != nullptr) {
        timer.m_pPrev->m_pNext = timer.m_pNext;
    } else if (m_dueHead == &timer) {
        m_dueHead = timer.m_pNext;
    } else {
        const int level = levelOf(timer.m_CallTime);
        const int slot = slotOf(timer.m_CallTime, level);
        m_slots[level][slot] = timer.m_pNext;
        if (timer.m_pNext == nullptr) {
            m_occupied[level] &= ~(uint64_t{1} << slot);
        }
    }
    timer.m_pPrev = nullptr;
    timer.m_pNext = nullptr;
}

TimerInternal* CTimerSchedule::takeSlot(int level, int slot)
{
    TimerInternal* const list = m_slots[level][slot];
    m_slots[level][slot] = nullptr;
    m_occupied[level] &= ~(uint64_t{1} << slot);
    return list;
}

void CTimerSchedule::appendDue(TimerInternal* list)
{
    list->m_pPrev = m_dueTail;
    (m_dueTail != nullptr ? m_dueTail->m_pNext : m_dueHead) = list;
    ++m_dueCount;
    while (list->m_pNext != nullptr) {
        list = list->m_pNext;
        ++m_dueCount;
    }
    m_dueTail = list;
}

/// From the back to the front, because inserting puts each in front of those that came before it.
void CTimerSchedule::moveDown(TimerInternal* list)
{
    while (list->m_pNext != nullptr) {
        list = list->m_pNext;
    }
    while (list != nullptr) {
        TimerInternal* const previous = list->m_pPrev;
        insertInWheel(*list);
        list = previous;
    }
}

void CTimerSchedule::advance(uint64_t now)
{
    // All timers of a level come before all of the next one: the lowest occupied slot of the lowest
    // occupied level is what the wheel's time reaches first.
    for (int level = lowestOccupiedLevel(); level < levelCount; level = lowestOccupiedLevel()) {
        const int slot = __builtin_ctzll(m_occupied[level]);
        const uint64_t start = slotStart(level, slot);
        // A slot of a higher level is entered at its first millisecond, that of level 0 is over
        // behind it.
        if (level == 0 ? start >= now : start > now) {
            break;
        }
        TimerInternal* const list = takeSlot(level, slot);
        m_now = start;
        if (level == 0) {
            appendDue(list);
        } else {
            moveDown(list);
        }
    }
    m_now = now;
}

TimerInternal* CTimerSchedule::anyTimer() const
{
    if (m_dueHead != nullptr) {
        return m_dueHead;
    }
    const int level = lowestOccupiedLevel();
    return level == levelCount ? nullptr : m_slots[level][__builtin_ctzll(m_occupied[level])];
}

std::vector<TimerInternal*> CTimerSchedule::sorted() const
{
    std::vector<TimerInternal*> timers;
    const auto append = [&timers](TimerInternal* list) {
        for (; list != nullptr; list = list->m_pNext) {
            timers.push_back(list);
        }
    };
    append(m_dueHead);
    for (const auto& level : m_slots) {
        for (TimerInternal* const list : level) {
            append(list);
        }
    }
    std::stable_sort(timers.begin(), timers.end(), [](const auto* left, const auto* right) {
        return left->m_CallTime < right->m_CallTime;
    });
    return timers;
}

bool CTimerSchedule::isSound() const
{
    size_t dueCount = 0;
    for (const TimerInternal* timer = m_dueHead; timer != nullptr; timer = timer->m_pNext) {
        ++dueCount;
        const TimerInternal* const next = timer->m_pNext;
        const bool linked = next == nullptr ? m_dueTail == timer : next->m_pPrev == timer;
        const bool ordered = next == nullptr || timer->m_CallTime <= next->m_CallTime;
        if (!linked || !ordered || timer->m_CallTime >= m_now) {
            return false;
        }
    }
    if (dueCount != m_dueCount) {
        return false;
    }
    for (int level = 0; level < levelCount; ++level) {
        for (int slot = 0; slot < slotCount; ++slot) {
            const TimerInternal* timer = m_slots[level][slot];
            if (((m_occupied[level] >> slot) & 1) != (timer != nullptr ? 1 : 0)) {
                return false;
            }
            for (const TimerInternal* previous = nullptr; timer != nullptr;
                 previous = timer, timer = timer->m_pNext) {
                const bool inPlace = timer->m_CallTime >= m_now &&
                                     levelOf(timer->m_CallTime) == level &&
                                     slotOf(timer->m_CallTime, level) == slot;
                if (!inPlace || timer->m_pPrev != previous) {
                    return false;
                }
            }
        }
    }
    return true;
}

} // namespace Infra
} // namespace Tarsel
