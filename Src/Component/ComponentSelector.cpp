// ComponentSelector.cpp: the description of a channel, and class names with a sub-class.

#include "Component/ComponentSelector.h"

namespace Tarsel
{
namespace Component
{

constinit const ComSelChannelInfo ComSelChannelInfo::local;

Infra::CString getClassId(Infra::CString& protocolClassId, Infra::CString& subClassId)
{
    Infra::CString classId = protocolClassId;
    if (!subClassId.empty()) {
        classId += '.';
        classId += subClassId;
    }
    return classId;
}

} // namespace Component
} // namespace Tarsel
