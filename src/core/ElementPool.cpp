#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"

#include <cstdlib>
#include <mutex>
#include <new>

namespace kivra::detail {

namespace {
/// Taken by every thread but a model's writer when it allocates in the model; the writer's
/// own pool is not touched then.
std::mutex sharedAllocation;
} // namespace

void *ModelMemory::allocateShared(Model::Impl *model, std::size_t size) {
    std::lock_guard const lock(sharedAllocation);
    void *const block = model->sharedPool().allocate(size);
    model->hold();
    return block;
}

#ifdef KIVRA_POOL_EACH_OBJECT

// A prefix names the pool of each object.
namespace {
constexpr std::size_t prefixSize = 16;
}

ElementPool::~ElementPool() = default;

std::size_t ElementPool::keptHeapBytes() noexcept { return 0; }

void ElementPool::setKeptHeapBytes(std::size_t) noexcept {}

void *ElementPool::allocateSlowly(std::size_t size) {
    auto *const bytes = static_cast<char *>(::operator new(prefixSize + size));
    *reinterpret_cast<ElementPool **>(bytes) = this;
    return bytes + prefixSize;
}

Model::Impl *ElementPool::deallocate(void *block, std::size_t) noexcept { return abandon(block); }

Model::Impl *ElementPool::abandon(void *block) noexcept {
    char *const bytes = static_cast<char *>(block) - prefixSize;
    Model::Impl *const model = (*reinterpret_cast<ElementPool **>(bytes))->model_;
    ::operator delete(bytes);
    return model;
}

#else

namespace {
void freeSlab(void *slab, std::size_t) noexcept { std::free(slab); }

/// Heap slabs of pools that went, kept for the next pool: a small model made after another
/// then writes into memory the system has handed over already, instead of faulting in a
/// small page at a time (on a virtual machine that can cost more than making the model).
KeptBlocks &keptSlabs() {
    static KeptBlocks *const kept = new KeptBlocks(ElementPool::defaultKeptHeapBytes, freeSlab); // never destroyed: models may outlive statics
    return *kept;
}
} // namespace

std::size_t ElementPool::keptHeapBytes() noexcept { return keptSlabs().keptBytes(); }

void ElementPool::setKeptHeapBytes(std::size_t bytes) noexcept { keptSlabs().setLimit(bytes); }

ElementPool::~ElementPool() {
    for (Slab *slab = slabs_; slab;) {
        Slab *const next = slab->next;
        if (slab->kind == SlabKind::heap && !keptSlabs().keep(slab, slabSize))
            std::free(slab);
        slab = next;
    }
    for (Slab *run = runs_; run;) {
        Slab *const previous = run->previousRun;
        giveHugePageRun(run);
        run = previous;
    }
}

void *ElementPool::newSlab(std::size_t bytes) {
    void *const memory = std::aligned_alloc(slabSize, bytes);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void *ElementPool::allocateSlowly(std::size_t size) {
    if (size > largestPooled)
        return allocateLarge(size);
    std::size_t const sizeClass = classOf(size);
    FreeBlock *block = local_[sizeClass];
    if (!block && returned_[sizeClass].load(std::memory_order_relaxed))
        block = returned_[sizeClass].exchange(nullptr, std::memory_order_acquire);
    if (block) {
        local_[sizeClass] = block->next;
        return block;
    }
    std::size_t const bytes = (sizeClass + 1) * granule;
    if (std::size_t(end_ - cursor_) < bytes)
        return allocateFromNewSlab(bytes);
    void *const fresh = cursor_;
    cursor_ += bytes;
    return fresh;
}

void *ElementPool::allocateFromNewSlab(std::size_t bytes) {
    // The tail of the old slab is too short for this size; it stays unused rather than
    // being sorted into the lists of smaller sizes.
    Slab *const slab = takeSlab();
    slab->pool = this;
    slab->next = slabs_;
    slabs_ = slab;
    cursor_ = reinterpret_cast<char *>(slab) + headerSize + bytes;
    end_ = reinterpret_cast<char *>(slab) + slabSize;
    return reinterpret_cast<char *>(slab) + headerSize;
}

ElementPool::Slab *ElementPool::takeSlab() {
    if (slabCount_ < heapSlabs) {
        void *const kept = keptSlabs().take(slabSize);
        auto *const slab = static_cast<Slab *>(kept ? kept : newSlab(slabSize));
        slab->kind = SlabKind::heap;
        ++slabCount_;
        return slab;
    }
    if (runCursor_ == runEnd_) {
        auto *const run = static_cast<Slab *>(takeHugePageRun());
        run->previousRun = runs_;
        runs_ = run;
        runCursor_ = reinterpret_cast<char *>(run);
        runEnd_ = runCursor_ + hugePageSize;
    }
    auto *const slab = reinterpret_cast<Slab *>(runCursor_);
    runCursor_ += slabSize;
    ++slabCount_;
    slab->kind = SlabKind::run;
    return slab;
}

void *ElementPool::allocateLarge(std::size_t size) {
    std::size_t const bytes = (headerSize + size + slabSize - 1) / slabSize * slabSize;
    auto *const slab = static_cast<Slab *>(newSlab(bytes));
    slab->pool = this;
    slab->next = nullptr;
    slab->kind = SlabKind::large;
    return reinterpret_cast<char *>(slab) + headerSize;
}

Model::Impl *ElementPool::deallocate(void *block, std::size_t size) noexcept {
    Slab *const slab = slabOf(block);
    ElementPool *const pool = slab->pool;
    if (slab->kind == SlabKind::large) {
        std::free(slab);
        return pool->model_;
    }
    if (pool->closing_.load(std::memory_order_relaxed))
        return pool->model_;
    auto *const freed = static_cast<FreeBlock *>(block);
    std::atomic<FreeBlock *> &list = pool->returned_[classOf(size)];
    FreeBlock *head = list.load(std::memory_order_relaxed);
    do
        freed->next = head;
    while (!list.compare_exchange_weak(head, freed, std::memory_order_release, std::memory_order_relaxed));
    return pool->model_;
}

Model::Impl *ElementPool::abandon(void *block) noexcept {
    Slab *const slab = slabOf(block);
    Model::Impl *const model = slab->pool->model_;
    if (slab->kind == SlabKind::large)
        std::free(slab);
    return model;
}

#endif

} // namespace kivra::detail
