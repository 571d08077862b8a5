#ifndef INFRA_SRC_MEMORY_SHAREMEM_PUBLISH_H
#define INFRA_SRC_MEMORY_SHAREMEM_PUBLISH_H

// Stores to shared memory, in the order in which they are written down.
//
// A process may be killed between any two instructions, and whoever goes on sees all stores up to
// there and none after. So the order of stores is part of the design of every list operation, and
// no compiler may change it: release stores keep all earlier stores before them, and on x86-64 each
// is a plain store instruction. A plain assignment after a publish() could move up across it, so
// every store to shared memory is a publish().

#include <cstdint>
#include <type_traits>

template <typename T>
inline void publish(T& field, std::type_identity_t<T> value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

/// A field of 32 bits and the one right behind it, in one store.
inline void publishPair(uint32_t& first, uint32_t firstValue, uint32_t secondValue)
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    __atomic_store_n(reinterpret_cast<uint64_t*>(&first), uint64_t{secondValue} << 32 | firstValue,
                     __ATOMIC_RELEASE);
}

/// A load that a store of another thread or process may race with.
template <typename T>
inline T peek(const T& field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

#endif
