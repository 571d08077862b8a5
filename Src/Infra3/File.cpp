// File.cpp: one open file, with 32 and with 64 bits.
//
// CFile and CLfsFile are the same but for the width of their positions, the calls that move them and
// some messages. What is the same stands once, in OpenFile; each class then reads as a list of what
// it does in its own way. Operations that others are made of (open, seek, read) are called through
// the public object, so that a subclass which replaces one has it replaced everywhere.
//
// The position is what the file system said after the last write or seek, plus what was read since.
// On the system's own streams asking costs a system call as often as something is buffered, six times
// the price of buffering a short record, so in regular files and block devices it is counted after a
// write too, and asked for when something has happened that cannot be counted: text moved, a vector
// passed by, or the stream had reason to write out its buffer and may have failed, which loses what was
// in it. A device of characters has a position of its own making, and is always asked.

#include "Infra/Infra3/File.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Infra/File.h"
#include "Infra/Infra3/SystemCall.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/ErrorText.h"
#include "Infra3/FileInternal.h"
#include "Infra3/LogFront.h"
#include "Infra3/ThreadId.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr uint32_t accessModes = 15;

/// Mode text of a stream for open flags.
class COpenMode
{
public:
    COpenMode(uint32_t flags, bool mayPassCache)
    {
        const char* const access = accessOf(flags);
        m_valid = access != nullptr;
        m_length = formatText(m_text, "%s", textOrEmpty(access));
        if ((flags & CFile::modeNoInherit) != 0) {
            add('e');
        }
        if (mayPassCache && (flags & CFile::osNoBuffer) != 0) {
            add('d');
        }
    }

    bool isValid() const { return m_valid; }
    bool appends() const { return m_text[0] == 'a'; }
    const char* text() const { return m_text; }

private:
    static const char* accessOf(uint32_t flags)
    {
        const bool keeps = (flags & CFile::modeNoTruncate) != 0;
        switch (flags & accessModes) {
        case CFile::modeRead:
            return "rb";
        case CFile::modeWrite:
            return keeps ? "ab" : "wb";
        case CFile::modeReadWrite:
            if ((flags & CFile::modeCreate) == 0) {
                return "rb+";
            }
            return keeps ? "ab+" : "wb+";
        default:
            return nullptr;
        }
    }

    void add(char letter)
    {
        m_text[m_length++] = letter;
        m_text[m_length] = '\0';
    }

    char m_text[8] = {};
    size_t m_length = 0;
    bool m_valid = false;
};

FILE* systemsStream(FileHandle file)
{
    return static_cast<FILE*>(file);
}

/// True for what stands where it was counted to.
bool isCountable(FILE* stream)
{
    struct stat status;
    return fstat(fileno(stream), &status) == 0 &&
           (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
}

} // namespace

/// The state of a file. Length and position are kept whole, whatever is told of them.
struct OpenFile
{
    FileHandle m_file = nullptr;
    uint8_t* m_buffer = nullptr; ///< of load()
    uint64_t m_length = 0;       ///< 0: not known yet
    uint64_t m_position = 0;
    IFileSystem* m_opt = FileDefaultOpt::instance(); ///< of the open file
    bool m_isPlain = false;   ///< a stream of the system on what isCountable()
    bool m_canCount = false;  ///< it is plain and does not append
    bool m_isCounted = false; ///< m_position is the stream's, with all that has been moved since

    bool open(const char* path, const COpenMode& mode)
    {
        IFileSystem& opt = fileSystemFor(path);
        m_file = opt.fopen(path, mode.text());
        if (m_file == nullptr) {
            return false;
        }
        m_opt = &opt;
        m_isPlain = isSystems() && isCountable(systemsStream(m_file));
        m_canCount = m_isPlain && !mode.appends();
        return true;
    }

    bool isSystems() const { return m_opt == FileDefaultOpt::instance(); }

    /// The system library's stream behind the file, null for one that is none of its. A table of
    /// functions has no streams; other file systems may.
    FILE* stream() const
    {
        if (isSystems()) {
            return systemsStream(m_file);
        }
        const bool isTable = dynamic_cast<const CFSOperation*>(m_opt) != nullptr;
        return isTable ? nullptr : streamBehind(m_file);
    }

    /// The length as far as it is known after opening.
    uint64_t lengthAtOpening(const char* path, uint32_t flags) const
    {
        if ((flags & CFile::modeCreate) != 0 && (flags & CFile::modeNoTruncate) == 0) {
            return 0;
        }
        FileInfo info = {};
        return m_opt->stat(path, info) == 0 ? info.size : 0;
    }

    void close()
    {
        if (m_file == nullptr) {
            return;
        }
        m_opt->fclose(m_file);
        m_file = nullptr;
        m_length = 0;
        freeBuffer();
        m_position = 0;
        m_opt = FileDefaultOpt::instance();
    }

    void freeBuffer()
    {
        delete[] m_buffer;
        m_buffer = nullptr;
    }

    /// Takes over what the file system said; -1 is the position 0.
    void setPosition(int64_t told)
    {
        m_position = static_cast<uint64_t>(std::max<int64_t>(told, 0));
        m_isCounted = m_canCount && told >= 0;
    }

    void noteRead(size_t count, bool wasAll)
    {
        m_isCounted = m_isCounted && wasAll;
        advance(count);
    }

    /// Counts bytes that were read or written.
    void advance(size_t count) { m_position += count; }

    void growToPosition() { m_length = std::max(m_length, m_position); }

    /// True when a seek would move nothing. In a plain file the position must be known for certain:
    /// what text was moved, or appended, may have left it behind.
    bool standsAt(int64_t offset, int from) const
    {
        if (m_isPlain && !m_isCounted) {
            return false;
        }
        const int64_t position = static_cast<int64_t>(m_position);
        if (from == CFile::begin) {
            return offset == position;
        }
        return from == CFile::current && offset == 0;
    }

    char* gets(char* text, int size)
    {
        char* const line = m_opt->fgets(text, size, m_file);
        m_isCounted = false; // a line may hold terminators
        if (line != nullptr) {
            advance(strlen(line));
        }
        return line;
    }

    int puts(const char* text)
    {
        if (text == nullptr) {
            errno = EFAULT;
            return -1;
        }
        const int result = m_opt->fputs(text, m_file);
        if (result == -1) {
            m_isCounted = false;
            return result;
        }
        advance(strlen(text));
        growToPosition();
        return result;
    }

    /// The stream does not see these bytes pass.
    long writev(const io_vec* vector, int count)
    {
        FILE* const stream = this->stream();
        const int descriptor = stream == nullptr ? -1 : fileno(stream);
        const long written = static_cast<long>(m_opt->writev(descriptor, vector, count));
        if (written < 1) {
            return written;
        }
        m_isCounted = false;
        advance(static_cast<size_t>(written));
        growToPosition();
        return written;
    }

    bool setvbuf(char* buffer, int mode, size_t size)
    {
        if (m_file == nullptr) {
            INFRA_LOG_WARN("CFile::setvbuf failed, file has not been opened!\n");
            return false;
        }
        m_isCounted = false;
        FILE* const stream = this->stream();
        if (stream == nullptr || ::setvbuf(stream, buffer, mode, size) != 0) {
            INFRA_LOG_WARN("CFile::setvbuf failed\n");
            return false;
        }
        return true;
    }
};

/// What differs between the two classes: how the file system is asked for the position, and how wide
/// it and the length are told.
struct FileInternal : OpenFile
{
    typedef uint32_t Told;
    void learnPosition() { setPosition(m_opt->ftell(m_file)); }
};

struct LfsFileInternal : OpenFile
{
    typedef uint64_t Told;
    void learnPosition() { setPosition(m_opt->ftell64(m_file)); }
};

namespace
{

template <typename Internal>
typename Internal::Told told(const Internal&, uint64_t lengthOrPosition)
{
    return static_cast<typename Internal::Told>(lengthOrPosition);
}

template <typename Internal>
void noteWritten(Internal& internal, size_t count, bool wasAll)
{
    if (wasAll && internal.m_isCounted) {
        internal.advance(count);
    } else {
        internal.learnPosition();
    }
    internal.growToPosition();
}

/// open() of both classes, behind what each does about the file that is open.
template <typename Internal>
bool openAnew(Internal& internal, const char* path, uint32_t flags, const COpenMode& mode)
{
    if (!internal.open(path, mode)) {
        return false;
    }
    internal.learnPosition();
    internal.m_length = internal.lengthAtOpening(path, flags);
    return true;
}

/// Shows on the console which file the descriptor is, for one that is shorter than it said. Only
/// the system's own streams have one, while they are open.
void showDescriptor(const OpenFile& file)
{
    if (file.m_file != nullptr && file.isSystems()) {
        char command[32];
        formatText(command, "%s%d%s%d", "ls -lh /proc/", currentThreadId(), "/fd/",
                   fileno(systemsStream(file.m_file)));
        systemCall(command);
    }
}

// The messages stand apart, so that a read or write that goes well does not set the stage for them.

[[gnu::cold, gnu::noinline]] void reportShortWrite(size_t expected, size_t actual)
{
    const int error = errno;
    INFRA_LOG_WARN("fwrite failed, expected:%u, actual:%u, errno:%d, errmsg:%s\n",
                   static_cast<unsigned>(expected), static_cast<unsigned>(actual), error,
                   CErrorText(error).c_str());
}

[[gnu::cold, gnu::noinline]] void reportNothingRead(void* file, int64_t total, int64_t done)
{
    INFRA_LOG_WARN("this:%p fread get error, total:%jd has read:%jd, expected:%zu return "
                   "actuallen:%zu\n",
                   file, static_cast<intmax_t>(total), static_cast<intmax_t>(done),
                   static_cast<size_t>(total - done), size_t{0});
}

/// Without a line end: the next message goes on in this line.
[[gnu::cold, gnu::noinline]] void reportUnwritten(void* file, int64_t total, int64_t done,
                                                  size_t count)
{
    INFRA_LOG_WARN("this:%p fwrite get error, total:%jd has write:%jd,expected:%zu return "
                   "actuallen:%zu",
                   file, static_cast<intmax_t>(total), static_cast<intmax_t>(done),
                   static_cast<size_t>(total - done), count);
}

/// Whether there is no use in writing on. A stream of the system that took less than it was given has
/// failed, and dropped what it had buffered: it would take the rest as if nothing were missing.
bool endsWriting(const OpenFile& file, size_t count, size_t wanted)
{
    return count == 0 || (count < wanted && file.isSystems());
}

/// Makes the object what open() starts from. The loaded bytes are handed over, because the name of
/// the file that is opened next may stand in them.
template <typename File, typename Internal>
std::unique_ptr<uint8_t[]> closeAnyhow(File& file, Internal& internal)
{
    std::unique_ptr<uint8_t[]> loaded(std::exchange(internal.m_buffer, nullptr));
    if (internal.m_file != nullptr) {
        file.close();
    }
    return loaded;
}

/// Asks for the length, if none is known that may be told, and goes to `position`.
template <typename File, typename Internal>
void learnLength(File& file, Internal& internal, uint64_t position)
{
    if (told(internal, internal.m_length) == 0) {
        internal.m_length = static_cast<uint64_t>(file.seek(0, File::end));
        file.seek(static_cast<int64_t>(position), File::begin);
    }
}

/// Opens the file and makes room for all of it; false when it stays without a buffer.
template <typename File, typename Internal>
bool prepareLoad(File& file, Internal& internal, const char* path)
{
    if (!file.open(path, File::modeNoTruncate)) {
        return false;
    }
    learnLength(file, internal, 0);
    const auto length = told(internal, internal.m_length);
    if (length == 0) {
        return false;
    }
    internal.m_buffer = new (std::nothrow) uint8_t[length];
    if (internal.m_buffer == nullptr) {
        file.unload();
        return false;
    }
    file.seek(0, File::begin);
    return true;
}

} // namespace

CFile::CFile() : m_internal(new FileInternal) {}

CFile::~CFile()
{
    m_internal->close();
    m_internal->freeBuffer();
    delete m_internal;
}

bool CFile::open(const char* pFileName, uint32_t dwFlags)
{
    const auto loaded = closeAnyhow(*this, *m_internal);
    const COpenMode mode(dwFlags, /*mayPassCache*/ true);
    if (!mode.isValid()) {
        INFRA_LOG_ERROR("this:%p CFile::open() dwFlags:%d is invalid\n", static_cast<void*>(this),
                        static_cast<int>(dwFlags));
        return false;
    }
    return openAnew(*m_internal, pFileName, dwFlags, mode);
}

void CFile::close()
{
    m_internal->close();
}

uint8_t* CFile::load(const char* pFileName)
{
    FileInternal& internal = *m_internal;
    if (internal.m_buffer != nullptr) {
        return internal.m_buffer;
    }
    if (!prepareLoad(*this, internal, pFileName)) {
        return nullptr;
    }
    const int before = std::exchange(errno, 0);
    const auto length = told(internal, internal.m_length);
    const long ret = read(internal.m_buffer, length);
    if (ret != static_cast<long>(length)) {
        const int error = errno;
        showDescriptor(internal);
        INFRA_LOG_WARN("this:%p CFile::load() length:%d, ret:%d, errmsg:%s\n",
                       static_cast<void*>(this), static_cast<int>(length), static_cast<int>(ret),
                       CErrorText(error).c_str());
        unload();
        return nullptr;
    }
    errno = before;
    return internal.m_buffer;
}

void CFile::unload()
{
    close();
    m_internal->freeBuffer();
}

long CFile::read(void* pBuffer, size_t dwCount)
{
    FileInternal& internal = *m_internal;
    if (internal.m_file == nullptr) {
        return -1;
    }
    const size_t count = internal.m_opt->fread(pBuffer, 1, dwCount, internal.m_file);
    internal.noteRead(count, count == dwCount);
    return static_cast<long>(count);
}

long CFile::write(void* pBuffer, size_t dwCount)
{
    FileInternal& internal = *m_internal;
    if (internal.m_file == nullptr) {
        return -1;
    }
    const size_t count = internal.m_opt->fwrite(pBuffer, 1, dwCount, internal.m_file);
    if (count < dwCount) {
        reportShortWrite(dwCount, count);
    }
    noteWritten(internal, count, count == dwCount);
    return static_cast<long>(count);
}

void CFile::flush()
{
    if (m_internal->m_file != nullptr) {
        m_internal->m_opt->fflush(m_internal->m_file);
        m_internal->learnPosition();
        m_internal->growToPosition();
    }
}

size_t CFile::seek(long lOff, SeekPosition nFrom)
{
    if (m_internal->m_file == nullptr) {
        return 0;
    }
    if (!m_internal->standsAt(lOff, nFrom)) {
        m_internal->m_isCounted = false;
        if (m_internal->m_opt->fseek(m_internal->m_file, lOff, nFrom) < 0) {
            return 0;
        }
        m_internal->learnPosition();
    }
    return told(*m_internal, m_internal->m_position);
}

size_t CFile::getPosition()
{
    return m_internal->m_file == nullptr ? 0 : told(*m_internal, m_internal->m_position);
}

size_t CFile::getLength()
{
    if (m_internal->m_file == nullptr) {
        return 0;
    }
    learnLength(*this, *m_internal, m_internal->m_position);
    return told(*m_internal, m_internal->m_length);
}

char* CFile::gets(char* s, size_t size)
{
    if (m_internal->m_file == nullptr) {
        return nullptr;
    }
    return m_internal->gets(s, static_cast<int>(std::min<size_t>(size, INT_MAX)));
}

long CFile::puts(const char* s)
{
    return m_internal->m_file == nullptr ? 0 : m_internal->puts(s);
}

bool CFile::isOpen()
{
    return m_internal->m_file != nullptr;
}

long CFile::writev(const io_vec* vector, int count)
{
    return m_internal->m_file == nullptr ? -1 : m_internal->writev(vector, count);
}

bool CFile::setvbuf(char* buf, IOMode mode, size_t size)
{
    return m_internal->setvbuf(buf, mode, size);
}

bool CFile::resv1()
{
    return false;
}

bool CFile::resv2()
{
    return false;
}

bool CFile::resv3()
{
    return false;
}

bool CFile::resv4()
{
    return false;
}

bool CFile::rename(const char* oldName, const char* newName)
{
    return fileSystemFor(oldName).rename(oldName, newName) == 0;
}

bool CFile::remove(const char* pFileName)
{
    return fileSystemFor(pFileName).remove(pFileName) == 0;
}

bool CFile::makeDirectory(const char* dirName)
{
    return fileSystemFor(dirName).mkdir(dirName) == 0;
}

bool CFile::removeDirectory(const char* dirName)
{
    return fileSystemFor(dirName).rmdir(dirName) == 0;
}

bool CFile::statFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                   uint64_t& totalFreeBytes)
{
    return fileSystemFor(path).statfs(path, userFreeBytes, totalBytes, totalFreeBytes) == 0;
}

bool CFile::access(const char* path, int mode)
{
    return fileSystemFor(path).access(path, mode) == 0;
}

bool CFile::stat(const char* path, FileInfo& info)
{
    return fileSystemFor(path).stat(path, info) == 0;
}

CLfsFile::CLfsFile() : m_internal(new LfsFileInternal) {}

CLfsFile::~CLfsFile()
{
    m_internal->close();
    m_internal->freeBuffer();
    delete m_internal;
}

bool CLfsFile::open(const char* pFileName, uint32_t dwFlags)
{
    const auto loaded = closeAnyhow(*this, *m_internal);
    const COpenMode mode(dwFlags, /*mayPassCache*/ false);
    if (!mode.isValid()) {
        INFRA_LOG_ERROR("this:%p CLfsFile::open() dwFlags:%d is invalid\n",
                        static_cast<void*>(this), static_cast<int>(dwFlags));
        return false;
    }
    return openAnew(*m_internal, pFileName, dwFlags, mode);
}

void CLfsFile::close()
{
    m_internal->close();
}

uint8_t* CLfsFile::load(const char* pFileName)
{
    LfsFileInternal& internal = *m_internal;
    if (internal.m_buffer != nullptr) {
        return internal.m_buffer;
    }
    if (!prepareLoad(*this, internal, pFileName)) {
        return nullptr;
    }
    const int before = std::exchange(errno, 0);
    const uint64_t length = internal.m_length;
    const int64_t ret = read(internal.m_buffer, static_cast<int64_t>(length));
    if (ret != static_cast<int64_t>(length)) {
        const int error = errno;
        showDescriptor(internal);
        INFRA_LOG_WARN("this:%p CLfsFile::load() length:%ju, ret:%jd, errmsg:%s\n",
                       static_cast<void*>(this), static_cast<uintmax_t>(length),
                       static_cast<intmax_t>(ret), CErrorText(error).c_str());
        unload();
        return nullptr;
    }
    errno = before;
    return internal.m_buffer;
}

void CLfsFile::unload()
{
    close();
    m_internal->freeBuffer();
}

int64_t CLfsFile::read(void* pBuffer, int64_t dwCount)
{
    LfsFileInternal& internal = *m_internal;
    if (internal.m_file == nullptr) {
        return -1;
    }
    uint8_t* const bytes = static_cast<uint8_t*>(pBuffer);
    int64_t done = 0;
    bool wasAll = true; // by one call: a second one follows a failure
    while (done < dwCount) {
        const size_t wanted = static_cast<size_t>(dwCount - done);
        const size_t count = internal.m_opt->fread(bytes + done, 1, wanted, internal.m_file);
        wasAll = count == wanted && wasAll;
        if (count == 0) {
            reportNothingRead(this, dwCount, done);
            break;
        }
        done += static_cast<int64_t>(count);
    }
    internal.noteRead(static_cast<size_t>(done), wasAll);
    return done;
}

int64_t CLfsFile::write(void* pBuffer, int64_t dwCount)
{
    LfsFileInternal& internal = *m_internal;
    if (internal.m_file == nullptr) {
        return -1;
    }
    const uint8_t* const bytes = static_cast<const uint8_t*>(pBuffer);
    int64_t done = 0;
    bool wasAll = true; // by one call: a second one follows a failure
    while (done < dwCount) {
        const size_t wanted = static_cast<size_t>(dwCount - done);
        const size_t count = internal.m_opt->fwrite(bytes + done, 1, wanted, internal.m_file);
        wasAll = count == wanted && wasAll;
        if (endsWriting(internal, count, wanted)) {
            reportUnwritten(this, dwCount, done, count);
            done += static_cast<int64_t>(count);
            break;
        }
        done += static_cast<int64_t>(count);
    }
    noteWritten(internal, static_cast<size_t>(done), wasAll);
    return done;
}

void CLfsFile::flush()
{
    if (m_internal->m_file != nullptr) {
        m_internal->m_opt->fflush(m_internal->m_file);
        m_internal->learnPosition();
        m_internal->growToPosition();
    }
}

int64_t CLfsFile::seek(int64_t lOff, SeekPosition nFrom)
{
    if (m_internal->m_file == nullptr) {
        return 0;
    }
    if (!m_internal->standsAt(lOff, nFrom)) {
        m_internal->m_isCounted = false;
        if (m_internal->m_opt->fseek64(m_internal->m_file, lOff, nFrom) < 0) {
            return 0;
        }
        m_internal->learnPosition();
    }
    return static_cast<int64_t>(m_internal->m_position);
}

int64_t CLfsFile::getPosition()
{
    return m_internal->m_file == nullptr ? 0 : static_cast<int64_t>(m_internal->m_position);
}

int64_t CLfsFile::getLength()
{
    if (m_internal->m_file == nullptr) {
        return 0;
    }
    learnLength(*this, *m_internal, m_internal->m_position);
    return static_cast<int64_t>(m_internal->m_length);
}

char* CLfsFile::gets(char* s, int64_t size)
{
    if (m_internal->m_file == nullptr) {
        return nullptr;
    }
    if (size > INT_MAX) {
        INFRA_LOG_WARN("this:%p Bytes need to be seeked has been over the _MAX_INT_VALUE.\n",
                       static_cast<void*>(this));
        return nullptr;
    }
    return m_internal->gets(s, static_cast<int>(std::max<int64_t>(size, 0)));
}

int64_t CLfsFile::puts(const char* s)
{
    return m_internal->m_file == nullptr ? 0 : m_internal->puts(s);
}

bool CLfsFile::isOpen()
{
    return m_internal->m_file != nullptr;
}

int64_t CLfsFile::writev(const io_vec* vector, int count)
{
    return m_internal->m_file == nullptr ? -1 : m_internal->writev(vector, count);
}

bool CLfsFile::setvbuf(char* buf, IOMode mode, size_t size)
{
    return m_internal->setvbuf(buf, mode, size);
}

bool CLfsFile::resv1()
{
    return false;
}

bool CLfsFile::resv2()
{
    return false;
}

bool CLfsFile::resv3()
{
    return false;
}

bool CLfsFile::resv4()
{
    return false;
}

bool CLfsFile::rename(const char* oldName, const char* newName)
{
    return CFile::rename(oldName, newName);
}

bool CLfsFile::remove(const char* pFileName)
{
    return CFile::remove(pFileName);
}

bool CLfsFile::makeDirectory(const char* dirName)
{
    return CFile::makeDirectory(dirName);
}

bool CLfsFile::removeDirectory(const char* dirName)
{
    return CFile::removeDirectory(dirName);
}

bool CLfsFile::statFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                      uint64_t& totalFreeBytes)
{
    return CFile::statFS(path, userFreeBytes, totalBytes, totalFreeBytes);
}

bool CLfsFile::access(const char* path, int mode)
{
    return CFile::access(path, mode);
}

bool CLfsFile::stat(const char* path, FileInfo& info)
{
    return CFile::stat(path, info);
}

} // namespace Infra
} // namespace Tarsel
