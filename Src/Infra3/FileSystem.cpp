// FileSystem.cpp: which file system a path goes to.
//
// Every opening and every static operation asks, so asking takes no lock. A place of the table is an
// atomic pointer to a hook, which never changes and is never freed: a thread may be comparing with
// it, and a hook that is set again is taken from those there were, so that hooking and unhooking the
// same prefix for ever costs nothing. Prefixes of one table mostly begin alike ("/mnt/..."), so
// their ends are compared first.

#include <atomic>
#include <cstring>
#include <new>
#include <unordered_set>

#include "Infra/Infra3/Guard.h"
#include "Infra3/BoundedText.h"
#include "Infra3/FileHooks.h"
#include "Infra3/FileInternal.h"
#include "Infra3/Hash.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// The last eight characters of the text that ends at `end`, or as many as it has.
uint64_t tailOf(const char* begin, const char* end)
{
    uint64_t tail = 0;
    const size_t length = static_cast<size_t>(end - begin);
    if (length >= sizeof(tail)) {
        memcpy(&tail, end - sizeof(tail), sizeof(tail));
    } else {
        memcpy(&tail, begin, length);
    }
    return tail;
}

struct Hook
{
    Hook(const char* path, IFileSystem* fileSystem) : fileSystem(fileSystem)
    {
        copyText(prefix, path);
        length = strlen(prefix);
        tail = tailOf(prefix, prefix + length);
    }

    bool matches(const char* path, size_t pathLength) const
    {
        return pathLength >= length && tailOf(path, path + length) == tail &&
               memcmp(path, prefix, length) == 0;
    }

    bool operator==(const Hook& other) const
    {
        return fileSystem == other.fileSystem && strcmp(prefix, other.prefix) == 0;
    }

    char prefix[256];
    size_t length;
    uint64_t tail;
    IFileSystem* fileSystem;
};

struct HashOfHook
{
    size_t operator()(const Hook& hook) const
    {
        return hashText({hook.prefix, hook.length}, reinterpret_cast<uintptr_t>(hook.fileSystem));
    }
};

class CHookTable
{
public:
    IFileSystem* find(const char* path) const
    {
        const int used = m_used.load(std::memory_order_acquire);
        if (used == 0) {
            return nullptr;
        }
        const size_t length = strlen(path);
        for (int i = 0; i < used; ++i) {
            const Hook* hook = m_places[i].load(std::memory_order_acquire);
            if (hook != nullptr && hook->matches(path, length)) {
                return hook->fileSystem;
            }
        }
        return nullptr;
    }

    bool anyBeginsWith(const char* prefix) const
    {
        const size_t length = strlen(prefix);
        for (const auto& place : m_places) {
            const Hook* hook = place.load(std::memory_order_acquire);
            if (hook != nullptr && strncmp(hook->prefix, prefix, length) == 0) {
                return true;
            }
        }
        return false;
    }

    /// For changes.
    CLeafMutex& mutex() { return m_mutex; }

    /// With the mutex held.
    void add(const char* path, IFileSystem* fileSystem)
    {
        for (int i = 0; i < places; ++i) {
            if (m_places[i].load(std::memory_order_relaxed) == nullptr) {
                m_places[i].store(hookOf(path, fileSystem), std::memory_order_release);
                noteUsed(i + 1);
                return;
            }
        }
    }

    /// With the mutex held.
    void remove(const char* path)
    {
        for (auto& place : m_places) {
            const Hook* hook = place.load(std::memory_order_relaxed);
            if (hook != nullptr && strcmp(hook->prefix, path) == 0) {
                place.store(nullptr, std::memory_order_release);
                return;
            }
        }
    }

private:
    static constexpr int places = 31;

    /// One that was made before, or a new one; null without memory.
    const Hook* hookOf(const char* path, IFileSystem* fileSystem)
    {
        try {
            return &*m_hooks.insert(Hook(path, fileSystem)).first;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    void noteUsed(int count)
    {
        if (count > m_used.load(std::memory_order_relaxed)) {
            m_used.store(count, std::memory_order_release);
        }
    }

    CLeafMutex m_mutex;
    std::atomic<const Hook*> m_places[places] = {};
    std::atomic<int> m_used{0};                   ///< places behind this one have never been taken
    std::unordered_set<Hook, HashOfHook> m_hooks; ///< all there ever were
};

CHookTable& hookTable()
{
    return immortal<CHookTable, CHookTable>();
}

} // namespace

IFileSystem& fileSystemFor(const char* path)
{
    IFileSystem* const hooked = path == nullptr ? nullptr : hookTable().find(path);
    return hooked != nullptr ? *hooked : *FileDefaultOpt::instance();
}

bool isHookedBelow(const char* prefix)
{
    return hookTable().anyBeginsWith(prefix);
}

CLeafMutex& hookMutex()
{
    return hookTable().mutex();
}

void announceHooking()
{
    if (isLevelPrinted(logLevelInfo)) {
        logFront(logLevelInfo, {__FILE__, "hookFileSystem", __LINE__},
                 "hookFileSystem called!, CFile/CLfsFile member function may be hooked!\n");
    }
}

void setHook(const char* path, IFileSystem* fileSystem)
{
    if (fileSystem != nullptr) {
        hookTable().add(path, fileSystem);
    } else {
        hookTable().remove(path);
    }
}

void hookFileSystem(const char* path, IFileSystem* filesystem)
{
    announceHooking();
    if (path != nullptr && *path != '\0') {
        const CGuard guard(hookMutex());
        setHook(path, filesystem);
    }
}

IFileSystem::~IFileSystem() {}

size_t IFileSystem::writev(int, const io_vec*, int)
{
    return 0;
}

int IFileSystem::fseek64(FileHandle, int64_t, int)
{
    return -1;
}

int64_t IFileSystem::ftell64(FileHandle)
{
    return -1;
}

} // namespace Infra
} // namespace Tarsel
