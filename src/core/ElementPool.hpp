#pragma once
// Not API: the memory of a model's element objects.

#include <kivra/Model.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

// Under AddressSanitizer every object is a heap block of its own, so that a use after free
// of an element is caught rather than hidden in a slab.
#if defined(__SANITIZE_ADDRESS__)
#define KIVRA_POOL_EACH_OBJECT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KIVRA_POOL_EACH_OBJECT 1
#endif
#endif

namespace kivra::detail {

/// Element objects of one model, carved from slabs that the model frees when its shell
/// goes. A general-purpose allocator spends a header and a rounding step on every object
/// and a search of its bins on every fresh one; here an object costs its size rounded to
/// 8 bytes and a pointer bump, and a freed one waits on a list of its size.
///
/// Every slab is aligned to its size and starts with a header, so a block finds its pool
/// from its own address. Objects are made by the model's writer, one thread at a time, but
/// the last handle of an object may go on any thread: freed blocks go onto lock-free lists
/// that the allocating thread takes whole. Memory goes back to the system only with the
/// model: a model that shrinks keeps its slabs for the objects it makes next. A small model
/// takes its slabs from the heap one at a time; a model that has grown past a few of them
/// takes them from runs of huge pages, so that filling it costs one fault per 2 MiB and its
/// memory leaves in a few calls.
class ElementPool {
public:
    /// The largest block served from a size class; larger ones take slabs of their own, and
    /// the collections keep their rare large arrays on the heap instead.
    static constexpr std::size_t largestPooled = 2048;
    static constexpr std::size_t slabSize = 32 * 1024;

    explicit ElementPool(Model::Impl *model) noexcept : model_(model) {}
    ElementPool(ElementPool const &) = delete;
    ElementPool &operator=(ElementPool const &) = delete;
    /// Frees every slab: by then every object of the model is gone.
    ~ElementPool();

    /// A block of at least `size` bytes, aligned to 8: element classes hold nothing that asks
    /// for more. Raises `std::bad_alloc`. The common way, a block of the writer's own list
    /// or the next of the slab, is the caller's: every element and collection takes it.
    void *allocate(std::size_t size) {
#ifndef KIVRA_POOL_EACH_OBJECT
        if (size <= largestPooled) {
            std::size_t const sizeClass = classOf(size);
            if (FreeBlock *const block = local_[sizeClass]) {
                local_[sizeClass] = block->next;
                return block;
            }
            std::size_t const bytes = (sizeClass + 1) * granule;
            if (!returned_[sizeClass].load(std::memory_order_relaxed) && std::size_t(end_ - cursor_) >= bytes) {
                void *const fresh = cursor_;
                cursor_ += bytes;
                return fresh;
            }
        }
#endif
        return allocateSlowly(size);
    }
    /// Takes back a block of `size` bytes, from any thread; gives the model it belongs to.
    static Model::Impl *deallocate(void *block, std::size_t size) noexcept;
    /// Heap memory that pools which went keep for the next, for measurements: the heap's
    /// statistics count it as in use.
    static std::size_t keptHeapBytes() noexcept;
    /// The heap memory that pools which went keep at most until told otherwise.
    static constexpr std::size_t defaultKeptHeapBytes = 512 * slabSize;
    /// Bounds the heap memory that pools which went keep; what lies beyond is freed at once.
    static void setKeptHeapBytes(std::size_t bytes) noexcept;
    /// Says that the model is going: blocks given back from now on are not kept for reuse,
    /// since nothing is made in the model any more and the pool goes with all its memory.
    void close() noexcept { closing_.store(true, std::memory_order_relaxed); }
    /// Takes back a block whose size is not known (its object's constructor failed): a
    /// large block is freed, a small one stays unused until the model goes.
    static Model::Impl *abandon(void *block) noexcept;

private:
    enum class SlabKind : std::uint8_t {
        /// From the heap, freed with the pool.
        heap,
        /// One object larger than the largest pooled size, freed with it.
        large,
        /// Part of a run of huge pages, which goes with the pool.
        run,
    };
    struct Slab {
        ElementPool *pool;
        Slab *next;
        /// In the first slab of a run: the first slab of the run made before.
        Slab *previousRun;
        SlabKind kind;
    };
    struct FreeBlock {
        FreeBlock *next;
    };

    static constexpr std::size_t granule = 8;
    static constexpr std::size_t headerSize = (sizeof(Slab) + granule - 1) / granule * granule;
    static constexpr std::size_t classCount = largestPooled / granule;
    /// Slabs a pool takes from the heap before it takes runs of huge pages: a run is worth
    /// its size only to a model that has filled as much already.
    static constexpr std::size_t heapSlabs = 128;

    static Slab *slabOf(void *block) noexcept {
        return reinterpret_cast<Slab *>(reinterpret_cast<std::uintptr_t>(block) & ~std::uintptr_t(slabSize - 1));
    }
    static std::size_t classOf(std::size_t size) noexcept { return (size + granule - 1) / granule - 1; }
    static void *newSlab(std::size_t bytes);
    /// `allocate` for a large block, blocks given back by other threads, or a new slab.
    void *allocateSlowly(std::size_t size);
    void *allocateLarge(std::size_t size);
    void *allocateFromNewSlab(std::size_t bytes);
    Slab *takeSlab();

    Model::Impl *model_;
    /// Slabs of pooled objects, newest first.
    Slab *slabs_ = nullptr;
    char *cursor_ = nullptr;
    char *end_ = nullptr;
    std::size_t slabCount_ = 0;
    /// Runs of huge pages, newest first, and the part of the newest not yet carved.
    Slab *runs_ = nullptr;
    char *runCursor_ = nullptr;
    char *runEnd_ = nullptr;
    /// Freed blocks by size class: the writer's own list, and the list of blocks given
    /// back since the writer last took it.
    FreeBlock *local_[classCount] = {};
    std::atomic<FreeBlock *> returned_[classCount] = {};
    std::atomic<bool> closing_{false};
};

/// Gives up the hold that a block of `model` took on it. While this thread destroys that
/// model (`BulkHoldRelease`), the holds are only counted, and dropped together at the end:
/// the model keeps a hold of its own until then, so none of these can be its last.
class BulkHoldRelease {
public:
    explicit BulkHoldRelease(Model::Impl *model) noexcept : outer_(current) { current = {model, 0}; }
    BulkHoldRelease(BulkHoldRelease const &) = delete;
    BulkHoldRelease &operator=(BulkHoldRelease const &) = delete;
    ~BulkHoldRelease() {
        Pending const done = std::exchange(current, outer_);
        done.model->releaseHolds(done.count);
    }

    static void release(Model::Impl *model) noexcept {
        if (model == current.model)
            ++current.count;
        else
            model->releaseHold();
    }

private:
    struct Pending {
        Model::Impl *model;
        std::uint32_t count;
    };
    [[gnu::tls_model("initial-exec")]] static inline thread_local Pending current{nullptr, 0};
    Pending outer_;
};

/// Blocks for what an element of a model keeps (a collection, a collection's array): from
/// the model's pool on its writer's thread, from its second pool under a lock on any other,
/// as readers of a frozen model make collections on several threads at once. The model is
/// held until the block comes back, so that the pool outlasts the block even when the
/// element moves to another model.
class ModelMemory {
public:
    static void *allocate(Model::Impl *model, std::size_t size);
    /// `allocate` on a thread other than the writer's.
    static void *allocateShared(Model::Impl *model, std::size_t size);
    /// Takes back a block of `allocate`, from any thread.
    static void giveBack(void *block, std::size_t size) noexcept {
        BulkHoldRelease::release(ElementPool::deallocate(block, size));
    }
};

} // namespace kivra::detail
