#pragma once
/// \file
/// The text type of the platform layer.

#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace basalt {

/// UTF-16 text. All model text is held in this form; `std::string` texts are UTF-8.
/// It reads and writes as `std::u16string` does and converts to and from it, but keeps up
/// to 11 code units in its own 24 bytes, so that the short names and titles that fill a
/// model cost no allocation.
class ustring {
public:
    using traits_type = std::char_traits<char16_t>;
    using value_type = char16_t;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = char16_t &;
    using const_reference = char16_t const &;
    using pointer = char16_t *;
    using const_pointer = char16_t const *;
    using iterator = char16_t *;
    using const_iterator = char16_t const *;
    using reverse_iterator = std::reverse_iterator<iterator>;
    using const_reverse_iterator = std::reverse_iterator<const_iterator>;
    static constexpr size_type npos = size_type(-1);
    /// The longest text kept without an allocation.
    static constexpr size_type inline_capacity = 11;

    ustring() noexcept { setInlineSize(0); }
    ustring(char16_t const *text) { init(text, traits_type::length(text)); }
    ustring(char16_t const *text, size_type count) { init(text, count); }
    ustring(size_type count, char16_t unit);
    ustring(std::u16string const &text) { init(text.data(), text.size()); }
    explicit ustring(std::u16string_view text) { init(text.data(), text.size()); }
    ustring(std::initializer_list<char16_t> units) { init(units.begin(), units.size()); }
    template <class It>
        requires(!std::is_integral_v<It>)
    ustring(It first, It last) {
        setInlineSize(0);
        appendUnits(first, last);
    }
    ustring(std::nullptr_t) = delete;

    ustring(ustring const &other) {
        // An inline text is its representation, and moves already copy that as bytes.
        if (other.isInline())
            std::memcpy(static_cast<void *>(&rep_), &other.rep_, sizeof rep_);
        else
            init(other.data(), other.size());
    }
    ustring(ustring &&other) noexcept {
        std::memcpy(static_cast<void *>(&rep_), &other.rep_, sizeof rep_);
        other.setInlineSize(0);
    }
    ustring &operator=(ustring const &other) {
        if (this == &other)
            return *this;
        // Two inline texts: the bytes of the representation are all there is to copy.
        if (isInline() && other.isInline())
            std::memcpy(static_cast<void *>(&rep_), &other.rep_, sizeof rep_);
        else
            assign(other.data(), other.size());
        return *this;
    }
    ustring &operator=(ustring &&other) noexcept {
        if (this != &other) {
            release();
            std::memcpy(static_cast<void *>(&rep_), &other.rep_, sizeof rep_);
            other.setInlineSize(0);
        }
        return *this;
    }
    ustring &operator=(char16_t const *text) { return assign(text, traits_type::length(text)); }
    ustring &operator=(std::u16string_view text) { return assign(text.data(), text.size()); }
    ustring &operator=(std::u16string const &text) { return assign(text.data(), text.size()); }
    ustring &operator=(char16_t unit) { return assign(&unit, 1); }
    ustring &operator=(std::initializer_list<char16_t> units) { return assign(units.begin(), units.size()); }
    ~ustring() { release(); }

    /// The same text as a standard string (one copy).
    operator std::u16string() const { return std::u16string(data(), size()); }
    operator std::u16string_view() const noexcept { return {data(), size()}; }

    // --- Reading ----------------------------------------------------------------------

    size_type size() const noexcept { return isInline() ? inlineSize() : rep_.heap.size; }
    size_type length() const noexcept { return size(); }
    bool empty() const noexcept { return size() == 0; }
    size_type capacity() const noexcept { return isInline() ? inline_capacity : heapCapacity(); }
    size_type max_size() const noexcept { return (size_type(1) << 62) - 1; }
    char16_t const *data() const noexcept { return isInline() ? rep_.units : rep_.heap.data; }
    char16_t *data() noexcept { return isInline() ? rep_.units : rep_.heap.data; }
    char16_t const *c_str() const noexcept { return data(); }

    char16_t &operator[](size_type i) noexcept { return data()[i]; }
    char16_t const &operator[](size_type i) const noexcept { return data()[i]; }
    /// Raises `std::out_of_range` past the end.
    char16_t &at(size_type i);
    char16_t const &at(size_type i) const;
    char16_t &front() noexcept { return data()[0]; }
    char16_t const &front() const noexcept { return data()[0]; }
    char16_t &back() noexcept { return data()[size() - 1]; }
    char16_t const &back() const noexcept { return data()[size() - 1]; }

    iterator begin() noexcept { return data(); }
    iterator end() noexcept { return data() + size(); }
    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + size(); }
    const_iterator cbegin() const noexcept { return begin(); }
    const_iterator cend() const noexcept { return end(); }
    reverse_iterator rbegin() noexcept { return reverse_iterator(end()); }
    reverse_iterator rend() noexcept { return reverse_iterator(begin()); }
    const_reverse_iterator rbegin() const noexcept { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const noexcept { return const_reverse_iterator(begin()); }
    const_reverse_iterator crbegin() const noexcept { return rbegin(); }
    const_reverse_iterator crend() const noexcept { return rend(); }

    /// Raises `std::out_of_range` when `pos` is past the end.
    ustring substr(size_type pos = 0, size_type count = npos) const;

    size_type find(std::u16string_view text, size_type pos = 0) const noexcept { return view().find(text, pos); }
    size_type find(char16_t unit, size_type pos = 0) const noexcept { return view().find(unit, pos); }
    size_type find(char16_t const *text, size_type pos, size_type count) const noexcept {
        return view().find(text, pos, count);
    }
    size_type rfind(std::u16string_view text, size_type pos = npos) const noexcept { return view().rfind(text, pos); }
    size_type rfind(char16_t unit, size_type pos = npos) const noexcept { return view().rfind(unit, pos); }
    size_type find_first_of(std::u16string_view units, size_type pos = 0) const noexcept {
        return view().find_first_of(units, pos);
    }
    size_type find_first_of(char16_t unit, size_type pos = 0) const noexcept { return view().find_first_of(unit, pos); }
    size_type find_last_of(std::u16string_view units, size_type pos = npos) const noexcept {
        return view().find_last_of(units, pos);
    }
    size_type find_last_of(char16_t unit, size_type pos = npos) const noexcept { return view().find_last_of(unit, pos); }
    size_type find_first_not_of(std::u16string_view units, size_type pos = 0) const noexcept {
        return view().find_first_not_of(units, pos);
    }
    size_type find_first_not_of(char16_t unit, size_type pos = 0) const noexcept {
        return view().find_first_not_of(unit, pos);
    }
    size_type find_last_not_of(std::u16string_view units, size_type pos = npos) const noexcept {
        return view().find_last_not_of(units, pos);
    }
    size_type find_last_not_of(char16_t unit, size_type pos = npos) const noexcept {
        return view().find_last_not_of(unit, pos);
    }
    int compare(std::u16string_view other) const noexcept { return view().compare(other); }
    int compare(size_type pos, size_type count, std::u16string_view other) const {
        return view().compare(pos, count, other);
    }
    bool starts_with(std::u16string_view prefix) const noexcept { return view().starts_with(prefix); }
    bool starts_with(char16_t unit) const noexcept { return view().starts_with(unit); }
    bool ends_with(std::u16string_view suffix) const noexcept { return view().ends_with(suffix); }
    bool ends_with(char16_t unit) const noexcept { return view().ends_with(unit); }

    // --- Writing ----------------------------------------------------------------------

    void clear() noexcept { setSize(0); }
    void reserve(size_type count) {
        if (count > capacity())
            grow(count, size());
    }
    void shrink_to_fit();
    void resize(size_type count) { resize(count, char16_t()); }
    void resize(size_type count, char16_t unit);
    void push_back(char16_t unit) {
        size_type const n = size();
        if (n == capacity())
            grow(n + 1, n);
        data()[n] = unit;
        setSize(n + 1);
    }
    void pop_back() noexcept { setSize(size() - 1); }
    void swap(ustring &other) noexcept {
        Rep temporary;
        std::memcpy(static_cast<void *>(&temporary), &rep_, sizeof rep_);
        std::memcpy(static_cast<void *>(&rep_), &other.rep_, sizeof rep_);
        std::memcpy(static_cast<void *>(&other.rep_), &temporary, sizeof rep_);
    }

    ustring &assign(char16_t const *text, size_type count);
    ustring &assign(std::u16string_view text) { return assign(text.data(), text.size()); }
    ustring &assign(size_type count, char16_t unit) {
        clear();
        return append(count, unit);
    }
    template <class It>
        requires(!std::is_integral_v<It>)
    ustring &assign(It first, It last) {
        ustring made(first, last); // the range may lie in this very string
        swap(made);
        return *this;
    }

    ustring &append(char16_t const *text, size_type count);
    ustring &append(char16_t const *text) { return append(text, traits_type::length(text)); }
    ustring &append(std::u16string_view text) { return append(text.data(), text.size()); }
    ustring &append(ustring const &text) { return append(text.data(), text.size()); }
    ustring &append(std::u16string const &text) { return append(text.data(), text.size()); }
    ustring &append(size_type count, char16_t unit);
    ustring &append(std::initializer_list<char16_t> units) { return append(units.begin(), units.size()); }
    template <class It>
        requires(!std::is_integral_v<It>)
    ustring &append(It first, It last) {
        // The range may lie in this very string, which growing would move: units in place
        // go through the pointer form, which allows for that, others through a copy.
        if constexpr (std::contiguous_iterator<It> && std::is_same_v<std::iter_value_t<It>, char16_t>) {
            return append(std::to_address(first), size_type(last - first));
        } else {
            ustring const made(first, last);
            return append(made.data(), made.size());
        }
    }
    ustring &operator+=(std::u16string_view text) { return append(text.data(), text.size()); }
    ustring &operator+=(ustring const &text) { return append(text.data(), text.size()); }
    ustring &operator+=(std::u16string const &text) { return append(text.data(), text.size()); }
    ustring &operator+=(char16_t const *text) { return append(text); }
    ustring &operator+=(char16_t unit) {
        push_back(unit);
        return *this;
    }

    ustring &insert(size_type pos, std::u16string_view text) { return replace(pos, 0, text); }
    ustring &insert(size_type pos, char16_t const *text) { return replace(pos, 0, text); }
    ustring &insert(size_type pos, size_type count, char16_t unit) {
        return replace(pos, 0, ustring(count, unit));
    }
    iterator insert(const_iterator at, char16_t unit) {
        size_type const pos = size_type(at - begin());
        replace(pos, 0, std::u16string_view(&unit, 1));
        return begin() + pos;
    }
    template <class It>
        requires(!std::is_integral_v<It>)
    iterator insert(const_iterator at, It first, It last) {
        size_type const pos = size_type(at - begin());
        replace(pos, 0, ustring(first, last));
        return begin() + pos;
    }
    /// Raises `std::out_of_range` when `pos` is past the end.
    ustring &erase(size_type pos = 0, size_type count = npos);
    iterator erase(const_iterator at) {
        size_type const pos = size_type(at - begin());
        erase(pos, 1);
        return begin() + pos;
    }
    iterator erase(const_iterator first, const_iterator last) {
        size_type const pos = size_type(first - begin());
        erase(pos, size_type(last - first));
        return begin() + pos;
    }
    /// Raises `std::out_of_range` when `pos` is past the end.
    ustring &replace(size_type pos, size_type count, std::u16string_view text);
    ustring &replace(size_type pos, size_type count, char16_t const *text) {
        return replace(pos, count, std::u16string_view(text));
    }
    ustring &replace(size_type pos, size_type count, ustring const &text) {
        return replace(pos, count, std::u16string_view(text));
    }
    ustring &replace(const_iterator first, const_iterator last, std::u16string_view text) {
        return replace(size_type(first - begin()), size_type(last - first), text);
    }

    // --- Comparison ---------------------------------------------------------------------

    friend bool operator==(ustring const &a, ustring const &b) noexcept { return a.view() == b.view(); }
    friend bool operator==(ustring const &a, std::u16string_view b) noexcept { return a.view() == b; }
    friend bool operator==(ustring const &a, std::u16string const &b) noexcept { return a.view() == b; }
    friend bool operator==(ustring const &a, char16_t const *b) noexcept { return a.view() == b; }
    friend std::strong_ordering operator<=>(ustring const &a, ustring const &b) noexcept {
        return a.view() <=> b.view();
    }
    friend std::strong_ordering operator<=>(ustring const &a, std::u16string_view b) noexcept { return a.view() <=> b; }
    friend std::strong_ordering operator<=>(ustring const &a, std::u16string const &b) noexcept {
        return a.view() <=> std::u16string_view(b);
    }
    friend std::strong_ordering operator<=>(ustring const &a, char16_t const *b) noexcept {
        return a.view() <=> std::u16string_view(b);
    }

    friend ustring operator+(ustring const &a, std::u16string_view b) { return concat(a.view(), b); }
    friend ustring operator+(ustring &&a, std::u16string_view b) { return std::move(a.append(b)); }
    friend ustring operator+(std::u16string_view a, ustring const &b) { return concat(a, b.view()); }
    friend ustring operator+(ustring const &a, ustring const &b) { return concat(a.view(), b.view()); }
    friend ustring operator+(ustring &&a, ustring const &b) { return std::move(a.append(b)); }
    friend ustring operator+(ustring const &a, char16_t const *b) { return concat(a.view(), b); }
    friend ustring operator+(ustring &&a, char16_t const *b) { return std::move(a.append(b)); }
    friend ustring operator+(char16_t const *a, ustring const &b) { return concat(a, b.view()); }
    friend ustring operator+(ustring const &a, std::u16string const &b) { return concat(a.view(), b); }
    friend ustring operator+(std::u16string const &a, ustring const &b) { return concat(a, b.view()); }
    friend ustring operator+(ustring const &a, char16_t b) { return concat(a.view(), std::u16string_view(&b, 1)); }
    friend ustring operator+(ustring &&a, char16_t b) {
        a.push_back(b);
        return std::move(a);
    }
    friend ustring operator+(char16_t a, ustring const &b) { return concat(std::u16string_view(&a, 1), b.view()); }

    friend void swap(ustring &a, ustring &b) noexcept { a.swap(b); }
    friend std::size_t hash_value(ustring const &text) noexcept {
        return std::hash<std::u16string_view>()(text.view());
    }
    template <class H> friend H AbslHashValue(H state, ustring const &text) {
        return H::combine_contiguous(std::move(state), text.data(), text.size());
    }

private:
    // The last code unit of the inline form holds `inline_capacity - size`: zero when full,
    // so that it doubles as the terminator. On the heap, the capacity word's top bit is set,
    // and with it the top bit of that last unit, which is how the two forms are told apart.
    struct Heap {
        char16_t *data;
        size_type size;
        size_type capacityWord;
    };
    union Rep {
        Heap heap;
        char16_t units[inline_capacity + 1];
    };
    static constexpr size_type heapMark = size_type(1) << 63;
    static_assert(sizeof(Heap) == sizeof(Rep) && sizeof(size_type) == 8);
    static_assert(std::endian::native == std::endian::little, "the last unit overlays the capacity's top bits");

    std::u16string_view view() const noexcept { return {data(), size()}; }
    /// Appends a range that does not lie in this string.
    template <class It> void appendUnits(It first, It last) {
        if constexpr (std::is_base_of_v<std::random_access_iterator_tag,
                                        typename std::iterator_traits<It>::iterator_category>)
            reserve(size() + size_type(last - first));
        for (; first != last; ++first)
            push_back(char16_t(*first));
    }
    static ustring concat(std::u16string_view a, std::u16string_view b);

    bool isInline() const noexcept { return (rep_.units[inline_capacity] & 0x8000u) == 0; }
    size_type inlineSize() const noexcept { return inline_capacity - rep_.units[inline_capacity]; }
    size_type heapCapacity() const noexcept { return rep_.heap.capacityWord & ~heapMark; }
    void setInlineSize(size_type n) noexcept {
        rep_.units[n] = 0;
        rep_.units[inline_capacity] = char16_t(inline_capacity - n);
    }
    void setSize(size_type n) noexcept {
        if (isInline()) {
            setInlineSize(n);
        } else {
            rep_.heap.size = n;
            rep_.heap.data[n] = 0;
        }
    }
    void init(char16_t const *text, size_type count);
    /// Makes room for at least `count` units, keeping the first `keep`.
    void grow(size_type count, size_type keep);
    void release() noexcept {
        if (!isInline())
            ::operator delete(rep_.heap.data);
    }

    Rep rep_;
};

static_assert(sizeof(ustring) == 24);

} // namespace basalt

template <> struct std::hash<basalt::ustring> {
    std::size_t operator()(basalt::ustring const &text) const noexcept { return hash_value(text); }
};
