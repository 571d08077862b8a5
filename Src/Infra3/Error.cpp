// Error.cpp: the last error of each thread, and the texts of error codes.

#include "Infra/Infra3/Error.h"

#include <atomic>
#include <map>
#include <string>
#include <utility>

#include "Infra/Infra3/Guard.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/Singleton.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// A plain word, so that a thread may store an error at any time of its life and of the process's.
constinit thread_local int s_lastError = 0;

/// Texts by code. An entry, once made, stays; replacing its text ends the life of the earlier one.
///
/// The table ends with the process's first exit handlers and begins anew, empty. Its texts are put
/// aside, because threads that still run may hold pointers to them.
class CErrorMessageManager
{
public:
    static CErrorMessageManager& instance()
    {
        CErrorMessageManager& manager = immortal<CErrorMessageManager, CErrorMessageManager>();
        if (!manager.m_endsAtExit.exchange(true, std::memory_order_relaxed)) {
            registerExit([] { instance().beginAnew(); });
        }
        return manager;
    }

    void set(int code, CString2 text)
    {
        CGuard guard(m_mutex);
        m_msgmap[code] = std::move(text);
    }

    const char* get(int code)
    {
        CGuard guard(m_mutex);
        const auto entry = m_msgmap.find(code);
        return entry == m_msgmap.end() ? "" : entry->second.c_str();
    }

    CString2 copy(int code)
    {
        CGuard guard(m_mutex);
        const auto entry = m_msgmap.find(code);
        return entry == m_msgmap.end() ? CString2() : entry->second;
    }

private:
    void beginAnew()
    {
        CGuard guard(m_mutex);
        m_aside.swap(m_msgmap);
    }

    std::atomic<bool> m_endsAtExit{false};
    CLeafMutex m_mutex; // guards the maps
    std::map<int, std::string> m_msgmap;
    std::map<int, std::string> m_aside;
};

} // namespace

void setLastError(int eno)
{
    s_lastError = eno;
}

int getLastError()
{
    return s_lastError;
}

void setErrMsg(int eno, const char* msg)
{
    CErrorMessageManager::instance().set(eno, textOrEmpty(msg));
}

void setErrorMessage(int eno, const CString2& msg)
{
    CErrorMessageManager::instance().set(eno, msg);
}

const char* getErrMsg(int eno)
{
    return CErrorMessageManager::instance().get(eno);
}

CString2 getErrorMessage(int eno)
{
    return CErrorMessageManager::instance().copy(eno);
}

} // namespace Infra
} // namespace Tarsel
