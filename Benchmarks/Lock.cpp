// Locks and semaphores beside those of the standard library and the system.
//
// mutex/threads:N            entered and left, on one thread and by two that compete
// recursive_mutex/threads:N  the same
// recursive_mutex_nested     entered twice and left twice
// rw_mutex_read/threads:N    entered for reading and left
// rw_mutex_write/threads:N   entered for writing and left
// semaphore_post_pend        posted and taken again by one thread
// semaphore_round_trip       posted to a sleeping thread, which posts back: by the clock

#include <semaphore.h>

#include <mutex>
#include <shared_mutex>
#include <thread>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/ReadWriteMutex.h"
#include "Infra/Infra3/RecursiveMutex.h"
#include "Infra/Infra3/Semaphore.h"

namespace
{

using namespace Tarsel::Infra;

// One spelling for all locks.

template <typename Lock>
void enter(Lock& lock)
{
    lock.enter();
}
template <typename Lock>
void leave(Lock& lock)
{
    lock.leave();
}
void enter(std::mutex& lock)
{
    lock.lock();
}
void leave(std::mutex& lock)
{
    lock.unlock();
}
void enter(std::recursive_mutex& lock)
{
    lock.lock();
}
void leave(std::recursive_mutex& lock)
{
    lock.unlock();
}

/// Shared by the threads of a case, on cache lines of its own.
template <typename Lock>
struct Guarded
{
    alignas(128) Lock lock;
    alignas(128) int value = 0;
};

template <typename Lock>
Guarded<Lock>& guarded()
{
    static Guarded<Lock> made;
    return made;
}

template <typename Lock>
void exclusive(benchmark::State& state)
{
    Guarded<Lock>& object = guarded<Lock>();
    for (auto _ : state) {
        enter(object.lock);
        benchmark::DoNotOptimize(++object.value);
        leave(object.lock);
    }
}

template <typename Lock>
void nested(benchmark::State& state)
{
    Guarded<Lock>& object = guarded<Lock>();
    for (auto _ : state) {
        enter(object.lock);
        enter(object.lock);
        benchmark::DoNotOptimize(++object.value);
        leave(object.lock);
        leave(object.lock);
    }
}

void readInfra(benchmark::State& state)
{
    Guarded<CReadWriteMutex>& object = guarded<CReadWriteMutex>();
    for (auto _ : state) {
        object.lock.enterReading();
        benchmark::DoNotOptimize(object.value);
        object.lock.leave();
    }
}

void readStandard(benchmark::State& state)
{
    Guarded<std::shared_mutex>& object = guarded<std::shared_mutex>();
    for (auto _ : state) {
        object.lock.lock_shared();
        benchmark::DoNotOptimize(object.value);
        object.lock.unlock_shared();
    }
}

void writeInfra(benchmark::State& state)
{
    Guarded<CReadWriteMutex>& object = guarded<CReadWriteMutex>();
    for (auto _ : state) {
        object.lock.enterWriting();
        benchmark::DoNotOptimize(++object.value);
        object.lock.leave();
    }
}

void writeStandard(benchmark::State& state)
{
    Guarded<std::shared_mutex>& object = guarded<std::shared_mutex>();
    for (auto _ : state) {
        object.lock.lock();
        benchmark::DoNotOptimize(++object.value);
        object.lock.unlock();
    }
}

/// sem_t under the names of CSemaphore.
class CSystemSemaphore
{
public:
    explicit CSystemSemaphore(unsigned count) { sem_init(&m_semaphore, 0, count); }
    ~CSystemSemaphore() { sem_destroy(&m_semaphore); }
    void post() { sem_post(&m_semaphore); }
    void pend()
    {
        while (sem_wait(&m_semaphore) != 0) {
        }
    }

private:
    sem_t m_semaphore;
};

template <typename Semaphore>
void postPend(benchmark::State& state)
{
    Semaphore semaphore(0);
    for (auto _ : state) {
        semaphore.post();
        semaphore.pend();
    }
}

template <typename Semaphore>
void roundTrip(benchmark::State& state)
{
    Semaphore there(0);
    Semaphore back(0);
    bool over = false;
    std::thread other([&] {
        for (;;) {
            there.pend();
            if (over) {
                return;
            }
            back.post();
        }
    });
    for (auto _ : state) {
        there.post();
        back.pend();
    }
    over = true;
    there.post();
    other.join();
}

void addCases()
{
    for (const int threads : {1, 2}) {
        Bench::addThreads(threads, "mutex", Bench::infra, exclusive<CMutex>);
        Bench::addThreads(threads, "mutex", "std::mutex", exclusive<std::mutex>);
        Bench::addThreads(threads, "recursive_mutex", Bench::infra, exclusive<CRecursiveMutex>);
        Bench::addThreads(threads, "recursive_mutex", "std::recursive_mutex",
                          exclusive<std::recursive_mutex>);
        Bench::addThreads(threads, "rw_mutex_read", Bench::infra, readInfra);
        Bench::addThreads(threads, "rw_mutex_read", "std::shared_mutex", readStandard);
        Bench::addThreads(threads, "rw_mutex_write", Bench::infra, writeInfra);
        Bench::addThreads(threads, "rw_mutex_write", "std::shared_mutex", writeStandard);
    }
    Bench::add("recursive_mutex_nested", Bench::infra, nested<CRecursiveMutex>);
    Bench::add("recursive_mutex_nested", "std::recursive_mutex", nested<std::recursive_mutex>);
    Bench::add("semaphore_post_pend", Bench::infra, postPend<CSemaphore>);
    Bench::add("semaphore_post_pend", "sem_t", postPend<CSystemSemaphore>);
    Bench::add("semaphore_round_trip", Bench::infra, roundTrip<CSemaphore>)->UseRealTime();
    Bench::add("semaphore_round_trip", "sem_t", roundTrip<CSystemSemaphore>)->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    addCases();
    return Bench::run(argc, argv, "locks of the compiler's library, sem_t of the system");
}
