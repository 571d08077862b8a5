#ifndef INFRA_TESTS_OLDER_HOOKEDACCESS_H
#define INFRA_TESTS_OLDER_HOOKEDACCESS_H

// A function for a file system's table that counts its calls.

inline int s_hooked = 0;

inline int accessHooked(const char*, int)
{
    ++s_hooked;
    return 0;
}

#endif
