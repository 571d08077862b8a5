#ifndef INFRA_MEMORY_SCOPEDPTR_H
#define INFRA_MEMORY_SCOPEDPTR_H

#include "Infra/Infra3/AssertionFailed.h"

namespace Tarsel
{
namespace Memory
{

/// The one owner of an object, which it deletes; a class's own `operator delete` is used.
///
/// Threads: a value like any other. Ownership: what reset() and the constructor take is owned from
/// then on. Resetting to the object that is owned already ends the process.
template <typename T>
class TScopedPtr
{
public:
    explicit TScopedPtr(T* p = nullptr) : m_ptr(p) {}
    ~TScopedPtr() { destroy(m_ptr); }

    /// Deletes the object and owns `p`, which may be null, instead.
    void reset(T* p = nullptr)
    {
        if (p != nullptr && p == m_ptr) {
            Infra::Detail::assertionFailed("p == 0 || p != m_ptr", __func__,
                                           "Include/Memory/ScopedPtr", __LINE__);
        }
        T* const old = m_ptr;
        m_ptr = p;
        destroy(old);
    }

    T& operator*() const { return *m_ptr; }
    T* operator->() const { return m_ptr; }
    T* get() const { return m_ptr; }
    explicit operator bool() const { return m_ptr != nullptr; }

private:
    TScopedPtr(const TScopedPtr&);
    TScopedPtr& operator=(const TScopedPtr&);

    static void destroy(T* p)
    {
        if (p != nullptr) {
            delete p;
        }
    }

    T* m_ptr;
};

} // namespace Memory
} // namespace Tarsel

#endif
