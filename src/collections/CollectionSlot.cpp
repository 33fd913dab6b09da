#include <kivra/detail/CollectionSlot.hpp>

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace kivra::detail {

namespace {

// Each on a cache line of its own, so that readers locking different stripes do not
// slow each other down.
struct alignas(64) Stripe {
    std::mutex mutex;
};

constexpr std::size_t stripeBits = 6;

std::array<Stripe, std::size_t(1) << stripeBits> stripes;

// One of a few process-wide mutexes, picked by the element's address: readers making
// collections of different elements seldom wait for each other, and no element pays for a
// mutex of its own. A description settling its collections takes one while it holds the
// registry's lock, so nothing made under it may take that lock (or make another collection).
std::mutex &firstUseMutex(void const *element) noexcept {
    // Fibonacci hashing: neighbouring elements of one pool land on different stripes.
    auto const address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(element));
    return stripes[(address * 0x9E3779B97F4A7C15ull) >> (64 - stripeBits)].mutex;
}

} // namespace

void *CollectionSlotBase::makeFirst(ModelElement::Impl const &owner, Make make) const {
    auto &element = const_cast<ModelElement::Impl &>(owner);
    // The writer pays no lock: other threads read its model only while it registers a
    // package, whose description makes every collection before readers can reach them, and
    // no reader makes a collection of an element that the writer changes.
    if (owner.getModelImpl()->isWriterThread()) {
        void *const made = make(element);
        made_.store(made, std::memory_order_release);
        return made;
    }
    std::lock_guard const lock(firstUseMutex(&owner));
    if (void *const present = made_.load(std::memory_order_acquire))
        return present;
    // Filled before it is published, so that no reader sees it half made.
    void *const made = make(element);
    made_.store(made, std::memory_order_release);
    return made;
}

} // namespace kivra::detail
