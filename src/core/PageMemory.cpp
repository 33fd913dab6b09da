#include "core/PageMemory.hpp"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>

namespace kivra::detail {

namespace {
std::size_t roundUp(std::size_t bytes, std::size_t unit) { return (bytes + unit - 1) / unit * unit; }
std::atomic<std::size_t> bytesMapped{0};
} // namespace

void *mapHugePages(std::size_t bytes) {
    bytes = roundUp(bytes, hugePageSize);
    // Mapped with a huge page to spare, then trimmed to an aligned run: the system may
    // only back aligned runs with huge pages.
    std::size_t const mapped = bytes + hugePageSize;
    void *const memory = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    auto const start = reinterpret_cast<std::uintptr_t>(memory);
    std::uintptr_t const aligned = roundUp(start, hugePageSize);
    if (aligned != start)
        ::munmap(memory, aligned - start);
    if (std::size_t const tail = start + mapped - (aligned + bytes))
        ::munmap(reinterpret_cast<void *>(aligned + bytes), tail);
    // Advice only: where the system keeps huge pages for those who ask, this asks.
    ::madvise(reinterpret_cast<void *>(aligned), bytes, MADV_HUGEPAGE);
    bytesMapped.fetch_add(bytes, std::memory_order_relaxed);
    return reinterpret_cast<void *>(aligned);
}

void unmapHugePages(void *block, std::size_t bytes) noexcept {
    if (!block)
        return;
    bytes = roundUp(bytes, hugePageSize);
    ::munmap(block, bytes);
    bytesMapped.fetch_sub(bytes, std::memory_order_relaxed);
}

void *KeptBlocks::take(std::size_t bytes, bool &clean) noexcept {
    std::lock_guard const lock(lock_);
    // From the newest: the common size is most often there.
    for (std::size_t i = blocks_.size(); i-- > 0;) {
        if (blocks_[i].bytes != bytes)
            continue;
        void *const memory = blocks_[i].memory;
        clean = blocks_[i].clean;
        blocks_[i] = blocks_.back();
        blocks_.pop_back();
        kept_.store(kept_.load(std::memory_order_relaxed) - bytes, std::memory_order_relaxed);
        return memory;
    }
    return nullptr;
}

bool KeptBlocks::keep(void *block, std::size_t bytes, bool clean) noexcept {
    std::lock_guard const lock(lock_);
    std::size_t const kept = kept_.load(std::memory_order_relaxed);
    if (bytes > limit_ || kept > limit_ - bytes)
        return false;
    // The list grows as blocks come rather than to the bound at once: a bound set high is
    // rarely reached. A list that cannot grow keeps nothing more, and the block goes back.
    try {
        blocks_.push_back({block, bytes, clean});
    } catch (std::bad_alloc const &) {
        return false;
    }
    kept_.store(kept + bytes, std::memory_order_relaxed);
    return true;
}

void KeptBlocks::setLimit(std::size_t limit) noexcept {
    std::lock_guard const lock(lock_);
    limit_ = limit;
    std::size_t kept = kept_.load(std::memory_order_relaxed);
    while (kept > limit_) {
        release_(blocks_.back().memory, blocks_.back().bytes);
        kept -= blocks_.back().bytes;
        blocks_.pop_back();
    }
    kept_.store(kept, std::memory_order_relaxed);
}

namespace {

// A kept block is no longer counted as mapped: it leaves without touching that count.
void unmapKept(void *block, std::size_t bytes) noexcept { ::munmap(block, bytes); }

/// Runs of one huge page, and the larger blocks of element tables and record logs, whose
/// sizes repeat from one model to the next.
KeptBlocks &keptPages() {
    static KeptBlocks *const kept = new KeptBlocks(defaultKeptPageBytes, unmapKept); // never destroyed: models may outlive statics
    return *kept;
}
} // namespace

namespace {
void *takeKept(std::size_t bytes, bool &clean) noexcept {
    bytes = roundUp(bytes, hugePageSize);
    void *const block = keptPages().take(bytes, clean);
    if (block)
        bytesMapped.fetch_add(bytes, std::memory_order_relaxed);
    return block;
}

void giveBack(void *block, std::size_t bytes, bool clean) noexcept {
    if (!block)
        return;
    bytes = roundUp(bytes, hugePageSize);
    if (keptPages().keep(block, bytes, clean))
        bytesMapped.fetch_sub(bytes, std::memory_order_relaxed);
    else
        unmapHugePages(block, bytes);
}
} // namespace

void *takeKeptPages(std::size_t bytes) noexcept {
    bool clean = false;
    return takeKept(bytes, clean);
}

void *takePages(std::size_t bytes) {
    if (void *const block = takeKeptPages(bytes))
        return block;
    return mapHugePages(bytes);
}

void givePages(void *block, std::size_t bytes) noexcept { giveBack(block, bytes, false); }

void setKeptPageBytes(std::size_t bytes) noexcept { keptPages().setLimit(bytes); }

std::size_t keptPageBytes() noexcept { return keptPages().keptBytes(); }

std::size_t mappedBytes() noexcept { return bytesMapped.load(std::memory_order_relaxed); }

void *allocateZeroed(std::size_t bytes) {
    if (bytes >= hugePageSize) {
        // Clearing a block that is mapped already costs a pass over it; fresh pages cost a
        // fault and the system's clearing each, several times that on a virtual machine.
        bool clean = false;
        if (void *const kept = takeKept(bytes, clean)) {
            if (!clean)
                std::memset(kept, 0, bytes);
            return kept;
        }
        return mapHugePages(bytes);
    }
    void *const block = ::operator new(bytes, std::align_val_t(64));
    std::memset(block, 0, bytes);
    return block;
}

void freeZeroed(void *block, std::size_t bytes, bool unwritten) noexcept {
    if (bytes >= hugePageSize)
        giveBack(block, bytes, unwritten);
    else
        ::operator delete(block, bytes, std::align_val_t(64));
}

} // namespace kivra::detail
