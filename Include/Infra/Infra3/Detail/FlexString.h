#ifndef INFRA_INFRA3_DETAIL_FLEXSTRING_H
#define INFRA_INFRA3_DETAIL_FLEXSTRING_H

// The operations of a standard string, over a storage that decides where the characters live. All
// of them come down to a few: reserve, append, replaceText and replaceFill change the text; the
// standard string view searches and compares it.

#include <algorithm>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <istream>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Infra/Infra3/Detail/StringStorage.h"

namespace Tarsel
{
namespace Infra
{

/// A string that works like std::basic_string and keeps its text in a `Storage`.
///
/// Behaviour: as the standard says, with these differences. A null `const E*` is the empty text,
/// and so is a null one with a count. Capacity is exact: growing makes it what is needed and no
/// more. Iterators are plain pointers. Texts of the other standard types (std::basic_string, string
/// views) are taken wherever a string is. Failure: std::out_of_range for a position behind the end,
/// std::length_error beyond max_size(), std::bad_alloc without memory; the string is unchanged
/// then. A damaged object ends the process. Threads: one thread at a time; many may read, c_str()
/// included. Ownership: pointers and iterators live until the next change, as usual.
template <typename E, typename T = std::char_traits<E>, typename A = std::allocator<E>,
          typename Storage = AllocatorStringStorage<E, A>>
class flex_string : private Storage
{
    typedef std::basic_string_view<E, T> View;

    /// What converts to a view but is no plain pointer, which may be null.
    template <typename S>
    using IfText = std::enable_if_t<std::is_convertible<const S&, View>::value &&
                                    !std::is_convertible<const S&, const E*>::value>;
    template <typename S>
    using IfForeignText = std::enable_if_t<std::is_convertible<const S&, View>::value &&
                                           !std::is_convertible<const S&, const E*>::value &&
                                           !std::is_base_of<flex_string, S>::value>;
    template <typename It>
    using IfInput =
        std::enable_if_t<std::is_convertible<typename std::iterator_traits<It>::iterator_category,
                                             std::input_iterator_tag>::value>;
    /// Keeps a literal 0, which is a position, from being taken for a null iterator.
    template <typename It>
    using IfOwn =
        std::enable_if_t<std::is_same<It, E*>::value || std::is_same<It, const E*>::value>;

public:
    typedef T traits_type;
    typedef E value_type;
    typedef A allocator_type;
    typedef size_t size_type;
    typedef ptrdiff_t difference_type;
    typedef E& reference;
    typedef const E& const_reference;
    typedef E* pointer;
    typedef const E* const_pointer;
    typedef E* iterator;
    typedef const E* const_iterator;
    typedef std::reverse_iterator<iterator> reverse_iterator;
    typedef std::reverse_iterator<const_iterator> const_reverse_iterator;

    static constexpr size_type npos = static_cast<size_type>(-1);

    // Making and assigning.

    constexpr flex_string() noexcept = default;
    explicit flex_string(const A&) noexcept {}
    flex_string(const flex_string& other) = default;
    flex_string(flex_string&& other) noexcept = default;
    flex_string(const flex_string& other, const A&) : Storage(other) {}
    flex_string(flex_string&& other, const A&) noexcept : Storage(std::move(other)) {}
    flex_string(const flex_string& other, size_type pos, size_type count = npos, const A& = A())
        : flex_string(other.view(pos, count))
    {}
    flex_string(const E* text, const A& = A())
        : Storage(text, text == nullptr ? 0 : T::length(text))
    {}
    flex_string(const E* text, size_type count, const A& = A())
        : Storage(text, checkedSize(text == nullptr ? 0 : count))
    {}
    flex_string(size_type count, E c, const A& = A()) { append(count, c); }
    template <typename It, typename = IfInput<It>>
    flex_string(It first, It last, const A& = A())
    {
        append(first, last);
    }
    flex_string(std::initializer_list<E> text, const A& = A())
        : flex_string(text.begin(), text.size())
    {}
    template <typename S, typename = IfForeignText<S>>
    flex_string(const S& text, const A& = A()) : flex_string(View(text).data(), View(text).size())
    {}
    ~flex_string() = default;

    flex_string& operator=(const flex_string& other) { return assign(other.data(), other.size()); }
    flex_string& operator=(flex_string&& other) noexcept
    {
        if (this != &other) {
            Storage::take(other);
            other.clear();
        }
        return *this;
    }
    flex_string& operator=(const E* text) { return assign(text); }
    flex_string& operator=(E c) { return assign(1, c); }
    flex_string& operator=(std::initializer_list<E> text) { return assign(text); }
    template <typename S, typename = IfForeignText<S>>
    flex_string& operator=(const S& text)
    {
        return assign(View(text));
    }

    flex_string& assign(const E* text, size_type count)
    {
        count = text == nullptr ? 0 : count;
        if (count > capacity()) {
            Storage::reserve(checkedSize(count)); // and so `text` lies elsewhere
        }
        Detail::moveText(data(), text, count);
        Storage::setSize(count);
        return *this;
    }
    flex_string& assign(const E* text) { return assign(text, lengthOf(text)); }
    flex_string& assign(size_type count, E c)
    {
        replaceFill(0, size(), count, c);
        return *this;
    }
    flex_string& assign(std::initializer_list<E> text) { return assign(text.begin(), text.size()); }
    flex_string& assign(flex_string&& other) noexcept { return *this = std::move(other); }
    template <typename It, typename = IfInput<It>>
    flex_string& assign(It first, It last)
    {
        if constexpr (std::is_same<It, E*>::value || std::is_same<It, const E*>::value) {
            return assign(first, static_cast<size_type>(last - first));
        } else {
            const flex_string text(first, last);
            return assign(text.data(), text.size());
        }
    }
    template <typename S, typename = IfText<S>>
    flex_string& assign(const S& text, size_type pos = 0, size_type count = npos)
    {
        const View part = partOf(View(text), pos, count);
        return assign(part.data(), part.size());
    }

    A get_allocator() const noexcept { return A(); }

    // The text as characters.

    /// Terminated at any time: reading never writes, so many threads may read one string.
    const E* c_str() const noexcept { return Storage::data(); }
    const E* data() const noexcept { return Storage::data(); }
    E* data() noexcept { return Storage::data(); }
    operator View() const noexcept { return View(data(), size()); }

    iterator begin() noexcept { return data(); }
    const_iterator begin() const noexcept { return data(); }
    const_iterator cbegin() const noexcept { return data(); }
    iterator end() noexcept { return data() + size(); }
    const_iterator end() const noexcept { return data() + size(); }
    const_iterator cend() const noexcept { return data() + size(); }
    reverse_iterator rbegin() noexcept { return reverse_iterator(end()); }
    const_reverse_iterator rbegin() const noexcept { return const_reverse_iterator(end()); }
    const_reverse_iterator crbegin() const noexcept { return const_reverse_iterator(end()); }
    reverse_iterator rend() noexcept { return reverse_iterator(begin()); }
    const_reverse_iterator rend() const noexcept { return const_reverse_iterator(begin()); }
    const_reverse_iterator crend() const noexcept { return const_reverse_iterator(begin()); }

    reference operator[](size_type pos) noexcept { return data()[pos]; }
    const_reference operator[](size_type pos) const noexcept { return data()[pos]; }
    reference at(size_type pos) { return data()[pos < size() ? pos : badPosition()]; }
    const_reference at(size_type pos) const { return data()[pos < size() ? pos : badPosition()]; }
    reference front() noexcept { return data()[0]; }
    const_reference front() const noexcept { return data()[0]; }
    reference back() noexcept { return data()[size() - 1]; }
    const_reference back() const noexcept { return data()[size() - 1]; }

    // Size and capacity.

    size_type size() const noexcept { return Storage::size(); }
    size_type length() const noexcept { return Storage::size(); }
    bool empty() const noexcept { return Storage::size() == 0; }
    static constexpr size_type max_size() noexcept { return Storage::max_size(); }
    size_type capacity() const noexcept { return Storage::capacity(); }
    void reserve(size_type capacity = 0) { Storage::reserve(checkedSize(capacity)); }
    void shrink_to_fit() { Storage::shrink(); }
    void clear() noexcept { Storage::setSize(0); }
    void resize(size_type count, E c = E())
    {
        if (count > size()) {
            append(count - size(), c);
        } else {
            Storage::setSize(count);
        }
    }

    // Adding, taking away, replacing.

    /// `text` may lie in this string: where the text has to move, the source moves along.
    flex_string& append(const E* text, size_type count)
    {
        count = text == nullptr ? 0 : count;
        if (count > capacity() - size()) {
            const size_type total = grownSize(0, count);
            if (contains(text)) {
                const size_type offset = static_cast<size_type>(text - data());
                Storage::reserve(total);
                text = data() + offset;
            }
        }
        Storage::append(text, count);
        return *this;
    }
    flex_string& append(const E* text) { return append(text, lengthOf(text)); }
    flex_string& append(size_type count, E c)
    {
        replaceFill(size(), 0, count, c);
        return *this;
    }
    flex_string& append(std::initializer_list<E> text) { return append(text.begin(), text.size()); }
    template <typename It, typename = IfInput<It>>
    flex_string& append(It first, It last)
    {
        if constexpr (std::is_same<It, E*>::value || std::is_same<It, const E*>::value) {
            append(first, static_cast<size_type>(last - first));
        } else {
            const flex_string text = collect(first, last);
            append(text.data(), text.size());
        }
        return *this;
    }
    template <typename S, typename = IfText<S>>
    flex_string& append(const S& text, size_type pos = 0, size_type count = npos)
    {
        const View part = partOf(View(text), pos, count);
        return append(part.data(), part.size());
    }

    flex_string& operator+=(const E* text) { return append(text); }
    flex_string& operator+=(E c)
    {
        push_back(c);
        return *this;
    }
    flex_string& operator+=(std::initializer_list<E> text) { return append(text); }
    template <typename S, typename = IfText<S>>
    flex_string& operator+=(const S& text)
    {
        return append(text);
    }

    void push_back(E c) { Storage::push_back(c); }
    void pop_back() noexcept { Storage::setSize(size() - 1); }

    flex_string& insert(size_type pos, const E* text, size_type count)
    {
        return replace(pos, 0, text, count);
    }
    flex_string& insert(size_type pos, const E* text) { return replace(pos, 0, text); }
    flex_string& insert(size_type pos, size_type count, E c) { return replace(pos, 0, count, c); }
    template <typename S, typename = IfText<S>>
    flex_string& insert(size_type pos, const S& text, size_type from = 0, size_type count = npos)
    {
        return replace(pos, 0, text, from, count);
    }
    template <typename It, typename = IfOwn<It>>
    iterator insert(It at, E c)
    {
        return insert(at, 1, c);
    }
    template <typename It, typename = IfOwn<It>>
    iterator insert(It at, size_type count, E c)
    {
        const size_type pos = indexOf(at);
        replaceFill(pos, 0, count, c);
        return begin() + pos;
    }
    template <typename It, typename = IfOwn<It>>
    iterator insert(It at, std::initializer_list<E> text)
    {
        return insert(at, text.begin(), text.end());
    }
    template <typename Own, typename It, typename = IfOwn<Own>, typename = IfInput<It>>
    iterator insert(Own at, It first, It last)
    {
        const size_type pos = indexOf(at);
        const flex_string text(first, last);
        replaceText(pos, 0, text.data(), text.size());
        return begin() + pos;
    }

    flex_string& erase(size_type pos = 0, size_type count = npos)
    {
        replaceText(pos, partSize(pos, count), nullptr, 0);
        return *this;
    }
    template <typename It, typename = IfOwn<It>>
    iterator erase(It at)
    {
        return erase(at, at + 1);
    }
    template <typename First, typename Last, typename = IfOwn<First>, typename = IfOwn<Last>>
    iterator erase(First first, Last last)
    {
        const size_type pos = indexOf(first);
        replaceText(pos, indexOf(last) - pos, nullptr, 0);
        return begin() + pos;
    }

    flex_string& replace(size_type pos, size_type count, const E* text, size_type textCount)
    {
        replaceText(pos, partSize(pos, count), text, text == nullptr ? 0 : textCount);
        return *this;
    }
    flex_string& replace(size_type pos, size_type count, const E* text)
    {
        return replace(pos, count, text, lengthOf(text));
    }
    flex_string& replace(size_type pos, size_type count, size_type fillCount, E c)
    {
        replaceFill(pos, partSize(pos, count), fillCount, c);
        return *this;
    }
    template <typename S, typename = IfText<S>>
    flex_string& replace(size_type pos, size_type count, const S& text, size_type from = 0,
                         size_type textCount = npos)
    {
        const View part = partOf(View(text), from, textCount);
        return replace(pos, count, part.data(), part.size());
    }
    template <typename First, typename Last, typename = IfOwn<First>, typename = IfOwn<Last>>
    flex_string& replace(First first, Last last, const E* text, size_type textCount)
    {
        return replace(indexOf(first), indexOf(last) - indexOf(first), text, textCount);
    }
    template <typename First, typename Last, typename = IfOwn<First>, typename = IfOwn<Last>>
    flex_string& replace(First first, Last last, const E* text)
    {
        return replace(first, last, text, lengthOf(text));
    }
    template <typename First, typename Last, typename = IfOwn<First>, typename = IfOwn<Last>>
    flex_string& replace(First first, Last last, size_type fillCount, E c)
    {
        return replace(indexOf(first), indexOf(last) - indexOf(first), fillCount, c);
    }
    template <typename First, typename Last, typename S, typename = IfOwn<First>,
              typename = IfOwn<Last>, typename = IfText<S>>
    flex_string& replace(First first, Last last, const S& text)
    {
        return replace(indexOf(first), indexOf(last) - indexOf(first), text);
    }
    template <typename First, typename Last, typename = IfOwn<First>, typename = IfOwn<Last>>
    flex_string& replace(First first, Last last, std::initializer_list<E> text)
    {
        return replace(first, last, text.begin(), text.size());
    }
    template <typename First, typename Last, typename It, typename = IfOwn<First>,
              typename = IfOwn<Last>, typename = IfInput<It>>
    flex_string& replace(First first, Last last, It from, It to)
    {
        return replace(first, last, flex_string(from, to));
    }

    size_type copy(E* target, size_type count, size_type pos = 0) const
    {
        const View part = view(pos, count);
        T::move(target, part.data(), part.size());
        return part.size();
    }

    void swap(flex_string& other) noexcept { Storage::swap(other); }

    flex_string substr(size_type pos = 0, size_type count = npos) const
    {
        return flex_string(view(pos, count));
    }

    // Searching: the position found, or npos.

#define INFRA_STRING_SEARCH(name, start)                                                           \
    size_type name(const E* text, size_type pos, size_type count) const noexcept                   \
    {                                                                                              \
        return view().name(View(text, text == nullptr ? 0 : count), pos);                          \
    }                                                                                              \
    size_type name(const E* text, size_type pos = (start)) const noexcept                          \
    {                                                                                              \
        return view().name(View(text, lengthOf(text)), pos);                                       \
    }                                                                                              \
    size_type name(E c, size_type pos = (start)) const noexcept                                    \
    {                                                                                              \
        return view().name(c, pos);                                                                \
    }                                                                                              \
    template <typename S, typename = IfText<S>>                                                    \
    size_type name(const S& text, size_type pos = (start)) const noexcept                          \
    {                                                                                              \
        return view().name(View(text), pos);                                                       \
    }

    INFRA_STRING_SEARCH(find, 0)
    INFRA_STRING_SEARCH(rfind, npos)
    INFRA_STRING_SEARCH(find_first_of, 0)
    INFRA_STRING_SEARCH(find_last_of, npos)
    INFRA_STRING_SEARCH(find_first_not_of, 0)
    INFRA_STRING_SEARCH(find_last_not_of, npos)
#undef INFRA_STRING_SEARCH

    bool starts_with(View text) const noexcept
    {
        return view().substr(0, text.size()) == text;
    }
    bool starts_with(E c) const noexcept
    {
        return !empty() && T::eq(front(), c);
    }
    bool starts_with(const E* text) const noexcept
    {
        return starts_with(View(text, lengthOf(text)));
    }
    bool ends_with(View text) const noexcept
    {
        return size() >= text.size() && view(size() - text.size(), npos) == text;
    }
    bool ends_with(E c) const noexcept
    {
        return !empty() && T::eq(back(), c);
    }
    bool ends_with(const E* text) const noexcept
    {
        return ends_with(View(text, lengthOf(text)));
    }

    // Comparing: below 0, 0 or above 0.

    int compare(const E* text) const noexcept
    {
        return Detail::compareViews(view(), View(text, lengthOf(text)));
    }
    int compare(size_type pos, size_type count, const E* text) const
    {
        return Detail::compareViews(view(pos, count), View(text, lengthOf(text)));
    }
    int compare(size_type pos, size_type count, const E* text, size_type textCount) const
    {
        return Detail::compareViews(view(pos, count), View(text, text == nullptr ? 0 : textCount));
    }
    template <typename S, typename = IfText<S>>
    int compare(const S& text) const noexcept
    {
        return Detail::compareViews(view(), View(text));
    }
    template <typename S, typename = IfText<S>>
    int compare(size_type pos, size_type count, const S& text, size_type from = 0,
                size_type textCount = npos) const
    {
        return Detail::compareViews(view(pos, count), partOf(View(text), from, textCount));
    }

private:
    View view() const noexcept
    {
        return View(data(), size());
    }
    View view(size_type pos, size_type count) const
    {
        return partOf(view(), pos, count);
    }

    static View partOf(View text, size_type pos, size_type count)
    {
        if (pos > text.size()) {
            Detail::throwStringPosition();
        }
        return View(text.data() + pos, std::min(count, text.size() - pos));
    }

    static size_type lengthOf(const E* text) noexcept
    {
        return text == nullptr ? 0 : T::length(text);
    }

    /// What remains of `count` characters from `pos`.
    size_type partSize(size_type pos, size_type count) const
    {
        if (pos > size()) {
            Detail::throwStringPosition();
        }
        return std::min(count, size() - pos);
    }

    size_type indexOf(const E* at) const noexcept
    {
        return static_cast<size_type>(at - data());
    }

    [[noreturn]] static size_type badPosition()
    {
        Detail::throwStringPosition();
    }

    static size_type checkedSize(size_type size)
    {
        if (size > max_size()) {
            Detail::throwStringLength();
        }
        return size;
    }

    /// The size after `removed` characters have gone and `added` have come.
    size_type grownSize(size_type removed, size_type added) const
    {
        const size_type kept = size() - removed;
        if (added > max_size() - kept) {
            Detail::throwStringLength();
        }
        return kept + added;
    }

    bool contains(const E* address) const noexcept
    {
        const std::less_equal<const E*> le;
        return le(data(), address) && le(address, data() + size());
    }

    /// Makes room for `added` characters in the place of `removed` ones and sets the new size. The
    /// result is where they go.
    E* openGap(size_type pos, size_type removed, size_type added)
    {
        const size_type total = grownSize(removed, added);
        const size_type tail = size() - pos - removed;
        Storage::reserve(total);
        E* const gap = data() + pos;
        if (removed != added && tail != 0) {
            T::move(gap + added, gap + removed, tail);
        }
        Storage::setSize(total);
        return data() + pos;
    }

    void replaceText(size_type pos, size_type removed, const E* text, size_type added)
    {
        if (added != 0 && contains(text)) {
            const flex_string source(text, added); // opening the gap would move it
            Detail::moveText(openGap(pos, removed, added), source.data(), added);
        } else {
            Detail::moveText(openGap(pos, removed, added), text, added);
        }
    }

    void replaceFill(size_type pos, size_type removed, size_type added, E c)
    {
        E* const gap = openGap(pos, removed, added);
        if (added != 0) {
            T::assign(gap, added, c);
        }
    }

    template <typename It>
    static flex_string collect(It first, It last)
    {
        flex_string text;
        if constexpr (std::is_convertible<typename std::iterator_traits<It>::iterator_category,
                                          std::forward_iterator_tag>::value) {
            text.reserve(static_cast<size_type>(std::distance(first, last)));
        }
        for (; first != last; ++first) {
            text.push_back(static_cast<E>(*first));
        }
        return text;
    }
};

namespace Detail
{

/// Is it one of our strings?
template <typename S>
struct IsFlexString : std::false_type
{};
template <typename E, typename T, typename A, typename Storage>
struct IsFlexString<flex_string<E, T, A, Storage>> : std::true_type
{};

/// The string among the two sides of an operator; the other side may be any text.
template <typename L, typename R>
using StringOf = std::conditional_t<IsFlexString<L>::value, L, R>;

template <typename S>
using ViewOf = std::basic_string_view<typename S::value_type, typename S::traits_type>;

/// Any operand as a view: null is empty, a character is a text of one.
template <typename S, typename Side>
inline ViewOf<S> viewOf(const Side& side) noexcept
{
    typedef typename S::value_type E;
    if constexpr (std::is_same<Side, E>::value) {
        return ViewOf<S>(&side, 1);
    } else if constexpr (std::is_null_pointer<Side>::value) {
        return ViewOf<S>();
    } else if constexpr (std::is_convertible<const Side&, const E*>::value) {
        const E* const text = side;
        return text == nullptr ? ViewOf<S>() : ViewOf<S>(text);
    } else {
        return side;
    }
}

template <typename S, typename Side, bool = IsFlexString<S>::value>
struct IsTextFor : std::false_type
{};
template <typename S, typename Side>
struct IsTextFor<S, Side, true>
    : std::integral_constant<
          bool, std::is_convertible<const Side&, ViewOf<S>>::value ||
                    std::is_convertible<const Side&, const typename S::value_type*>::value>
{};
template <typename S, typename Side, bool = IsFlexString<S>::value>
struct IsCharacterOf : std::false_type
{};
template <typename S, typename Side>
struct IsCharacterOf<S, Side, true> : std::is_same<Side, typename S::value_type>
{};

template <typename L, typename R>
using IfComparable =
    std::enable_if_t<IsTextFor<StringOf<L, R>, L>::value && IsTextFor<StringOf<L, R>, R>::value>;

template <typename S, typename Side>
struct IsAddable
    : std::integral_constant<bool, IsTextFor<S, Side>::value || IsCharacterOf<S, Side>::value>
{};
template <typename L, typename R>
using IfAddable =
    std::enable_if_t<IsAddable<StringOf<L, R>, L>::value && IsAddable<StringOf<L, R>, R>::value,
                     StringOf<L, R>>;

template <typename L, typename R>
inline bool sameText(const L& left, const R& right) noexcept
{
    typedef StringOf<L, R> S;
    return sameViews(viewOf<S>(left), viewOf<S>(right));
}

template <typename L, typename R>
inline int compareText(const L& left, const R& right) noexcept
{
    typedef StringOf<L, R> S;
    return compareViews(viewOf<S>(left), viewOf<S>(right));
}

} // namespace Detail

// One side is one of our strings, the other is any text.

template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator==(const L& left, const R& right) noexcept
{
    return Detail::sameText(left, right);
}
template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator!=(const L& left, const R& right) noexcept
{
    return !Detail::sameText(left, right);
}
template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator<(const L& left, const R& right) noexcept
{
    return Detail::compareText(left, right) < 0;
}
template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator>(const L& left, const R& right) noexcept
{
    return Detail::compareText(left, right) > 0;
}
template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator<=(const L& left, const R& right) noexcept
{
    return Detail::compareText(left, right) <= 0;
}
template <typename L, typename R, typename = Detail::IfComparable<L, R>>
inline bool operator>=(const L& left, const R& right) noexcept
{
    return Detail::compareText(left, right) >= 0;
}

template <typename L, typename R>
inline Detail::IfAddable<L, R> operator+(const L& left, const R& right)
{
    typedef Detail::StringOf<L, R> S;
    const Detail::ViewOf<S> a = Detail::viewOf<S>(left);
    const Detail::ViewOf<S> b = Detail::viewOf<S>(right);
    S sum;
    sum.reserve(a.size() + b.size());
    sum.append(a.data(), a.size());
    sum.append(b.data(), b.size());
    return sum;
}
/// A chain of sums goes on in the first one's block.
template <typename E, typename T, typename A, typename Storage, typename R>
inline Detail::IfAddable<flex_string<E, T, A, Storage>, R>
operator+(flex_string<E, T, A, Storage>&& left, const R& right)
{
    const auto text = Detail::viewOf<flex_string<E, T, A, Storage>>(right);
    return std::move(left.append(text.data(), text.size()));
}

template <typename E, typename T, typename A, typename Storage>
inline void swap(flex_string<E, T, A, Storage>& left, flex_string<E, T, A, Storage>& right) noexcept
{
    left.swap(right);
}

template <typename E, typename T, typename A, typename Storage>
inline std::basic_ostream<E, T>& operator<<(std::basic_ostream<E, T>& stream,
                                            const flex_string<E, T, A, Storage>& text)
{
    return stream << std::basic_string_view<E, T>(text);
}

/// Reads a word, or a line up to `delimiter`, as the standard string does; on failure `text` is
/// what that one would be.
template <typename E, typename T, typename A, typename Storage>
inline std::basic_istream<E, T>& operator>>(std::basic_istream<E, T>& stream,
                                            flex_string<E, T, A, Storage>& text)
{
    std::basic_string<E, T> word(text.data(), text.size());
    stream >> word;
    text = word;
    return stream;
}
template <typename E, typename T, typename A, typename Storage>
inline std::basic_istream<E, T>& getline(std::basic_istream<E, T>& stream,
                                         flex_string<E, T, A, Storage>& text, E delimiter)
{
    std::basic_string<E, T> line(text.data(), text.size());
    std::getline(stream, line, delimiter);
    text = line;
    return stream;
}
template <typename E, typename T, typename A, typename Storage>
inline std::basic_istream<E, T>& getline(std::basic_istream<E, T>& stream,
                                         flex_string<E, T, A, Storage>& text)
{
    return getline(stream, text, stream.widen('\n'));
}

} // namespace Infra
} // namespace Tarsel

/// The hash of the same text in a standard string or view.
template <typename E, typename T, typename A, typename Storage>
struct std::hash<Tarsel::Infra::flex_string<E, T, A, Storage>>
{
    size_t operator()(const Tarsel::Infra::flex_string<E, T, A, Storage>& text) const noexcept
    {
        return std::hash<std::basic_string_view<E>>()(
            std::basic_string_view<E>(text.data(), text.size()));
    }
};

#endif
