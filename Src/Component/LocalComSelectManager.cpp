// LocalComSelectManager.cpp: the default class of each interface.

#include <map>
#include <string>

#include "Component/ClassID.h"
#include "Component/ComponentSelector.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"

namespace Tarsel
{
namespace Component
{
namespace
{

struct Defaults
{
    Infra::CLeafMutex mutex; // guards the map
    std::map<std::string, std::string, std::less<>> classes;
};

Defaults& defaults()
{
    return Infra::immortal<Defaults, Defaults>();
}

} // namespace

bool CLocalComSelectManager::setDefaultComponent(const char* iid, const char* clsid)
{
    if (iid == nullptr || clsid == nullptr) {
        return false;
    }
    Infra::CGuard guard(defaults().mutex);
    return defaults().classes.emplace(iid, clsid).second;
}

Infra::CString CLocalComSelectManager::getDefaultClassID(const char* iid)
{
    if (iid == nullptr) {
        return Infra::CString();
    }
    Infra::CGuard guard(defaults().mutex);
    const auto found = defaults().classes.find(iid);
    return Infra::CString(found == defaults().classes.end() ? ClassID::local.m_str
                                                            : found->second.c_str());
}

} // namespace Component
} // namespace Tarsel
