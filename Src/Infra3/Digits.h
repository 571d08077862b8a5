#ifndef INFRA_SRC_INFRA3_DIGITS_H
#define INFRA_SRC_INFRA3_DIGITS_H

namespace Tarsel
{
namespace Infra
{

/// A decimal digit, whatever the locale.
inline bool isDigit(char letter)
{
    return letter >= '0' && letter <= '9';
}

} // namespace Infra
} // namespace Tarsel

#endif
