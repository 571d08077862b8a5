#ifndef INFRA_FUNCTION_H
#define INFRA_FUNCTION_H

#include <type_traits>

#include "Infra/Infra3/Function.h"

/// Base of the classes whose members are bound in older delegates and timers.
class CObject
{
public:
    CObject() = default;
    CObject(const CObject&) = default;
    CObject& operator=(const CObject&) = default;
    virtual ~CObject() = default;
};

/// The older delegates: a free function, or a member of a class derived from CObject with its object,
/// as a value. They convert to Tarsel::Infra::TFunction0 and TFunction1, which they are inside: kind,
/// function and object stay, and the object's type is CObject.
///
/// Threads: a value like any other; one must not be assigned while another thread calls it.
/// Ownership: a bound object belongs to the caller and must outlive the calls.
template <typename R>
class TFunction0
{
public:
    typedef Tarsel::Infra::TFunction0<R> Newer;

    /// Empty.
    TFunction0() = default;
    /// Binds a free function; null gives an empty delegate.
    TFunction0(R (*function)()) : m_function(function) {} // NOLINT(google-explicit-constructor)
    template <typename O>
    TFunction0(R (O::*member)(), const typename Tarsel::Infra::Detail::TIdentity<O>::Type* object)
        : m_function(static_cast<R (CObject::*)()>(member), static_cast<const CObject*>(object))
    {
        static_assert(std::is_base_of<CObject, O>::value, "members of CObject's classes only");
    }

    bool empty() const { return m_function.empty(); }
    bool operator==(const TFunction0& other) const { return m_function == other.m_function; }
    bool operator!=(const TFunction0& other) const { return m_function != other.m_function; }
    /// Calls what is held. An empty delegate must not be called.
    R operator()() const { return m_function(); }
    /// The bound object; null for a free function.
    void* getObject() const { return m_function.getObject(); }
    /// The compiler's name of `const CObject*` for a member, else null.
    const char* getObjectType() const { return m_function.getObjectType(); }

    operator Newer() const { return m_function; } // NOLINT(google-explicit-constructor)

private:
    Newer m_function;
};

template <typename R, typename A1>
class TFunction1
{
public:
    typedef Tarsel::Infra::TFunction1<R, A1> Newer;

    TFunction1() = default;
    TFunction1(R (*function)(A1)) : m_function(function) {} // NOLINT(google-explicit-constructor)
    template <typename O>
    TFunction1(R (O::*member)(A1), const typename Tarsel::Infra::Detail::TIdentity<O>::Type* object)
        : m_function(static_cast<R (CObject::*)(A1)>(member), static_cast<const CObject*>(object))
    {
        static_assert(std::is_base_of<CObject, O>::value, "members of CObject's classes only");
    }

    bool empty() const { return m_function.empty(); }
    bool operator==(const TFunction1& other) const { return m_function == other.m_function; }
    bool operator!=(const TFunction1& other) const { return m_function != other.m_function; }
    R operator()(A1 argument) const { return m_function(std::forward<A1>(argument)); }
    void* getObject() const { return m_function.getObject(); }
    const char* getObjectType() const { return m_function.getObjectType(); }

    operator Newer() const { return m_function; } // NOLINT(google-explicit-constructor)

private:
    Newer m_function;
};

#endif
