// ServerInfoQueryerHelper.cpp: the one queryer of the process.
//
// It is set once and then only read, so readers take no lock: the pointer is written, then
// published.

#include "Component/ServerInfoQueryer.h"

#include <atomic>

#include "Component/ClassID.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/BoundedText.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Component
{

namespace
{

/// The helper is gone, at the end of the process.
constinit std::atomic<bool> s_hasEnded{false};

} // namespace

IServerInfoQueryer::~IServerInfoQueryer() = default;

bool setQueryerHandler(IServerInfoQueryerPtr queryerPtr) // NOLINT(performance-*): published so
{
    return CServerInfoQueryerHelper::instance().setQueryerHandler(queryerPtr);
}

CServerInfoQueryerHelper& CServerInfoQueryerHelper::instance()
{
    static CServerInfoQueryerHelper s_helper;
    return s_helper;
}

CServerInfoQueryerHelper::CServerInfoQueryerHelper() : m_published(nullptr) {}

CServerInfoQueryerHelper::~CServerInfoQueryerHelper()
{
    s_hasEnded = true;
    m_published = nullptr;
}

const IServerInfoQueryerPtr* CServerInfoQueryerHelper::held() const
{
    return m_published.load(std::memory_order_acquire);
}

bool CServerInfoQueryerHelper::setQueryerHandler(const IServerInfoQueryerPtr& queryerPtr)
{
    if (s_hasEnded) {
        return false; // a static object that ends later than this one
    }
    IServerInfoQueryer* const wanted = queryerPtr.get();
    IServerInfoQueryer* before = nullptr;
    IServerInfoQueryerPtr copy(queryerPtr); // counts, which is code of the application
    {
        Infra::CGuard guard(m_mutex);
        before = m_queryerPtr.get();
        if (before == nullptr && wanted != nullptr) {
            m_queryerPtr.swap(copy);
            m_published.store(&m_queryerPtr, std::memory_order_release);
            return true;
        }
    }
    if (before != nullptr && before == wanted) {
        return true;
    }
    INFRA_LOG_ERROR("setQueryerHandler failed setPtr:%p, oldPtr:%p\n", static_cast<void*>(wanted),
                    static_cast<void*>(before));
    return false;
}

bool CServerInfoQueryerHelper::getServerInfoByChannel(int32_t channel, Infra::CString& protocol,
                                                      ServerInfo& si)
{
    const IServerInfoQueryerPtr* const queryer = held();
    if (queryer == nullptr || channel == -1) {
        protocol = ClassID::local.m_str;
        return true;
    }
    if (channel < -1) {
        INFRA_LOG_ERROR("channel:%d is invalid \n", channel);
        return false;
    }
    return (*queryer)->getServerInfoByChannel(channel, protocol, si);
}

bool CServerInfoQueryerHelper::getServerInfoByDeviceId(const char* deviceId,
                                                       Infra::CString& protocol, ServerInfo& si)
{
    const IServerInfoQueryerPtr* const queryer = held();
    if (queryer == nullptr) {
        INFRA_LOG_ERROR("please call setQueryerHandler interface\n");
        return false;
    }
    if (deviceId == nullptr) {
        INFRA_LOG_ERROR("deviceId:%s is empty\n", Infra::shownText(deviceId));
        return false;
    }
    return (*queryer)->getServerInfoByDeviceId(deviceId, protocol, si);
}

} // namespace Component
} // namespace Tarsel
