#ifndef INFRA_FILE_H
#define INFRA_FILE_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/File.h"

/// A file system as a table of plain functions. What each of them is given and returns stands at the
/// operation of the same name of Tarsel::Infra::IFileSystem; a null one fails.
struct FSOperations
{
    Tarsel::Infra::FileHandle (*fopen)(const char* path, const char* mode);
    int (*fclose)(Tarsel::Infra::FileHandle file);
    size_t (*fread)(void* buffer, size_t size, size_t n, Tarsel::Infra::FileHandle file);
    size_t (*fwrite)(const void* buffer, size_t size, size_t n, Tarsel::Infra::FileHandle file);
    int (*fflush)(Tarsel::Infra::FileHandle file);
    int (*fseek)(Tarsel::Infra::FileHandle file, long offset, int whence);
    long (*ftell)(Tarsel::Infra::FileHandle file);
    char* (*fgets)(char* text, int size, Tarsel::Infra::FileHandle file);
    int (*fputs)(const char* text, Tarsel::Infra::FileHandle file);
    int (*rename)(const char* oldPath, const char* newPath);
    int (*remove)(const char* path);
    long (*findfirst)(const char* pattern, Tarsel::Infra::FileInfo& info);
    int (*findnext)(long handle, Tarsel::Infra::FileInfo& info);
    int (*findclose)(long handle);
    int (*mkdir)(const char* path);
    int (*rmdir)(const char* path);
    int (*statfs)(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                  uint64_t& totalFreeBytes);
    int (*access)(const char* path, int mode);
    int (*stat)(const char* path, Tarsel::Infra::FileInfo& info);
};
static_assert(sizeof(FSOperations) == 152, "nineteen functions");

/// Such a table as a file system. It has no vector writes and no positions of 64 bits.
class INFRA_API CFSOperation : public Tarsel::Infra::IFileSystem
{
public:
    typedef Tarsel::Infra::FileHandle FileHandle;
    typedef Tarsel::Infra::FileInfo FileInfo;

    explicit CFSOperation(const FSOperations& operations);
    ~CFSOperation() override;

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
    size_t writev(int fildes, const Tarsel::Infra::io_vec* iov, int iovcnt) override;

private:
    FSOperations m_fs;
};

/// Tarsel::Infra::hookFileSystem for a table of functions, which is copied; null takes the hook of
/// exactly this path, of 31 characters at most, back. What is taken back goes by the path alone: of
/// several hooks of one path it is the first, one of hookFileSystem() among them. There are 31 places
/// of its own for tables; without a free one, and for a null or empty path, nothing happens. A copy
/// stays for as long as the process, because files may be open that use it; the same table is copied
/// once for a path. Safe from any thread.
INFRA_API void hookFS(const char* path, const FSOperations* ops);

#endif
