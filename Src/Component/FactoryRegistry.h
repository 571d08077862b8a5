#ifndef INFRA_SRC_COMPONENT_FACTORYREGISTRY_H
#define INFRA_SRC_COMPONENT_FACTORYREGISTRY_H

// Factories by interface and class name. Neither is ever taken out: a factory that leaves is
// replaced by null. So a look-up takes no lock and no memory.

#include <string_view>

#include "Component/Factory.h"

namespace Tarsel
{
namespace Component
{

/// What a look-up found. `factory` may be null for a class that is known.
struct FoundFactory
{
    int error; ///< 0, or a ComponentError
    IFactoryUnknown* factory;
};

FoundFactory findFactory(std::string_view iid, std::string_view clsid);

} // namespace Component
} // namespace Tarsel

#endif
