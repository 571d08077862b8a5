#ifndef INFRA_INFRA3_THREAD_H
#define INFRA_INFRA3_THREAD_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct ThreadInternal;

/// Base of every long-lived thread: a subclass supplies threadProc(), the base creates, names,
/// prioritises, registers and stops the system thread that runs it.
///
/// Behaviour: an object outlives any number of runs. While its body runs, the thread stands in the
/// thread table (CThreadManager) under its name.
///
/// |          | createThread()     | cancelThread()  | destroyThread()             |
/// |----------|--------------------|-----------------|-----------------------------|
/// | over     | running            | false, warning  | false, warning              |
/// | running  | false, warning     | stopping        | stopping, waits for the end |
/// | stopping | waits, then running| false, warning  | waits for the end, once     |
///
/// Stopping is a request: threadProc() has to return when looping() turns false. destroyThread()
/// or destruction by the thread itself, which exit() brings about, does not wait; createThread() by
/// the thread itself would wait for ever.
/// Threads: safe from any thread, but for destruction.
/// Ownership: a subclass whose threadProc() uses its own members must call destroyThread() in its
/// own destructor: when the base's destructor runs, those members are gone. Where somebody else may
/// have called it first, it does not wait; endThread() does.
///
///     class CReader : public CThread
///     {
///     public:
///         CReader() : CThread("reader") {}
///         ~CReader() override { destroyThread(); }
///         void threadProc() override
///         {
///             while (looping()) {
///                 readOne();
///             }
///         }
///     };
class INFRA_API CThread
{
public:
    /// A smaller number is a higher priority.
    enum Priority : int
    {
        priorTop = 1,
        priorDefault = 64,
        priorBottom = 127
    };
    enum Policy : int
    {
        policyNormal = 0,  ///< time sharing; the priority becomes the thread's nice value
        policyRealtime = 1 ///< first in, first out; needs the privilege for it
    };

    /// No system thread exists yet.
    /// @param name       the first 31 characters are kept; null is "Nonamed"
    /// @param stackSize  bytes, applied after enableStackSize() only; 0 is the system's default,
    ///                   less than 16384 becomes 16384
    explicit CThread(const char* name, int priority = priorDefault, int policy = policyNormal,
                     int stackSize = 0);
    /// Stops the thread if it runs and waits for its end.
    virtual ~CThread();

    /// The thread's work. Runs on the new thread and returns when looping() is false, or before.
    virtual void threadProc() = 0;

    /// Starts the system thread; a body that is still ending is waited for. False, with the reason
    /// logged, when the thread runs already, which is so for its own body, or the system refuses.
    bool createThread();
    /// Asks the thread to stop and waits until its body has ended. False when it has ended already
    /// or was destroyed before.
    bool destroyThread();
    /// destroyThread(), then false: threads are detached and cannot be joined.
    bool terminateThread();
    /// Asks the thread to stop and does not wait. False when it was not running.
    bool cancelThread();
    /// True when no body runs and none has been started.
    bool isThreadOver();
    /// True while the body should go on.
    bool looping() const;

    /// Kernel id of the running thread; -1 before it has started.
    int getThreadID();
    void setThreadName(const char* name);
    /// The name. Belongs to the object, and changes with setThreadName().
    const char* getThreadName();
    /// Returns its argument.
    int shareSocket(int socket);
    /// Makes the constructor's `stackSize` count, from the next createThread() on.
    void enableStackSize();

    /// Sets the watchdog deadline: the thread is shown as timed out unless the deadline is moved on
    /// before it passes. Nothing else happens to it.
    /// @param milliSeconds  from now, on the monotonic clock; 0 is no deadline
    void setTimeout(int milliSeconds);
    /// The same from a time the caller has read already.
    void setTimeout(int milliSeconds, uint64_t now);
    /// True when there is a deadline and it has passed.
    bool isTimeout();

    /// Kernel id of the calling thread, whoever made it.
    static int getCurrentThreadID();
    /// setTimeout for the calling thread, the heartbeat of a thread's loop. False when it was not
    /// made by this class.
    static bool setCurrentTimeout(int milliSeconds);
    /// Waits for `ms` milliseconds, signals notwithstanding; below 1 it only yields the processor.
    static void sleep(int ms);
    /// Limits the calling thread to `percent` (1 to 100) of each tenth of a second; 100 lifts the
    /// limit. The thread is held by SIGUSR2, which therefore interrupts its system calls.
    static void load(int percent);

protected:
    /// For destructors: stops the thread if it runs and waits for its end, whoever asked for that
    /// first. A long wait shows on the log at debug level. On the thread itself it does nothing.
    void endThread();

private:
    CThread(const CThread&);
    CThread& operator=(const CThread&);

    ThreadInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
