#ifndef INFRA_SRC_INFRA3_SINGLETON_H
#define INFRA_SRC_INFRA3_SINGLETON_H

// The library's process-wide managers: made on first use, racing callers get the same one,
// destroyed at exit in reverse order of making, made afresh if asked for after that.

#include <atomic>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{

/// The one lock under which every manager is made. Recursive, because managers make each other;
/// never destroyed, because exit handlers may still call in. It is the outermost lock of the
/// library.
CRecursiveMutex& singletonMutex();

/// Has `atExit` called when the process exits; a failure is logged as "atexit failed!\n" and
/// otherwise left alone.
void registerExit(void (*atExit)());

/// The one T of the process. `instance()` is one atomic load once T exists; safe from any thread.
/// T's constructor runs under the lock, so it calls nothing of the application, and nothing that
/// asks for T.
///
/// T lets TSingleton<T> make it, and may offer two static functions:
///   - `void onCreated(T*)` runs right after T is in place, outside T's own making: the place to
///     call what may call back, because a log printer is application code and may ask for T. Other
///     threads may have T before it has run;
///   - `bool staysInUse(T*)`, asked at exit: true keeps T as the one instance for what is left of
///     the process, because threads that run on may be on their way in, or what T has handed out
///     has to come back to it. T then stops by itself what has to stop.
template <typename T>
class TSingleton
{
public:
    static T* instance()
    {
        T* object = s_object.load(std::memory_order_acquire);
        return object != nullptr ? object : make();
    }

    /// T if it exists at this moment, else null.
    static T* existing() { return s_object.load(std::memory_order_acquire); }

private:
    [[gnu::cold, gnu::noinline]] static T* make()
    {
        bool mine = false;
        T* const object = makeLocked(&mine);
        if (mine) {
            registerExit(&TSingleton::destroy);
            if constexpr (requires { T::onCreated(object); }) {
                T::onCreated(object);
            }
        }
        return object;
    }

    static T* makeLocked(bool* mine)
    {
        const CLogHold hold;
        CRecursiveGuard guard(singletonMutex());
        T* object = s_object.load(std::memory_order_relaxed);
        if (object == nullptr) {
            *mine = true;
            object = new T;
            // The lock is recursive, so it keeps out other threads only.
            INFRA_ASSERT_TEXT(s_object.load(std::memory_order_relaxed) == nullptr,
                              "made twice, by its own constructor");
            s_object.store(object, std::memory_order_release);
        }
        return object;
    }

    static void destroy()
    {
        T* const object = s_object.load(std::memory_order_acquire);
        if constexpr (requires { T::staysInUse(object); }) {
            if (T::staysInUse(object)) {
                return;
            }
        }
        s_object.store(nullptr, std::memory_order_release);
        delete object;
    }

    static inline constinit std::atomic<T*> s_object{nullptr};
};

} // namespace Infra
} // namespace Tarsel

#endif
