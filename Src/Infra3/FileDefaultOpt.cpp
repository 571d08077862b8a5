// FileDefaultOpt.cpp: the file system of the system.

#include <dirent.h>
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/ErrorText.h"
#include "Infra3/FileInternal.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr size_t streamBufferSize = 16384;

/// An entry's record, its name rounded up to eight bytes behind a head of nineteen, that is longer
/// than this is left out.
constexpr unsigned short longestEntry = 259;

static_assert(sizeof(io_vec) == sizeof(iovec) &&
                  offsetof(io_vec, iov_len) == offsetof(iovec, iov_len),
              "the system's own layout");

/// The buffers of all open streams.
class CStreamBuffers
{
public:
    /// Gives `stream` a buffer; without memory for it the system library's own stays.
    void give(FILE* stream)
    {
        std::unique_ptr<char[]> buffer(new (std::nothrow) char[streamBufferSize]);
        if (buffer == nullptr) {
            return;
        }
        char* const bytes = buffer.get();
        if (keep(stream, std::move(buffer))) {
            setvbuf(stream, bytes, _IOFBF, streamBufferSize);
        }
    }

    /// Hands over the buffer of a stream that is about to be closed: the caller frees it after that.
    std::unique_ptr<char[]> take(FILE* stream)
    {
        const CGuard guard(m_mutex);
        const auto node = m_buffers.extract(stream);
        return node.empty() ? nullptr : std::move(node.mapped());
    }

private:
    bool keep(FILE* stream, std::unique_ptr<char[]> buffer)
    {
        try {
            const CGuard guard(m_mutex);
            m_buffers.emplace(stream, std::move(buffer));
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    CLeafMutex m_mutex;
    std::unordered_map<FILE*, std::unique_ptr<char[]>> m_buffers;
};

CStreamBuffers& streamBuffers()
{
    return immortal<CStreamBuffers, CStreamBuffers>();
}

/// What the mode of a stream asks for. Its letters count wherever they stand.
class CStreamMode
{
public:
    explicit CStreamMode(const char* mode) : m_mode(mode) {}

    bool appends() const { return has('a'); }
    bool isDirect() const { return has('d'); }

    int openFlags() const
    {
        int flags = accessMode();
        flags |= appends() ? O_APPEND : 0;
        flags |= has('r') ? 0 : O_CREAT;
        flags |= has('w') ? O_TRUNC : 0;
        flags |= has('e') ? O_CLOEXEC : 0;
        flags |= isDirect() ? O_DIRECT : 0;
        return flags;
    }

    /// The mode as the system library knows it.
    std::string forSystem() const
    {
        std::string mode(m_mode);
        if (isDirect()) {
            mode.erase(mode.find('d'), 1);
        }
        return mode;
    }

private:
    bool has(char letter) const { return strchr(m_mode, letter) != nullptr; }

    int accessMode() const
    {
        if (has('+')) {
            return O_RDWR;
        }
        return !has('r') && (has('w') || appends()) ? O_WRONLY : O_RDONLY;
    }

    const char* m_mode;
};

int openRetrying(const char* path, int flags)
{
    int descriptor = -1;
    do {
        descriptor = open(path, flags, 0666);
    } while (descriptor == -1 && errno == EINTR);
    return descriptor;
}

FILE* streamFor(int descriptor, const CStreamMode& mode)
{
    FILE* const stream = fdopen(descriptor, mode.forSystem().c_str());
    if (stream == nullptr) {
        const int error = errno;
        close(descriptor);
        errno = error;
    }
    return stream;
}

FILE* own(FileHandle file)
{
    return static_cast<FILE*>(file);
}

/// Null is no path, and the system library may do anything with one.
bool isPath(const char* path)
{
    if (path == nullptr) {
        errno = EFAULT;
    }
    return path != nullptr;
}

void fillCommon(FileInfo& info, const struct stat& status)
{
    info.timeCreate = static_cast<uint64_t>(status.st_ctim.tv_sec);
    info.timeAccess = static_cast<uint64_t>(status.st_atim.tv_sec);
    info.timeWrite = static_cast<uint64_t>(status.st_mtim.tv_sec);
    info.size = static_cast<uint64_t>(status.st_size);
}

uint16_t attributesOf(mode_t mode)
{
    const int directory = S_ISDIR(mode) ? CFile::directory : CFile::normal;
    const int readOnly = (mode & S_IWUSR) == 0 ? CFile::readOnly : CFile::normal;
    return static_cast<uint16_t>(directory | readOnly);
}

/// Null for a pattern that does not fit: a part of it would name another directory.
DIR* openDirectory(const char* pattern)
{
    char path[1024];
    const size_t length = strlen(pattern);
    if (length >= sizeof(path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    copyText(path, pattern);
    if (length > 0 && path[length - 1] == '*') {
        path[length - 1] = '\0';
    }
    return opendir(path[0] == '\0' ? "." : path);
}

/// The next entry whose record is not too long.
const dirent* nextEntry(DIR* directory)
{
    const dirent* entry = nullptr;
    do {
        entry = readdir(directory); // NOLINT(concurrency-mt-unsafe): one thread at a time
    } while (entry != nullptr && entry->d_reclen > longestEntry);
    return entry;
}

/// Whether an entry was removed since the directory named it; a link to nothing is still there.
bool isGone(DIR* directory, const char* name)
{
    struct stat status;
    return fstatat(dirfd(directory), name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

DIR* searchBehind(long handle)
{
    return handle == 0 || handle == -1
               ? nullptr
               : reinterpret_cast<DIR*>(handle); // NOLINT(performance-no-int-to-ptr)
}

} // namespace

FILE* streamBehind(FileHandle file)
{
    constexpr uintptr_t firstPage = 4096;
    constexpr unsigned magicMask = 0xFFFF0000;
    constexpr unsigned magic = 0xFBAD0000; // of every stream of this C library
    if (reinterpret_cast<uintptr_t>(file) < firstPage) {
        return nullptr;
    }
    int flags = 0;
    memcpy(&flags, file, sizeof(flags));
    return (static_cast<unsigned>(flags) & magicMask) == magic ? own(file) : nullptr;
}

FileHandle FileDefaultOpt::fopen(const char* path, const char* mode)
{
    INFRA_ASSERT_TEXT(mode != nullptr, "mode != NULL");
    const size_t len = strlen(mode);
    INFRA_ASSERT(len > 0);
    if (!isPath(path)) {
        return nullptr;
    }
    const CStreamMode streamMode(mode);
    const int descriptor = openRetrying(path, streamMode.openFlags());
    FILE* const stream = descriptor == -1 ? nullptr : streamFor(descriptor, streamMode);
    if (stream == nullptr) {
        return nullptr;
    }
    if (streamMode.isDirect()) {
        setvbuf(stream, nullptr, _IONBF, 0);
    } else {
        streamBuffers().give(stream);
    }
    return stream;
}

int FileDefaultOpt::fclose(FileHandle file)
{
    const std::unique_ptr<char[]> buffer = streamBuffers().take(own(file));
    return ::fclose(own(file));
}

/// What the system library leaves to the caller when writing turns to reading, and reading goes on: a
/// large read passes by what is still to be written, which is lost then, and a stream that met the
/// end remembers it, although the file may have grown since.
static void prepareReading(FILE* stream)
{
    if (__fpending(stream) != 0) {
        (void)::fflush(stream);
    }
    if (feof_unlocked(stream) != 0) {
        clearerr(stream);
    }
}

// A record that is in the buffer, or fits in, is copied by the same test of the stream's fields by
// which the system library's getc_unlocked() and putc_unlocked() copy a byte. A stream is used by one
// thread at a time, and what the record would otherwise go through costs more than copying it.

size_t FileDefaultOpt::fread(void* buffer, size_t size, size_t n, FileHandle file)
{
    FILE* const stream = own(file);
    if (size == 1 && n > 0 &&
        n <= static_cast<size_t>(stream->_IO_read_end - stream->_IO_read_ptr)) {
        memcpy(buffer, stream->_IO_read_ptr, n);
        stream->_IO_read_ptr += n;
        return n;
    }
    prepareReading(stream);
    return ::fread(buffer, size, n, stream);
}

size_t FileDefaultOpt::fwrite(const void* buffer, size_t size, size_t n, FileHandle file)
{
    FILE* const stream = own(file);
    // Elsewhere than where it writes, the end of this room may lie before its beginning.
    if (size == 1 && stream->_IO_write_ptr < stream->_IO_write_end &&
        n <= static_cast<size_t>(stream->_IO_write_end - stream->_IO_write_ptr)) {
        memcpy(stream->_IO_write_ptr, buffer, n);
        stream->_IO_write_ptr += n;
        return n;
    }
    return ::fwrite(buffer, size, n, stream);
}

int FileDefaultOpt::fflush(FileHandle file)
{
    (void)::fflush(own(file));
    return fsync(fileno(own(file)));
}

int FileDefaultOpt::fseek(FileHandle file, long offset, int whence)
{
    return ::fseek(own(file), offset, whence);
}

long FileDefaultOpt::ftell(FileHandle file)
{
    return ::ftell(own(file));
}

char* FileDefaultOpt::fgets(char* text, int size, FileHandle file)
{
    prepareReading(own(file));
    return ::fgets(text, size, own(file));
}

int FileDefaultOpt::fputs(const char* text, FileHandle file)
{
    return ::fputs(text, own(file));
}

int FileDefaultOpt::rename(const char* oldPath, const char* newPath)
{
    return isPath(oldPath) && isPath(newPath) ? ::rename(oldPath, newPath) : -1;
}

int FileDefaultOpt::remove(const char* path)
{
    return isPath(path) ? ::remove(path) : -1;
}

long FileDefaultOpt::findfirst(const char* pattern, FileInfo& info)
{
    DIR* const directory = isPath(pattern) ? openDirectory(pattern) : nullptr;
    if (directory == nullptr) {
        return -1;
    }
    const long handle = reinterpret_cast<long>(directory);
    if (findnext(handle, info) != 0) {
        closedir(directory);
        return -1;
    }
    return handle;
}

int FileDefaultOpt::findnext(long handle, FileInfo& info)
{
    DIR* const directory = searchBehind(handle);
    while (const dirent* const entry = directory == nullptr ? nullptr : nextEntry(directory)) {
        struct stat status;
        if (fstatat(dirfd(directory), entry->d_name, &status, 0) == 0) {
            copyText(info.name, entry->d_name);
            info.attrib = attributesOf(status.st_mode);
            fillCommon(info, status);
            return 0;
        }
        const int error = errno;
        if (!isGone(directory, entry->d_name)) {
            INFRA_LOG_ERROR("this:%p FileDefaultOpt::findnext, stat failed ,err:%s\n",
                            static_cast<void*>(this), CErrorText(error).c_str());
            break;
        }
    }
    return -1;
}

int FileDefaultOpt::findclose(long handle)
{
    DIR* const directory = searchBehind(handle);
    if (directory == nullptr) {
        return -1;
    }
    closedir(directory);
    return 0;
}

int FileDefaultOpt::mkdir(const char* path)
{
    return isPath(path) ? ::mkdir(path, 0777) : -1;
}

int FileDefaultOpt::rmdir(const char* path)
{
    return isPath(path) ? ::rmdir(path) : -1;
}

int FileDefaultOpt::statfs(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                           uint64_t& totalFreeBytes)
{
    userFreeBytes = totalBytes = totalFreeBytes = 0;
    struct statfs status;
    if (!isPath(path) || ::statfs(path, &status) != 0) {
        return -1;
    }
    const uint64_t blockSize = static_cast<uint64_t>(status.f_bsize);
    userFreeBytes = blockSize * status.f_bavail;
    totalBytes = blockSize * status.f_blocks;
    totalFreeBytes = blockSize * status.f_bfree;
    return 0;
}

int FileDefaultOpt::access(const char* path, int mode)
{
    return isPath(path) ? ::access(path, mode) : -1;
}

int FileDefaultOpt::stat(const char* path, FileInfo& info)
{
    struct stat status;
    if (!isPath(path) || ::stat(path, &status) != 0) {
        return -1;
    }
    copyText(info.name, path);
    info.attrib = static_cast<uint16_t>(status.st_mode);
    fillCommon(info, status);
    return 0;
}

size_t FileDefaultOpt::writev(int fildes, const io_vec* iov, int iovcnt)
{
    return static_cast<size_t>(::writev(fildes, reinterpret_cast<const iovec*>(iov), iovcnt));
}

int FileDefaultOpt::fseek64(FileHandle file, int64_t offset, int whence)
{
    return fseeko(own(file), offset, whence);
}

int64_t FileDefaultOpt::ftell64(FileHandle file)
{
    return ftello(own(file));
}

} // namespace Infra
} // namespace Tarsel
