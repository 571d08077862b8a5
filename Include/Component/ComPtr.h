#ifndef INFRA_COMPONENT_COMPTR_H
#define INFRA_COMPONENT_COMPTR_H

#include <cstddef>
#include <type_traits>
#include <utility>

#include "Component/ComponentHelper.h"
#include "Component/Unknown.h"
#include "Infra/Infra3/AssertionFailed.h"

namespace Tarsel
{
namespace Component
{

/// Holds a component, and the client through which it talks to its server if there is one.
///
/// Behaviour: owns one reference to each. A call through `->` first makes the client's user the
/// thread's current one, so that the component knows on whose behalf it is called.
/// Threads: one thread at a time for one pointer; any number of pointers to one component.
/// Ownership: the constructor from plain pointers takes references over, it adds none.
///
///     TComPtr<IRecorder> recorder = createComponentObject<IRecorder>("Local", ServerInfo::none);
///     if (recorder) {
///         recorder->start();
///     }
template <typename T>
class TComPtr
{
    typedef void (TComPtr::*Testable)() const;

public:
    TComPtr() noexcept : m_ptr(nullptr), m_client(nullptr) {}
    TComPtr(std::nullptr_t) noexcept : TComPtr() {} // NOLINT(google-explicit-constructor)
    /// Takes over a reference to each that is not null. The number has no meaning.
    TComPtr(T* ptr, IClient* client, int) noexcept : m_ptr(ptr), m_client(client) {}

    TComPtr(const TComPtr& other) : m_ptr(other.m_ptr), m_client(other.m_client) { addRefs(); }
    TComPtr(TComPtr&& other) noexcept : m_ptr(other.m_ptr), m_client(other.m_client)
    {
        other.forget();
    }
    /// From a pointer to a class that derives from T.
    template <typename U>
    TComPtr(const TComPtr<U>& other, // NOLINT(google-explicit-constructor)
            typename std::enable_if<std::is_convertible<U*, T*>::value, int>::type = 0)
        : m_ptr(other.get()), m_client(other.client())
    {
        addRefs();
    }
    ~TComPtr() { dropRefs(); }

    TComPtr& operator=(TComPtr other) noexcept
    {
        swap(other);
        return *this;
    }

    void swap(TComPtr& other) noexcept
    {
        std::swap(m_ptr, other.m_ptr);
        std::swap(m_client, other.m_client);
    }
    /// Drops what it holds.
    void reset() { TComPtr().swap(*this); }

    /// The component and the client; they stay this pointer's.
    T* get() const noexcept { return m_ptr; }
    IClient* client() const noexcept { return m_client; }

    T& operator*() const noexcept { return *m_ptr; }
    /// The component, for a call on behalf of the client's user. An empty pointer ends the process.
    T* operator->() const
    {
        if (m_client != nullptr) {
            Detail::CComponentHelper::setAsCurrentUser(m_client);
        }
        if (__builtin_expect(m_ptr == nullptr, 0)) {
            Infra::Detail::assertionFailed("m_ptr != NULL", __func__, __FILE__, __LINE__);
        }
        return m_ptr;
    }

    bool operator!() const noexcept { return m_ptr == nullptr; }
    /// Tests and compares with null, and converts to nothing else: no arithmetic by mistake.
    operator Testable() const noexcept // NOLINT(google-explicit-constructor)
    {
        return m_ptr == nullptr ? nullptr : &TComPtr::addRefs;
    }

private:
    void addRefs() const
    {
        if (m_ptr != nullptr) {
            Detail::CComponentHelper::addRef(m_ptr);
        }
        if (m_client != nullptr) {
            Detail::addClientRef(m_client);
        }
    }

    /// The component goes first: it may still talk through the client.
    void dropRefs() const
    {
        if (m_ptr != nullptr) {
            Detail::CComponentHelper::release(m_ptr);
        }
        if (m_client != nullptr) {
            Detail::releaseClient(m_client);
        }
    }

    void forget() noexcept
    {
        m_ptr = nullptr;
        m_client = nullptr;
    }

    T* m_ptr;
    IClient* m_client;
};

/// Two pointers are equal when they hold the same component.
template <typename T, typename U>
bool operator==(const TComPtr<T>& a, const TComPtr<U>& b)
{
    return a.get() == b.get();
}
template <typename T, typename U>
bool operator!=(const TComPtr<T>& a, const TComPtr<U>& b)
{
    return a.get() != b.get();
}

} // namespace Component
} // namespace Tarsel

#endif
