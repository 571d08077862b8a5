#ifndef INFRA_TESTS_SUPPORT_LOGCOMMAND_H
#define INFRA_TESTS_SUPPORT_LOGCOMMAND_H

#include <initializer_list>
#include <string>
#include <vector>

#include "Infra/Infra3/PrintLog.h"

namespace Tarsel
{
namespace TestSupport
{

/// One command of the log filter. Its words are writable and live no longer than the call, as those
/// of a console do.
inline void command(std::initializer_list<std::string> words)
{
    std::vector<std::string> copies(words);
    std::vector<char*> pointers;
    for (std::string& copy : copies) {
        pointers.push_back(copy.data());
    }
    Infra::setLogFilter(static_cast<int>(pointers.size()), pointers.data());
}

} // namespace TestSupport
} // namespace Tarsel

#endif
