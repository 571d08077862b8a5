#ifndef INFRA_INFRA3_CPRINTLOG_H
#define INFRA_INFRA3_CPRINTLOG_H

/* The log line for callers in C: shared settings and the plain functions. C99 and C++17. */

#include "Infra/Infra3/Detail/Export.h"

#ifdef __cplusplus
extern "C"
{
#endif

    /** Severity of a line. A level is printed when it is at most `Infra_printLogLevel`. */
    typedef enum Infra_LogLevel
    {
        Infra_logLevelUnknown = 0,
        Infra_logLevelFatal = 1,
        Infra_logLevelError = 2,
        Infra_logLevelWarn = 3,
        Infra_logLevelInfo = 4,
        Infra_logLevelTrace = 5,
        Infra_logLevelDebug = 6 /**< printed as trace */
    } Infra_LogLevel;

    /** Which modules are printed at all. */
    typedef enum Infra_logOpenType
    {
        CLOSE_LOG = 0,    /**< none */
        OPEN_PARITAL = 1, /**< all but those switched off one by one */
        OPEN_ALL = 2      /**< all */
    } Infra_logOpenType;

    /** The prefix of a line. Zero is the default of every field, so what a nonzero value does
     * differs. */
    typedef struct Infra_PrintOptions
    {
        unsigned char time;        /**< nonzero: a blank instead of the time of day */
        unsigned char color;       /**< nonzero: no colour sequences */
        unsigned char libName;     /**< nonzero: no module name */
        unsigned char level;       /**< nonzero: no level word */
        unsigned char thread;      /**< nonzero: no thread id */
        unsigned char version;     /**< nonzero: no revision */
        unsigned char function;    /**< nonzero: the function's name */
        unsigned char file;        /**< nonzero: no file name */
        unsigned char line;        /**< nonzero: no line number */
        unsigned char date;        /**< nonzero: the date */
        unsigned char millisecond; /**< nonzero: milliseconds behind the seconds */
        unsigned char style;       /**< nonzero: the tagged layout */
        unsigned char tologfile;   /**< nonzero: nothing goes to the log file */
        unsigned char resv[19];
    } Infra_PrintOptions;

    /** Local calendar time. */
    typedef struct Infra_SystemTimeEx
    {
        int year;  /**< four digits */
        int month; /**< 1 to 12 */
        int day;   /**< 1 to 31 */
        int wday;  /**< 0 is Sunday */
        int hour;
        int minute;
        int second;
        int millisecond; /**< 0 to 999 */
        int isdst;
        int reserved1;
        int reserved2;
        int reserved3;
    } Infra_SystemTimeEx;

    /** Highest level printed; 4 at start. Read and written without a lock, as the next two are. */
    extern INFRA_API int Infra_printLogLevel;
    /** OPEN_ALL at start. */
    extern INFRA_API Infra_logOpenType Infra_openLog;
    /** 1 when the last text printed ended its line, so that the next one gets a prefix; else 0. */
    extern INFRA_API int Infra_returned;

    /**
     * The process's options, never null. Changes show from the next line on, in the lines of the C++
     * interface too. That keeps a record of its own, which changes here do not reach: setPrintOptions()
     * and setLogFilter() write both, getPrintOptions() reads its own. What either has in `version`
     * hides the revision of C++ lines, and what either has in `tologfile` keeps them from the file.
     */
    INFRA_API Infra_PrintOptions* Infra_getPrintOption(void);

    /** Index just behind the last '/' of `file`; -1 when there is none or nothing follows it. */
    INFRA_API int Infra_reverseEqualOrder(const char* file);

    /** Writes `s` to standard output; `level` is not used. */
    INFRA_API void Infra_print(int level, const char* s);

    /** Kernel thread id of the caller. */
    INFRA_API int Infra_getCurrentThreadID(void);

    /** Local time now; `isdst` and the reserved fields are 0. */
    INFRA_API Infra_SystemTimeEx Infra_getCurrentTimeEx(void);

    /** Writes the escape sequence for foreground colour `c` on black to standard output. */
    INFRA_API void Infra_set_console_color(int c);
    /** Writes the sequence that resets colours to standard output. */
    INFRA_API void Infra_reset_console_color(void);
    /** The same, if a line has just ended and the sequence is still owed. */
    INFRA_API void Infra_resetcolor(void);

    /**
     * Builds a line's prefix, and writes its colour sequence straight to standard output.
     * @param buffer        where the prefix goes, always terminated when `bufValidlen` is above 0
     * @param bufValidlen   bytes of `buffer`; a longer prefix is cut
     * @param pTime         null, or where the local time goes, also when no prefix is built
     * @return characters written; 0 when the text continues a line; -1 when the options are missing
     */
    INFRA_API int Infra_logOptionControl(char* buffer, int bufValidlen, int level,
                                         const char* module, const char* file, const char* func,
                                         int line, const char* svnversion,
                                         Infra_SystemTimeEx* pTime);

    /**
     * Logs to standard output alone: no printer, print procedure, log file, statistics or module
     * switch takes part.
     * @return length of the whole line, also where it had to be cut at 8190 characters; 0 when the
     *         level is off, or all is by CLOSE_LOG
     */
    INFRA_API INFRA_PRINTF_FORMAT(7, 8) int Infra_logFilter(int level, const char* module,
                                                            const char* file, const char* func,
                                                            int line, const char* svnversion,
                                                            const char* fmt, ...);

#ifdef __cplusplus
}

static_assert(sizeof(Infra_PrintOptions) == 32, "thirteen flags and 19 reserved bytes");
static_assert(sizeof(Infra_SystemTimeEx) == 48, "twelve 32-bit fields");
#endif

#endif
