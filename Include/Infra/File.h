#ifndef INFRA_FILE_H
#define INFRA_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/File.h"

using Tarsel::Infra::FileHandle;
using Tarsel::Infra::FileInfo;

struct FileInternal;
struct FileFindInternal;

/// The older buffered file, over Tarsel::Infra::CFile, at which stands what each operation does.
class INFRA_API CFile
{
public:
    enum OpenFlags : unsigned int
    {
        modeRead = Tarsel::Infra::CFile::modeRead,
        modeWrite = Tarsel::Infra::CFile::modeWrite,
        modeReadWrite = Tarsel::Infra::CFile::modeReadWrite,
        shareCompat = Tarsel::Infra::CFile::shareCompat,
        shareExclusive = Tarsel::Infra::CFile::shareExclusive,
        shareDenyWrite = Tarsel::Infra::CFile::shareDenyWrite,
        shareDenyRead = Tarsel::Infra::CFile::shareDenyRead,
        shareDenyNone = Tarsel::Infra::CFile::shareDenyNone,
        modeNoInherit = Tarsel::Infra::CFile::modeNoInherit,
        modeCreate = Tarsel::Infra::CFile::modeCreate,
        modeNoTruncate = Tarsel::Infra::CFile::modeNoTruncate,
        typeText = Tarsel::Infra::CFile::typeText,
        typeBinary = Tarsel::Infra::CFile::typeBinary,
        osNoBuffer = Tarsel::Infra::CFile::osNoBuffer,
        osWriteThrough = Tarsel::Infra::CFile::osWriteThrough,
        osRandomAccess = Tarsel::Infra::CFile::osRandomAccess,
        osSequentialScan = Tarsel::Infra::CFile::osSequentialScan
    };
    enum SeekPosition : unsigned int
    {
        begin = Tarsel::Infra::CFile::begin,
        current = Tarsel::Infra::CFile::current,
        end = Tarsel::Infra::CFile::end
    };

    CFile();
    virtual ~CFile();

    virtual bool Open(const char* pFileName, unsigned int dwFlags = modeReadWrite);
    virtual void Close();
    unsigned char* Load(const char* pFileName);
    void UnLoad();
    virtual long Read(void* pBuffer, size_t dwCount);
    virtual long Write(void* pBuffer, size_t dwCount);
    virtual void Flush();
    /// @param nFrom  one of SeekPosition
    virtual size_t Seek(long lOff, unsigned int nFrom);
    virtual size_t GetPosition();
    virtual size_t GetLength();
    virtual char* Gets(char* s, size_t size);
    virtual long Puts(const char* s);
    virtual bool IsOpened();

    static bool Rename(const char* oldName, const char* newName);
    static bool Remove(const char* pFileName);
    static bool MakeDirectory(const char* dirName);
    static bool RemoveDirectory(const char* dirName);
    static bool StatFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                       uint64_t& totalFreeBytes);
    static bool Access(const char* path, int mode);
    /// False for a null `info` too.
    static bool Stat(const char* path, FileInfo* info);

private:
    CFile(const CFile&);
    CFile& operator=(const CFile&);

    ::FileInternal* m_internal;
};

/// The older listing of a directory, over Tarsel::Infra::CFileFind.
class INFRA_API CFileFind
{
public:
    CFileFind();
    virtual ~CFileFind();

    virtual bool findFile(const char* fileName);
    virtual bool findNextFile();
    virtual void close();
    size_t getLength();
    std::string getFileName();
    std::string getFilePath();
    bool isReadOnly();
    bool isDirectory();
    bool isHidden();
    bool isNormal();

private:
    CFileFind(const CFileFind&);
    CFileFind& operator=(const CFileFind&);

    ::FileFindInternal* m_internal;
};

/// A file system as a table of plain functions. What each of them is given and returns stands at the
/// operation of the same name of Tarsel::Infra::IFileSystem; a null one fails.
struct FSOperations
{
    FileHandle (*fopen)(const char* path, const char* mode);
    int (*fclose)(FileHandle file);
    size_t (*fread)(void* buffer, size_t size, size_t n, FileHandle file);
    size_t (*fwrite)(const void* buffer, size_t size, size_t n, FileHandle file);
    int (*fflush)(FileHandle file);
    int (*fseek)(FileHandle file, long offset, int whence);
    long (*ftell)(FileHandle file);
    char* (*fgets)(char* text, int size, FileHandle file);
    int (*fputs)(const char* text, FileHandle file);
    int (*rename)(const char* oldPath, const char* newPath);
    int (*remove)(const char* path);
    long (*findfirst)(const char* pattern, FileInfo& info);
    int (*findnext)(long handle, FileInfo& info);
    int (*findclose)(long handle);
    int (*mkdir)(const char* path);
    int (*rmdir)(const char* path);
    int (*statfs)(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                  uint64_t& totalFreeBytes);
    int (*access)(const char* path, int mode);
    int (*stat)(const char* path, FileInfo& info);
};
static_assert(sizeof(FSOperations) == 152, "nineteen functions");

/// Such a table as a file system. It has no vector writes and no positions of 64 bits.
class INFRA_API CFSOperation : public Tarsel::Infra::IFileSystem
{
public:
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

protected:
    FSOperations m_fs;
};

/// Tarsel::Infra::hookFileSystem for a table of functions, which is copied; null takes the hook of
/// exactly this path, of 31 characters at most, back. What is taken back goes by the path alone: of
/// several hooks of one path it is the first, one of hookFileSystem() among them. There are 31 places
/// of its own for tables; without a free one, and for a null or empty path, nothing happens. A copy
/// stays for as long as the process, because files may be open that use it; the same table is copied
/// once. Safe from any thread.
INFRA_API void hookFS(const char* path, const FSOperations* ops);

#endif
