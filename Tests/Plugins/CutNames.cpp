// CutNames.cpp: a plug-in whose class is called "a", "aa" and so on: every creating function that
// the registry may ask for after it has cut the name. It registers a class of its own, too, while it
// is being opened.

#include "Component/Unknown.h"

namespace
{

using namespace Tarsel::Component;

class CPlugged : public IUnknown
{
public:
    void destroy() override { delete this; }
    Tarsel::Infra::CVersion getVersion() override
    {
        return {"plugged", 42, 0, 0, "1", "Nov 23 2026"};
    }
};

IUnknown* make(const ServerInfo*)
{
    return new CPlugged;
}

[[maybe_unused]] const bool s_registered = registerComponent("FromPlugin", make);

} // namespace

#define INFRA_CREATOR(name)                                                                        \
    extern "C" __attribute__((visibility("default"))) IUnknown* name(const ServerInfo* server)     \
    {                                                                                              \
        return make(server);                                                                       \
    }

INFRA_CREATOR(createaObject)
INFRA_CREATOR(createaaaaaaaaaaaaaaaaaaObject)
INFRA_CREATOR(createaaaaaaaaaaaaaaaaaaaObjec)
INFRA_CREATOR(createaaaaaaaaaaaaaaaaaaaaaaOb)
INFRA_CREATOR(createaaaaaaaaaaaaaaaaaaaaaaaO)
INFRA_CREATOR(createaaaaaaaaaaaaaaaaaaaaaaaa)
