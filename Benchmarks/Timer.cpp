// Timers: arming and cancelling, and the way from the due moment to the callback.
//
// timer_start_stop/N   one timer started and stopped, beside N armed ones
// timer_restart/N      one of N armed timers started anew, each time another one
//   one line           the floor: an object of the caller's leads to another, of which one line of
//                      the cache is written. With many of them each step of the way is a miss
// timer_call_now       from start() with no delay to the callback on an idle worker: by the clock
//   asio               from a post to the callback on an idle thread of a pool
// timer_burst/1000     1000 timers due at the same moment: from the first callback to the last, by
//                      the clock. `threads` is how many there were for it
//   asio               a pool of two threads
//
// Delays are spread over an hour and none is due while a case runs. CTimer is safe from any thread;
// so is libevent with its locks; libuv has none and serves one thread. An asio timer that is
// cancelled leaves its handler to be called: the calls are made every 64th time.

#include "Infra/Infra3/Timer.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/version.hpp>
#include <chrono>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/ThreadManager.h"

namespace
{

using Tarsel::Infra::CSemaphore;
using Tarsel::Infra::CThreadManager;
using Tarsel::Infra::CTimer;

typedef std::chrono::steady_clock Clock;

constexpr uint32_t shortestDelayMs = 60 * 1000;
constexpr uint32_t longestDelayMs = 60 * 60 * 1000;

/// The same delays for every contender, in turn.
class CDelays
{
public:
    CDelays()
    {
        std::mt19937 random(1);
        std::uniform_int_distribution<uint32_t> range(shortestDelayMs, longestDelayMs);
        std::generate(m_delays.begin(), m_delays.end(), [&] { return range(random); });
    }
    uint32_t next() { return m_delays[m_at++ % m_delays.size()]; }

private:
    std::array<uint32_t, 4096> m_delays;
    size_t m_at = 0;
};

// A set of each kind: `count` armed timers, of which each can be started anew, and one more that is
// started and stopped.

void doNothing(unsigned long) {}

class CInfraTimers
{
public:
    explicit CInfraTimers(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_armed.push_back(std::make_unique<CTimer>("armed"));
        }
    }
    void restart(size_t i, uint32_t delayMs) { m_armed[i]->start(&doNothing, delayMs, 0); }
    void startStop(uint32_t delayMs)
    {
        m_single.start(&doNothing, delayMs, 0);
        m_single.stop();
    }

private:
    std::vector<std::unique_ptr<CTimer>> m_armed;
    CTimer m_single{"single"};
};

class CUvTimers
{
public:
    explicit CUvTimers(size_t count) : m_armed(count)
    {
        uv_loop_init(&m_loop);
        uv_timer_init(&m_loop, &m_single);
        for (uv_timer_t& timer : m_armed) {
            uv_timer_init(&m_loop, &timer);
        }
    }
    ~CUvTimers()
    {
        close(m_single);
        for (uv_timer_t& timer : m_armed) {
            close(timer);
        }
        uv_run(&m_loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_loop);
    }
    void restart(size_t i, uint32_t delayMs) { uv_timer_start(&m_armed[i], ignore, delayMs, 0); }
    void startStop(uint32_t delayMs)
    {
        uv_timer_start(&m_single, ignore, delayMs, 0);
        uv_timer_stop(&m_single);
    }

private:
    static void ignore(uv_timer_t*) {}
    static void close(uv_timer_t& timer)
    {
        uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    }

    uv_loop_t m_loop;
    uv_timer_t m_single;
    std::vector<uv_timer_t> m_armed;
};

class CEventTimers
{
public:
    explicit CEventTimers(size_t count)
        : m_base(event_base_new()), m_single(evtimer_new(m_base, ignore, nullptr))
    {
        for (size_t i = 0; i < count; ++i) {
            m_armed.push_back(evtimer_new(m_base, ignore, nullptr));
        }
    }
    ~CEventTimers()
    {
        event_free(m_single);
        for (event* timer : m_armed) {
            event_free(timer);
        }
        event_base_free(m_base);
    }
    void restart(size_t i, uint32_t delayMs) { start(m_armed[i], delayMs); }
    void startStop(uint32_t delayMs)
    {
        start(m_single, delayMs);
        evtimer_del(m_single);
    }

private:
    static void ignore(evutil_socket_t, short, void*) {}
    static void start(event* timer, uint32_t delayMs)
    {
        const timeval delay = {static_cast<time_t>(delayMs / 1000),
                               static_cast<suseconds_t>(delayMs % 1000 * 1000)};
        evtimer_add(timer, &delay);
    }

    event_base* m_base;
    event* m_single;
    std::vector<event*> m_armed;
};

class CAsioTimers
{
public:
    explicit CAsioTimers(size_t count) : m_work(m_context.get_executor()), m_single(m_context)
    {
        for (size_t i = 0; i < count; ++i) {
            m_armed.emplace_back(m_context);
        }
    }
    void restart(size_t i, uint32_t delayMs)
    {
        start(m_armed[i], delayMs);
        callCancelled();
    }
    void startStop(uint32_t delayMs)
    {
        start(m_single, delayMs);
        m_single.cancel();
        callCancelled();
    }

private:
    static void start(boost::asio::steady_timer& timer, uint32_t delayMs)
    {
        timer.expires_after(std::chrono::milliseconds(delayMs));
        timer.async_wait([](const boost::system::error_code&) {});
    }
    void callCancelled()
    {
        if (++m_calls % 64 == 0) {
            m_context.poll();
        }
    }

    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    boost::asio::steady_timer m_single;
    std::vector<boost::asio::steady_timer> m_armed;
    size_t m_calls = 0;
};

/// Objects that lie as timers do, of which a restart writes one cache line.
class CLines
{
public:
    explicit CLines(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_owners.push_back(std::make_unique<Owner>());
        }
    }
    void restart(size_t i, uint32_t delayMs) { m_owners[i]->line->delayMs += delayMs; }

private:
    struct Line
    {
        uint64_t delayMs = 0;
        char rest[160 - sizeof(uint64_t)] = {};
    };
    struct Owner
    {
        virtual ~Owner() = default;
        std::unique_ptr<Line> line = std::make_unique<Line>();
    };

    std::vector<std::unique_ptr<Owner>> m_owners;
};

template <typename Timers>
void armAll(Timers& timers, size_t count, CDelays& delays)
{
    for (size_t i = 0; i < count; ++i) {
        timers.restart(i, delays.next());
    }
}

template <typename Timers>
void startStop(benchmark::State& state, size_t count)
{
    CDelays delays;
    Timers timers(count);
    armAll(timers, count, delays);
    for (auto _ : state) {
        timers.startStop(delays.next());
    }
}

template <typename Timers>
void restart(benchmark::State& state, size_t count)
{
    CDelays delays;
    Timers timers(count);
    armAll(timers, count, delays);
    size_t i = 0;
    for (auto _ : state) {
        timers.restart(i, delays.next());
        i = (i + 7919) % count; // a prime: all of them, neighbours in no order
    }
}

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

/// Callbacks that note when they ran.
class CWitness
{
public:
    void call(unsigned long)
    {
        const Clock::rep now = Clock::now().time_since_epoch().count();
        Clock::rep none = 0;
        m_first.compare_exchange_strong(none, now);
        Clock::rep last = m_last.load();
        while (last < now && !m_last.compare_exchange_weak(last, now)) {
        }
        m_called.post();
    }
    void wait(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            m_called.pend();
        }
    }
    void forget() { m_first.store(0); }
    Clock::time_point first() const { return Clock::time_point(Clock::duration(m_first.load())); }
    Clock::time_point last() const { return Clock::time_point(Clock::duration(m_last.load())); }

private:
    std::atomic<Clock::rep> m_first{0};
    std::atomic<Clock::rep> m_last{0};
    CSemaphore m_called{0};
};

/// Long enough for whoever has called back to fall asleep again.
void letFallAsleep()
{
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void callNowInfra(benchmark::State& state)
{
    CWitness witness;
    CTimer timer("now");
    for (auto _ : state) {
        letFallAsleep();
        while (timer.isRunning()) { // the call would be dropped
            std::this_thread::yield();
        }
        witness.forget();
        const Clock::time_point begin = Clock::now();
        timer.start(CTimer::Proc(&CWitness::call, &witness), 0, 0);
        witness.wait(1);
        state.SetIterationTime(secondsBetween(begin, witness.first()));
    }
}

void callNowAsio(benchmark::State& state)
{
    boost::asio::thread_pool pool(1);
    CWitness witness;
    for (auto _ : state) {
        letFallAsleep();
        witness.forget();
        const Clock::time_point begin = Clock::now();
        boost::asio::post(pool, [&witness] { witness.call(0); });
        witness.wait(1);
        state.SetIterationTime(secondsBetween(begin, witness.first()));
    }
    pool.join();
}

constexpr size_t burstCount = 1000;
constexpr uint32_t burstDelayMs = 30;

size_t threadCount()
{
    std::list<CThreadManager::ThreadInfo> threads;
    CThreadManager::instance()->getThreadsInfo(threads);
    return threads.size();
}

void burstInfra(benchmark::State& state)
{
    CWitness witness;
    std::vector<std::unique_ptr<CTimer>> timers;
    for (size_t i = 0; i < burstCount; ++i) {
        timers.push_back(std::make_unique<CTimer>("burst"));
    }
    for (auto _ : state) {
        witness.forget();
        for (const auto& timer : timers) {
            timer->start(CTimer::Proc(&CWitness::call, &witness), burstDelayMs, 0);
        }
        witness.wait(burstCount);
        state.SetIterationTime(secondsBetween(witness.first(), witness.last()));
    }
    state.counters["threads"] = static_cast<double>(threadCount());
}

void burstAsio(benchmark::State& state)
{
    constexpr size_t poolThreads = 2;
    boost::asio::thread_pool pool(poolThreads);
    CWitness witness;
    std::vector<boost::asio::steady_timer> timers;
    for (size_t i = 0; i < burstCount; ++i) {
        timers.emplace_back(pool);
    }
    for (auto _ : state) {
        witness.forget();
        const Clock::time_point due = Clock::now() + std::chrono::milliseconds(burstDelayMs);
        for (boost::asio::steady_timer& timer : timers) {
            timer.expires_at(due);
            timer.async_wait([&witness](const boost::system::error_code&) { witness.call(0); });
        }
        witness.wait(burstCount);
        state.SetIterationTime(secondsBetween(witness.first(), witness.last()));
    }
    state.counters["threads"] = poolThreads;
    pool.join();
}

template <typename Timers>
void addTimers(const char* contender)
{
    for (const size_t count : {10, 1000, 10000, 100000}) {
        Bench::add(Bench::label("timer_start_stop", count), contender, startStop<Timers>, count);
        Bench::add(Bench::label("timer_restart", count), contender, restart<Timers>, count);
    }
}

void addFloor()
{
    for (const size_t count : {10, 1000, 10000, 100000}) {
        Bench::add(Bench::label("timer_restart", count), "one line (floor)", restart<CLines>,
                   count);
    }
}

void addCalls()
{
    Bench::add("timer_call_now", Bench::infra, callNowInfra)->UseManualTime()->Iterations(100);
    Bench::add("timer_call_now", "asio", callNowAsio)->UseManualTime()->Iterations(100);
    Bench::add(Bench::label("timer_burst", burstCount), Bench::infra, burstInfra)
        ->UseManualTime()
        ->Iterations(3);
    Bench::add(Bench::label("timer_burst", burstCount), "asio", burstAsio)
        ->UseManualTime()
        ->Iterations(3);
}

} // namespace

int main(int argc, char** argv)
{
    Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelFatal);
    evthread_use_pthreads();
    addTimers<CInfraTimers>(Bench::infra);
    addTimers<CUvTimers>("libuv (one thread)");
    addTimers<CEventTimers>("libevent");
    addTimers<CAsioTimers>("asio");
    addFloor();
    addCalls();
    return Bench::run(argc, argv,
                      std::string("libuv ") + uv_version_string() + ", libevent " +
                          event_get_version() + ", Boost " + BOOST_LIB_VERSION);
}
