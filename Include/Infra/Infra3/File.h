#ifndef INFRA_INFRA3_FILE_H
#define INFRA_INFRA3_FILE_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

/// One piece of a vector write, laid out as the system's own.
struct io_vec
{
    void* iov_base;
    uint64_t iov_len;
};

/// What is known of a file, from stat() or a listing. Times are seconds since 1970.
struct FileInfo
{
    char name[260];      ///< from a listing the entry's name alone, from stat() the path as given
    uint16_t attrib;     ///< from a listing CFile::Attribute, from stat() the system's mode bits
    uint64_t timeCreate; ///< of the last change of status
    uint64_t timeAccess;
    uint64_t timeWrite;
    uint64_t size; ///< bytes
};

/// An open stream of some file system; only that file system knows what it points to.
typedef void* FileHandle;

/// A file system: what CFile, CLfsFile and the finders call for every operation. Install one with
/// hookFileSystem() for the paths that begin with a prefix.
///
/// Results are those of the system library: 0 for success and -1 for failure, unless said. Paths
/// arrive whole, with the prefix. The three operations with a base version need not be known.
/// Threads: called on whatever thread uses a file, so from several at once.
class INFRA_API IFileSystem
{
public:
    virtual ~IFileSystem();

    /// A new stream, null on failure. Handles may be anything, but one that is not null, a number
    /// below 4096 or the system's own FILE* has to point to memory that can be read, because
    /// CFile::writev() and setvbuf() look whether there is a FILE* behind it. `mode` is one of "rb",
    /// "wb", "ab", "rb+", "wb+" and "ab+", followed by 'e' when a program started later must not
    /// inherit it and by 'd' when the system's cache is to be passed by.
    virtual FileHandle fopen(const char* path, const char* mode) = 0;
    virtual int fclose(FileHandle file) = 0;
    /// @return elements read, less than `n` at the end of the file
    virtual size_t fread(void* buffer, size_t size, size_t n, FileHandle file) = 0;
    /// @return elements written
    virtual size_t fwrite(const void* buffer, size_t size, size_t n, FileHandle file) = 0;
    /// Brings what was written to the device.
    virtual int fflush(FileHandle file) = 0;
    virtual int fseek(FileHandle file, long offset, int whence) = 0;
    /// @return the position, -1 when it is not known
    virtual long ftell(FileHandle file) = 0;
    /// @return `text`, null at the end of the file
    virtual char* fgets(char* text, int size, FileHandle file) = 0;
    /// @return -1 on failure
    virtual int fputs(const char* text, FileHandle file) = 0;
    virtual int rename(const char* oldPath, const char* newPath) = 0;
    virtual int remove(const char* path) = 0;

    /// Starts a listing of the directory `pattern`, which may end in '*', and fills `info` with its
    /// first entry. On entry info.name is the directory part of the pattern, with its '/'.
    /// @return a search handle, -1 when nothing can be listed
    virtual long findfirst(const char* pattern, FileInfo& info) = 0;
    /// The next entry, info.name as above. -1 at the end.
    virtual int findnext(long handle, FileInfo& info) = 0;
    virtual int findclose(long handle) = 0;

    virtual int mkdir(const char* path) = 0;
    virtual int rmdir(const char* path) = 0;
    virtual int statfs(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                       uint64_t& totalFreeBytes) = 0;
    virtual int access(const char* path, int mode) = 0;
    virtual int stat(const char* path, FileInfo& info) = 0;

    /// Writes to a descriptor, which is that of the stream if the handles of this file system are
    /// the system's own FILE*, else -1; see fopen(). The base version returns 0.
    virtual size_t writev(int fildes, const io_vec* iov, int iovcnt);
    /// The base version returns -1, which leaves CLfsFile without positions.
    virtual int fseek64(FileHandle file, int64_t offset, int whence);
    /// The base version returns -1.
    virtual int64_t ftell64(FileHandle file);
};

/// Sends every path that begins with `path` to `filesystem`; null takes the first hook of exactly
/// this `path` back.
///
/// Behaviour: a prefix is text, so "/mnt/a" also catches "/mnt/ab". Of several that fit, the one in
/// the lowest place wins, whatever its length. There are 31 places; a new hook takes the lowest free
/// one, and without a free one nothing happens. The first 255 characters of a prefix count; a longer
/// one cannot be taken back.
/// Threads: safe from any thread. Meant for the start of a program all the same: a file that is open
/// stays with the file system that opened it, and so does a listing under way.
/// Ownership: `filesystem` belongs to the caller. It must live until nothing that was opened through
/// it is open, and no operation that began before it was taken back is under way; most live for ever.
INFRA_API void hookFileSystem(const char* path, IFileSystem* filesystem);

struct FileInternal;
struct LfsFileInternal;

/// A buffered file, with lengths and positions of 32 bits; CLfsFile for what may pass 4 GiB.
///
/// Behaviour: a new object is closed. On the system's own files a stream has a buffer of 16 KB, is
/// unbuffered with osNoBuffer, and reads on when the file has grown since its end was met. Reading
/// and writing may alternate if a seek() or flush() stands between them; a hook sees no call for a
/// seek() to where the file stands.
/// The position is what the file system said last, or what was counted since. A file opened to
/// append stands at 0 until its first write(), flush() or seek(); puts() and writev() count on from
/// there. What is told of lengths and positions beyond 4 GiB lacks its upper half; reading and
/// writing happen at the right place.
/// A closed file answers -1 (read, write, writev), 0 (seek, getPosition, getLength, puts), null
/// (gets), or not at all. What fails in between is logged where said; nothing sets the last error.
/// Data that the disk has no room for may be noticed by flush() and close() only, which report
/// nothing, and a write() that comes short may have lost bytes that were taken before: write() a
/// file that matters, flush(), and compare stat() with what was written.
/// Threads: one thread at a time.
///
///     CFile file;
///     if (file.open("/var/lib/service/state", CFile::modeReadWrite | CFile::modeCreate)) {
///         file.write(state, sizeof(state));
///     }
class INFRA_API CFile
{
public:
    /// The access mode is one of the first three. Of the rest modeNoInherit, modeCreate,
    /// modeNoTruncate and osNoBuffer have an effect; the others are taken and ignored.
    enum OpenFlags : uint32_t
    {
        modeRead = 0,      ///< an existing file
        modeWrite = 1,     ///< a new or emptied file; with modeNoTruncate one to append to
        modeReadWrite = 2, ///< an existing file; with modeCreate a new or emptied one, with
                           ///< modeNoTruncate as well one to append to
        shareCompat = 0,
        shareExclusive = 16,
        shareDenyWrite = 32,
        shareDenyRead = 48,
        shareDenyNone = 64,
        modeNoInherit = 128, ///< not inherited by programs that are started later
        modeCreate = 4096,
        modeNoTruncate = 8192,
        typeText = 16384,
        typeBinary = 32768,
        osNoBuffer = 65536, ///< passes the system's cache by: addresses and sizes must be aligned
        osWriteThrough = 131072,
        osRandomAccess = 262144,
        osSequentialScan = 524288
    };
    /// FileInfo::attrib of a listing. The system's files have `directory` and `readOnly` only.
    enum Attribute : uint16_t
    {
        normal = 0,
        readOnly = 1, ///< the owner may not write
        hidden = 2,
        system = 4,
        volume = 8,
        directory = 16,
        archive = 32,
        posixFIFO = 4096,
        posixCharacter = 8192,
        posixDirectory = 16384,
        posixRegular = 32768
    };
    enum IOMode : int
    {
        IOFBF = 0, ///< full buffering
        IOLBF = 1, ///< a line at a time
        IONBF = 2  ///< none
    };
    enum SeekPosition : int
    {
        begin = 0,
        current = 1,
        end = 2
    };

    CFile();
    /// Closes the file and frees the buffer of load().
    virtual ~CFile();

    /// Opens a file, after closing the one that is open and freeing the buffer of load(). False when
    /// the file system refuses, or for an access mode of 3 to 15, which is logged.
    virtual bool open(const char* pFileName, uint32_t dwFlags = modeReadWrite);
    /// Closes the file and frees the buffer of load(). What the buffer of the stream still holds is
    /// written; that this fails is not reported.
    virtual void close();

    /// Opens a file for reading and reads all of it into a buffer, which belongs to the object and
    /// lives until unload(), close(), open() or destruction. It has getLength() bytes and no
    /// terminator. While there is a buffer, that one is returned, whatever the name.
    /// @return null when the file cannot be opened or is empty, which leaves it open; null and
    ///         closed when it is shorter than it said, which is logged, or there is no memory for it
    virtual uint8_t* load(const char* pFileName);
    /// Closes the file and frees the buffer of load().
    virtual void unload();

    /// @return bytes read, less than asked for at the end of the file
    virtual long read(void* pBuffer, size_t dwCount);
    /// @return bytes written; less than given is logged
    virtual long write(void* pBuffer, size_t dwCount);
    /// Writes what is buffered and waits until the device has it.
    virtual void flush();
    /// Moves the position; one that is there already is left alone.
    /// @return the new position; 0 when the file system refuses, as it does one before the start
    virtual size_t seek(long lOff, SeekPosition nFrom);
    virtual size_t getPosition();
    /// The length when the file was opened, or the furthest position behind a write or flush() since;
    /// what is read or gone to past that does not count. Asked for by a seek to the end and back while
    /// that is 0.
    virtual size_t getLength();
    /// Reads up to and with the next line end, `size` - 1 bytes at most, and terminates. A size of
    /// 2^31 or more counts as 2^31 - 1.
    /// @return `s`; null at the end of the file
    virtual char* gets(char* s, size_t size);
    /// Writes a text without its terminator. @return negative on failure, for null too
    virtual long puts(const char* s);
    virtual bool isOpen();
    /// Writes to the file's descriptor at once, past what is still in the buffer of the stream, so
    /// flush() first. For file systems whose handles are the system's FILE*; others return 0.
    /// @return bytes written; what the system returned if that is less than 1
    virtual long writev(const io_vec* vector, int count);
    /// Gives the stream another buffer, which must live until the file is closed; null: one of the
    /// stream's own choice. To be called before the file is used. False and logged on failure, and
    /// for streams that are not the system's.
    virtual bool setvbuf(char* buf, IOMode mode, size_t size);
    /// For operations to come: all return false.
    virtual bool resv1();
    virtual bool resv2();
    virtual bool resv3();
    virtual bool resv4();

    /// These go to the file system of the path, rename() to that of the old one, and are true when
    /// that returned 0. Safe from any thread.
    static bool rename(const char* oldName, const char* newName);
    static bool remove(const char* pFileName);
    static bool makeDirectory(const char* dirName);
    static bool removeDirectory(const char* dirName);
    /// Bytes of the file system that holds `path`. On failure the system sets all to 0; a hook does
    /// as it likes.
    static bool statFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                       uint64_t& totalFreeBytes);
    static bool access(const char* path, int mode);
    /// On failure the system leaves `info` alone.
    static bool stat(const char* path, FileInfo& info);

    /// Makes a directory and those above it that are missing. False when the last one cannot be
    /// made, so also when it exists already, or when the path is null or empty, which is logged.
    static bool makeDirectoryRecursively(const char* dirPath);
    /// Removes everything in a directory, and the directory itself with `rmOriginalDir`.
    ///
    /// Of links in it the link is removed, never what it points to. A `dirPath` that is itself a link
    /// to a directory is removed with `rmOriginalDir`; without, and with '/' or "/*" behind it, the
    /// directory it leads to is emptied, and the link stays. What is mounted in it is emptied too.
    /// `dirPath` may end in '/' or in "/*". Entries that cannot be
    /// removed are passed over; a directory in it that cannot be listed stays, and is logged.
    /// @return with `rmOriginalDir` whether the directory is gone, else true; false and logged when
    ///         it cannot be listed, or is longer than 1021 characters without, 1022 with '/' and 1023
    ///         with "/*" behind it
    static bool removeDirectoryRecursively(const char* dirPath, bool rmOriginalDir);

private:
    CFile(const CFile&);
    CFile& operator=(const CFile&);

    FileInternal* m_internal;
};

/// CFile with lengths and positions of 64 bits. Where nothing else is said, members are those of
/// CFile.
///
/// Behaviour: read() and write() go on until all is done or a call of the file system moves nothing;
/// only that is logged, at the end of a file too. On the system's own files write() ends with a call
/// that comes short: what was buffered before is lost then, and the rest must not follow it.
/// Threads: one thread at a time.
class INFRA_API CLfsFile
{
public:
    enum OpenFlags : uint32_t
    {
        modeRead = 0,
        modeWrite = 1,
        modeReadWrite = 2,
        shareCompat = 0,
        shareExclusive = 16,
        shareDenyWrite = 32,
        shareDenyRead = 48,
        shareDenyNone = 64,
        modeNoInherit = 128,
        modeCreate = 4096,
        modeNoTruncate = 8192,
        typeText = 16384,
        typeBinary = 32768,
        osNoBuffer = 65536, ///< without effect here
        osWriteThrough = 131072,
        osRandomAccess = 262144,
        osSequentialScan = 524288
    };
    enum IOMode : int
    {
        IOFBF = 0,
        IOLBF = 1,
        IONBF = 2
    };
    enum SeekPosition : int
    {
        begin = 0,
        current = 1,
        end = 2
    };

    CLfsFile();
    virtual ~CLfsFile();

    virtual bool open(const char* pFileName, uint32_t dwFlags = modeReadWrite);
    virtual void close();
    virtual uint8_t* load(const char* pFileName);
    virtual void unload();
    /// @return bytes read; a count of 0 or less reads nothing
    virtual int64_t read(void* pBuffer, int64_t dwCount);
    /// @return bytes written
    virtual int64_t write(void* pBuffer, int64_t dwCount);
    virtual void flush();
    virtual int64_t seek(int64_t lOff, SeekPosition nFrom);
    virtual int64_t getPosition();
    virtual int64_t getLength();
    /// A size of 2^31 or more is refused: null, and logged.
    virtual char* gets(char* s, int64_t size);
    virtual int64_t puts(const char* s);
    virtual bool isOpen();
    virtual int64_t writev(const io_vec* vector, int count);
    virtual bool setvbuf(char* buf, IOMode mode, size_t size);
    virtual bool resv1();
    virtual bool resv2();
    virtual bool resv3();
    virtual bool resv4();

    static bool rename(const char* oldName, const char* newName);
    static bool remove(const char* pFileName);
    static bool makeDirectory(const char* dirName);
    static bool removeDirectory(const char* dirName);
    static bool statFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                       uint64_t& totalFreeBytes);
    static bool access(const char* path, int mode);
    static bool stat(const char* path, FileInfo& info);

private:
    CLfsFile(const CLfsFile&);
    CLfsFile& operator=(const CLfsFile&);

    LfsFileInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
