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

void *KeptBlocks::take() noexcept {
    std::lock_guard const lock(lock_);
    if (blocks_.empty())
        return nullptr;
    void *const block = blocks_.back();
    blocks_.pop_back();
    count_.store(blocks_.size(), std::memory_order_relaxed);
    return block;
}

bool KeptBlocks::keep(void *block) noexcept {
    std::lock_guard const lock(lock_);
    if (blocks_.size() >= limit_)
        return false;
    // The list grows as blocks come rather than to the bound at once: a bound set high is
    // rarely reached. A list that cannot grow keeps nothing more, and the block goes back.
    try {
        blocks_.push_back(block);
    } catch (std::bad_alloc const &) {
        return false;
    }
    count_.store(blocks_.size(), std::memory_order_relaxed);
    return true;
}

void KeptBlocks::setLimit(std::size_t limit) noexcept {
    std::lock_guard const lock(lock_);
    limit_ = limit;
    while (blocks_.size() > limit_) {
        release_(blocks_.back());
        blocks_.pop_back();
    }
    count_.store(blocks_.size(), std::memory_order_relaxed);
}

namespace {
// A kept run is no longer counted as mapped: it leaves without touching the count.
void unmapKeptRun(void *run) noexcept { ::munmap(run, hugePageSize); }

KeptBlocks &keptRuns() {
    // 512 MiB until the user says otherwise; never destroyed: models may outlive statics.
    static KeptBlocks *const kept = new KeptBlocks(256, unmapKeptRun);
    return *kept;
}
} // namespace

void setKeptHugePageRuns(std::size_t runs) noexcept { keptRuns().setLimit(runs); }

std::size_t keptHugePageRuns() noexcept { return keptRuns().count(); }

void *takeKeptHugePageRun() noexcept {
    void *const run = keptRuns().take();
    if (run)
        bytesMapped.fetch_add(hugePageSize, std::memory_order_relaxed);
    return run;
}

void *takeHugePageRun() {
    if (void *const run = takeKeptHugePageRun())
        return run;
    return mapHugePages(hugePageSize);
}

void giveHugePageRun(void *run) noexcept {
    if (keptRuns().keep(run))
        bytesMapped.fetch_sub(hugePageSize, std::memory_order_relaxed);
    else
        unmapHugePages(run, hugePageSize);
}

std::size_t mappedBytes() noexcept { return bytesMapped.load(std::memory_order_relaxed); }

void *allocateZeroed(std::size_t bytes) {
    if (bytes >= hugePageSize)
        return mapHugePages(bytes);
    void *const block = ::operator new(bytes, std::align_val_t(64));
    std::memset(block, 0, bytes);
    return block;
}

void freeZeroed(void *block, std::size_t bytes) noexcept {
    if (bytes >= hugePageSize)
        unmapHugePages(block, bytes);
    else
        ::operator delete(block, bytes, std::align_val_t(64));
}

} // namespace kivra::detail
