#include "core/PageMemory.hpp"

#include <sys/mman.h>

#if defined(__has_include)
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#endif
#endif
#ifndef ASAN_POISON_MEMORY_REGION
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

#include <algorithm>
#include <atomic>
#include <bit>
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
        ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
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
    // A kept block is no one's: under AddressSanitizer a use of it by the owner that gave it
    // back is caught as if it had gone to the heap.
    ASAN_POISON_MEMORY_REGION(block, bytes);
    return true;
}

void KeptBlocks::setLimit(std::size_t limit) noexcept {
    std::lock_guard const lock(lock_);
    limit_ = limit;
    std::size_t kept = kept_.load(std::memory_order_relaxed);
    while (kept > limit_) {
        ASAN_UNPOISON_MEMORY_REGION(blocks_.back().memory, blocks_.back().bytes);
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

namespace {

bool keptOnHeap(std::size_t bytes) noexcept { return bytes >= smallestKeptBlock && bytes < hugePageSize; }

/// The size a heap block of `bytes` is taken with: one of eight steps between two powers of
/// two, so that arrays that grow by any factor meet the sizes that others gave back, for at
/// most an eighth more than they asked. No step is finer than `smallestKeptBlock`: below
/// 32 KiB a block may take up to that much more.
std::size_t heapBlockSize(std::size_t bytes) noexcept {
    if (!keptOnHeap(bytes))
        return bytes;
    std::size_t const step = std::max(smallestKeptBlock, std::bit_floor(bytes) / 8);
    return (bytes + step - 1) / step * step;
}

void freeHeapBlock(void *block, std::size_t bytes) noexcept { ::operator delete(block, bytes, std::align_val_t(64)); }

/// Heap blocks of the sizes that doubling arrays pass through: the heap gives the larger of
/// them back to the system when they are freed, and the next model that grows to that size
/// faults their pages in again, a fault and a clearing for every 4 KiB.
KeptBlocks &keptHeapBlocks() {
    static KeptBlocks *const kept = new KeptBlocks(defaultKeptBlockBytes, freeHeapBlock); // never destroyed: models may outlive statics
    return *kept;
}

void *takeBlock(std::size_t bytes, bool &clean) {
    if (bytes >= hugePageSize) {
        if (void *const kept = takeKept(bytes, clean))
            return kept;
        clean = true;
        return mapHugePages(bytes);
    }
    bytes = heapBlockSize(bytes);
    if (keptOnHeap(bytes))
        if (void *const kept = keptHeapBlocks().take(bytes, clean))
            return kept;
    clean = false;
    return ::operator new(bytes, std::align_val_t(64));
}

void giveBlock(void *block, std::size_t bytes, bool clean) noexcept {
    if (!block)
        return;
    if (bytes >= hugePageSize) {
        giveBack(block, bytes, clean);
        return;
    }
    bytes = heapBlockSize(bytes);
    if (!keptOnHeap(bytes) || !keptHeapBlocks().keep(block, bytes, clean))
        freeHeapBlock(block, bytes);
}

} // namespace

void *takeBlock(std::size_t bytes) {
    bool clean = false;
    return takeBlock(bytes, clean);
}

void giveBlock(void *block, std::size_t bytes) noexcept { giveBlock(block, bytes, false); }

void setKeptBlockBytes(std::size_t bytes) noexcept { keptHeapBlocks().setLimit(bytes); }

std::size_t keptBlockBytes() noexcept { return keptHeapBlocks().keptBytes(); }

void *allocateZeroed(std::size_t bytes) {
    // Clearing a block that is mapped already costs a pass over it; fresh pages cost a
    // fault and the system's clearing each, several times that on a virtual machine.
    bool clean = false;
    void *const block = takeBlock(bytes, clean);
    if (!clean)
        std::memset(block, 0, bytes);
    return block;
}

void freeZeroed(void *block, std::size_t bytes, bool unwritten) noexcept {
    // Only the bytes asked for were cleared: past them, up to the size the block is kept
    // with, lies what its owner before wrote, which the next taker of the whole would read
    // as zero.
    std::size_t const whole = bytes >= hugePageSize ? roundUp(bytes, hugePageSize) : heapBlockSize(bytes);
    giveBlock(block, bytes, unwritten && whole == bytes);
}

} // namespace kivra::detail
