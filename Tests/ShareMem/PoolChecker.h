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

/// What is wrong while nobody is inside, a line each, not much more than a page; empty when nothing is.
inline std::string faultsOf(const ShareMem::Layout& layout, ShareMem::CScratch& scratch)
{
    std::string text;
    ShareMem::checkPool(
        layout, scratch,
        [](void* all, const char* fault) {
            if (static_cast<std::string*>(all)->size() < 2000) {
                *static_cast<std::string*>(all) += std::string(fault) + "\n";
            }
        },
        &text);
    return text;
}

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

    std::string faults()
    {
        ProcessMutex* const mutex = getProcessMutex(0);
        if (!m_found || mutex->lock(mutex) != 0) {
            return "no pool";
        }
        const std::string text = faultsOf(m_layout, m_scratch);
        mutex->unlock(mutex);
        return text;
    }
    const ShareMem::Mapping& control() const { return m_control; }
    const ShareMem::Mapping& data() const { return m_data; }

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
