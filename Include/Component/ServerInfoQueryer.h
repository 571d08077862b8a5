#ifndef INFRA_COMPONENT_SERVERINFOQUERYER_H
#define INFRA_COMPONENT_SERVERINFOQUERYER_H

#include <atomic>
#include <cstdint>

#include "Component/ComPtr.h"
#include "Component/ServerInfo.h"
#include "Component/Unknown.h"
#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/String.h"

namespace Tarsel
{
namespace Component
{

/// Knows which server serves a channel or a device. The application has one.
/// Threads: asked on any thread, by several at once.
class INFRA_API IServerInfoQueryer : public IUnknown
{
public:
    ~IServerInfoQueryer() override;

    /// Sets the class of clients that talk to the server of `channel`, and the server. The texts of
    /// `si` belong to the queryer.
    /// @return false when there is none
    virtual bool getServerInfoByChannel(int32_t channel, Infra::CString& protocol,
                                        ServerInfo& si) = 0;
    /// The same for a device.
    virtual bool getServerInfoByDeviceId(const char* deviceId, Infra::CString& protocol,
                                         ServerInfo& si) = 0;
};

typedef TComPtr<IServerInfoQueryer> IServerInfoQueryerPtr;

/// CServerInfoQueryerHelper::setQueryerHandler of the process's one.
INFRA_API bool setQueryerHandler(IServerInfoQueryerPtr queryerPtr);

/// Holds the queryer of the process. It is released when the process exits.
/// Threads: safe from any thread.
class INFRA_API CServerInfoQueryerHelper
{
public:
    static CServerInfoQueryerHelper& instance();

    /// Keeps the queryer, once. True also for the one that is held already; false, with an error
    /// line, for another one and for an empty pointer.
    bool setQueryerHandler(const IServerInfoQueryerPtr& queryerPtr);

    /// The server of `channel`. Without a queryer, and for channel -1, that is none: `protocol` is
    /// "Local" then, and `si` stays as it is.
    /// @return what the queryer said; false, with an error line, for a channel below -1
    bool getServerInfoByChannel(int32_t channel, Infra::CString& protocol, ServerInfo& si);
    /// The server of a device.
    /// @return what the queryer said; false, with an error line, without a queryer or for null
    bool getServerInfoByDeviceId(const char* deviceId, Infra::CString& protocol, ServerInfo& si);

private:
    CServerInfoQueryerHelper();
    ~CServerInfoQueryerHelper();
    CServerInfoQueryerHelper(const CServerInfoQueryerHelper&) = delete;
    CServerInfoQueryerHelper& operator=(const CServerInfoQueryerHelper&) = delete;

    /// The queryer's pointer, null until it is set.
    const IServerInfoQueryerPtr* held() const;

    IServerInfoQueryerPtr m_queryerPtr; ///< written once, before it is published
    std::atomic<const IServerInfoQueryerPtr*> m_published;
    Infra::CMutex m_mutex; // guards setting
};

} // namespace Component
} // namespace Tarsel

#endif
