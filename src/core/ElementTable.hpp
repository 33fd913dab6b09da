#pragma once
// Not API: the table of a model's live elements, found by UUID.

#include <kivra/ElementId.hpp>
#include <kivra/ModelElement.hpp>

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <cstring>
#include <memory>

namespace kivra::detail {

/// The hash of the element table: both halves of the UUID, mixed. A drawn UUID is random
/// in its first half alone, but UUIDs a user gives (from a file, numbered by hand, from
/// another system) may share it, and one shared word would put them all in one run.
inline std::size_t uuidHash(boost::uuids::uuid const &uuid) noexcept {
    std::uint64_t words[2];
    std::memcpy(words, uuid.data, sizeof words);
    std::uint64_t hash = words[0] ^ (words[1] * 0x9E3779B97F4A7C15ull);
    hash ^= hash >> 32;
    hash *= 0xD6E8FEB86659FD93ull;
    hash ^= hash >> 32;
    return static_cast<std::size_t>(hash);
}

/// An open-addressing set of raw element pointers, keyed by the element's UUID: a slot of
/// 8 bytes and a tag byte per entry, linear probing over a power-of-two array, at most
/// 7/8 full. Tags (7 bits of the hash) keep most probes from touching the elements.
/// Deletion shifts the entries that follow back into place, so that no grave markers
/// pile up, and the slot order, and with it iteration, depends on nothing but the
/// UUIDs and the sequence of operations.
class ElementSet {
public:
    using Element = ModelElement::Impl;
    ElementSet() = default;
    ElementSet(ElementSet const &) = delete;
    ElementSet &operator=(ElementSet const &) = delete;

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    /// The element with `uuid`, or null.
    Element *find(boost::uuids::uuid const &uuid) const noexcept {
        if (size_ == 0)
            return nullptr;
        std::size_t const hash = uuidHash(uuid);
        std::uint8_t const tag = tagOf(hash);
        for (std::size_t i = hash & mask_;; i = (i + 1) & mask_) {
            if (tags_[i] == 0)
                return nullptr;
            if (tags_[i] == tag && slots_[i]->getUuid() == uuid)
                return slots_[i];
        }
    }

    /// Enters `element`; false, and nothing changes, when its UUID is taken.
    bool insert(Element *element) {
        if ((size_ + 1) * 8 > capacity() * 7)
            grow();
        std::size_t const hash = uuidHash(element->getUuid());
        std::uint8_t const tag = tagOf(hash);
        std::size_t i = hash & mask_;
        for (; tags_[i] != 0; i = (i + 1) & mask_)
            if (tags_[i] == tag && slots_[i]->getUuid() == element->getUuid())
                return false;
        tags_[i] = tag;
        slots_[i] = element;
        ++size_;
        return true;
    }

    /// Takes out this very element (not a namesake); false when it is not in.
    bool erase(Element const *element) noexcept {
        if (size_ == 0)
            return false;
        std::size_t const hash = uuidHash(element->getUuid());
        std::size_t i = hash & mask_;
        for (;; i = (i + 1) & mask_) {
            if (tags_[i] == 0)
                return false;
            if (slots_[i] == element)
                break;
        }
        // Shift back each following entry whose home lies at or before the hole.
        for (std::size_t j = (i + 1) & mask_; tags_[j] != 0; j = (j + 1) & mask_) {
            std::size_t const home = uuidHash(slots_[j]->getUuid()) & mask_;
            if (((j - home) & mask_) >= ((j - i) & mask_)) {
                tags_[i] = tags_[j];
                slots_[i] = slots_[j];
                i = j;
            }
        }
        tags_[i] = 0;
        slots_[i] = nullptr;
        --size_;
        return true;
    }

    void clear() noexcept {
        slots_.reset();
        tags_.reset();
        mask_ = size_ = 0;
    }

    /// How many slots ahead a walk asks for the element it will visit: slot order is
    /// random in memory, and the walk would otherwise wait for each element in turn.
    static constexpr std::size_t prefetchDistance = 8;

    /// Calls `f` with every element, in slot order; `f` must not change the set.
    template <class F> void forEach(F &&f) const {
        if (size_ == 0)
            return;
        for (std::size_t i = 0; i <= mask_; ++i) {
            if (i + prefetchDistance <= mask_ && tags_[i + prefetchDistance] != 0)
                __builtin_prefetch(slots_[i + prefetchDistance]);
            if (tags_[i] != 0)
                f(slots_[i]);
        }
    }

private:
    static std::uint8_t tagOf(std::size_t hash) noexcept { return std::uint8_t(0x80 | (hash >> 57)); }
    std::size_t capacity() const noexcept { return slots_ ? mask_ + 1 : 0; }

    void grow() {
        std::size_t const newCapacity = slots_ ? 2 * (mask_ + 1) : 8;
        std::unique_ptr<Element *[]> oldSlots = std::move(slots_);
        std::unique_ptr<std::uint8_t[]> oldTags = std::move(tags_);
        std::size_t const oldCapacity = oldSlots ? mask_ + 1 : 0;
        slots_ = std::make_unique<Element *[]>(newCapacity);
        tags_ = std::make_unique<std::uint8_t[]>(newCapacity);
        mask_ = newCapacity - 1;
        for (std::size_t i = 0; i < oldCapacity; ++i) {
            if (i + prefetchDistance < oldCapacity && oldTags[i + prefetchDistance] != 0)
                __builtin_prefetch(oldSlots[i + prefetchDistance]);
            if (oldTags[i] == 0)
                continue;
            std::size_t j = uuidHash(oldSlots[i]->getUuid()) & mask_;
            while (tags_[j] != 0)
                j = (j + 1) & mask_;
            tags_[j] = oldTags[i];
            slots_[j] = oldSlots[i];
        }
    }

    std::unique_ptr<Element *[]> slots_;
    std::unique_ptr<std::uint8_t[]> tags_;
    std::size_t mask_ = 0;
    std::size_t size_ = 0;
};

/// The elements of a model. Whether an element is top level is a mark on the element
/// itself, which also says that the model holds a reference on it.
struct ElementTable {
    ElementSet elements;
    /// The ids that proxies stand for, beside the proxies: most elements are none.
    absl::flat_hash_map<ModelElement::Impl const *, std::unique_ptr<ProxyId>> proxyIds;
};

} // namespace kivra::detail
