#include <kivra/detail/ElementHashSet.hpp>

#include <bit>
#include <memory>
#include <new>

namespace kivra::detail {

namespace {
/// Up to this many entries a pass over the array finds one faster than an index would.
constexpr std::uint32_t smallSet = 16;
constexpr std::uint32_t firstCapacity = 4;
} // namespace

ElementHashSet::ElementHashSet(ElementHashSet const &other) {
    if (other.size_ == 0)
        return;
    entries_ = new ModelElement[other.size_];
    capacity_ = other.size_;
    std::copy(other.entries_, other.entries_ + other.size_, entries_);
    size_ = other.size_;
    if (size_ > smallSet)
        buildIndex();
}

ElementHashSet::~ElementHashSet() {
    // The entries lie anywhere in memory: asking for them all before the first is let go
    // overlaps the misses of a large model's end.
    for (std::uint32_t i = 0; i < size_; ++i)
        __builtin_prefetch(entries_[i].get(), 1);
    delete[] entries_;
    delete[] index_;
}

std::size_t ElementHashSet::positionOf(ModelElement::Impl const *element) const noexcept {
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

ElementHashSet::const_iterator ElementHashSet::find(ModelElement const &element) const noexcept {
    if (!element.get())
        return end();
    return at(positionOf(element.get()));
}

std::pair<ElementHashSet::const_iterator, bool> ElementHashSet::insert(ModelElement const &element) {
    if (std::size_t const present = positionOf(element.get()); present != size_)
        return {at(present), false};
    if (size_ == capacity_)
        growEntries(); // also rebuilds the index for the new capacity
    entries_[size_] = element;
    std::uint32_t const position = size_++;
    if (index_) {
        std::size_t const mask = indexSize() - 1;
        std::size_t s = home(element.get());
        while (index_[s] != 0)
            s = (s + 1) & mask;
        index_[s] = position + 1;
    } else if (size_ > smallSet) {
        buildIndex();
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
    size_ = std::uint32_t(last);
    return true;
}

void ElementHashSet::clear() noexcept {
    delete[] std::exchange(entries_, nullptr);
    delete[] std::exchange(index_, nullptr);
    size_ = capacity_ = indexShift_ = 0;
}

void ElementHashSet::growEntries() {
    std::uint32_t const capacity = capacity_ == 0 ? firstCapacity : 2 * capacity_;
    auto grown = std::make_unique<ModelElement[]>(capacity);
    std::move(entries_, entries_ + size_, grown.get());
    delete[] std::exchange(entries_, grown.release());
    capacity_ = capacity;
    if (index_)
        buildIndex();
}

void ElementHashSet::buildIndex() {
    // Room for twice the capacity of the array: the index stays at most half full until the
    // array grows again.
    std::size_t const slots = std::bit_ceil(std::size_t(2) * capacity_);
    auto built = std::make_unique<std::uint32_t[]>(slots);
    delete[] std::exchange(index_, built.release());
    indexShift_ = std::uint32_t(64 - std::countr_zero(slots));
    std::size_t const mask = slots - 1;
    for (std::uint32_t i = 0; i < size_; ++i) {
        std::size_t s = home(entries_[i].get());
        while (index_[s] != 0)
            s = (s + 1) & mask;
        index_[s] = i + 1;
    }
}

} // namespace kivra::detail
