// FailingHeap.cpp: the heap seams, and scenarios run against each failure in turn.

#include "Support/FailingHeap.h"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <gtest/gtest.h>

#include "Support/ChildProcess.h"

namespace
{

constexpr size_t noSize = static_cast<size_t>(-1);
constinit std::atomic<size_t> s_failing{noSize};

constinit std::atomic<bool> s_isShort{false};
constinit std::atomic<int> s_firstFailing{0};
constinit std::atomic<int> s_lastFailing{0};
constinit std::atomic<int> s_asked{0};

constinit thread_local const void* s_lastMade = nullptr;
constinit thread_local const Tarsel::TestSupport::CFreedBlocks::Look* s_look = nullptr;

void drop(void* block)
{
    if (s_look != nullptr && block != nullptr) {
        (*s_look)(block, malloc_usable_size(block));
    }
    free(block);
}

bool isMissing()
{
    if (!s_isShort.load(std::memory_order_relaxed)) {
        return false;
    }
    const int number = ++s_asked;
    return number >= s_firstFailing && number <= s_lastFailing;
}

bool fails(size_t bytes)
{
    if (bytes != s_failing.load(std::memory_order_relaxed) && !isMissing()) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);

extern "C" void* __wrap_malloc(size_t size)
{
    return fails(size) ? nullptr : __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size)
{
    return fails(count * size) ? nullptr : __real_calloc(count, size);
}

extern "C" void* __wrap_realloc(void* block, size_t size)
{
    return fails(size) ? nullptr : __real_realloc(block, size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    void* const block = isMissing() ? nullptr : __real_malloc(size == 0 ? 1 : size);
    s_lastMade = block;
    return block;
}

void* operator new(size_t size)
{
    void* const block = operator new(size, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](size_t size)
{
    return operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return operator new(size, std::nothrow);
}

void operator delete(void* block) noexcept
{
    drop(block);
}

void operator delete(void* block, size_t) noexcept
{
    drop(block);
}

void operator delete[](void* block) noexcept
{
    drop(block);
}

void operator delete[](void* block, size_t) noexcept
{
    drop(block);
}

namespace Tarsel
{
namespace TestSupport
{
namespace
{

constexpr int mostAllocations = 2000; // of a scenario; more come from one that never ends

/// Runs the scenario with one allocation failing, in a child. False when none has failed.
bool runShort(const ShortageTest& test, int number, Shortage shortage)
{
    void* const shared =
        mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    volatile bool* const wasFelt = static_cast<volatile bool*>(shared);
    const ChildResult child = runInChild([&] {
        test.prepare();
        {
            *wasFelt = true; // unless the child lives to tell
            const CMemoryShortage missing(number, shortage);
            test.scenario();
            *wasFelt = CMemoryShortage::wasFelt();
        }
        test.recover();
#if defined(__SANITIZE_THREAD__)
        fflush(stdout);
        // Its exit() waits a second for more races, which makes a minute of all the children.
        syscall(SYS_exit_group, testing::Test::HasFailure() ? 1 : 0);
#endif
    });
    const bool saidLastWords = child.signal == SIGABRT && !test.lastWords.empty() &&
                               child.errorOutput.find(test.lastWords) != std::string::npos;
    EXPECT_TRUE(child.succeeded() || saidLastWords)
        << "allocation " << number << (shortage == Shortage::lasting ? " and later ones: " : ": ")
        << child.report();
    const bool felt = *wasFelt;
    munmap(shared, sizeof(bool));
    return felt;
}

} // namespace

CSecretWatch::CSecretWatch(std::string secret)
    : m_secret(std::move(secret)), m_freed([this](const void* block, size_t size) {
          const void* const found = memmem(block, size, m_secret.data(), m_secret.size());
          m_found += found != nullptr ? 1 : 0;
      })
{}

CFailingHeap::CFailingHeap(size_t bytes)
{
    s_failing = bytes;
}

CFailingHeap::~CFailingHeap()
{
    s_failing = noSize;
}

CMemoryShortage::CMemoryShortage(int number, Shortage shortage)
{
    s_asked = 0;
    s_firstFailing = number;
    s_lastFailing = shortage == Shortage::once ? number : INT_MAX;
    s_isShort = true;
}

CMemoryShortage::~CMemoryShortage()
{
    s_isShort = false;
}

bool CMemoryShortage::wasFelt()
{
    return s_asked >= s_firstFailing;
}

const void* lastMade()
{
    return s_lastMade;
}

CFreedBlocks::CFreedBlocks(Look look) : m_look(std::move(look))
{
    s_look = &m_look;
}

CFreedBlocks::~CFreedBlocks()
{
    s_look = nullptr;
}

bool managed(const std::function<void()>& step)
{
    try {
        step();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void expectToSurviveShortage(const ShortageTest& test)
{
    for (const Shortage shortage : {Shortage::once, Shortage::lasting}) {
        int number = 1;
        while (number < mostAllocations && !testing::Test::HasFailure() &&
               runShort(test, number, shortage)) {
            ++number;
        }
        EXPECT_GT(number, 1) << "the scenario needs no memory";
        EXPECT_LT(number, mostAllocations);
    }
}

} // namespace TestSupport
} // namespace Tarsel
