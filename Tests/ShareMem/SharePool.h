#ifndef INFRA_TESTS_SHAREMEM_SHAREPOOL_H
#define INFRA_TESTS_SHAREMEM_SHAREPOOL_H

// A real pool has names that are the machine's. So a test that makes one does it in a child process
// with an IPC namespace of its own; where there is no permission for that, tests take turns behind a
// lock and take away what they made.

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <functional>

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

} // namespace TestSupport
} // namespace Tarsel

#endif
