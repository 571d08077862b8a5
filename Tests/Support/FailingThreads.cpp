// FailingThreads.cpp: the system call seam for threads. The linker sends every one of these calls in
// this program here (--wrap).

#include "Support/FailingThreads.h"

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

using Tarsel::TestSupport::ThreadStep;

namespace
{

constinit std::atomic<ThreadStep> s_failing{ThreadStep::none};
constinit std::atomic<int> s_code{0};
constinit std::atomic<bool> s_ordinary{false};
constinit std::atomic<int> s_priority{0};

constinit std::atomic<bool> s_notesSignals{false};
constinit std::mutex s_signalMutex; // guards the list
std::vector<unsigned long> s_signals;

/// The code that `step` fails with, or what `call` gives.
template <typename Call>
int unlessFailing(ThreadStep step, Call call)
{
    return s_failing == step ? s_code.load() : call();
}

/// What must be done in any case.
int thenFailing(ThreadStep step, int result)
{
    return s_failing == step ? s_code.load() : result;
}

} // namespace

extern "C"
{

    int __real_pthread_attr_init(pthread_attr_t* attribute);
    int __real_pthread_attr_destroy(pthread_attr_t* attribute);
    int __real_pthread_attr_setstacksize(pthread_attr_t* attribute, size_t size);
    int __real_pthread_attr_setinheritsched(pthread_attr_t* attribute, int inherit);
    int __real_pthread_attr_setschedpolicy(pthread_attr_t* attribute, int policy);
    int __real_pthread_attr_setschedparam(pthread_attr_t* attribute, const sched_param* parameter);
    int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attribute,
                              void* (*body)(void*), void* argument);
    int __real_pthread_detach(pthread_t thread);
    int __real_pthread_kill(pthread_t thread, int signal);

    int __wrap_pthread_attr_init(pthread_attr_t* attribute)
    {
        return unlessFailing(ThreadStep::init, [=] { return __real_pthread_attr_init(attribute); });
    }

    int __wrap_pthread_attr_destroy(pthread_attr_t* attribute)
    {
        return thenFailing(ThreadStep::destroy, __real_pthread_attr_destroy(attribute));
    }

    int __wrap_pthread_attr_setstacksize(pthread_attr_t* attribute, size_t size)
    {
        return unlessFailing(ThreadStep::setStackSize,
                             [=] { return __real_pthread_attr_setstacksize(attribute, size); });
    }

    int __wrap_pthread_attr_setinheritsched(pthread_attr_t* attribute, int inherit)
    {
        return unlessFailing(ThreadStep::setInheritSched, [=] {
            return __real_pthread_attr_setinheritsched(attribute, inherit);
        });
    }

    int __wrap_pthread_attr_setschedpolicy(pthread_attr_t* attribute, int policy)
    {
        const int taken = s_ordinary ? SCHED_OTHER : policy;
        return unlessFailing(ThreadStep::setPolicy,
                             [=] { return __real_pthread_attr_setschedpolicy(attribute, taken); });
    }

    int __wrap_pthread_attr_setschedparam(pthread_attr_t* attribute, const sched_param* parameter)
    {
        s_priority = parameter->sched_priority;
        return unlessFailing(ThreadStep::setParameter, [=] {
            return s_ordinary ? 0 : __real_pthread_attr_setschedparam(attribute, parameter);
        });
    }

    int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attribute,
                              void* (*body)(void*), void* argument)
    {
        return unlessFailing(ThreadStep::create, [=] {
            return __real_pthread_create(thread, attribute, body, argument);
        });
    }

    int __wrap_pthread_detach(pthread_t thread)
    {
        return thenFailing(ThreadStep::detach, __real_pthread_detach(thread));
    }

    int __wrap_pthread_kill(pthread_t thread, int signal)
    {
        if (!s_notesSignals) {
            return __real_pthread_kill(thread, signal);
        }
        const std::lock_guard<std::mutex> guard(s_signalMutex);
        s_signals.push_back(thread);
        return 0;
    }

} // extern "C"

namespace Tarsel
{
namespace TestSupport
{

CFailingThreads::CFailingThreads() : CFailingThreads(ThreadStep::create, EAGAIN) {}

CFailingThreads::CFailingThreads(ThreadStep step, int code)
{
    s_code = code;
    s_failing = step;
}

CFailingThreads::~CFailingThreads()
{
    s_failing = ThreadStep::none;
}

COrdinaryThreads::COrdinaryThreads()
{
    s_ordinary = true;
}

COrdinaryThreads::~COrdinaryThreads()
{
    s_ordinary = false;
}

int COrdinaryThreads::lastPriority()
{
    return s_priority;
}

CThreadSignals::CThreadSignals()
{
    s_notesSignals = true;
}

CThreadSignals::~CThreadSignals()
{
    s_notesSignals = false;
    s_signals.clear();
}

std::string CThreadSignals::ticks(unsigned long thread, unsigned long metronome) const
{
    const std::lock_guard<std::mutex> guard(s_signalMutex);
    std::string text;
    for (const unsigned long signalled : s_signals) {
        if (signalled == metronome && !text.empty()) {
            text += 'R';
        } else if (signalled == thread && text.empty()) {
            text.assign(1, 'H');
        } else if (signalled == thread) {
            text.back() = 'H';
        }
    }
    return text;
}

} // namespace TestSupport
} // namespace Tarsel
