#ifndef INFRA_INFRA3_DETAIL_SINGLETON_H
#define INFRA_INFRA3_DETAIL_SINGLETON_H

namespace Tarsel
{
namespace Infra
{

/// Makes the managers of which a process has one: their friend, and nobody else's business.
template <typename T>
class TSingleton;

} // namespace Infra
} // namespace Tarsel

#endif
