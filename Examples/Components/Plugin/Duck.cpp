// Duck.cpp: a plug-in. The file is libDuck.so and the function createDuckObject, because the class
// is "Duck"; nobody has to be told that it is there.

#include "../Voice.h"

namespace
{

using namespace Tarsel::Component;

class CDuck : public TComponent<IVoice>
{
public:
    explicit CDuck(bool isWild) : m_isWild(isWild) {}
    std::string speak() override { return m_isWild ? "QUACK" : "quack"; }

private:
    const bool m_isWild;
};

} // namespace

/// Ducks from elsewhere are wild.
extern "C" IUnknown* createDuckObject(const ServerInfo* server)
{
    return new CDuck(server != nullptr);
}
