/* CLog.c: logging from plain C99.
 *
 * A small "pump" logs as it runs, in the three looks that a line can have, and keeps a black box: the
 * last lines by memory, laid out by the same prefix builder, so that they read as the log does. At
 * the end the black box is printed.
 *
 * Ends with 0 if and only if every line came out as long as it was announced and the black box holds
 * what was put into it. */

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <Infra/Infra3/CPrintLog.h>

#define MODULE "Pump"
#define REVISION "7"

/* A line in the log; the place is the caller's. */
#define PUMP_LOG(level, ...)                                                                       \
    Infra_logFilter((level), MODULE, __FILE__, __func__, __LINE__, REVISION, __VA_ARGS__)

/* --- the black box ---------------------------------------------------------------------------- */

enum
{
    boxLines = 4,
    boxWidth = 160
};

typedef struct BlackBox
{
    char lines[boxLines][boxWidth];
    unsigned count; /* of all lines ever put in: the next one goes to count % boxLines */
} BlackBox;

static void remember(BlackBox* box, const char* function, int line, const char* format, ...)
{
    char* const text = box->lines[box->count++ % boxLines];
    int length = 0;
    va_list arguments;
    /* The builder writes colours to standard output, and nothing of this goes there. */
    const unsigned char color = Infra_getPrintOption()->color;
    Infra_getPrintOption()->color = 1;
    length = Infra_logOptionControl(text, boxWidth, Infra_logLevelTrace, MODULE, "CLog.c", function,
                                    line, REVISION, NULL);
    Infra_getPrintOption()->color = color;
    if (length < 0) {
        length = 0;
    }
    va_start(arguments, format);
    vsnprintf(text + length, (size_t)(boxWidth - length), format, arguments);
    va_end(arguments);
}

#define REMEMBER(box, ...) remember((box), __func__, __LINE__, __VA_ARGS__)

static void printBox(const BlackBox* box)
{
    const unsigned kept = box->count < boxLines ? box->count : boxLines;
    unsigned i = 0;
    printf("the black box, %u of %u lines:\n", kept, box->count);
    for (i = box->count - kept; i < box->count; ++i) {
        printf("  %s\n", box->lines[i % boxLines]);
    }
}

/* --- the pump --------------------------------------------------------------------------------- */

static int pumpRound(BlackBox* box, int round, int pressure)
{
    REMEMBER(box, "round %d, pressure %d", round, pressure);
    if (pressure > 90) {
        return PUMP_LOG(Infra_logLevelError, "round %d: pressure %d is too high\n", round,
                        pressure);
    }
    if (pressure > 70) {
        return PUMP_LOG(Infra_logLevelWarn, "round %d: pressure %d\n", round, pressure);
    }
    return PUMP_LOG(Infra_logLevelInfo, "round %d: pressure %d\n", round, pressure);
}

/* One line in two calls: only the first has a prefix. */
static int reportValves(int open, int all)
{
    const int first = PUMP_LOG(Infra_logLevelInfo, "valves:");
    const int second = PUMP_LOG(Infra_logLevelInfo, " %d of %d open\n", open, all);
    return first > 0 && second == (int)strlen(" 3 of 8 open\n");
}

int main(void)
{
    static const int pressures[] = {40, 60, 75, 80, 95, 50};
    const int rounds = (int)(sizeof(pressures) / sizeof(pressures[0]));
    Infra_PrintOptions* const options = Infra_getPrintOption();
    BlackBox box = {{{0}}, 0};
    int good = 1;
    int round = 0;

    for (round = 0; round < rounds; ++round) {
        options->style = round >= 2; /* tags behind the second round */
        options->date = round >= 4;  /* and the whole time at the end */
        options->millisecond = round >= 4;
        good = pumpRound(&box, round, pressures[round]) > 0 && good;
    }
    memset(options, 0, sizeof(*options));
    good = reportValves(3, 8) && good;

    Infra_printLogLevel = Infra_logLevelWarn;
    good = PUMP_LOG(Infra_logLevelInfo, "nobody hears this\n") == 0 && good;
    Infra_printLogLevel = Infra_logLevelInfo;

    printBox(&box);
    good = box.count == (unsigned)rounds && strstr(box.lines[1], "pressure 50") != NULL && good;
    printf(good ? "CLog: done\n" : "CLog: FAILED\n");
    return good ? 0 : 1;
}
