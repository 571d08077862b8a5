#ifndef INFRA_SRC_INFRA3_FILEINTERNAL_H
#define INFRA_SRC_INFRA3_FILEINTERNAL_H

// Files: who does what.
//
//     CFile, CLfsFile (File.cpp)        position, length and messages of one open file
//     recursive make and remove         (FileDirectory.cpp)
//     CFileFind, CFileFindEx            (FileFind.cpp) one listing
//           │ ask for the file system of a path
//     hook table (FileSystem.cpp)       31 places of prefix and file system, read without a lock
//           │
//     IFileSystem ── FileDefaultOpt     (FileDefaultOpt.cpp) the system library's streams
//                 └─ of applications
//
// A file or listing keeps the file system it was opened with. Locks: two leaves, one for changes of
// the hook table, one for the buffers of open streams. Nothing here has to be destroyed: at exit
// the system library flushes the streams that are still open, so FileDefaultOpt and the buffers
// stay.

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "Infra/Infra3/File.h"
#include "Infra3/Singleton.h"

namespace Tarsel
{
namespace Infra
{

/// The file system for `path`: that of the first hook whose prefix it begins with, else the
/// system's. Null goes to the system's, which refuses it.
IFileSystem& fileSystemFor(const char* path);

/// True when a path that begins with `prefix`, and is longer, may go to a hook.
bool isHookedBelow(const char* prefix);

/// The stream behind a handle of an application's file system; null when it does not look like one
/// of the system library's. A handle has to be null, a small number or readable.
FILE* streamBehind(FileHandle file);

/// The system's file system.
///
/// Streams have buffers of 16 KB, which the system library does not offer (it takes the size for a
/// hint and allocates a block of the file), so they are allocated here and freed with the stream.
class FileDefaultOpt : public IFileSystem
{
public:
    static FileDefaultOpt* instance() { return TSingleton<FileDefaultOpt>::instance(); }

    FileHandle fopen(const char* path, const char* mode) override;
    int fclose(FileHandle file) override;
    size_t fread(void* buffer, size_t size, size_t n, FileHandle file) override;
    size_t fwrite(const void* buffer, size_t size, size_t n, FileHandle file) override;
    int fflush(FileHandle file) override;
    int fseek(FileHandle file, long offset, int whence) override;
    long ftell(FileHandle file) override;
    char* fgets(char* text, int size, FileHandle file) override;
    int fputs(const char* text, FileHandle file) override;
    int rename(const char* oldPath, const char* newPath) override;
    int remove(const char* path) override;
    long findfirst(const char* pattern, FileInfo& info) override;
    int findnext(long handle, FileInfo& info) override;
    int findclose(long handle) override;
    int mkdir(const char* path) override;
    int rmdir(const char* path) override;
    int statfs(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
               uint64_t& totalFreeBytes) override;
    int access(const char* path, int mode) override;
    int stat(const char* path, FileInfo& info) override;
    size_t writev(int fildes, const io_vec* iov, int iovcnt) override;
    int fseek64(FileHandle file, int64_t offset, int whence) override;
    int64_t ftell64(FileHandle file) override;

private:
    friend class TSingleton<FileDefaultOpt>;

    FileDefaultOpt() {}
    static bool staysInUse(FileDefaultOpt*) { return true; }
};

} // namespace Infra
} // namespace Tarsel

#endif
