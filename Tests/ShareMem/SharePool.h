#ifndef INFRA_TESTS_SHAREMEM_SHAREPOOL_H
#define INFRA_TESTS_SHAREMEM_SHAREPOOL_H

// A real pool has names that are the machine's. So a test that makes one does it in a child process
// with an IPC namespace of its own; where there is no permission for that, tests take turns behind a
// lock and take away what they made.

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <new>

#include <gtest/gtest.h>

#include "Memory/ShareMem/Common.h"
#include "Memory/ShareMemory.h"
#include "Support/ChildProcess.h"

namespace Tarsel
{
namespace TestSupport
{

inline void removeSegments()
{
    for (const char* key : {controlSegment, dataSegment}) {
        const int id = shmget(strToKey(key), 0, 0);
        if (id != -1) {
            shmctl(id, IPC_RMID, nullptr);
        }
    }
}

/// Runs `body` in a child process that may make a pool. Its EXPECTs count.
inline ChildResult runWithPools(const std::function<void()>& body)
{
    return runInChild([&body] {
        if (unshare(CLONE_NEWIPC) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
            body();
            return;
        }
        const int lock = open("/tmp/.infra-share-pool-tests", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        flock(lock, LOCK_EX);
        removeSegments();
        body();
        removeSegments();
    });
}

inline Memory::IMemPool::PoolParam poolParam(size_t size, size_t pageSize)
{
    Memory::IMemPool::PoolParam param = {};
    param.poolType = Memory::IMemPool::PT_ShareMemory;
    param.poolSize = size;
    param.chunkSize = pageSize;
    return param;
}

/// Bytes that are free in the pool of this process.
inline uint32_t freeSize()
{
    uint32_t size = 0;
    Memory::IMemPool::getMemFreeSize(size);
    return size;
}

/// Runs `body` in a further process, which ends with its parent, and if it hangs.
template <typename Body>
pid_t startProcess(const Body& body)
{
    fflush(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(50);
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return process;
}

/// Waits for its end: its exit code, or -signal.
inline int endOf(pid_t process)
{
    int status = 0;
    waitpid(process, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Runs `body` in a further process and waits for its end; `*id` becomes its process id.
template <typename Body>
int inProcess(const Body& body, pid_t* id = nullptr)
{
    const pid_t process = startProcess(body);
    if (id != nullptr) {
        *id = process;
    }
    return endOf(process);
}

/// Makes a pool in a process that is gone afterwards, and with it the timer of expiry.
inline void makePool(const Memory::IMemPool::PoolParam& param)
{
    EXPECT_EQ(inProcess([&] { EXPECT_TRUE(Memory::IMemPool::initMemPool(param)); }), 0);
}

/// A T that this process and those it starts share.
template <typename T>
T& makeShared()
{
    void* const place =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (place) T();
}

} // namespace TestSupport
} // namespace Tarsel

#endif
