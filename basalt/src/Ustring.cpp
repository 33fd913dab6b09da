#include <basalt/ustring.hpp>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace basalt {

void ustring::init(char16_t const *text, size_type count) {
    if (count <= inline_capacity) {
        traits_type::copy(rep_.units, text, count);
        setInlineSize(count);
        return;
    }
    if (count > max_size())
        throw std::length_error("basalt::ustring: text too long");
    auto *const memory = static_cast<char16_t *>(::operator new((count + 1) * sizeof(char16_t)));
    traits_type::copy(memory, text, count);
    memory[count] = 0;
    rep_.heap = Heap{memory, count, count | heapMark};
}

ustring::ustring(size_type count, char16_t unit) {
    setInlineSize(0);
    append(count, unit);
}

void ustring::grow(size_type count, size_type keep) {
    if (count > max_size())
        throw std::length_error("basalt::ustring: text too long");
    // Geometric growth keeps a run of appends linear.
    size_type const newCapacity = std::max(count, std::min(2 * capacity(), max_size()));
    auto *const memory = static_cast<char16_t *>(::operator new((newCapacity + 1) * sizeof(char16_t)));
    traits_type::copy(memory, data(), keep);
    memory[keep] = 0;
    release();
    rep_.heap = Heap{memory, keep, newCapacity | heapMark};
}

void ustring::shrink_to_fit() {
    if (isInline() || heapCapacity() == rep_.heap.size)
        return;
    ustring shrunk(data(), size());
    swap(shrunk);
}

void ustring::resize(size_type count, char16_t unit) {
    size_type const n = size();
    if (count <= n) {
        setSize(count);
        return;
    }
    reserve(count);
    traits_type::assign(data() + n, count - n, unit);
    setSize(count);
}

char16_t &ustring::at(size_type i) {
    if (i >= size())
        throw std::out_of_range("basalt::ustring::at");
    return data()[i];
}

char16_t const &ustring::at(size_type i) const {
    if (i >= size())
        throw std::out_of_range("basalt::ustring::at");
    return data()[i];
}

ustring ustring::substr(size_type pos, size_type count) const {
    if (pos > size())
        throw std::out_of_range("basalt::ustring::substr");
    return ustring(data() + pos, std::min(count, size() - pos));
}

ustring &ustring::assign(char16_t const *text, size_type count) {
    if (count > capacity()) {
        // The source may lie inside this text: it is copied before the old block goes.
        ustring fresh(text, count);
        swap(fresh);
        return *this;
    }
    traits_type::move(data(), text, count);
    setSize(count);
    return *this;
}

ustring &ustring::append(char16_t const *text, size_type count) {
    size_type const n = size();
    if (count > capacity() - n) {
        if (count > max_size() - n)
            throw std::length_error("basalt::ustring: text too long");
        // The source may lie inside this text, which growing frees.
        ustring grown;
        grown.grow(std::max(n + count, 2 * capacity()), 0);
        traits_type::copy(grown.data(), data(), n);
        traits_type::copy(grown.data() + n, text, count);
        grown.setSize(n + count);
        swap(grown);
        return *this;
    }
    traits_type::move(data() + n, text, count);
    setSize(n + count);
    return *this;
}

ustring &ustring::append(size_type count, char16_t unit) {
    size_type const n = size();
    if (count > max_size() - n)
        throw std::length_error("basalt::ustring: text too long");
    reserve(n + count);
    traits_type::assign(data() + n, count, unit);
    setSize(n + count);
    return *this;
}

ustring &ustring::erase(size_type pos, size_type count) {
    size_type const n = size();
    if (pos > n)
        throw std::out_of_range("basalt::ustring::erase");
    count = std::min(count, n - pos);
    traits_type::move(data() + pos, data() + pos + count, n - pos - count);
    setSize(n - count);
    return *this;
}

ustring &ustring::replace(size_type pos, size_type count, std::u16string_view text) {
    size_type const n = size();
    if (pos > n)
        throw std::out_of_range("basalt::ustring::replace");
    count = std::min(count, n - pos);
    // Built apart: the replacement may be a piece of this text.
    ustring result;
    result.reserve(n - count + text.size());
    result.append(data(), pos).append(text).append(data() + pos + count, n - pos - count);
    swap(result);
    return *this;
}

ustring ustring::concat(std::u16string_view a, std::u16string_view b) {
    ustring result;
    result.reserve(a.size() + b.size());
    traits_type::copy(result.data(), a.data(), a.size());
    traits_type::copy(result.data() + a.size(), b.data(), b.size());
    result.setSize(a.size() + b.size());
    return result;
}

} // namespace basalt
