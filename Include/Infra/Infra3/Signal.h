#ifndef INFRA_INFRA3_SIGNAL_H
#define INFRA_INFRA3_SIGNAL_H

#include <atomic>
#include <cstdint>
#include <new>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

/// One emission in progress on the calling thread. A callback that detaches with waiting finds here
/// which calls are its own and must not be waited for.
struct SignalCall
{
    const void* slot; ///< the slot being called, null between two
    SignalCall* outer;
};

/// The calling thread's innermost emission.
INFRA_API SignalCall*& currentSignalCall();
/// Kernel id of the calling thread.
INFRA_API int signalThreadId();
/// Gives the processor away while waiting for another thread's call; longer from round to round.
INFRA_API void pauseForSignalCall(unsigned round);
/// One line of a signal's table, for a slot in use, at info level.
INFRA_API void logSignalSlot(const void* signal, int index, unsigned calls, const char* objectType,
                             const void* object);

/// The slot table behind TSignal0 to TSignal8.
///
/// Emission takes no lock. A slot's state and its count of calls in progress share one word: an
/// emitter counts itself in and sees that the slot is in use in one atomic step, so the count is
/// never above 0 without a call. A delegate is written only while its slot is empty and its count
/// 0. So a slot costs an emitter two atomic steps, and the delegate is called where it stands,
/// without a copy.
template <typename Proc_, typename... A>
class TSignalTable
{
public:
    typedef Proc_ Proc;

    enum SlotState : int32_t
    {
        slotStateEmpty = 0,
        slotStateNormal = 1
    };
    enum SlotPosition : int32_t
    {
        any = 0,  ///< the first free slot
        back = 1, ///< the first free slot behind the last one in use, else the first free slot
        front = 2 ///< the last free slot before the first one in use, else the first free slot
    };
    enum ErrorCode : int32_t
    {
        errorNoFound = -1,
        errorExist = -2,
        errorFull = -3,
        errorEmptyProc = -4,
        errorAllReuseProc = -5
    };

    explicit TSignalTable(int maxSlots)
        : m_numberMax(maxSlots < 0 ? 0 : maxSlots),
          m_number(0),
          m_slots(new (std::nothrow) SignalSlot[static_cast<size_t>(m_numberMax)]),
          m_threadId(-1),
          m_slotsEverUsed(0)
    {
        if (m_slots == nullptr) {
            m_numberMax = 0;
        }
    }
    ~TSignalTable() { delete[] m_slots; }

    TSignalTable(const TSignalTable&) = delete;
    TSignalTable& operator=(const TSignalTable&) = delete;

    /// Takes a slot for `proc`, so that the emissions from now on call it.
    /// @return slots in use now (1 or more); errorEmptyProc, errorAllReuseProc; errorExist when an
    ///         equal delegate is attached; errorFull when each slot is in use or, detached, still
    ///         in a call
    int attach(const Proc& proc, SlotPosition position = any)
    {
        if (proc.empty()) {
            return errorEmptyProc;
        }
        if (proc.allReuse()) {
            return errorAllReuseProc;
        }
        CGuard guard(m_mutex);
        if (findLocked(proc) >= 0) {
            return errorExist;
        }
        const int index = freeSlotLocked(position);
        if (index < 0) {
            return errorFull;
        }
        m_slots[index].proc = proc;
        m_slots[index].open();
        if (index >= knownSlots()) {
            m_slotsEverUsed.store(index + 1, std::memory_order_release);
        }
        return ++m_number;
    }

    /// Frees the slot of `proc`; a typeAllReuse delegate frees every slot of that member and
    /// object.
    /// @param wait  return only when no other thread is inside a call of it any more; the calling
    ///              thread's own calls are not waited for
    /// @return slots in use now; errorEmptyProc or errorNoFound
    int detach(const Proc& proc, bool wait = false)
    {
        if (proc.empty()) {
            return errorEmptyProc;
        }
        int left = 0;
        {
            CGuard guard(m_mutex);
            if (!freeSlotsLocked(proc)) {
                return errorNoFound;
            }
            left = m_number;
        }
        if (wait) {
            waitForCalls(proc);
        }
        return left;
    }

    /// True when an equal delegate is attached.
    bool isAttached(const Proc& proc)
    {
        CGuard guard(m_mutex);
        return findLocked(proc) >= 0;
    }

    /// Calls every attached delegate, in slot order, on the calling thread. Callbacks may attach
    /// and detach, themselves too: who is detached before its turn is not called, who is attached
    /// in a later slot is.
    void operator()(A... arguments)
    {
        m_threadId.store(signalThreadId(), std::memory_order_relaxed);
        const int count = m_slotsEverUsed.load(std::memory_order_acquire);
        if (count == 0) {
            return;
        }
        CEmission emission;
        for (int i = 0; i < m_slotsEverUsed.load(std::memory_order_acquire); ++i) {
            SignalSlot& slot = m_slots[i];
            if (slot.enter()) {
                CCall call(emission, slot);
                slot.proc(arguments...);
                slot.cost.store(0, std::memory_order_relaxed);
            }
        }
    }

    /// Logs one line for each slot in use.
    void stat()
    {
        for (int i = 0; i < m_slotsEverUsed.load(std::memory_order_acquire); ++i) {
            const char* objectType = nullptr;
            const void* object = nullptr;
            unsigned calls = 0;
            {
                CGuard guard(m_mutex);
                SignalSlot& slot = m_slots[i];
                if (slot.state() != slotStateNormal) {
                    continue;
                }
                objectType = slot.proc.getObjectType();
                object = slot.proc.getObject();
                calls = slot.count();
            }
            logSignalSlot(this, i, calls, objectType, object);
        }
    }

private:
    struct SignalSlot
    {
        Proc proc;
        /// Low half: the state. High half: the count of calls of this slot now in progress.
        std::atomic<uint64_t> stateAndCount{slotStateEmpty};
        std::atomic<uint32_t> cost{0};

        static constexpr uint64_t oneCall = uint64_t{1} << 32;

        SlotState state() const
        {
            return static_cast<SlotState>(stateAndCount.load(std::memory_order_relaxed) % oneCall);
        }
        /// A call that is not counted any more is over, and all that it did is seen.
        uint32_t count() const
        {
            return static_cast<uint32_t>(stateAndCount.load(std::memory_order_acquire) / oneCall);
        }

        /// Begins a call, if the slot is in use.
        bool enter()
        {
            uint64_t now = stateAndCount.load(std::memory_order_relaxed);
            while (now % oneCall == slotStateNormal) {
                if (stateAndCount.compare_exchange_weak(
                        now, now + oneCall, std::memory_order_acquire, std::memory_order_relaxed)) {
                    return true;
                }
            }
            return false;
        }
        void leave() { stateAndCount.fetch_sub(oneCall, std::memory_order_release); }

        // The state changes under m_mutex only; `proc` is written before it opens. Nobody else
        // changes the word of an empty slot without calls, but emitters enter one that is in use.
        void open() { stateAndCount.store(slotStateNormal, std::memory_order_release); }
        void shut() { stateAndCount.fetch_sub(slotStateNormal, std::memory_order_relaxed); }
    };

    /// An emission, known to its thread while it lasts.
    class CEmission
    {
    public:
        CEmission() : m_current(currentSignalCall()), m_call{nullptr, m_current}
        {
            m_current = &m_call;
        }
        ~CEmission() { m_current = m_call.outer; }
        CEmission(const CEmission&) = delete;
        CEmission& operator=(const CEmission&) = delete;
        void setSlot(const void* slot) { m_call.slot = slot; }

    private:
        SignalCall*& m_current;
        SignalCall m_call;
    };

    /// One call of a slot that was entered. It leaves at the end, also when the callback throws.
    class CCall
    {
    public:
        CCall(CEmission& emission, SignalSlot& slot) : m_emission(emission), m_slot(slot)
        {
            m_emission.setSlot(&slot);
        }
        ~CCall()
        {
            m_slot.leave();
            m_emission.setSlot(nullptr);
        }
        CCall(const CCall&) = delete;
        CCall& operator=(const CCall&) = delete;

    private:
        CEmission& m_emission;
        SignalSlot& m_slot;
    };

    bool isUsedLocked(int index) const { return m_slots[index].state() == slotStateNormal; }

    bool isFreeLocked(int index) const
    {
        return !isUsedLocked(index) && m_slots[index].count() == 0;
    }

    /// How many slots at the front have ever been used: only they can hold a delegate.
    int knownSlots() const { return m_slotsEverUsed.load(std::memory_order_relaxed); }

    int findLocked(const Proc& proc) const
    {
        const int known = knownSlots();
        for (int i = 0; i < known; ++i) {
            if (isUsedLocked(i) && m_slots[i].proc == proc) {
                return i;
            }
        }
        return -1;
    }

    int firstFreeLocked(int from) const
    {
        for (int i = from; i < m_numberMax; ++i) {
            if (isFreeLocked(i)) {
                return i;
            }
        }
        return -1;
    }

    int freeSlotLocked(SlotPosition position) const
    {
        int index = -1;
        if (position == back) {
            int behindLast = knownSlots();
            while (behindLast > 0 && !isUsedLocked(behindLast - 1)) {
                --behindLast;
            }
            index = firstFreeLocked(behindLast);
        } else if (position == front) {
            for (int i = 0; i < m_numberMax && !isUsedLocked(i); ++i) {
                index = isFreeLocked(i) ? i : index;
            }
        }
        return index >= 0 ? index : firstFreeLocked(0);
    }

    bool freeSlotsLocked(const Proc& proc)
    {
        bool found = false;
        for (int i = 0; i < knownSlots(); ++i) {
            if (isUsedLocked(i) && m_slots[i].proc == proc) {
                m_slots[i].shut();
                --m_number;
                found = true;
                if (!proc.allReuse()) {
                    break;
                }
            }
        }
        return found;
    }

    uint32_t ownCalls(const SignalSlot& slot) const
    {
        uint32_t calls = 0;
        for (const SignalCall* call = currentSignalCall(); call != nullptr; call = call->outer) {
            calls += call->slot == &slot ? 1 : 0;
        }
        return calls;
    }

    /// A slot that was detached keeps its delegate while one of its calls lasts; one that was taken
    /// again meanwhile holds another one and is nobody's concern here.
    bool isInsideLocked(const SignalSlot& slot, const Proc& proc) const
    {
        return slot.state() == slotStateEmpty && slot.proc == proc && slot.count() > ownCalls(slot);
    }

    void waitForCalls(const Proc& proc)
    {
        for (int i = 0; i < m_slotsEverUsed.load(std::memory_order_acquire); ++i) {
            for (unsigned round = 0;; ++round) {
                {
                    CGuard guard(m_mutex);
                    if (!isInsideLocked(m_slots[i], proc)) {
                        break;
                    }
                }
                pauseForSignalCall(round);
            }
        }
    }

    int m_numberMax;
    int m_number; ///< slots in use; under m_mutex
    SignalSlot* m_slots;
    CMutex m_mutex;                   // guards attaching and detaching; never held during a call
    std::atomic<int> m_threadId;      ///< who emitted last, -1 before the first emission
    std::atomic<int> m_slotsEverUsed; ///< no slot from here on was ever used
};

} // namespace Detail

/// A table of a fixed number of delegates that are all called when the signal is emitted.
///
/// Behaviour: calls run on the emitting thread, in slot order, without a lock held. A slot is found
/// free again only when no call of it is in progress.
/// Threads: attach, detach and emit from any thread at once; destroy when nobody uses it. A child
/// of a fork must not use a signal that other threads of the parent were using: their calls stay
/// counted, their lock stays held.
/// Ownership: bound objects belong to the caller; `detach(proc, true)` returns when no other thread
/// is inside a call, so that the object may then go.
///
///     TSignal1<int> changed(8);
///     changed.attach(TSignal1<int>::Proc(&CView::refresh, &view));
///     changed(42);
class TSignal0 : public Detail::TSignalTable<TFunction0<void>>
{
public:
    using Detail::TSignalTable<TFunction0<void>>::TSignalTable;
};

template <typename A1>
class TSignal1 : public Detail::TSignalTable<TFunction1<void, A1>, A1>
{
public:
    using Detail::TSignalTable<TFunction1<void, A1>, A1>::TSignalTable;
};

template <typename A1, typename A2>
class TSignal2 : public Detail::TSignalTable<TFunction2<void, A1, A2>, A1, A2>
{
public:
    using Detail::TSignalTable<TFunction2<void, A1, A2>, A1, A2>::TSignalTable;
};

template <typename A1, typename A2, typename A3>
class TSignal3 : public Detail::TSignalTable<TFunction3<void, A1, A2, A3>, A1, A2, A3>
{
public:
    using Detail::TSignalTable<TFunction3<void, A1, A2, A3>, A1, A2, A3>::TSignalTable;
};

template <typename A1, typename A2, typename A3, typename A4>
class TSignal4 : public Detail::TSignalTable<TFunction4<void, A1, A2, A3, A4>, A1, A2, A3, A4>
{
public:
    using Detail::TSignalTable<TFunction4<void, A1, A2, A3, A4>, A1, A2, A3, A4>::TSignalTable;
};

template <typename A1, typename A2, typename A3, typename A4, typename A5>
class TSignal5
    : public Detail::TSignalTable<TFunction5<void, A1, A2, A3, A4, A5>, A1, A2, A3, A4, A5>
{
public:
    using Detail::TSignalTable<TFunction5<void, A1, A2, A3, A4, A5>, A1, A2, A3, A4,
                               A5>::TSignalTable;
};

template <typename A1, typename A2, typename A3, typename A4, typename A5, typename A6>
class TSignal6
    : public Detail::TSignalTable<TFunction6<void, A1, A2, A3, A4, A5, A6>, A1, A2, A3, A4, A5, A6>
{
public:
    using Detail::TSignalTable<TFunction6<void, A1, A2, A3, A4, A5, A6>, A1, A2, A3, A4, A5,
                               A6>::TSignalTable;
};

template <typename A1, typename A2, typename A3, typename A4, typename A5, typename A6, typename A7>
class TSignal7 : public Detail::TSignalTable<TFunction7<void, A1, A2, A3, A4, A5, A6, A7>, A1, A2,
                                             A3, A4, A5, A6, A7>
{
public:
    using Detail::TSignalTable<TFunction7<void, A1, A2, A3, A4, A5, A6, A7>, A1, A2, A3, A4, A5, A6,
                               A7>::TSignalTable;
};

template <typename A1, typename A2, typename A3, typename A4, typename A5, typename A6, typename A7,
          typename A8>
class TSignal8 : public Detail::TSignalTable<TFunction8<void, A1, A2, A3, A4, A5, A6, A7, A8>, A1,
                                             A2, A3, A4, A5, A6, A7, A8>
{
public:
    using Detail::TSignalTable<TFunction8<void, A1, A2, A3, A4, A5, A6, A7, A8>, A1, A2, A3, A4, A5,
                               A6, A7, A8>::TSignalTable;
};

} // namespace Infra
} // namespace Tarsel

#endif
