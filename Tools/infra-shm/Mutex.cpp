// Mutex.cpp: looking at process mutex 0, and taking it for a moment.

#include "Mutex.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <limits>
#include <thread>

#include "Memory/ShareMem/Publish.h"

namespace
{

constexpr unsigned threadBits = 0x3fffffff;
constexpr unsigned ownerDiedBit = 0x40000000;
constexpr int notRecoverable = std::numeric_limits<int>::max() - 1; // in the field of the owner

} // namespace

MutexState stateOfMutex(const ProcessMutexInternal& mutex)
{
    const unsigned word = static_cast<unsigned>(peek(mutex.m_lock.__data.__lock));
    MutexState state = {};
    state.thread = static_cast<pid_t>(word & threadBits);
    const bool died = (word & ownerDiedBit) != 0;
    if (state.thread == 0) {
        const bool isLeft = peek(mutex.m_lock.__data.__owner) == notRecoverable;
        state.kind = died     ? MutexState::ownerDied
                     : isLeft ? MutexState::unusable
                              : MutexState::free;
        return state;
    }
    state.process = processOfThread(state.thread);
    state.kind = state.process != 0 ? MutexState::held : MutexState::lost;
    state.name = nameOf(state.process);
    state.isRepairing = died;
    return state;
}

std::string mutexText(const MutexState& state)
{
    const std::string thread = "thread " + std::to_string(state.thread);
    switch (state.kind) {
    case MutexState::free:
        return "free";
    case MutexState::held:
        return "held by process " + std::to_string(state.process) + " (" + state.name + "), " +
               thread + (state.isRepairing ? ", which repairs" : "");
    case MutexState::ownerDied:
        return "free; its owner died inside, and a repair is due";
    case MutexState::lost:
        return "held by " + thread + ", which is not there";
    default:
        return "unusable for ever; the pool has to be made anew";
    }
}

timespec deadlineIn(std::chrono::milliseconds wait)
{
    const auto end = std::chrono::system_clock::now().time_since_epoch() + wait;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(end);
    return {static_cast<time_t>(seconds.count()),
            static_cast<long>(std::chrono::nanoseconds(end - seconds).count())};
}

int withMutex(ProcessMutexInternal& mutex, std::chrono::milliseconds wait,
              const std::function<void()>& work)
{
    int result = 0;
    const timespec deadline = deadlineIn(wait);
    // A thread of its own, because one that ends with a robust mutex is one more owner that died:
    // that way a mutex whose owner died goes back as it was.
    std::thread([&] {
        result = pthread_mutex_timedlock(&mutex.m_lock, &deadline);
        if (result == 0) {
            work();
            pthread_mutex_unlock(&mutex.m_lock);
        }
    }).join();
    return result;
}
