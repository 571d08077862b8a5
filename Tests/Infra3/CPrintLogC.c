/* The C interface as a C compiler sees it; CPrintLogTest.cpp calls these and looks at the result. */

#include "Infra3/CPrintLogC.h"

#include <stddef.h>
#include <string.h>

#include "Infra/Infra3/CPrintLog.h"

/* C99 has no static assertion. */
typedef char optionsAreThirtyTwoBytes[sizeof(Infra_PrintOptions) == 32 ? 1 : -1];
typedef char thirteenFlagsComeFirst[offsetof(Infra_PrintOptions, resv) == 13 ? 1 : -1];
typedef char timeIsTwelveNumbers[sizeof(Infra_SystemTimeEx) == 48 ? 1 : -1];
typedef char enumerationsAreInts[sizeof(Infra_logOpenType) == sizeof(int) ? 1 : -1];

void setOptionsInC(int tagged, int coloured, int timed)
{
    Infra_PrintOptions* const options = Infra_getPrintOption();
    memset(options, 0, sizeof(*options));
    options->style = (unsigned char)tagged;
    options->color = (unsigned char)!coloured;
    options->time = (unsigned char)!timed;
    options->thread = 1;
}

int functionFlagInC(void)
{
    return Infra_getPrintOption()->function;
}

int switchesInC(void)
{
    return Infra_printLogLevel * 10 + (int)Infra_openLog;
}

void setSwitchesInC(int level, int open)
{
    Infra_printLogLevel = level;
    Infra_openLog = (Infra_logOpenType)open;
}

int logInC(int level, const char* module, const char* text)
{
    return Infra_logFilter(level, module, "dir/part.c", __func__, 9, NULL, "%s", text);
}
