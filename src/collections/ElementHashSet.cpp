#include <kivra/detail/ElementHashSet.hpp>

#include "core/ElementPool.hpp"

#include <bit>
#include <cstring>
#include <memory>
#include <new>

namespace kivra::detail {

namespace {
/// Up to this many entries a pass over the array finds one faster than an index would: the
/// array is a few lines read in order, where an index costs a line of its own at random.
constexpr std::uint32_t smallSet = 32;
constexpr std::uint32_t firstCapacity = 4;

/// Room for twice the capacity of the array: the index stays at most half full until the
/// array grows again.
std::size_t indexSlots(std::size_t capacity) noexcept { return std::bit_ceil(2 * capacity); }

/// Raw memory for an array of `bytes`; `pooled` says where it came from.
void *allocateArray(std::size_t bytes, ModelElement::Impl *owner, bool &pooled) {
    pooled = owner && bytes <= ElementPool::largestPooled;
    return pooled ? ModelMemory::allocate(owner->getModelImpl(), bytes) : ::operator new(bytes);
}

void freeArray(void *array, std::size_t bytes, bool pooled) noexcept {
    if (!array)
        return;
    if (pooled)
        ModelMemory::giveBack(array, bytes);
    else
        ::operator delete(array);
}
} // namespace

// Delegating: once the empty set stands, a failure to build the index goes through the
// destructor, which lets go of the entries copied so far.
ElementHashSet::ElementHashSet(ElementHashSet const &other) : ElementHashSet() {
    // A copy belongs to no element: its arrays are the heap's.
    if (other.size_ == 0)
        return;
    entries_ = static_cast<ModelElement *>(allocateArray(other.size_ * sizeof(ModelElement), nullptr, entriesPooled_));
    capacity_ = other.size_;
    std::uninitialized_copy(other.entries_, other.entries_ + other.size_, entries_);
    size_ = other.size_;
    signature_ = other.signature_;
    if (size_ > smallSet)
        buildIndex(nullptr);
}

ElementHashSet::~ElementHashSet() {
    // The entries lie anywhere in memory: asking for them all before the first is let go
    // overlaps the misses of a large model's end.
    for (std::uint32_t i = 0; i < size_; ++i)
        __builtin_prefetch(entries_[i].get(), 1);
    std::destroy_n(entries_, size_);
    freeArray(entries_, capacity_ * sizeof(ModelElement), entriesPooled_);
    freeArray(index_, indexSize() * sizeof(std::uint32_t), indexPooled_);
}

std::size_t ElementHashSet::positionOf(ModelElement::Impl const *element) const noexcept {
    if ((signature_ & bitOf(element)) == 0)
        return size_;
    if (!index_) {
        for (std::uint32_t i = 0; i < size_; ++i)
            if (entries_[i].get() == element)
                return i;
        return size_;
    }
    std::size_t const mask = indexSize() - 1;
    for (std::size_t s = home(element);; s = (s + 1) & mask) {
        std::uint32_t const held = index_[s];
        if (held == 0)
            return size_;
        if (entries_[held - 1].get() == element)
            return held - 1;
    }
}

std::size_t ElementHashSet::slotOf(std::size_t position) const noexcept {
    std::size_t const mask = indexSize() - 1;
    std::size_t s = home(entries_[position].get());
    while (index_[s] != position + 1)
        s = (s + 1) & mask;
    return s;
}

void ElementHashSet::recomputeSignature() noexcept {
    signature_ = 0;
    for (std::uint32_t i = 0; i < size_; ++i)
        signature_ |= bitOf(entries_[i].get());
}

ElementHashSet::const_iterator ElementHashSet::find(ModelElement const &element) const noexcept {
    if (!element.get())
        return end();
    return at(positionOf(element.get()));
}

std::pair<ElementHashSet::const_iterator, bool> ElementHashSet::insert(ModelElement const &element,
                                                                        ModelElement::Impl *owner) {
    if (std::size_t const present = positionOf(element.get()); present != size_)
        return {at(present), false};
    // Everything that may fail comes before the entry is stored: a set that runs out of
    // memory stays as it was.
    if (size_ == capacity_)
        growEntries(owner); // also builds the index for the new capacity once the set is large
    else if (!index_ && size_ >= smallSet)
        buildIndex(owner);
    // The count is taken before the entry is stored: the store may miss, and a locked
    // update behind it would wait for it.
    ModelElement counted = element;
    new (entries_ + size_) ModelElement(std::move(counted));
    std::uint32_t const position = size_++;
    signature_ |= bitOf(element.get());
    if (index_) {
        std::size_t const mask = indexSize() - 1;
        std::size_t s = home(element.get());
        while (index_[s] != 0)
            s = (s + 1) & mask;
        index_[s] = position + 1;
    }
    return {at(position), true};
}

bool ElementHashSet::erase(ModelElement const &element) noexcept {
    if (!element.get())
        return false;
    std::size_t const position = positionOf(element.get());
    if (position == size_)
        return false;
    std::size_t const last = size_ - 1;
    std::size_t hole = index_ ? slotOf(position) : 0;
    // Let go of only once the set is whole again: the last handle of an element may end it.
    ModelElement const leaving = std::move(entries_[position]);
    if (index_) {
        // The leaving entry's slot empties; entries behind it that may not stand before
        // their home move into the hole, which leaves no tombstones.
        std::size_t const mask = indexSize() - 1;
        index_[hole] = 0;
        for (std::size_t s = (hole + 1) & mask; index_[s] != 0; s = (s + 1) & mask) {
            std::size_t const wanted = home(entries_[index_[s] - 1].get());
            bool const stays = hole < s ? (wanted > hole && wanted <= s) : (wanted > hole || wanted <= s);
            if (stays)
                continue;
            index_[hole] = std::exchange(index_[s], 0);
            hole = s;
        }
        if (position != last)
            index_[slotOf(last)] = std::uint32_t(position + 1);
    }
    if (position != last)
        entries_[position] = std::move(entries_[last]);
    std::destroy_at(entries_ + last);
    size_ = std::uint32_t(last);
    // A small set has just been read whole; its bits are cheap to make exact again.
    if (!index_)
        recomputeSignature();
    return true;
}

void ElementHashSet::clear() noexcept {
    // The set is empty before the first handle goes, for the same reason as in `erase`.
    ElementHashSet leaving;
    swap(leaving);
}

void ElementHashSet::growEntries(ModelElement::Impl *owner) {
    std::uint32_t const capacity = capacity_ == 0 ? firstCapacity : 2 * capacity_;
    bool pooled;
    auto *const grown = static_cast<ModelElement *>(allocateArray(capacity * sizeof(ModelElement), owner, pooled));
    // The index for the new capacity is taken before anything moves: an index left at the
    // old one would fill up as the array does, and a lookup in a full one never ends.
    std::uint32_t *index = nullptr;
    bool indexPooled = false;
    std::size_t const slots = indexSlots(capacity);
    if (index_ || size_ >= smallSet) {
        try {
            index = static_cast<std::uint32_t *>(allocateArray(slots * sizeof(std::uint32_t), owner, indexPooled));
        } catch (...) {
            freeArray(grown, capacity * sizeof(ModelElement), pooled);
            throw;
        }
    }
    // A handle is a pointer whose count goes with it: its bytes move, its count untouched, so
    // nothing here can throw or end an element, and the old array holds nothing to destroy.
    static_assert(sizeof(ModelElement) == sizeof(void *));
    if (size_ != 0)
        std::memcpy(static_cast<void *>(grown), static_cast<void const *>(entries_), size_ * sizeof(ModelElement));
    freeArray(std::exchange(entries_, grown), capacity_ * sizeof(ModelElement), entriesPooled_);
    entriesPooled_ = pooled;
    capacity_ = capacity;
    if (index) {
        // A large set's bits may have gone stale through erasures; a small one's never do.
        recomputeSignature();
        fillIndex(index, slots, indexPooled);
    }
}

void ElementHashSet::buildIndex(ModelElement::Impl *owner) {
    std::size_t const slots = indexSlots(capacity_);
    bool pooled;
    auto *const built = static_cast<std::uint32_t *>(allocateArray(slots * sizeof(std::uint32_t), owner, pooled));
    fillIndex(built, slots, pooled);
}

void ElementHashSet::fillIndex(std::uint32_t *built, std::size_t slots, bool pooled) noexcept {
    std::fill_n(built, slots, 0u);
    freeArray(index_, indexSize() * sizeof(std::uint32_t), indexPooled_);
    index_ = built;
    indexPooled_ = pooled;
    indexShift_ = std::uint8_t(64 - std::countr_zero(slots));
    std::size_t const mask = slots - 1;
    for (std::uint32_t i = 0; i < size_; ++i) {
        std::size_t s = home(entries_[i].get());
        while (index_[s] != 0)
            s = (s + 1) & mask;
        index_[s] = i + 1;
    }
}

} // namespace kivra::detail
