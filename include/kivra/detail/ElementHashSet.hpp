#pragma once
/// \file
/// Not API: the open-addressing table behind the hashed element set.

#include <kivra/ModelElement.hpp>
#include <kivra/detail/SlotIterator.hpp>

#include <cstddef>
#include <iterator>
#include <utility>

namespace kivra::detail {

/// A set of element handles in one array of slots, an empty slot a null handle, probed
/// linearly from a mix of the element's UUID. Entries are told apart by identity, so a
/// probe reads no element but the one asked for. A leaving entry pulls the rest of its run
/// back, which leaves no tombstones. At most 3/4 of the slots are used. Slot order, and
/// with it iteration, depends on nothing but the UUIDs and the sequence of operations.
class ElementHashSet {
    struct SlotAccess {
        static bool used(ModelElement const &slot) noexcept { return slot.get() != nullptr; }
        static ModelElement const &value(ModelElement const &slot) noexcept { return slot; }
    };

public:
    /// Walks the used slots in order.
    using const_iterator = SlotIterator<ModelElement, ModelElement, SlotAccess>;
    using iterator = const_iterator;

    ElementHashSet() noexcept = default;
    ElementHashSet(ElementHashSet const &other);
    ElementHashSet(ElementHashSet &&other) noexcept
        : slots_(std::exchange(other.slots_, nullptr)), mask_(std::exchange(other.mask_, 0)),
          size_(std::exchange(other.size_, 0)) {}
    ElementHashSet &operator=(ElementHashSet other) noexcept {
        std::swap(slots_, other.slots_);
        std::swap(mask_, other.mask_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~ElementHashSet();

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const_iterator begin() const noexcept { return {slots_, slots_ + capacity()}; }
    const_iterator end() const noexcept { return {slots_ + capacity(), slots_ + capacity()}; }

    /// The entry that is `element`, or `end()`.
    const_iterator find(ModelElement const &element) const noexcept;
    bool contains(ModelElement const &element) const noexcept { return find(element) != end(); }
    /// Adds a non-empty handle; gives its position and whether it was new.
    std::pair<const_iterator, bool> insert(ModelElement const &element);
    /// Takes `element` out; false when it was not there.
    bool erase(ModelElement const &element) noexcept;
    void clear() noexcept;

private:
    std::size_t capacity() const noexcept { return slots_ ? mask_ + 1 : 0; }
    std::size_t home(ModelElement::Impl const *element) const noexcept;
    /// The slot of `element`, or the empty slot where it would go.
    std::size_t probe(ModelElement::Impl const *element) const noexcept;
    void rehash(std::size_t capacity);

    ModelElement *slots_ = nullptr;
    std::size_t mask_ = 0;
    std::size_t size_ = 0;
};

} // namespace kivra::detail
