// ProcessId.cpp: one page that a fork clears.
//
// A fork handler would not do: clone() and a direct system call run none, and a child that took
// itself for its parent would give back what is the parent's.

#include "Infra3/ProcessId.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace Tarsel
{
namespace Infra
{

constinit std::atomic<std::atomic<pid_t>*> Detail::s_processId{nullptr};

namespace
{

/// There is no page that the system clears in a child, nor will there be: it is asked each time.
constinit std::atomic<bool> s_isRefused{false};

/// Null where there is none to be had.
std::atomic<pid_t>* makePlace()
{
    const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const page =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        return nullptr;
    }
    std::atomic<pid_t>* const place = new (page) std::atomic<pid_t>(0);
    std::atomic<pid_t>* first = nullptr;
    if (madvise(page, size, MADV_WIPEONFORK) == 0 &&
        Detail::s_processId.compare_exchange_strong(first, place)) {
        return place;
    }
    munmap(page, size);
    s_isRefused.store(first == nullptr, std::memory_order_relaxed);
    return first;
}

} // namespace

pid_t fetchProcessId()
{
    const pid_t id = getpid();
    std::atomic<pid_t>* place = Detail::s_processId.load(std::memory_order_acquire);
    if (place == nullptr && !s_isRefused.load(std::memory_order_relaxed)) {
        place = makePlace();
    }
    if (place != nullptr) {
        place->store(id, std::memory_order_relaxed);
    }
    return id;
}

} // namespace Infra
} // namespace Tarsel
