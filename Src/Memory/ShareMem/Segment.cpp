// Segment.cpp: System V segments by name.

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Infra3/Arithmetic.h"
#include "Memory/ShareMem/Common.h"
#include "Memory/ShareMem/Report.h"

using ShareMem::report;

namespace
{

constexpr int permissions = 0640;

void* systemAlloc(size_t size)
{
    return std::malloc(size);
}

void systemFree(void* p)
{
    std::free(p);
}

void* const notMapped = reinterpret_cast<void*>(-1); // what shmat() gives when it fails

/// The id of the existing segment `key`, or -1.
int existingSegment(const char* key)
{
    return shmget(strToKey(key), 0, 0);
}

/// An id, or -1 with errno: with `create`, that of a segment of `size` bytes or more, which is made
/// if there is none and made anew if there is a smaller one; else that of the existing one.
int openSegment(const char* key, size_t size, bool create)
{
    const int flags = permissions | (create ? IPC_CREAT : 0);
    const int id = shmget(strToKey(key), size, flags);
    if (id != -1 || !create || errno != EINVAL) {
        return id;
    }
    const int smaller = existingSegment(key);
    if (smaller == -1 || shmctl(smaller, IPC_RMID, nullptr) != 0) {
        errno = EINVAL;
        return -1;
    }
    return shmget(strToKey(key), size, flags);
}

/// Whether the segment is the one that this call of this process has just made. Only such a one may
/// be removed again: others may use one that was there.
bool isOurNewSegment(int id)
{
    shmid_ds state = {};
    return shmctl(id, IPC_STAT, &state) == 0 && state.shm_cpid == getpid() &&
           state.shm_nattch == 0 && state.shm_atime == 0;
}

} // namespace

MemOp gloMemOperation = {systemAlloc, systemFree};
ShareMemOp gloShareMemOperation = {shareMemGet, shareMemRemove};

size_t getAlignedSize(size_t size, size_t align)
{
    return Tarsel::Infra::roundUp(size, align);
}

uint32_t shareMem_log2i(uint32_t x)
{
    return static_cast<uint32_t>(Tarsel::Infra::log2Floor(x));
}

int getShareMemPageSize()
{
    return getpagesize();
}

int strToKey(const char* key)
{
    constexpr uint32_t start = 0x11111111;
    constexpr unsigned char highestCounted = 125;
    uint32_t sum = start;
    for (const char* at = key != nullptr ? key : ""; *at != '\0'; ++at) {
        const unsigned char byte = static_cast<unsigned char>(*at);
        sum += byte <= highestCounted ? byte : 0;
    }
    return static_cast<int>(sum);
}

void* shareMemGet(const char* key, size_t size, int mode, int /*flag*/)
{
    const bool create = (mode & IPC_CREAT) != 0;
    if (key == nullptr || (create && size == 0)) {
        report("[%s:%d]Param invalid.\n", __func__, __LINE__);
        return nullptr;
    }
    const int id = openSegment(key, size, create);
    if (id == -1) {
        report("[%s:%d]shmget failed cased by %s.\n", __func__, __LINE__, strerror(errno));
        return nullptr;
    }
    void* const mapping = shmat(id, nullptr, 0);
    if (mapping == notMapped) {
        report("[%s:%d]shmctl failed cased by %s.\n", __func__, __LINE__, strerror(errno));
        if (create && isOurNewSegment(id)) {
            shmctl(id, IPC_RMID, nullptr);
        }
        return nullptr;
    }
    return mapping;
}

int shareMemRemove(const char* key, void* addr, int flag)
{
    if (flag != detachMapping && flag != removeSegment) {
        report("[%s:%d]Unknown flag %d.\n", __func__, __LINE__, flag);
        return -1;
    }
    if (key == nullptr || (flag == detachMapping && addr == nullptr)) {
        report("[%s:%d]Param invalid.\n", __func__, __LINE__);
        return -1;
    }
    if (flag == detachMapping) {
        return shmdt(addr);
    }
    const int id = existingSegment(key);
    if (id == -1) {
        report("[%s:%d]shmget failed cased by %s.\n", __func__, __LINE__, strerror(errno));
        return -1;
    }
    return shmctl(id, IPC_RMID, nullptr);
}

int memProtect(void* addr, size_t len, int prot)
{
    const int result = mprotect(addr, len, prot);
    if (result != 0) {
        report("[%s:%d]mprotect failed cased by %s.\n", __func__, __LINE__, strerror(errno));
    }
    return result;
}
