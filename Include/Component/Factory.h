#ifndef INFRA_COMPONENT_FACTORY_H
#define INFRA_COMPONENT_FACTORY_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Component
{

/// The base of every factory: it makes objects of one class that offer one interface. A concrete
/// factory interface adds the creating operations (Component.h shows how).
///
/// Threads: registering and looking up from any thread, before main() and while the process exits
/// too. Ownership: a factory belongs to whoever made it, and is taken out before it goes.
class INFRA_API IFactoryUnknown
{
public:
    IFactoryUnknown() = default;
    virtual ~IFactoryUnknown();

    /// The name of the class whose objects it makes. Belongs to the factory.
    virtual const char* clsid() = 0;

    /// Enters the factory under `iid` and its clsid(), in the place of another one. Returns true.
    bool registerFactory(const char* iid);
    /// Leaves the place under `iid` and clsid() empty, whoever has it. The name stays listed, and a
    /// look-up gives null. Returns true.
    bool unregisterFactory(const char* iid);
};

/// Installs the texts of the component framework's error codes, once a process. registerFactory
/// does it by itself.
INFRA_API void initComponent();

} // namespace Component
} // namespace Tarsel

#endif
