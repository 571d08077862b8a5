#ifndef INFRA_TESTS_SUPPORT_FAILINGTHREADS_H
#define INFRA_TESTS_SUPPORT_FAILINGTHREADS_H

#include <string>

namespace Tarsel
{
namespace TestSupport
{

/// The steps of making a thread.
enum class ThreadStep
{
    none,
    init,
    setStackSize,
    setInheritSched,
    setPolicy,
    setParameter,
    create,
    detach,  ///< is done all the same
    destroy, ///< is done all the same
};

/// While it lives, one step of making a thread fails with `code` everywhere in the process. Without
/// arguments it is the system thread itself that is refused (EAGAIN), as on a machine that has run
/// out of threads. One at a time.
class CFailingThreads
{
public:
    CFailingThreads();
    CFailingThreads(ThreadStep step, int code);
    ~CFailingThreads();
    CFailingThreads(const CFailingThreads&) = delete;
    CFailingThreads& operator=(const CFailingThreads&) = delete;
};

/// While it lives, threads that ask for real-time scheduling are ordinary ones, as nobody may have
/// the others everywhere; the priority asked for last is noted.
class COrdinaryThreads
{
public:
    COrdinaryThreads();
    ~COrdinaryThreads();
    COrdinaryThreads(const COrdinaryThreads&) = delete;
    COrdinaryThreads& operator=(const COrdinaryThreads&) = delete;

    static int lastPriority();
};

/// While it lives, signals to single threads are noted and not sent, so that a thread need not
/// exist. One at a time.
class CThreadSignals
{
public:
    CThreadSignals();
    ~CThreadSignals();
    CThreadSignals(const CThreadSignals&) = delete;
    CThreadSignals& operator=(const CThreadSignals&) = delete;

    /// What `thread` got at each tick from its first signal on, H for a signal and R for none; a
    /// tick begins with a signal to `metronome`. The last tick may not be over.
    std::string ticks(unsigned long thread, unsigned long metronome) const;
};

} // namespace TestSupport
} // namespace Tarsel

#endif
