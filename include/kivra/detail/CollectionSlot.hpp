#pragma once
/// \file
/// Not API: where a generated element keeps a collection that it makes on first use.

#include <kivra/Handles.hpp>

#include <atomic>
#include <type_traits>

namespace kivra::detail {

/// The untyped part of `CollectionSlot`, with its first use out of line.
class CollectionSlotBase {
public:
    CollectionSlotBase() noexcept = default;
    CollectionSlotBase(CollectionSlotBase const &) = delete;
    CollectionSlotBase &operator=(CollectionSlotBase const &) = delete;

protected:
    using Make = void *(*)(ModelElement::Impl &owner);

    ~CollectionSlotBase() = default;

    /// The object that the slot holds once some thread has made it: `make` runs once, and
    /// what it made is seen by no other thread before it returns.
    void *makeFirst(ModelElement::Impl const &owner, Make make) const;

    mutable std::atomic<void *> made_{nullptr};
};

// An untouched collection costs its element this pointer only.
static_assert(sizeof(std::atomic<void *>) == sizeof(void *));

/// Owns a `T` made at the first use, null until then. Readers of a frozen model may all
/// meet at that first use: one object is made and every one of them gets it.
template <class T> class CollectionSlot : CollectionSlotBase {
public:
    CollectionSlot() noexcept = default;
    ~CollectionSlot() { delete get(); }

    T *get() const noexcept { return static_cast<T *>(made_.load(std::memory_order_acquire)); }
    T *operator->() const noexcept { return get(); }
    T &operator*() const noexcept { return *get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }

    /// Deletes the object, as the writer does while nobody else reads the element.
    void reset() noexcept {
        T *const old = get();
        made_.store(nullptr, std::memory_order_relaxed);
        delete old;
    }

    /// The object, made the first time by the captureless `Make`, called with `owner` and
    /// returning a new `T *`.
    template <class Owner, class Make> T &ensure(Owner const &owner, Make) const {
        static_assert(std::is_empty_v<Make> && std::is_default_constructible_v<Make>, "a captureless maker");
        if (T *const made = get()) [[likely]]
            return *made;
        return *static_cast<T *>(makeFirst(
            owner, [](ModelElement::Impl &at) -> void * { return static_cast<T *>(Make{}(static_cast<Owner &>(at))); }));
    }
};

} // namespace kivra::detail
