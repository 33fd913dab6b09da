#pragma once
/// \file
/// Not API: the set of element handles behind the hashed element set.

#include <kivra/ModelElement.hpp>
#include <kivra/detail/SlotIterator.hpp>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace kivra::detail {

/// A set of element handles kept densely in one array, in the order they came, a leaving
/// entry's place taken by the last one. Entries are told apart by identity: a set of up to
/// 32 compares pointers in one pass over the array, a larger one keeps an index by the
/// address of the element beside it, and a word of bits, one per address hash, turns most
/// absent elements away before either is read. Nothing reads an element, and since neither
/// the index nor the bits order anything, iteration depends on nothing but the sequence of
/// operations. The arrays of a set that a model element owns come from that model's memory.
class ElementHashSet {
    struct SlotAccess {
        static bool used(ModelElement const &) noexcept { return true; }
        static ModelElement const &value(ModelElement const &slot) noexcept { return slot; }
    };

public:
    /// Walks the entries in order.
    using const_iterator = SlotIterator<ModelElement, ModelElement, SlotAccess>;
    using iterator = const_iterator;

    ElementHashSet() noexcept = default;
    ElementHashSet(ElementHashSet const &other);
    ElementHashSet(ElementHashSet &&other) noexcept { swap(other); }
    ElementHashSet &operator=(ElementHashSet other) noexcept {
        swap(other);
        return *this;
    }
    ~ElementHashSet();

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const_iterator begin() const noexcept { return {entries_, entries_ + size_}; }
    const_iterator end() const noexcept { return {entries_ + size_, entries_ + size_}; }

    /// The entry that is `element`, or `end()`.
    const_iterator find(ModelElement const &element) const noexcept;
    bool contains(ModelElement const &element) const noexcept { return find(element) != end(); }
    /// Adds a non-empty handle; gives its position and whether it was new. Arrays that grow
    /// come from the model of `owner`, or from the heap when it is null.
    std::pair<const_iterator, bool> insert(ModelElement const &element, ModelElement::Impl *owner = nullptr);
    /// Asks for the line where the next entry goes, ahead of an `insert` that work stands
    /// before: on a large model it is rarely in cache.
    void prepareInsert() const noexcept {
        if (size_ < capacity_)
            __builtin_prefetch(entries_ + size_, 1);
    }
    /// Takes `element` out; false when it was not there.
    bool erase(ModelElement const &element) noexcept;
    /// Takes out the entry at `position`, a valid position of this set, and gives the same
    /// place: the last entry, not yet walked, has moved into it.
    const_iterator erase(const_iterator position) noexcept {
        std::size_t const at = std::size_t(&*position - entries_);
        erase(entries_[at]);
        return this->at(at);
    }
    void clear() noexcept;

private:
    void swap(ElementHashSet &other) noexcept {
        std::swap(entries_, other.entries_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        std::swap(index_, other.index_);
        std::swap(signature_, other.signature_);
        std::swap(indexShift_, other.indexShift_);
        std::swap(entriesPooled_, other.entriesPooled_);
        std::swap(indexPooled_, other.indexPooled_);
    }
    const_iterator at(std::size_t position) const noexcept { return {entries_ + position, entries_ + size_}; }
    /// The position of `element`, or `size_`.
    std::size_t positionOf(ModelElement::Impl const *element) const noexcept;
    std::size_t indexSize() const noexcept { return index_ ? std::size_t(1) << (64 - indexShift_) : 0; }
    static std::uint64_t hash(ModelElement::Impl const *element) noexcept {
        return (reinterpret_cast<std::uintptr_t>(element) >> 3) * 0x9E3779B97F4A7C15ull;
    }
    std::size_t home(ModelElement::Impl const *element) const noexcept {
        return std::size_t(hash(element) >> indexShift_);
    }
    static std::uint64_t bitOf(ModelElement::Impl const *element) noexcept {
        return std::uint64_t(1) << (hash(element) >> 58);
    }
    void recomputeSignature() noexcept;
    /// The index slot that holds `position`, which must be there.
    std::size_t slotOf(std::size_t position) const noexcept;
    void growEntries(ModelElement::Impl *owner);
    void buildIndex(ModelElement::Impl *owner);
    /// Takes `built` as the index and files every entry in it.
    void fillIndex(std::uint32_t *built, std::size_t slots, bool pooled) noexcept;

    ModelElement *entries_ = nullptr;
    std::uint32_t size_ = 0;
    std::uint32_t capacity_ = 0;
    /// Positions plus one by the element's address, open addressing, at most half full;
    /// null while the set is small.
    std::uint32_t *index_ = nullptr;
    /// A bit per hash of each entry's address; erasing may leave bits that no entry needs.
    std::uint64_t signature_ = 0;
    std::uint8_t indexShift_ = 0;
    /// Whether each array came from a model's memory rather than the heap.
    bool entriesPooled_ = false;
    bool indexPooled_ = false;
};

} // namespace kivra::detail
