#ifndef INFRA_INFRA3_FUNCTION_H
#define INFRA_INFRA3_FUNCTION_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

/// The reuse number that a delegate set last on the calling thread; 0 if none ever did.
INFRA_API uint32_t getCurrentFunctionReuse();

/// What a delegate holds. The other values from 16 on are reuse numbers: a member function and its
/// object, registered under that number.
enum FunctionType : uint32_t
{
    typeEmpty = 0,            ///< nothing
    typeMember = 1,           ///< a member function and its object
    typePointer = 2,          ///< a free function
    typeObject = 3,           ///< reserved
    typeReuse = 16,           ///< the first reuse number
    typeAllReuse = 0xFFFFFFFF ///< every reuse number of one member and object, for detaching; the
                              ///< value -1 in 32 unsigned bits
};

namespace Detail
{

INFRA_API void setCurrentFunctionReuse(uint32_t reuse);

/// Keeps a constructor's object argument out of template deduction, so that a member inherited from
/// a base class binds to a derived object.
template <typename T>
struct TIdentity
{
    typedef T Type;
};

/// Member pointers of every class are kept as pointers of this one; under the platform's ABI they
/// all have the same two words. It has to be complete, or compilers would choose another layout.
class CDelegateTarget
{};

inline const char* withoutLeadingStar(const char* typeName)
{
    return typeName[0] == '*' ? typeName + 1 : typeName;
}

/// The delegate behind TFunction0 to TFunction8.
///
/// Always true: the union holds a free function exactly when `m_type` is typePointer, nothing when
/// it is typeEmpty, and a member pointer with its object otherwise.
template <typename R, typename... A>
class TDelegate
{
public:
    typedef R (*Pointer)(A...);

    constexpr TDelegate() noexcept : m_function(), m_type(typeEmpty), m_objectType(nullptr) {}

    /// Binds a free function; a null pointer gives an empty delegate.
    TDelegate(Pointer function) noexcept // NOLINT(google-explicit-constructor)
        : m_function(), m_type(function == nullptr ? typeEmpty : typePointer), m_objectType(nullptr)
    {
        m_function.ptrFunction = function;
    }

    /// Binds a lambda without captures.
    template <typename F, typename = typename std::enable_if<
                              std::is_class<F>::value && std::is_convertible<F, Pointer>::value &&
                              !std::is_base_of<TDelegate, F>::value>::type>
    TDelegate(F function) : TDelegate(static_cast<Pointer>(function)) // NOLINT
    {}

    /// Binds a member function and the object to call it on. The object belongs to the caller and
    /// has to outlive the calls.
    template <typename O>
    TDelegate(R (O::*member)(A...), const typename TIdentity<O>::Type* object)
        : TDelegate(member, object, typeMember)
    {}
    template <typename O>
    TDelegate(R (O::*member)(A...) const, const typename TIdentity<O>::Type* object)
        : TDelegate(member, object, typeMember)
    {}

    /// Binds a member function under a reuse number (16 or more, or typeAllReuse), which the member
    /// reads with getCurrentFunctionReuse() while it runs. A smaller number binds plainly.
    template <typename O>
    TDelegate(R (O::*member)(A...), const typename TIdentity<O>::Type* object, uint32_t reuse)
        : TDelegate()
    {
        bindMember<O>(reinterpret_cast<Member>(member), object, reuse);
    }
    template <typename O>
    TDelegate(R (O::*member)(A...) const, const typename TIdentity<O>::Type* object, uint32_t reuse)
        : TDelegate()
    {
        bindMember<O>(reinterpret_cast<Member>(member), object, reuse);
    }

    bool empty() const noexcept { return m_type == typeEmpty; }
    bool allReuse() const noexcept { return m_type == typeAllReuse; }

    /// True when both call the same function, or the same member on the same object under the same
    /// reuse number; typeAllReuse stands for every reuse number.
    bool operator==(const TDelegate& other) const
    {
        if (m_type >= typeReuse && other.m_type >= typeReuse) {
            const bool numbersAgree = m_type == other.m_type || allReuse() || other.allReuse();
            return numbersAgree && sameMember(other);
        }
        if (m_type != other.m_type) {
            return false;
        }
        switch (m_type) {
        case typeMember:
            return sameMember(other);
        case typePointer:
            return m_function.ptrFunction == other.m_function.ptrFunction;
        default:
            return true;
        }
    }
    bool operator!=(const TDelegate& other) const { return !(*this == other); }

    /// Calls what is held. An empty delegate must not be called.
    R operator()(A... arguments) const
    {
        if (m_type == typePointer) {
            return m_function.ptrFunction(std::forward<A>(arguments)...);
        }
        if (m_type >= typeReuse && m_type != typeAllReuse) {
            setCurrentFunctionReuse(m_type);
        }
        return (m_function.bound.object->*m_function.bound.member)(std::forward<A>(arguments)...);
    }

    /// The bound object; null for the kinds that have none.
    void* getObject() const
    {
        return m_type == typeEmpty || m_type == typePointer ? nullptr : m_function.bound.object;
    }
    /// The compiler's name of the type `const O*` for a member of class O, else null.
    const char* getObjectType() const { return m_objectType; }

private:
    typedef R (CDelegateTarget::*Member)(A...);

    struct Bound
    {
        Member member;
        CDelegateTarget* object;
    };
    union Held
    {
        Bound bound;
        Pointer ptrFunction;
        constexpr Held() noexcept : bound() {}
    };

    template <typename O>
    void bindMember(Member member, const O* object, uint32_t type)
    {
        m_function.bound.member = member;
        m_function.bound.object = reinterpret_cast<CDelegateTarget*>(
            const_cast<typename std::remove_const<O>::type*>(object));
        m_type = type < typeReuse ? static_cast<uint32_t>(typeMember) : type;
        m_objectType = withoutLeadingStar(typeid(const O*).name());
    }

    bool sameMember(const TDelegate& other) const
    {
        return m_function.bound.member == other.m_function.bound.member &&
               m_function.bound.object == other.m_function.bound.object;
    }

    Held m_function;
    uint32_t m_type;
    const char* m_objectType;
};

} // namespace Detail

/// A callback: a free function, or a member function with its object, that is copied, compared and
/// tested for emptiness like a value and called like a function. The number in the name is the
/// number of arguments; the first template argument is the result.
///
/// Threads: a value like any other; one must not be assigned while another thread calls it.
/// Ownership: a bound object belongs to the caller and must outlive the calls.
///
///     TFunction1<void, int> progress(&CWindow::showProgress, this);
///     if (!progress.empty()) {
///         progress(50);
///     }
template <typename R>
class TFunction0 : public Detail::TDelegate<R>
{
public:
    using Detail::TDelegate<R>::TDelegate;
};

template <typename R, typename A1>
class TFunction1 : public Detail::TDelegate<R, A1>
{
public:
    using Detail::TDelegate<R, A1>::TDelegate;
};

template <typename R, typename A1, typename A2>
class TFunction2 : public Detail::TDelegate<R, A1, A2>
{
public:
    using Detail::TDelegate<R, A1, A2>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3>
class TFunction3 : public Detail::TDelegate<R, A1, A2, A3>
{
public:
    using Detail::TDelegate<R, A1, A2, A3>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3, typename A4>
class TFunction4 : public Detail::TDelegate<R, A1, A2, A3, A4>
{
public:
    using Detail::TDelegate<R, A1, A2, A3, A4>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5>
class TFunction5 : public Detail::TDelegate<R, A1, A2, A3, A4, A5>
{
public:
    using Detail::TDelegate<R, A1, A2, A3, A4, A5>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5, typename A6>
class TFunction6 : public Detail::TDelegate<R, A1, A2, A3, A4, A5, A6>
{
public:
    using Detail::TDelegate<R, A1, A2, A3, A4, A5, A6>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5, typename A6,
          typename A7>
class TFunction7 : public Detail::TDelegate<R, A1, A2, A3, A4, A5, A6, A7>
{
public:
    using Detail::TDelegate<R, A1, A2, A3, A4, A5, A6, A7>::TDelegate;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5, typename A6,
          typename A7, typename A8>
class TFunction8 : public Detail::TDelegate<R, A1, A2, A3, A4, A5, A6, A7, A8>
{
public:
    using Detail::TDelegate<R, A1, A2, A3, A4, A5, A6, A7, A8>::TDelegate;
};

} // namespace Infra
} // namespace Tarsel

#endif
