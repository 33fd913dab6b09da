#include <kivra/RetainedMemory.hpp>

#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace kivra {

namespace {
// Small models take heap slabs and leave them to the next; this much of the bound is theirs,
// the rest is blocks of huge pages.
constexpr std::size_t slabShare = detail::ElementPool::defaultKeptHeapBytes;
std::atomic<std::size_t> retainedLimit{slabShare + detail::defaultKeptPageBytes};
// Two stocks are bounded in turn: concurrent setters must not leave one at each bound.
std::mutex setting;
} // namespace

void setRetainedMemoryLimit(std::size_t bytes) noexcept {
    std::lock_guard const lock(setting);
    std::size_t const slabs = std::min(bytes, slabShare);
    detail::ElementPool::setKeptHeapBytes(slabs);
    detail::setKeptPageBytes(bytes - slabs);
    retainedLimit.store(bytes, std::memory_order_relaxed);
}

std::size_t getRetainedMemoryLimit() noexcept { return retainedLimit.load(std::memory_order_relaxed); }

std::size_t getRetainedMemory() noexcept {
    return detail::ElementPool::keptHeapBytes() + detail::keptPageBytes();
}

} // namespace kivra
