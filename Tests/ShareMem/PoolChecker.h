#ifndef INFRA_TESTS_SHAREMEM_POOLCHECKER_H
#define INFRA_TESTS_SHAREMEM_POOLCHECKER_H

// The checker over the pool that this process is attached to, by mappings of its own.

#include <sys/shm.h>

#include <string>

#include "Memory/ShareMem/Repair.h"

namespace Tarsel
{
namespace TestSupport
{

class CPoolChecker
{
public:
    CPoolChecker() : m_control(map(controlSegment)), m_data(map(dataSegment))
    {
        m_found = m_control.start != nullptr && m_data.start != nullptr &&
                  ShareMem::findZones(m_control, m_data, &m_layout) &&
                  ShareMem::arePagesSound(m_control, m_data, m_layout) &&
                  m_scratch.reserve(m_layout.info->pageNum);
    }
    ~CPoolChecker()
    {
        shmdt(m_control.start);
        shmdt(m_data.start);
    }
    CPoolChecker(const CPoolChecker&) = delete;
    CPoolChecker& operator=(const CPoolChecker&) = delete;

    /// What is wrong while nobody is inside, a line each; empty when nothing is.
    std::string faults()
    {
        ProcessMutex* const mutex = getProcessMutex(0);
        std::string text;
        if (!m_found || mutex->lock(mutex) != 0) {
            return "no pool";
        }
        ShareMem::checkPool(
            m_layout, m_scratch,
            [](void* all, const char* fault) {
                *static_cast<std::string*>(all) += std::string(fault) + "\n";
            },
            &text);
        mutex->unlock(mutex);
        return text;
    }

private:
    static ShareMem::Mapping map(const char* key)
    {
        const int id = shmget(strToKey(key), 0, 0);
        shmid_ds state = {};
        void* const start = id != -1 ? shmat(id, nullptr, 0) : nullptr;
        if (id == -1 || shmctl(id, IPC_STAT, &state) != 0 || start == reinterpret_cast<void*>(-1)) {
            return {};
        }
        return {static_cast<uint8_t*>(start), state.shm_segsz};
    }

    ShareMem::Mapping m_control;
    ShareMem::Mapping m_data;
    ShareMem::Layout m_layout = {};
    ShareMem::CScratch m_scratch;
    bool m_found;
};

} // namespace TestSupport
} // namespace Tarsel

#endif
