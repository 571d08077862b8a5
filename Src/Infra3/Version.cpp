// Version.cpp: version records.

#include "Infra/Infra3/Version.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Infra3/BoundedText.h"
#include "Infra3/Digits.h"
#include "Infra3/LogFront.h"
#include "Infra3/VersionInternal.h"
#include "Infra3/VersionRecord.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr char monthNames[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/// 1 to 12 by the first three characters, 13 for no month.
int monthOf(const char* dateString)
{
    int month = 1;
    for (const char* name : monthNames) {
        if (strncmp(dateString, name, 3) == 0) {
            break;
        }
        ++month;
    }
    return month;
}

/// The number in "812148M" or in "$Rev: 812148 $".
int sourceRevisionOf(const char* svnString)
{
    int number = 0;
    if (isDigit(*svnString)) {
        sscanf(svnString, "%d", &number); // NOLINT(cert-err34-c): no number is 0
    } else {
        sscanf(svnString, "%*[$a-zA-Z:]%d", &number); // NOLINT(cert-err34-c)
    }
    return number;
}

} // namespace

SystemTime buildDateOf(const char* dateString)
{
    const char* const text = textOrEmpty(dateString);
    SystemTime date = {};
    date.month = monthOf(text);
    if (strnlen(text, 3) == 3) {
        sscanf(text + 3, "%d %d", &date.day, &date.year); // NOLINT(cert-err34-c)
    }
    return date;
}

void printVersion(const char* name, int major, int minor, int revision, int svn,
                  const SystemTime& date)
{
    INFRA_LOG_INFO("[*] %s %d.%d.%d.%d Built in %d/%2d/%2d [*]\n", name, major, minor, revision,
                   svn, date.year, date.month, date.day);
}

const CVersion& libraryVersion()
{
    static const CVersion record("Infra", 3, 0, 0, INFRA_REVISION, "Nov  8 2019");
    return record;
}

constinit SystemTime CVersion::appDate = CTime::minTime;

CVersion::CVersion(const char* libraryName, int majorNumber, int minorNumber, int revisionNumber,
                   const char* svnString, const char* dateString)
    : major{majorNumber},
      minor{minorNumber},
      revision{revisionNumber},
      svn{sourceRevisionOf(textOrEmpty(svnString))},
      date{buildDateOf(dateString)}
{
    copyText(name, libraryName);
}

void CVersion::print() const
{
    printVersion(name, major, minor, revision, svn, date);
}

void CVersion::setAppDate(const char* dateString)
{
    appDate = buildDateOf(dateString);
}

} // namespace Infra
} // namespace Tarsel
