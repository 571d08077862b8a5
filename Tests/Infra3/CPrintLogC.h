#ifndef INFRA_TESTS_INFRA3_CPRINTLOGC_H
#define INFRA_TESTS_INFRA3_CPRINTLOGC_H

/* What the C interface does when C code uses it. */

#ifdef __cplusplus
extern "C"
{
#endif

    /** All options by default but these, and no thread id. */
    void setOptionsInC(int tagged, int coloured, int timed);
    int functionFlagInC(void);

    /** Print level times ten, and the switch for all modules. */
    int switchesInC(void);
    void setSwitchesInC(int level, int open);

    /** A line of dir/part.c, line 9. */
    int logInC(int level, const char* module, const char* text);

#ifdef __cplusplus
}
#endif

#endif
