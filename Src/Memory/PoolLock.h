#ifndef INFRA_SRC_MEMORY_POOLLOCK_H
#define INFRA_SRC_MEMORY_POOLLOCK_H

// The packet pool's lock, whose word says more than free or held.
//
// A packet that is made, used and dropped is the pool's commonest case, and there splitting and
// merging undo each other exactly: if nothing else happened to the lists since a block was split
// off, freeing it merges its halves into the block they came from, which returns to the front of
// the list it was first on. The next request of that size splits the same block off again. So while
// the lock is free its word may bear a note about the last block:
//
//      none ---- enter, leave(out) ----> out  <-------------> back
//        ^                                |    giveBack         |
//        |                                |    takeBack         |
//        +------- enter, leave(none) -----+---------------------+
//
//      out    was handed out, and the lists have not changed since
//      back   the same, and it was freed since; the lists do not know that yet
//
// giveBack and takeBack are one compare-and-swap each, without the lists. Whoever enters takes the
// note away; what it says of a block that is back is entered into the lists before anything else is
// done with them, so nobody can tell that it was late.

#include <atomic>
#include <cstdint>

#include "Infra/Infra3/Mutex.h"

namespace Tarsel
{
namespace Memory
{

/// What stands in the word: which block, of which order, and whether it is back.
class CPoolNote
{
public:
    constexpr CPoolNote() : m_word(none) {}
    static constexpr CPoolNote out(uint64_t index, int order)
    {
        return CPoolNote(index << 8 | static_cast<uint64_t>(order) << 2 | outBit);
    }

    constexpr bool isBack() const { return (m_word & backBit) != 0; }
    constexpr bool isOut() const { return (m_word & (outBit | backBit)) == outBit; }
    constexpr uint64_t index() const { return m_word >> 8; }
    constexpr int order() const { return static_cast<int>(m_word >> 2 & 63); }

private:
    friend class CPoolLock;

    static constexpr uint64_t backBit = 1;
    static constexpr uint64_t outBit = 2;          // in every note of a block
    static constexpr uint64_t none = ~uint64_t{3}; // of no block that there could be

    constexpr explicit CPoolNote(uint64_t word) : m_word(word) {}

    uint64_t m_word;
};

/// A lock for critical sections of some ten instructions.
///
/// Taking and leaving cost one atomic step together where nobody waits. Of those who wait, one
/// looks at the word, the others sleep at the gate, so that the holder is left alone with it.
/// Threads: all of it is safe from any thread.
class CPoolLock
{
public:
    explicit CPoolLock(Infra::CMutex& gate)
        : m_word(CPoolNote::none), m_hint(CPoolNote::none), m_gate(gate)
    {}

    /// Enters. The result is the note that was there; it is gone.
    CPoolNote enter()
    {
        const uint64_t word = m_word.exchange(held, std::memory_order_acquire);
        return word != held ? CPoolNote(word) : enterThroughGate();
    }
    void leave(CPoolNote note)
    {
        if (note.isOut()) {
            t_ownBlock = note.index();
        }
        m_hint.store(note.m_word & ~CPoolNote::backBit, std::memory_order_relaxed);
        m_word.store(note.m_word, std::memory_order_release);
    }

    /// The block of `order` that is back, which is handed out by this.
    bool takeBack(int order, uint64_t* index)
    {
        const CPoolNote hint(m_hint.load(std::memory_order_relaxed));
        *index = hint.index();
        return hint.order() == order && change(hint.m_word | CPoolNote::backBit, hint.m_word);
    }

    /// True when the block at `index` was the one noted as out: it is noted as back now.
    bool giveBack(uint64_t index)
    {
        const CPoolNote hint(m_hint.load(std::memory_order_relaxed));
        return hint.index() == index && change(hint.m_word, hint.m_word | CPoolNote::backBit);
    }

    /// The note at this moment, and true; false while somebody is in, for then there is none.
    bool look(CPoolNote* note) const
    {
        const uint64_t word = m_word.load(std::memory_order_acquire);
        *note = CPoolNote(word);
        return word != held;
    }

    /// To be called before entering for a block. Where another thread makes and drops packets in
    /// turn, it lets that one go on for a moment: whoever enters ends the other's cycle, and two who
    /// kept doing that to each other would both be ten times as slow as one.
    void giveWay() const
    {
        const CPoolNote note(m_word.load(std::memory_order_relaxed));
        if (note.isBack() && note.index() != t_ownBlock) {
            waitAMoment();
        }
    }

    /// For a thread that holds the gate already.
    CPoolNote enterInsideGate();

private:
    static constexpr uint64_t held = 0; // is no note

    CPoolNote enterThroughGate();
    static void waitAMoment();

    static constinit thread_local uint64_t
        t_ownBlock; ///< the block that this thread noted last as out

    /// The first look spares a step that would fail. It is not what the step rests on, so a processor
    /// that guesses its outcome right need not wait for it.
    bool change(uint64_t from, uint64_t to)
    {
        return m_word.load(std::memory_order_relaxed) == from &&
               m_word.compare_exchange_strong(from, to, std::memory_order_acq_rel,
                                              std::memory_order_relaxed);
    }

    std::atomic<uint64_t> m_word;
    std::atomic<uint64_t> m_hint; ///< the last note, as of a block that is out
    Infra::CMutex& m_gate;
};

} // namespace Memory
} // namespace Tarsel

#endif
