// Snapshot.cpp: copying a pool, and keeping the copy in a file.
//
// A file has a head, the control segment and the data segment, each at a multiple of the page size,
// so that it can be mapped. Pages that hold only 0 are holes in it.

#include "Snapshot.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "Common/Failure.h"
#include "Infra3/Arithmetic.h"
#include "Memory/ShareMem/Repair.h"

using ShareMem::Mapping;

namespace
{

constexpr size_t fileAlign = 4096;
constexpr char fileMagic[8] = {'I', 'N', 'F', 'R', 'A', 'S', 'H', 'M'};
constexpr uint32_t fileVersion = 1;
constexpr size_t mostFaults = 1000;

/// Starts a file. The numbers are little-endian, as those of the pool.
struct FileHead
{
    char magic[8];
    uint32_t version;
    Moment moment;
    uint64_t controlSize;
    uint64_t dataSize;
};
static_assert(sizeof(FileHead) == 32);

size_t aligned(size_t size)
{
    return Tarsel::Infra::roundUp(size, fileAlign);
}

size_t controlPlace()
{
    return fileAlign;
}

size_t dataPlace(size_t controlSize)
{
    return controlPlace() + aligned(controlSize);
}

} // namespace

const char* momentText(Moment moment)
{
    switch (moment) {
    case Moment::locked:
        return "consistent";
    case Moment::ownerDied:
        return "taken after the mutex's owner died inside";
    case Moment::busy:
        return "taken while a process held the mutex";
    default:
        return "taken without permission to lock";
    }
}

// CPrivateMapping --------------------------------------------------------------------------------

CPrivateMapping::CPrivateMapping(size_t size, int descriptor)
{
    const int kind = descriptor == -1 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_PRIVATE;
    void* const start =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, kind | MAP_NORESERVE, descriptor, 0);
    if (start == MAP_FAILED) {
        throw CFailure::ofSystem("room for a copy of the pool");
    }
    m_start = static_cast<uint8_t*>(start);
    m_size = size;
}

CPrivateMapping::~CPrivateMapping()
{
    if (m_start != nullptr) {
        munmap(m_start, m_size);
    }
}

CPrivateMapping::CPrivateMapping(CPrivateMapping&& other) noexcept
    : m_start(std::exchange(other.m_start, nullptr)), m_size(other.m_size)
{}

CPrivateMapping& CPrivateMapping::operator=(CPrivateMapping&& other) noexcept
{
    std::swap(m_start, other.m_start);
    std::swap(m_size, other.m_size);
    return *this;
}

// Taking -----------------------------------------------------------------------------------------

/// Has the system provide the pages now. Where it does not know how, they come as they are touched.
void provide(const Mapping& mapping, int how)
{
    const uintptr_t place = reinterpret_cast<uintptr_t>(mapping.start);
    const uintptr_t page = place / fileAlign * fileAlign;
    madvise(mapping.start - (place - page), mapping.size + (place - page), how);
}

/// Room for a copy. Nothing is allocated while the mutex is held, and hardly a page is touched there
/// for the first time.
CSnapshot::CSnapshot(const Mapping& control, const Mapping& data)
    : m_memory(aligned(control.size) + data.size, -1),
      m_control{m_memory.start(), control.size},
      m_data{m_memory.start() + aligned(control.size), data.size}
{
    provide(control, MADV_POPULATE_READ);
    provide(m_control, MADV_POPULATE_WRITE);
}

void CSnapshot::readZones()
{
    m_isInitialised = findZones(m_control, m_data, &m_layout) && m_layout.isInitialised();
    m_isSound = m_isInitialised && arePagesSound(m_control, m_data, m_layout);
}

void CSnapshot::copyNow(const Mapping& control, const Mapping& data)
{
    memcpy(m_control.start, control.start, control.size);
    readZones();
    if (!m_isSound) {
        return;
    }
    const size_t pageSize = m_layout.info->config.pageSize;
    for (uint32_t i = 0; i < m_layout.info->pageNum; ++i) {
        if (isSmallPage(m_layout.info, i)) {
            memcpy(m_data.start + i * pageSize, data.start + i * pageSize, pageSize);
        }
    }
    // In the copy nobody holds anything.
    memset(m_layout.mutexes(), 0, sizeof(ProcessMutexInternal));
}

CSnapshot CSnapshot::copy(const Mapping& control, const Mapping& data)
{
    CSnapshot made(control, data);
    made.copyNow(control, data);
    return made;
}

CSnapshot CSnapshot::take(const Pool& pool, std::chrono::milliseconds wait)
{
    CAttachment control(pool.control, Access::readWrite);
    const bool canLock = control.ok();
    if (!canLock) {
        control = CAttachment(pool.control, Access::read);
    }
    const CAttachment data(*pool.data, Access::read);
    if (!control.ok() || !data.ok()) {
        throw CFailure::ofSystem("the pool cannot be read");
    }
    return take(control.mapping(), data.mapping(), canLock, wait);
}

CSnapshot CSnapshot::take(const Mapping& control, const Mapping& data, bool canLock,
                          std::chrono::milliseconds wait)
{
    CSnapshot made(control, data);
    ShareMem::Layout layout = {};
    if (!findZones(control, data, &layout) || !layout.isInitialised()) {
        made.copyNow(control, data);
        return made;
    }
    ProcessMutexInternal& mutex = layout.mutexes()[0];
    made.m_mutex = stateOfMutex(mutex);
    int result = EOWNERDEAD;
    if (!canLock) {
        made.m_moment = Moment::noPermission;
    } else if (made.m_mutex.kind == MutexState::ownerDied) {
        made.m_moment = Moment::ownerDied;
    } else if (made.m_mutex.kind == MutexState::lost || made.m_mutex.kind == MutexState::unusable) {
        made.m_moment = Moment::busy;
    } else {
        result = withMutex(mutex, wait, [&] { made.copyNow(control, data); });
        made.m_moment = result == 0            ? Moment::locked
                        : result == EOWNERDEAD ? Moment::ownerDied
                                               : Moment::busy;
    }
    if (result != 0) {
        made.m_mutex = stateOfMutex(mutex);
        made.copyNow(control, data);
    }
    return made;
}

std::vector<std::string> CSnapshot::faults() const
{
    ShareMem::CScratch scratch;
    if (!scratch.reserve(m_layout.info->pageNum)) {
        throw CFailure("no memory to check the pool");
    }
    std::vector<std::string> found;
    const size_t count = checkPool(
        m_layout, scratch,
        [](void* all, const char* fault) {
            std::vector<std::string>& lines = *static_cast<std::vector<std::string>*>(all);
            if (lines.size() < mostFaults) {
                lines.push_back(fault);
            }
        },
        &found);
    if (count > found.size()) {
        found.push_back("and " + std::to_string(count - found.size()) + " more");
    }
    return found;
}

// Files ------------------------------------------------------------------------------------------

namespace
{

void writeAt(int file, const uint8_t* bytes, size_t size, size_t place)
{
    while (size > 0) {
        const ssize_t written = pwrite(file, bytes, size, static_cast<off_t>(place));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw CFailure::ofSystem("the copy cannot be written");
        }
        bytes += written;
        size -= static_cast<size_t>(written);
        place += static_cast<size_t>(written);
    }
}

void writeUnlessZero(int file, const uint8_t* bytes, size_t size, size_t place)
{
    if (std::any_of(bytes, bytes + size, [](uint8_t byte) { return byte != 0; })) {
        writeAt(file, bytes, size, place);
    }
}

/// Where a file is that may be replaced: behind a link what it points to. Devices and the like are
/// refused.
std::string replaceable(const std::string& path)
{
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (!exists(status)) {
        return path;
    }
    if (!is_regular_file(status)) {
        throw CFailure(path + " is not a regular file");
    }
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    return error ? path : target.string();
}

/// A file that takes its name only when it is whole.
class CNewFile
{
public:
    explicit CNewFile(const std::string& path)
        : m_path(replaceable(path)), m_unfinished(m_path + ".XXXXXX")
    {
        m_file = CDescriptor(mkostemp(m_unfinished.data(), O_CLOEXEC));
        if (!m_file.ok()) {
            throw CFailure::ofSystem(path);
        }
    }
    ~CNewFile()
    {
        if (!m_isFinished) {
            unlink(m_unfinished.c_str());
        }
    }
    CNewFile(const CNewFile&) = delete;
    CNewFile& operator=(const CNewFile&) = delete;

    int get() const { return m_file.get(); }
    void finish(size_t size)
    {
        if (ftruncate(get(), static_cast<off_t>(size)) != 0 || fsync(get()) != 0 ||
            rename(m_unfinished.c_str(), m_path.c_str()) != 0) {
            throw CFailure::ofSystem(m_path);
        }
        m_isFinished = true;
    }

private:
    std::string m_path;
    std::string m_unfinished;
    CDescriptor m_file;
    bool m_isFinished = false;
};

} // namespace

void CSnapshot::save(const std::string& path, const Pool& pool) const
{
    const CAttachment data(*pool.data, Access::read);
    if (!data.ok() || !m_isSound) {
        throw CFailure("the pool cannot be read");
    }
    FileHead head = {};
    memcpy(head.magic, fileMagic, sizeof(fileMagic));
    head.version = fileVersion;
    head.moment = m_moment;
    head.controlSize = m_control.size;
    head.dataSize = m_data.size;

    CNewFile file(path);
    writeAt(file.get(), reinterpret_cast<const uint8_t*>(&head), sizeof(head), 0);
    writeAt(file.get(), m_control.start, m_control.size, controlPlace());
    const size_t place = dataPlace(m_control.size);
    const size_t pageSize = m_layout.info->config.pageSize;
    for (uint32_t i = 0; i < m_layout.info->pageNum; ++i) {
        const uint8_t* const from =
            isSmallPage(m_layout.info, i) ? m_data.start : data.mapping().start;
        writeUnlessZero(file.get(), from + i * pageSize, pageSize, place + i * pageSize);
    }
    file.finish(place + m_data.size);
}

CSnapshot CSnapshot::load(const std::string& path)
{
    const CDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat state = {};
    if (!file.ok() || fstat(file.get(), &state) != 0) {
        throw CFailure::ofSystem(path);
    }
    const size_t size = static_cast<size_t>(state.st_size);
    const CFailure isNone(path + " is no saved pool");
    if (!S_ISREG(state.st_mode) || size < fileAlign) {
        throw isNone;
    }
    CSnapshot made;
    made.m_memory = CPrivateMapping(size, file.get());
    FileHead head = {};
    memcpy(&head, made.m_memory.start(), sizeof(head));
    if (memcmp(head.magic, fileMagic, sizeof(fileMagic)) != 0 || head.version != fileVersion ||
        head.controlSize > size || head.dataSize > size ||
        dataPlace(head.controlSize) + head.dataSize != size) {
        throw isNone;
    }
    made.m_control = {made.m_memory.start() + controlPlace(), head.controlSize};
    made.m_data = {made.m_memory.start() + dataPlace(head.controlSize), head.dataSize};
    made.m_moment = head.moment;
    made.m_isFromFile = true;
    made.readZones();
    return made;
}
