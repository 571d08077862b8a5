#ifndef INFRA_CHECKINCLUDEVERSION_H
#define INFRA_CHECKINCLUDEVERSION_H

#include "Infra/Infra3/Detail/Export.h"

/// Declares which revisions of shared header sets a library was compiled against.
///
/// Behaviour: every library defines one static object. Libraries of one process that were compiled
/// against different revisions of one header set do not fit together: the one that is loaded later
/// logs it, and checkResult() ends the process.
/// Threads: safe from any thread. Ownership: the records are copied.
///
///     static CCheckIncludeVersion::IncludeVersion records[] = {
///         {"URL: http://svn.example.com/infra/trunk/Include/Infra", "812148"}};
///     static CCheckIncludeVersion check("Player", records, 1);
class INFRA_API CCheckIncludeVersion
{
public:
    struct IncludeVersion
    {
        const char* url;     ///< "URL: " and the address of the header set
        const char* version; ///< its revision, in decimal digits
    };

    /// Registers. Conflicts with libraries registered before, and versions that are no numbers, are
    /// logged at error level and remembered for checkResult().
    CCheckIncludeVersion(const char* libName, IncludeVersion* includeVersion,
                         int includeVersionNum);

    /// Nothing. A call of it has the linker keep the object.
    void doNothing();

    /// Ends the process, after a report that names the revision that each library should use, if
    /// any registration failed; else logs that all is well. For an application to call once all its
    /// libraries are loaded.
    static void checkResult();
};

#endif
