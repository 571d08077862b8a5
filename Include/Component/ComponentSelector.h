#ifndef INFRA_COMPONENT_COMPONENTSELECTOR_H
#define INFRA_COMPONENT_COMPONENTSELECTOR_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/String.h"

namespace Tarsel
{
namespace Component
{

/// The channel that a component is wanted for. A value; the text belongs to somebody else.
struct INFRA_API ComSelChannelInfo
{
    int32_t channel;        ///< -1 is local
    int32_t userid;         ///< whose client to use; -1 is nobody's in particular
    const char* subClassID; ///< appended to the class name; may be null
    int8_t resv2[112];

    /// As `local`.
    constexpr ComSelChannelInfo() : ComSelChannelInfo(-1, nullptr, -1) {}
    constexpr ComSelChannelInfo(int32_t channelNumber, const char* subClass, int user)
        : channel(channelNumber), userid(user), subClassID(subClass), resv2()
    {}

    /// Channel -1, no user, no sub-class.
    static const ComSelChannelInfo local;
};

static_assert(sizeof(ComSelChannelInfo) == 128, "a fixed layout");

/// "protocol.sub", or "protocol" for an empty sub-class.
INFRA_API Infra::CString getClassId(Infra::CString& protocolClassId, Infra::CString& subClassId);

/// The class that local components of an interface have where the caller names none.
/// Safe from any thread.
class INFRA_API CLocalComSelectManager
{
public:
    /// Makes `clsid` the default of `iid`, once. False, and nothing changed, when there is one
    /// already or either name is null.
    static bool setDefaultComponent(const char* iid, const char* clsid);
    /// The default of `iid`, "Local" where none was set, and empty for null.
    static Infra::CString getDefaultClassID(const char* iid);
};

} // namespace Component
} // namespace Tarsel

#endif
