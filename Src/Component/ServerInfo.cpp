// ServerInfo.cpp: the server that is none.

#include "Component/ServerInfo.h"

namespace Tarsel
{
namespace Component
{

constinit const ServerInfo ServerInfo::none = {};

} // namespace Component
} // namespace Tarsel
