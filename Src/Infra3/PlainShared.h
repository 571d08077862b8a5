#ifndef INFRA_SRC_INFRA3_PLAINSHARED_H
#define INFRA_SRC_INFRA3_PLAINSHARED_H

// Process-wide settings that the interface fixes as plain variables (C linkage, public records) are
// read and written by many threads without a lock. Inside the library every access goes through
// these, so that it is a relaxed atomic one: no tearing, no data race, no cost.

namespace Tarsel
{
namespace Infra
{

template <typename T>
inline T loadPlain(const T& variable)
{
    T value;
    __atomic_load(&variable, &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T>
inline void storePlain(T& variable, T value)
{
    __atomic_store(&variable, &value, __ATOMIC_RELAXED);
}

/// Stores only another value, so that threads which agree do not pull the word back and forth.
template <typename T>
inline void changePlain(T& variable, T value)
{
    if (loadPlain(variable) != value) {
        storePlain(variable, value);
    }
}

} // namespace Infra
} // namespace Tarsel

#endif
