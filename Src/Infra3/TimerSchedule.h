#ifndef INFRA_SRC_INFRA3_TIMERSCHEDULE_H
#define INFRA_SRC_INFRA3_TIMERSCHEDULE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tarsel
{
namespace Infra
{

struct TimerInternal;

/// The scheduled timers, in the order of their call times; among equal ones the one inserted last
/// is first. Inserting and removing take the same few steps however many timers there are.
///
/// A hierarchical timing wheel (Varghese and Lauck, "Hashed and Hierarchical Timing Wheels", 1987)
/// over the milliseconds of the clock, six bits a level, eleven levels for all 64 bits. A timer
/// stands in the slot of the highest six-bit digit in which its time differs from the wheel's time:
///
///     wheel time  ... 0 0 5 9        a timer at 0 0 5 12 stands in level 0, slot 12
///                                    a timer at 0 0 7 1  stands in level 1, slot 7
///
/// so all timers of one millisecond stand in one slot, in one list, whose front is the last one
/// inserted. When the wheel's time enters a slot of a higher level, its timers move down, from the
/// back to the front, which keeps that order. A slot of level 0 holds one millisecond.
///
/// Always true between calls: (1) a timer is in the due list if its time is below the wheel's time,
/// else in the wheel, in the slot above; (2) the due list is sorted and has `m_dueCount` timers;
/// (3) a bit in `m_occupied` is set if and only if its slot is not empty.
///
/// Threads: none; the owner locks. Ownership: none; the timers' own links are used.
class CTimerSchedule
{
public:
    explicit CTimerSchedule(uint64_t now);
    CTimerSchedule(const CTimerSchedule&) = delete;
    CTimerSchedule& operator=(const CTimerSchedule&) = delete;

    void insert(TimerInternal& timer);
    void remove(TimerInternal& timer);

    /// Makes every timer with a call time below `now` due. Time does not go backwards.
    void advance(uint64_t now);
    /// The first timer whose time is below the last `now`, or null.
    TimerInternal* firstDue() const { return m_dueHead; }
    /// How many are due.
    size_t dueCount() const { return m_dueCount; }

    /// Takes all timers out and calls `each` for every one. Needs no memory.
    template <typename Each>
    void clear(const Each& each);

    /// All timers in order. Costs as much as sorting them.
    std::vector<TimerInternal*> sorted() const;
    /// Checks the invariants above, for tests.
    bool isSound() const;

private:
    static constexpr int digitBits = 6;
    static constexpr int slotCount = 1 << digitBits;
    static constexpr int levelCount = 11;

    int levelOf(uint64_t time) const;
    static int slotOf(uint64_t time, int level);
    uint64_t slotStart(int level, int slot) const;
    int lowestOccupiedLevel() const;

    void insertInWheel(TimerInternal& timer);
    void insertInDue(TimerInternal& timer);
    TimerInternal* takeSlot(int level, int slot);
    void appendDue(TimerInternal* list);
    void moveDown(TimerInternal* list);

    uint64_t m_now; ///< the wheel's time
    TimerInternal* m_dueHead = nullptr;
    TimerInternal* m_dueTail = nullptr;
    size_t m_dueCount = 0;
    uint64_t m_occupied[levelCount] = {};
    TimerInternal* m_slots[levelCount][slotCount] = {};

    TimerInternal* anyTimer() const;
};

template <typename Each>
void CTimerSchedule::clear(const Each& each)
{
    while (TimerInternal* const timer = anyTimer()) {
        remove(*timer);
        each(*timer);
    }
}

} // namespace Infra
} // namespace Tarsel

#endif
