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

KeptBlocks::KeptBlocks(std::size_t limit) : blocks_(new void *[limit]), limit_(limit) {}

KeptBlocks::~KeptBlocks() { delete[] blocks_; }

void *KeptBlocks::take() noexcept {
    std::lock_guard const lock(lock_);
    std::size_t const held = count_.load(std::memory_order_relaxed);
    if (held == 0)
        return nullptr;
    count_.store(held - 1, std::memory_order_relaxed);
    return blocks_[held - 1];
}

bool KeptBlocks::keep(void *block) noexcept {
    std::lock_guard const lock(lock_);
    std::size_t const held = count_.load(std::memory_order_relaxed);
    if (held == limit_)
        return false;
    blocks_[held] = block;
    count_.store(held + 1, std::memory_order_relaxed);
    return true;
}

namespace {
KeptBlocks &keptRuns() {
    static KeptBlocks *const kept = new KeptBlocks(256); // 512 MiB; never destroyed: models may outlive statics
    return *kept;
}
} // namespace

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
