// FileHook.cpp: file systems that are tables of functions.
//
// Whoever has a file open through a hook keeps a pointer to its file system, so that stays when the
// hook is taken back. There is one for each table that was ever hooked in, for all of its paths: it
// knows none. So hooking and unhooking the same tables for ever costs nothing.

#include "Infra/File.h"

#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/FileHooks.h"
#include "Infra3/Hash.h"
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

std::string_view bytesOf(const FSOperations& operations)
{
    return {reinterpret_cast<const char*>(&operations), sizeof(operations)};
}

class CTable : public CFSOperation
{
public:
    explicit CTable(const FSOperations& operations) : CFSOperation(operations) {}

    bool isOf(const FSOperations& operations) const { return bytesOf(m_fs) == bytesOf(operations); }
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
        // Holds as long as hookFS() refuses empty paths: a place gets a table and a path together.
        INFRA_SYSTEM_ASSERT_TEXT(place->table == nullptr, "fsOpts[i] == __null");
        place->table = tableOf(operations);
        if (place->table != nullptr) {
            copyText(place->path, path);
            setHook(path, place->table);
        }
    }

    /// Frees the place of `path`, if there is one.
    void remove(const char* path)
    {
        Place* const place = find(path);
        if (place != nullptr) {
            setHook(path, nullptr);
            *place = Place();
        }
    }

private:
    struct Place
    {
        char path[32] = {};
        CTable* table = nullptr;
    };

    /// The place whose text is all of `path`, so none for one that was cut.
    Place* find(const char* path)
    {
        for (Place& place : m_places) {
            if (strcmp(place.path, path) == 0) {
                return &place;
            }
        }
        return nullptr;
    }

    /// The one there was, or a new one; null without memory.
    CTable* tableOf(const FSOperations& operations)
    {
        const size_t hash = Tarsel::Infra::hashText(bytesOf(operations));
        const auto [begin, end] = m_tables.equal_range(hash);
        for (auto at = begin; at != end; ++at) {
            if (at->second.isOf(operations)) {
                return &at->second;
            }
        }
        try {
            return &m_tables.emplace(hash, operations)->second;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    Place m_places[31];
    std::unordered_multimap<size_t, CTable> m_tables; ///< by their hashes
};

CFunctionHooks& functionHooks()
{
    return Tarsel::Infra::immortal<CFunctionHooks, CFunctionHooks>();
}

/// What hooking says on the log it says first, and without a lock: printers are the application's.
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
