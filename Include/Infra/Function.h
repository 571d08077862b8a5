#ifndef INFRA_FUNCTION_H
#define INFRA_FUNCTION_H

#include <type_traits>
#include <utility>

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

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

/// The older delegate over `Newer`.
template <typename Newer, typename R, typename... A>
class TOlderDelegate
{
public:
    typedef R (*Pointer)(A...);

    /// Empty.
    TOlderDelegate() = default;
    /// Binds a free function; null gives an empty delegate.
    TOlderDelegate(Pointer function)
        : m_function(function) {} // NOLINT(google-explicit-constructor)
    /// Binds a lambda without captures.
    template <typename F, typename = typename std::enable_if<
                              std::is_class<F>::value && std::is_convertible<F, Pointer>::value &&
                              !std::is_base_of<TOlderDelegate, F>::value>::type>
    TOlderDelegate(F function) : m_function(static_cast<Pointer>(function)) // NOLINT
    {}
    /// Binds a member and the object to call it on, which belongs to the caller and has to outlive
    /// the calls.
    template <typename O>
    TOlderDelegate(R (O::*member)(A...), const typename TIdentity<O>::Type* object)
        : m_function(static_cast<R (CObject::*)(A...)>(member), static_cast<const CObject*>(object))
    {}
    template <typename O>
    TOlderDelegate(R (O::*member)(A...) const, const typename TIdentity<O>::Type* object)
        : m_function(static_cast<R (CObject::*)(A...) const>(member),
                     static_cast<const CObject*>(object))
    {}

    bool empty() const { return m_function.empty(); }
    /// True when both call the same function, or the same member on the same object.
    bool operator==(const TOlderDelegate& other) const { return m_function == other.m_function; }
    bool operator!=(const TOlderDelegate& other) const { return m_function != other.m_function; }
    /// Calls what is held. An empty delegate must not be called.
    R operator()(A... arguments) const { return m_function(std::forward<A>(arguments)...); }
    /// The bound object; null for a free function.
    void* getObject() const { return m_function.getObject(); }
    /// The compiler's name of `const CObject*` for a member, else null.
    const char* getObjectType() const { return m_function.getObjectType(); }

    operator Newer() const { return m_function; } // NOLINT(google-explicit-constructor)

private:
    Newer m_function;
};

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

/// The older delegates: a free function, or a member of a class derived from CObject with its object,
/// as a value. They convert to Tarsel::Infra::TFunction0 and TFunction1, which they are inside: kind,
/// function and object stay, and the object's type is CObject.
///
/// Threads: a value like any other; one must not be assigned while another thread calls it.
/// Ownership: a bound object belongs to the caller and must outlive the calls.
template <typename R>
class TFunction0 : public Tarsel::Infra::Detail::TOlderDelegate<Tarsel::Infra::TFunction0<R>, R>
{
public:
    using Tarsel::Infra::Detail::TOlderDelegate<Tarsel::Infra::TFunction0<R>, R>::TOlderDelegate;
};

template <typename R, typename A1>
class TFunction1
    : public Tarsel::Infra::Detail::TOlderDelegate<Tarsel::Infra::TFunction1<R, A1>, R, A1>
{
public:
    using Tarsel::Infra::Detail::TOlderDelegate<Tarsel::Infra::TFunction1<R, A1>, R,
                                                A1>::TOlderDelegate;
};

#endif
