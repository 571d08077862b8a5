#ifndef INFRA_TESTS_SUPPORT_FAILINGHEAP_H
#define INFRA_TESTS_SUPPORT_FAILINGHEAP_H

// A heap that fails on demand, and shows what is freed. The test program has its own `operator new`, and the linker sends
// every `malloc`, `calloc` and `realloc` of this program here (--wrap); what the C library takes for
// itself is not meant.

#include <cstddef>
#include <functional>
#include <string>

namespace Tarsel
{
namespace TestSupport
{

/// While it lives, every `malloc`, `calloc` and `realloc` for exactly `bytes` bytes fails. `new` is
/// not meant. One at a time.
class CFailingHeap
{
public:
    explicit CFailingHeap(size_t bytes);
    ~CFailingHeap();
    CFailingHeap(const CFailingHeap&) = delete;
    CFailingHeap& operator=(const CFailingHeap&) = delete;
};

/// How long memory is missing.
enum class Shortage
{
    once,   ///< for one allocation
    lasting ///< from one allocation on
};

/// While it lives, the allocation with that number, 1 being the next one of any thread, fails, and
/// all behind it if the shortage lasts. One at a time.
class CMemoryShortage
{
public:
    CMemoryShortage(int number, Shortage shortage);
    ~CMemoryShortage();
    CMemoryShortage(const CMemoryShortage&) = delete;
    CMemoryShortage& operator=(const CMemoryShortage&) = delete;

    /// True when an allocation has failed.
    static bool wasFelt();
};

/// What the calling thread's last `new` gave.
const void* lastMade();

/// While it lives, each block that the calling thread deletes is shown just before it is freed.
class CFreedBlocks
{
public:
    using Look = std::function<void(const void* block, size_t size)>;
    explicit CFreedBlocks(Look look);
    ~CFreedBlocks();
    CFreedBlocks(const CFreedBlocks&) = delete;
    CFreedBlocks& operator=(const CFreedBlocks&) = delete;

private:
    Look m_look;
};

/// Searches what the calling thread deletes for a text that should not stay in memory.
class CSecretWatch
{
public:
    explicit CSecretWatch(std::string secret);

    /// How many blocks held it.
    int found() const { return m_found; }

private:
    const std::string m_secret;
    int m_found = 0;
    CFreedBlocks m_freed;
};

/// Runs `step`; false when it ended with std::bad_alloc, the answer of what has no other result.
bool managed(const std::function<void()>& step);

/// Runs `scenario` in one child after the other, the first allocation failing in the first, the
/// second in the second, until one feels no shortage; once for each kind of shortage. In each child
/// `prepare` runs before memory is short, and `recover` when it is there again. A child has to
/// succeed, or to end itself with one of `lastWords` on standard error.
struct ShortageTest
{
    std::function<void()> prepare;
    std::function<void()> scenario;
    std::function<void()> recover;
    std::string lastWords; ///< empty: none
};
void expectToSurviveShortage(const ShortageTest& test);

} // namespace TestSupport
} // namespace Tarsel

#endif
