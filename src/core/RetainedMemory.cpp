#include <kivra/RetainedMemory.hpp>

#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace kivra {

namespace {
// Small models take heap slabs and leave them to the next, growing arrays pass through heap
// blocks of the same sizes from one model to the next: this much of the bound is theirs, the
// rest is blocks of huge pages.
constexpr std::size_t slabShare = detail::ElementPool::defaultKeptHeapBytes;
constexpr std::size_t blockShare = detail::defaultKeptBlockBytes;
std::atomic<std::size_t> retainedLimit{slabShare + blockShare + detail::defaultKeptPageBytes};
// Three stocks are bounded in turn: concurrent setters must not leave them at mixed bounds.
std::mutex setting;
} // namespace

void setRetainedMemoryLimit(std::size_t bytes) noexcept {
    std::lock_guard const lock(setting);
    std::size_t const slabs = std::min(bytes, slabShare);
    std::size_t const blocks = std::min(bytes - slabs, blockShare);
    // While the stocks move from the old bound to the new, a reader is told the higher of the
    // two, so that what they keep never exceeds it: a raised bound is told before they may
    // fill to it, a lowered one once they are within it.
    bool const raising = bytes > retainedLimit.load(std::memory_order_relaxed);
    if (raising)
        retainedLimit.store(bytes, std::memory_order_relaxed);
    detail::ElementPool::setKeptHeapBytes(slabs);
    detail::setKeptBlockBytes(blocks);
    detail::setKeptPageBytes(bytes - slabs - blocks);
    if (!raising)
        retainedLimit.store(bytes, std::memory_order_relaxed);
}

std::size_t getRetainedMemoryLimit() noexcept { return retainedLimit.load(std::memory_order_relaxed); }

std::size_t getRetainedMemory() noexcept {
    return detail::ElementPool::keptHeapBytes() + detail::keptBlockBytes() + detail::keptPageBytes();
}

} // namespace kivra
