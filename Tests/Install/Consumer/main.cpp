// An application outside this tree: it knows the installed headers and the library, nothing else.

#include <cstdio>
#include <cstring>

#include <Infra/Infra3/CPrintLog.h>
#include <Infra/Infra3/Guard.h>
#include <Infra/Infra3/Mutex.h>
#include <Infra/Infra3/PrintLog.h>
#include <Infra/Infra3/String.h>
#include <Infra/Infra3/Time.h>

namespace
{

// Runs before main, as static objects of applications do.
const int earlyLine = logInfo("logged before main\n");

// The executable and the library must see one variable.
bool sharesPlainData()
{
    Infra_printLogLevel = Infra_logLevelTrace;
    const bool seenByLibrary = Tarsel::Infra::getPrintLogLevel() == Infra_logLevelTrace;
    Tarsel::Infra::setPrintLogLevel(Infra_logLevelInfo);
    return seenByLibrary && Infra_printLogLevel == Infra_logLevelInfo;
}

bool formatsTime()
{
    char text[32] = "";
    const Tarsel::Infra::CTime time(2026, 2, 28, 13, 14, 15);
    time.format(text, "yyyy-MM-dd HH:mm:ss", Tarsel::Infra::CTime::fmAll);
    return std::strcmp(text, "2026-02-28 13:14:15") == 0;
}

} // namespace

int main()
{
    Tarsel::Infra::CMutex mutex;
    Tarsel::Infra::CGuard guard(mutex);
    Tarsel::Infra::CString name = "consumer";
    name += " speaks";
    if (earlyLine <= 0 || logInfo("%s\n", name.c_str()) <= 0) {
        return 1;
    }
    if (!sharesPlainData()) {
        std::printf("the executable has a print level of its own\n");
        return 1;
    }
    if (!formatsTime()) {
        std::printf("the time is formatted otherwise\n");
        return 1;
    }
    return 0;
}
