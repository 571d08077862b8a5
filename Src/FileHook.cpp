// FileHook.cpp: file systems that are tables of functions.
//
// Whoever has a file open through a hook keeps a pointer to its file system, so that stays when the
// hook is taken back. It is used again for the same path and table, so that hooking and unhooking for
// ever costs nothing.

#include "Infra/File.h"

#include <cstring>
#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/FileHooks.h"
#include "Infra3/Immortal.h"

using Tarsel::Infra::CGuard;
using Tarsel::Infra::copyText;
using Tarsel::Infra::hookMutex;
using Tarsel::Infra::io_vec;
using Tarsel::Infra::setHook;

namespace
{

template <typename Result, typename... Parameters>
Result call(Result (*function)(Parameters...), Result failure, Parameters... arguments)
{
    return function == nullptr ? failure : function(arguments...);
}

/// A file system that is hooked in, or was once.
struct Entry
{
    Entry(const char* prefix, const FSOperations& functions)
        : operations(functions), fileSystem(functions)
    {
        copyText(path, prefix);
    }

    bool isFor(const char* prefix, const FSOperations& functions) const
    {
        return strcmp(path, prefix) == 0 && memcmp(&operations, &functions, sizeof(functions)) == 0;
    }

    char path[32];
    const FSOperations operations;
    CFSOperation fileSystem;
    Entry* older = nullptr;
};

/// Which paths have a table of functions. Everything happens with hookMutex() held.
class CFunctionHooks
{
public:
    bool hasRoom() { return find("") != nullptr; }
    bool has(const char* path) { return find(path) != nullptr; }

    /// Takes a place, if there is one, and memory.
    void add(const char* path, const FSOperations& operations)
    {
        Place* const place = find("");
        if (place == nullptr) {
            return;
        }
        INFRA_SYSTEM_ASSERT_TEXT(place->entry == nullptr, "fsOpts[i] == __null");
        place->entry = entryFor(path, operations);
        if (place->entry != nullptr) {
            copyText(place->path, path);
            setHook(path, &place->entry->fileSystem);
        }
    }

    /// Frees the place of `path`, if there is one.
    void remove(const char* path)
    {
        Place* const place = find(path);
        if (place == nullptr) {
            return;
        }
        setHook(path, nullptr);
        place->entry->older = m_retired;
        m_retired = place->entry;
        *place = Place();
    }

private:
    struct Place
    {
        char path[32] = {};
        Entry* entry = nullptr;
    };

    Place* find(const char* path)
    {
        for (Place& place : m_places) {
            if (strcmp(place.path, path) == 0) {
                return &place;
            }
        }
        return nullptr;
    }

    /// A retired one, or a new one; null without memory.
    Entry* entryFor(const char* path, const FSOperations& operations)
    {
        for (Entry** link = &m_retired; *link != nullptr; link = &(*link)->older) {
            Entry* const entry = *link;
            if (entry->isFor(path, operations)) {
                *link = entry->older;
                return entry;
            }
        }
        return new (std::nothrow) Entry(path, operations);
    }

    Place m_places[31];
    Entry* m_retired = nullptr; ///< the last one, which leads to those before
};

CFunctionHooks& functionHooks()
{
    return Tarsel::Infra::immortal<CFunctionHooks, CFunctionHooks>();
}

bool wouldChange(const char* path, const FSOperations* ops)
{
    const CGuard guard(hookMutex());
    return ops != nullptr ? functionHooks().hasRoom() : functionHooks().has(path);
}

} // namespace

void hookFS(const char* path, const FSOperations* ops)
{
    if (path == nullptr || *path == '\0' || !wouldChange(path, ops)) {
        return;
    }
    Tarsel::Infra::announceHooking();
    const CGuard guard(hookMutex());
    if (ops != nullptr) {
        functionHooks().add(path, *ops);
    } else {
        functionHooks().remove(path);
    }
}

CFSOperation::CFSOperation(const FSOperations& operations) : m_fs(operations) {}

CFSOperation::~CFSOperation() {}

FileHandle CFSOperation::fopen(const char* path, const char* mode)
{
    return call<FileHandle>(m_fs.fopen, nullptr, path, mode);
}

int CFSOperation::fclose(FileHandle file)
{
    return call(m_fs.fclose, -1, file);
}

size_t CFSOperation::fread(void* buffer, size_t size, size_t n, FileHandle file)
{
    return call<size_t>(m_fs.fread, 0, buffer, size, n, file);
}

size_t CFSOperation::fwrite(const void* buffer, size_t size, size_t n, FileHandle file)
{
    return call<size_t>(m_fs.fwrite, 0, buffer, size, n, file);
}

int CFSOperation::fflush(FileHandle file)
{
    return call(m_fs.fflush, -1, file);
}

int CFSOperation::fseek(FileHandle file, long offset, int whence)
{
    return call(m_fs.fseek, -1, file, offset, whence);
}

long CFSOperation::ftell(FileHandle file)
{
    return call(m_fs.ftell, -1L, file);
}

char* CFSOperation::fgets(char* text, int size, FileHandle file)
{
    return call<char*>(m_fs.fgets, nullptr, text, size, file);
}

int CFSOperation::fputs(const char* text, FileHandle file)
{
    return call(m_fs.fputs, -1, text, file);
}

int CFSOperation::rename(const char* oldPath, const char* newPath)
{
    return call(m_fs.rename, -1, oldPath, newPath);
}

int CFSOperation::remove(const char* path)
{
    return call(m_fs.remove, -1, path);
}

long CFSOperation::findfirst(const char* pattern, FileInfo& info)
{
    return call<long, const char*, FileInfo&>(m_fs.findfirst, -1L, pattern, info);
}

int CFSOperation::findnext(long handle, FileInfo& info)
{
    return call<int, long, FileInfo&>(m_fs.findnext, -1, handle, info);
}

int CFSOperation::findclose(long handle)
{
    return call(m_fs.findclose, -1, handle);
}

int CFSOperation::mkdir(const char* path)
{
    return call(m_fs.mkdir, -1, path);
}

int CFSOperation::rmdir(const char* path)
{
    return call(m_fs.rmdir, -1, path);
}

int CFSOperation::statfs(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                         uint64_t& totalFreeBytes)
{
    return call<int, const char*, uint64_t&, uint64_t&, uint64_t&>(
        m_fs.statfs, -1, path, userFreeBytes, totalBytes, totalFreeBytes);
}

int CFSOperation::access(const char* path, int mode)
{
    return call(m_fs.access, -1, path, mode);
}

int CFSOperation::stat(const char* path, FileInfo& info)
{
    return call<int, const char*, FileInfo&>(m_fs.stat, -1, path, info);
}

size_t CFSOperation::writev(int, const io_vec*, int)
{
    return 0;
}
