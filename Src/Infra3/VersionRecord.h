#ifndef INFRA_SRC_INFRA3_VERSIONRECORD_H
#define INFRA_SRC_INFRA3_VERSIONRECORD_H

// What the two version classes have in common.

#include "Infra/Infra3/Time.h"

namespace Tarsel
{
namespace Infra
{

/// The date of a text as "Nov  8 2019", other fields 0. An unknown month becomes 13, a missing
/// number 0; null is a text without all of them.
SystemTime buildDateOf(const char* dateString);

/// Logs a record's line at info level.
void printVersion(const char* name, int major, int minor, int revision, int svn,
                  const SystemTime& date);

} // namespace Infra
} // namespace Tarsel

#endif
