// File.cpp: file systems that are tables of functions.
//
// Whoever has a file open through a hook keeps a pointer to its file system, so that must not go when
// the hook is taken back: it is put on a list of retired ones, where it stays reachable.

#include "Infra/File.h"

#include <cstring>
#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"

using Tarsel::Infra::CGuard;
using Tarsel::Infra::copyText;
using Tarsel::Infra::io_vec;

namespace
{

template <typename Result, typename... Parameters>
Result call(Result (*function)(Parameters...), Result failure, Parameters... arguments)
{
    return function == nullptr ? failure : function(arguments...);
}

/// A file system that was hooked in, now or once.
struct Entry
{
    explicit Entry(const FSOperations& operations) : fileSystem(operations) {}

    CFSOperation fileSystem;
    const Entry* older = nullptr;
};

class CFunctionHooks
{
public:
    /// Takes a place; null when there is none, or no memory.
    CFSOperation* add(const char* path, const FSOperations& operations)
    {
        const CGuard guard(m_mutex);
        Place* const place = find("");
        if (place == nullptr) {
            return nullptr;
        }
        INFRA_SYSTEM_ASSERT_TEXT(place->entry == nullptr, "fsOpts[i] == __null");
        place->entry = new (std::nothrow) Entry(operations);
        if (place->entry == nullptr) {
            return nullptr;
        }
        copyText(place->path, path);
        return &place->entry->fileSystem;
    }

    /// Frees the place of `path`; false when there is none.
    bool remove(const char* path)
    {
        const CGuard guard(m_mutex);
        Place* const place = find(path);
        if (place == nullptr) {
            return false;
        }
        place->entry->older = m_retired;
        m_retired = place->entry;
        *place = Place();
        return true;
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

    Tarsel::Infra::CLeafMutex m_mutex; ///< guards what follows
    Place m_places[31];
    const Entry* m_retired = nullptr; ///< the last one, which leads to those before
};

CFunctionHooks& functionHooks()
{
    return Tarsel::Infra::immortal<CFunctionHooks, CFunctionHooks>();
}

} // namespace

void hookFS(const char* path, const FSOperations* ops)
{
    if (path == nullptr || *path == '\0') {
        return;
    }
    if (ops == nullptr) {
        if (functionHooks().remove(path)) {
            Tarsel::Infra::hookFileSystem(path, nullptr);
        }
        return;
    }
    CFSOperation* const fileSystem = functionHooks().add(path, *ops);
    if (fileSystem != nullptr) {
        Tarsel::Infra::hookFileSystem(path, fileSystem);
    }
}

CFSOperation::CFSOperation(const FSOperations& operations) : m_fs(operations) {}

CFSOperation::~CFSOperation() {}

CFSOperation::FileHandle CFSOperation::fopen(const char* path, const char* mode)
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
