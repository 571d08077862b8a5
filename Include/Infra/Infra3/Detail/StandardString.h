#ifndef INFRA_INFRA3_DETAIL_STANDARDSTRING_H
#define INFRA_INFRA3_DETAIL_STANDARDSTRING_H

#include <string>

namespace Tarsel
{
namespace Infra
{

/// The standard string under the name that the interfaces use.
typedef std::string CString2;

} // namespace Infra
} // namespace Tarsel

#endif
