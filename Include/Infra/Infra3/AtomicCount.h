#ifndef INFRA_INFRA3_ATOMICCOUNT_H
#define INFRA_INFRA3_ATOMICCOUNT_H

namespace Tarsel
{
namespace Infra
{

/// A 32-bit counter whose changes are atomic; it holds the reference counts of packets, of memory
/// blocks and of components.
///
/// Behaviour: increment and decrement return the new value and are acquire-release: whoever brings
/// the count to zero sees everything that the others did before their own change. A read is
/// relaxed. Nothing is checked: a count below 0 is the caller's mistake.
/// Threads: safe from any thread. The object is one `int` and may lie in shared memory.
class CAtomicCount
{
public:
    constexpr CAtomicCount() noexcept = default;
    constexpr explicit CAtomicCount(int value) noexcept : value_(value) {}
    CAtomicCount(const CAtomicCount&) = delete;
    CAtomicCount& operator=(const CAtomicCount&) = delete;

    int operator++() noexcept { return __atomic_add_fetch(&value_, 1, __ATOMIC_ACQ_REL); }
    int operator--() noexcept { return __atomic_sub_fetch(&value_, 1, __ATOMIC_ACQ_REL); }
    /// Takes one away and tells whether that was the last. Only for counts of owners: where there is
    /// one owner left nobody else can change the count, so that one needs no atomic step; the count
    /// then stays as it is.
    bool dropsLast() noexcept
    {
        return __atomic_load_n(&value_, __ATOMIC_ACQUIRE) == 1 || --*this == 0;
    }
    /// Takes one away unless it is the last: what has to happen with the last one under a lock needs
    /// none before. The count left; 0, and nothing changed, when there were not two.
    int dropUnlessLast() noexcept
    {
        int count = __atomic_load_n(&value_, __ATOMIC_ACQUIRE);
        while (count > 1) {
            if (__atomic_compare_exchange_n(&value_, &count, count - 1, true, __ATOMIC_ACQ_REL,
                                            __ATOMIC_ACQUIRE)) {
                return count - 1;
            }
        }
        return 0;
    }
    /// Takes one away where nobody else can change the count, which needs no atomic step then.
    /// Returns the new value.
    int dropOnly() noexcept
    {
        const int left = __atomic_load_n(&value_, __ATOMIC_RELAXED) - 1;
        __atomic_store_n(&value_, left, __ATOMIC_RELAXED);
        return left;
    }
    int value() const noexcept { return __atomic_load_n(&value_, __ATOMIC_RELAXED); }
    operator int() const noexcept { return value(); }

private:
    int value_ = 0;
};

} // namespace Infra
} // namespace Tarsel

#endif
