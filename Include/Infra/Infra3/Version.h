#ifndef INFRA_INFRA3_VERSION_H
#define INFRA_INFRA3_VERSION_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Time.h"

namespace Tarsel
{
namespace Infra
{

/// What a library says of itself: name, version, revision of its sources and date of its build.
///
/// Ownership: the record keeps copies. Threads: a value; `print` is safe from any thread,
/// setAppDate is not.
class INFRA_API CVersion
{
public:
    /// @param name        at most 31 characters are kept
    /// @param svnString   "812148M", or a keyword text as "$Rev: 812148 $"
    /// @param dateString  as the compiler's __DATE__ ("Nov  8 2019"); an unknown month becomes 13,
    ///                    a missing number 0
    CVersion(const char* name, int major, int minor, int revision, const char* svnString,
             const char* dateString);

    /// Logs at info level "[*] Infra 3.0.0.812148 Built in 2019/11/ 8 [*]".
    void print() const;

    /// Sets the application's build date, in the form of the constructor. Not safe beside readers
    /// of `appDate`: to be called once, at the start.
    static void setAppDate(const char* dateString);

    char name[32];
    int major;
    int minor;
    int revision;
    int svn;         ///< the number in the revision text
    SystemTime date; ///< year, month and day; the rest is 0

    static SystemTime appDate; ///< CTime::minTime until it is set
};

} // namespace Infra
} // namespace Tarsel

#endif
