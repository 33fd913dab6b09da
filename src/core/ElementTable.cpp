#include "core/ElementTable.hpp"

#include <mutex>
#include <new>
#include <utility>

namespace kivra::detail {

void ElementSet::growBacklog() {
    std::size_t const capacity = backlogCapacity_ != 0 ? 2 * backlogCapacity_ : 256;
    // A large block grows by remapping its pages, with no copy.
    auto *const grown = static_cast<Waiting *>(std::realloc(backlog_, capacity * sizeof(Waiting)));
    if (grown == nullptr)
        throw std::bad_alloc();
    backlog_ = grown;
    backlogCapacity_ = capacity;
}

void ElementSet::settle() noexcept {
    if (backlogSize_.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard const lock(settling_);
    std::size_t const count = backlogSize_.load(std::memory_order_relaxed);
    if (count == 0)
        return; // another reader settled it meanwhile
    // The entries fall anywhere in the table: each asks for its chunk a few entries ahead,
    // so that the misses overlap instead of coming one after the other. `defer` made room
    // for every entry.
    constexpr std::size_t ahead = 16;
    for (std::size_t i = 0; i < count; ++i) {
        if (i + ahead < count)
            __builtin_prefetch(&chunks_[backlog_[i + ahead].hash & mask_], 1);
        place(backlog_[i].element, backlog_[i].hash);
    }
    size_ += count;
    // A model keeps no memory for the backlog between transactions.
    std::free(std::exchange(backlog_, nullptr));
    backlogCapacity_ = 0;
    backlogSize_.store(0, std::memory_order_release);
}

} // namespace kivra::detail
