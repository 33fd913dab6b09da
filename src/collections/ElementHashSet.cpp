#include <kivra/detail/ElementHashSet.hpp>

#include "core/UuidHash.hpp"

#include <cstdint>
#include <cstring>
#include <memory>

namespace kivra::detail {

namespace {
constexpr std::size_t minimumCapacity = 8;
} // namespace

ElementHashSet::ElementHashSet(ElementHashSet const &other) : size_(other.size_) {
    if (!other.slots_)
        return;
    mask_ = other.mask_;
    slots_ = new ModelElement[mask_ + 1];
    std::copy(other.slots_, other.slots_ + mask_ + 1, slots_);
}

ElementHashSet::~ElementHashSet() {
    if (!slots_)
        return;
    // The entries lie anywhere in memory: asking for them all before the first is let go
    // overlaps the misses of a large model's end.
    for (std::size_t i = 0; i <= mask_; ++i)
        if (ModelElement::Impl *element = slots_[i].get())
            __builtin_prefetch(element, 1);
    delete[] slots_;
}

std::size_t ElementHashSet::home(ModelElement::Impl const *element) const noexcept {
    return uuidHash(element->getUuid()) & mask_;
}

std::size_t ElementHashSet::probe(ModelElement::Impl const *element) const noexcept {
    std::size_t at = home(element);
    while (slots_[at].get() && slots_[at].get() != element)
        at = (at + 1) & mask_;
    return at;
}

ElementHashSet::const_iterator ElementHashSet::find(ModelElement const &element) const noexcept {
    if (!slots_ || !element.get())
        return end();
    std::size_t const at = probe(element.get());
    return slots_[at].get() ? const_iterator(slots_ + at, slots_ + capacity()) : end();
}

std::pair<ElementHashSet::const_iterator, bool> ElementHashSet::insert(ModelElement const &element) {
    if (!slots_ || (size_ + 1) * 4 > capacity() * 3)
        rehash(slots_ ? capacity() * 2 : minimumCapacity);
    std::size_t const at = probe(element.get());
    bool const added = !slots_[at].get();
    if (added) {
        slots_[at] = element;
        ++size_;
    }
    return {const_iterator(slots_ + at, slots_ + capacity()), added};
}

bool ElementHashSet::erase(ModelElement const &element) noexcept {
    if (!slots_ || !element.get())
        return false;
    std::size_t hole = probe(element.get());
    if (!slots_[hole].get())
        return false;
    slots_[hole].reset();
    --size_;
    // Entries behind the hole that may not stand before their home move into it.
    for (std::size_t at = (hole + 1) & mask_; slots_[at].get(); at = (at + 1) & mask_) {
        std::size_t const wanted = home(slots_[at].get());
        bool const stays = hole < at ? (wanted > hole && wanted <= at) : (wanted > hole || wanted <= at);
        if (stays)
            continue;
        slots_[hole] = std::move(slots_[at]);
        hole = at;
    }
    return true;
}

void ElementHashSet::clear() noexcept {
    delete[] std::exchange(slots_, nullptr);
    mask_ = 0;
    size_ = 0;
}

void ElementHashSet::rehash(std::size_t capacity) {
    std::unique_ptr<ModelElement[]> old(std::exchange(slots_, new ModelElement[capacity]));
    std::size_t const oldCapacity = old ? mask_ + 1 : 0;
    mask_ = capacity - 1;
    // The entries are read for their UUIDs, wherever the elements lie: ask for them all
    // before the first is needed rather than wait for each in turn.
    for (std::size_t i = 0; i < oldCapacity; ++i)
        if (old[i].get())
            __builtin_prefetch(&old[i].get()->getUuid());
    for (std::size_t i = 0; i < oldCapacity; ++i)
        if (old[i].get())
            slots_[probe(old[i].get())] = std::move(old[i]);
}

} // namespace kivra::detail
