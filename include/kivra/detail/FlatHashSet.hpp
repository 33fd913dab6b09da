#pragma once
/// \file
/// Not API: the open-addressing table behind the hashed sets of plain values.

#include <kivra/detail/SlotIterator.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

namespace kivra::detail {

/// A set of values in one array of slots, probed linearly from the high bits of the hash
/// multiplied by a large odd constant, so that hashes which are the value itself (small
/// integers) still spread. A leaving entry pulls the rest of its run back, which leaves no
/// tombstones. At most 3/4 of the slots are used. Iteration is slot order, which depends on
/// nothing but the hashes and the sequence of operations.
template <class V, class Hash> class FlatHashSet {
    struct Slot {
        V value{};
        bool used = false;
    };
    struct SlotAccess {
        static bool used(Slot const &slot) noexcept { return slot.used; }
        static V const &value(Slot const &slot) noexcept { return slot.value; }
    };

public:
    using value_type = V;
    using key_type = V;
    using size_type = std::size_t;

    /// Walks the used slots in order.
    using const_iterator = SlotIterator<Slot, V, SlotAccess>;
    using iterator = const_iterator;

    FlatHashSet() noexcept = default;
    FlatHashSet(FlatHashSet const &other) { *this = other; }
    FlatHashSet(FlatHashSet &&other) noexcept { swap(other); }
    FlatHashSet &operator=(FlatHashSet const &other) {
        if (this != &other) {
            clear();
            reserve(other.size_);
            for (V const &value : other)
                insert(value);
        }
        return *this;
    }
    FlatHashSet &operator=(FlatHashSet &&other) noexcept {
        FlatHashSet moved(std::move(other));
        swap(moved);
        return *this;
    }
    void swap(FlatHashSet &other) noexcept {
        std::swap(slots_, other.slots_);
        std::swap(capacity_, other.capacity_);
        std::swap(shift_, other.shift_);
        std::swap(size_, other.size_);
    }

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const_iterator begin() const noexcept { return {slots_.get(), slots_.get() + capacity_}; }
    const_iterator end() const noexcept { return {slots_.get() + capacity_, slots_.get() + capacity_}; }

    const_iterator find(V const &value) const {
        if (size_ == 0)
            return end();
        std::size_t const at = probe(value);
        return slots_[at].used ? const_iterator(slots_.get() + at, slots_.get() + capacity_) : end();
    }
    std::size_t count(V const &value) const { return find(value) != end() ? 1 : 0; }
    bool contains(V const &value) const { return find(value) != end(); }

    /// Adds `value` unless an equal one is there; true when it was new.
    bool insert(V const &value) {
        if (4 * (size_ + 1) > 3 * capacity_)
            rehash(capacity_ ? 2 * capacity_ : 8);
        Slot &slot = slots_[probe(value)];
        if (slot.used)
            return false;
        slot.value = value;
        slot.used = true;
        ++size_;
        return true;
    }
    /// Takes out the entry equal to `value`; gives the number taken.
    std::size_t erase(V const &value) {
        if (size_ == 0)
            return 0;
        std::size_t hole = probe(value);
        if (!slots_[hole].used)
            return 0;
        // Pull back every later entry of the run whose home does not lie between the hole
        // and itself, so that each stays reachable from its home.
        std::size_t const mask = capacity_ - 1;
        for (std::size_t next = (hole + 1) & mask; slots_[next].used; next = (next + 1) & mask) {
            std::size_t const wanted = home(slots_[next].value);
            if (((next - wanted) & mask) >= ((next - hole) & mask)) {
                slots_[hole].value = std::move(slots_[next].value);
                hole = next;
            }
        }
        slots_[hole] = Slot();
        --size_;
        return 1;
    }
    void clear() noexcept {
        slots_.reset();
        capacity_ = 0;
        shift_ = 64;
        size_ = 0;
    }
    /// Makes room for `n` entries without a rehash.
    void reserve(std::size_t n) {
        std::size_t capacity = 8;
        while (4 * n > 3 * capacity)
            capacity *= 2;
        if (capacity > capacity_)
            rehash(capacity);
    }

    /// The same entries, slot order aside.
    friend bool operator==(FlatHashSet const &a, FlatHashSet const &b) {
        if (a.size_ != b.size_)
            return false;
        for (V const &value : a)
            if (!b.contains(value))
                return false;
        return true;
    }

private:
    std::size_t home(V const &value) const noexcept {
        return std::size_t((std::uint64_t(Hash()(value)) * 0x9e3779b97f4a7c15ull) >> shift_);
    }
    /// The slot of `value`, or the empty slot where it would go; the table has one.
    std::size_t probe(V const &value) const {
        std::size_t const mask = capacity_ - 1;
        std::size_t at = home(value);
        while (slots_[at].used && !(slots_[at].value == value))
            at = (at + 1) & mask;
        return at;
    }
    void rehash(std::size_t capacity) {
        std::unique_ptr<Slot[]> old = std::exchange(slots_, std::make_unique<Slot[]>(capacity));
        std::size_t const oldCapacity = std::exchange(capacity_, capacity);
        shift_ = 64;
        for (std::size_t bits = capacity; bits > 1; bits >>= 1)
            --shift_;
        for (std::size_t i = 0; i < oldCapacity; ++i)
            if (old[i].used) {
                Slot &slot = slots_[probe(old[i].value)];
                slot.value = std::move(old[i].value);
                slot.used = true;
            }
    }

    std::unique_ptr<Slot[]> slots_;
    std::size_t capacity_ = 0;
    /// 64 less the number of bits of a slot index.
    unsigned shift_ = 64;
    std::size_t size_ = 0;
};

} // namespace kivra::detail
