// FailingHeap.cpp: the heap seam, and scenarios run against each failure in turn.

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

constinit std::atomic<const char*> s_secret{nullptr};
constinit std::atomic<int> s_secretsFound{0};

void giveBack(void* block)
{
    const char* const secret = s_secret.load(std::memory_order_acquire);
    if (secret != nullptr && block != nullptr &&
        memmem(block, malloc_usable_size(block), secret, strlen(secret)) != nullptr) {
        ++s_secretsFound;
    }
    free(block);
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
    return isMissing() ? nullptr : __real_malloc(size == 0 ? 1 : size);
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
    giveBack(block);
}

void operator delete(void* block, size_t) noexcept
{
    giveBack(block);
}

void operator delete[](void* block) noexcept
{
    giveBack(block);
}

void operator delete[](void* block, size_t) noexcept
{
    giveBack(block);
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

CSecretWatch::CSecretWatch(const char* secret)
{
    s_secretsFound = 0;
    s_secret = secret;
}

CSecretWatch::~CSecretWatch()
{
    s_secret = nullptr;
}

int CSecretWatch::found()
{
    return s_secretsFound;
}

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
