#ifndef INFRA_VERSION_H
#define INFRA_VERSION_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Time.h"

/// What a library says of itself, entered in the process's registry of versions.
///
/// Behaviour: every library of the family defines one static object of this class. Code can then
/// ask whether a library that is loaded has the version that it needs. Threads: safe from any
/// thread, but for setAppDate. Ownership: record and registry keep copies.
class INFRA_API CVersion
{
public:
    /// Enters name and version in the registry. Logs an info line when the library was built from
    /// sources that were changed locally ('M' in `svnString`).
    /// @param name        at most 31 characters are kept in the record, all of them in the registry
    /// @param svnString   "812148M", or "100:812148M" for a range, which counts with its end
    /// @param dateString  as the compiler's __DATE__ ("Nov  8 2019"); an unknown month becomes 13,
    ///                    a missing number 0
    CVersion(const char* name, int major, int minor, int revision, const char* svnString,
             const char* dateString);

    /// Logs at info level "[*] Infra2 2.0.0.812148 Built in 2019/11/ 8 [*]".
    void print() const;

    /// True unless a library of that name, in whatever case, is registered with another version.
    static bool matchEqual(const char* name, int major, int minor, int revision);
    /// True unless a library of that name, in whatever case, is registered with a lower version.
    static bool matchNotLessThan(const char* name, int major, int minor, int revision);

    /// Sets the application's build date, in the form of the constructor. Not safe beside readers
    /// of `appDate`: to be called once, at the start.
    static void setAppDate(const char* dateString);

    char name[32];
    int major;
    int minor;
    int revision;
    int svn;                        ///< the number in the revision text
    Tarsel::Infra::SystemTime date; ///< year, month and day; the rest is 0

    static Tarsel::Infra::SystemTime appDate; ///< CTime::minTime until it is set
};

#endif
