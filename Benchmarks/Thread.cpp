// Threads and what the thread table costs.
//
// thread_create_destroy   made, registered, its empty body run, waited for, destroyed: by the clock
//   std::thread           made and joined
// heartbeat/N             setCurrentTimeout() on a thread beside N registered ones
// find_by_id/N            hasThread() for the oldest of N registered threads
//   infra at 10           both have no peer: the time with ten threads stands beside them

#include "Infra/Infra3/Thread.h"

#include <memory>
#include <thread>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/ThreadLite.h"
#include "Infra/Infra3/ThreadManager.h"

namespace
{

using namespace Tarsel::Infra;

void doNothing(CThreadLite&) {}

void createDestroyInfra(benchmark::State& state)
{
    for (auto _ : state) {
        CThreadLite thread(&doNothing, "bench");
        if (!thread.createThread()) {
            state.SkipWithError("no thread");
            return;
        }
        thread.destroyThread();
    }
}

void createDestroyStandard(benchmark::State& state)
{
    for (auto _ : state) {
        std::thread thread([] {});
        thread.join();
    }
}

/// Registered threads that wait until the object goes.
class CCrowd
{
public:
    explicit CCrowd(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_threads.push_back(std::make_unique<CThreadLite>(
                CThreadLite::ThreadProc(&CCrowd::wait, this), "crowd", CThread::priorDefault,
                CThread::policyNormal, stackSize));
            m_threads.back()->enableStackSize();
            if (m_threads.back()->createThread()) {
                m_running.pend();
            }
        }
    }
    ~CCrowd()
    {
        for (size_t i = 0; i < m_threads.size(); ++i) {
            m_end.post();
        }
        for (const auto& thread : m_threads) {
            thread->destroyThread();
        }
    }

    int oldestId() const { return m_threads.front()->getThreadID(); }

private:
    static constexpr int stackSize = 65536;

    void wait(CThreadLite&)
    {
        m_running.post();
        m_end.pend();
    }

    CSemaphore m_running{0};
    CSemaphore m_end{0};
    std::vector<std::unique_ptr<CThreadLite>> m_threads;
};

/// Measures on a thread of its own, because only registered threads have a heartbeat.
class CHeart
{
public:
    explicit CHeart(benchmark::State& state) : m_state(state) {}

    void run()
    {
        CThreadLite thread(CThreadLite::ThreadProc(&CHeart::beat, this), "heart");
        thread.createThread();
        m_over.pend();
    }

private:
    void beat(CThreadLite&)
    {
        bool isRegistered = true;
        for (auto _ : m_state) {
            isRegistered = CThread::setCurrentTimeout(10000) && isRegistered;
        }
        if (!isRegistered) {
            m_state.SkipWithError("not registered");
        }
        m_over.post();
    }

    benchmark::State& m_state;
    CSemaphore m_over{0};
};

void heartbeat(benchmark::State& state, size_t threadCount)
{
    CCrowd crowd(threadCount);
    CHeart(state).run();
}

void findById(benchmark::State& state, size_t threadCount)
{
    CCrowd crowd(threadCount);
    CThreadManager* const manager = CThreadManager::instance();
    const int id = crowd.oldestId();
    bool found = true;
    for (auto _ : state) {
        found = manager->hasThread(id) && found;
    }
    if (!found) {
        state.SkipWithError("not found");
    }
}

void addCases()
{
    Bench::add("thread_create_destroy", Bench::infra, createDestroyInfra)->UseRealTime();
    Bench::add("thread_create_destroy", "std::thread", createDestroyStandard)->UseRealTime();
    for (const size_t count : {10, 1000}) {
        Bench::add(Bench::label("heartbeat", count), Bench::infra, heartbeat, count);
        Bench::add(Bench::label("find_by_id", count), Bench::infra, findById, count);
    }
    Bench::add("heartbeat/1000", "infra at 10", heartbeat, size_t{10});
    Bench::add("find_by_id/1000", "infra at 10", findById, size_t{10});
}

} // namespace

int main(int argc, char** argv)
{
    setPrintLogLevel(logLevelFatal); // threads that end by themselves are worth a warning each
    addCases();
    return Bench::run(argc, argv, "std::thread of the compiler's library");
}
