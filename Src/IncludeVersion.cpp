// IncludeVersion.cpp: what this library says of itself when it is loaded.
//
// The records are made in this order: the header sets, then the record of the older interface, then
// the library's own. All stand there before a library that depends on this one is initialised,
// because the loader initialises this one first. In a program that links this code into itself, its
// own static objects may register and ask before; the header sets still come before any other
// version record.

#include <iterator>

#include "IncludeVersionInternal.h"
#include "Infra/Version.h"
#include "Infra3/Immortal.h"
#include "Infra3/VersionInternal.h"

namespace
{

CCheckIncludeVersion::IncludeVersion s_headerSets[] = {
    {"URL: http://svn.example.com/infra/trunk/Include/Infra", "812148"},
    {"URL: http://svn.example.com/infra/trunk/Include/Infra/Infra3", "812140"},
    {"URL: http://svn.example.com/infra/trunk/Include/Memory", "811973"},
    {"URL: http://svn.example.com/infra/trunk/Include/Component", "810266"},
    {"URL: http://svn.example.com/infra/trunk/Include/Utils", "811502"},
};

struct LibraryIncludeCheck : CCheckIncludeVersion
{
    LibraryIncludeCheck() : CCheckIncludeVersion("Infra", s_headerSets, std::size(s_headerSets)) {}
};

/// Makes all three at load time.
struct LibraryRecords
{
    LibraryRecords()
    {
        libraryIncludeCheck().doNothing();
        static const CVersion olderInterface("Infra2", 2, 0, 0, INFRA_REVISION, "Nov  8 2019");
        Tarsel::Infra::libraryVersion();
    }
};

const LibraryRecords s_records;

} // namespace

CCheckIncludeVersion& libraryIncludeCheck()
{
    struct Tag;
    return Tarsel::Infra::immortal<LibraryIncludeCheck, Tag>();
}
