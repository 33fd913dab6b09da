#pragma once
/// \file
/// Not API: the iterator of the open-addressing tables, which walks their used slots.

#include <cstddef>
#include <iterator>

namespace kivra::detail {

/// Walks the used slots of an array in order. `Slot` answers `used(slot)` and
/// `value(slot)` through `Access`, so that a table whose empty slot is a null value and
/// one that marks its slots share the walk.
template <class Slot, class V, class Access> class SlotIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using reference = V const &;
    using pointer = V const *;

    SlotIterator() = default;
    SlotIterator(Slot const *at, Slot const *end) noexcept : at_(at), end_(end) { skip(); }
    V const &operator*() const noexcept { return Access::value(*at_); }
    V const *operator->() const noexcept { return &Access::value(*at_); }
    SlotIterator &operator++() noexcept {
        ++at_;
        skip();
        return *this;
    }
    SlotIterator operator++(int) noexcept {
        SlotIterator before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(SlotIterator const &a, SlotIterator const &b) noexcept { return a.at_ == b.at_; }

private:
    void skip() noexcept {
        while (at_ != end_ && !Access::used(*at_))
            ++at_;
    }
    Slot const *at_ = nullptr;
    Slot const *end_ = nullptr;
};

} // namespace kivra::detail
