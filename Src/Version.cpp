// Version.cpp: the version records of the older interface, and their registry.
//
// Libraries enter themselves while they are initialised, this one included, in any order. So the
// registry is made on first use, and it stays for ever: exit handlers may ask as well.

#include "Infra/Version.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "IncludeVersionInternal.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"
#include "Infra3/VersionRecord.h"
#include "Utils/String.h"

using namespace Tarsel::Infra;

namespace
{

struct VersionMatcher
{
    std::string name;
    int major;
    int minor;
    int revision;
};

/// In the order of registration.
struct VersionRegistry
{
    CLeafMutex mutex; // guards the list: plugins enter themselves at any time
    std::vector<VersionMatcher> list;
};

VersionRegistry& getVersionInfo()
{
    struct Tag;
    return immortal<VersionRegistry, Tag>();
}

void registerVersion(const char* name, int major, int minor, int revision)
{
    VersionRegistry& registry = getVersionInfo();
    CGuard guard(registry.mutex);
    registry.list.push_back({textOrEmpty(name), major, minor, revision});
}

bool sameName(const std::string& registered, const char* name)
{
    return Tarsel::Utils::stricmp(registered.c_str(), name) == 0;
}

/// True when `accepts` holds for the version of every library of that name.
template <typename Accepts>
bool allMatch(const char* name, Accepts accepts)
{
    VersionRegistry& registry = getVersionInfo();
    CGuard guard(registry.mutex);
    return std::all_of(registry.list.begin(), registry.list.end(),
                       [&](const VersionMatcher& entry) {
                           return !sameName(entry.name, name) ||
                                  accepts(std::tuple{entry.major, entry.minor, entry.revision});
                       });
}

/// The number behind the ':' of a range of revisions, or at the start.
int sourceRevisionOf(const char* svnString)
{
    const char* const colon = strchr(svnString, ':');
    int number = 0;
    sscanf(colon == nullptr ? svnString : colon + 1, "%d", &number); // NOLINT(cert-err34-c)
    return number;
}

} // namespace

constinit SystemTime CVersion::appDate = CTime::minTime;

CVersion::CVersion(const char* libraryName, int majorNumber, int minorNumber, int revisionNumber,
                   const char* svnString, const char* dateString)
    : major{majorNumber},
      minor{minorNumber},
      revision{revisionNumber},
      svn{sourceRevisionOf(textOrEmpty(svnString))},
      date{buildDateOf(dateString)}
{
    libraryIncludeCheck().doNothing();
    registerVersion(libraryName, majorNumber, minorNumber, revisionNumber);
    copyText(name, libraryName);
    if (strchr(textOrEmpty(svnString), 'M') != nullptr) {
        INFRA_LOG_INFO(
            "Some [%s] files are not commit to SVN server. It compied wtih local modified "
            "files.\n",
            name);
    }
}

void CVersion::print() const
{
    printVersion(name, major, minor, revision, svn, date);
}

bool CVersion::matchEqual(const char* libraryName, int majorNumber, int minorNumber,
                          int revisionNumber)
{
    const std::tuple wanted{majorNumber, minorNumber, revisionNumber};
    return allMatch(libraryName, [&](const auto& version) { return version == wanted; });
}

bool CVersion::matchNotLessThan(const char* libraryName, int majorNumber, int minorNumber,
                                int revisionNumber)
{
    const std::tuple wanted{majorNumber, minorNumber, revisionNumber};
    return allMatch(libraryName, [&](const auto& version) { return version >= wanted; });
}

void CVersion::setAppDate(const char* dateString)
{
    appDate = buildDateOf(dateString);
}
