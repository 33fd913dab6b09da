#pragma once
// Not API: large zeroed blocks straight from the system, on huge pages where it allows.

#include <atomic>
#include <cstddef>
#include <mutex>
#include <vector>

namespace kivra::detail {

/// Blocks of this size and above come from the system in whole huge pages.
inline constexpr std::size_t hugePageSize = std::size_t(2) << 20;

/// `bytes` of zeroed memory aligned to `hugePageSize`, asked to be backed by huge pages:
/// one fault then maps 2 MiB where it would map 4 KiB, and a random walk over it keeps its
/// translations cached. Raises `std::bad_alloc`.
void *mapHugePages(std::size_t bytes);
/// Gives back a block of `mapHugePages` with the size it was asked with.
void unmapHugePages(void *block, std::size_t bytes) noexcept;

/// Blocks that their owners gave back, kept for the next taker of the same size while the
/// bytes kept stay within a bound: memory the system has handed over already, which a model
/// made after another reuses instead of faulting in fresh pages. Safe from any thread.
class KeptBlocks {
public:
    /// `release` gives a block back to the system when the bound is lowered below what is kept.
    KeptBlocks(std::size_t limit, void (*release)(void *, std::size_t) noexcept) noexcept
        : limit_(limit), release_(release) {}
    KeptBlocks(KeptBlocks const &) = delete;
    KeptBlocks &operator=(KeptBlocks const &) = delete;
    /// A kept block of `bytes`, or null; `clean` tells whether it was kept as never written.
    void *take(std::size_t bytes, bool &clean) noexcept;
    void *take(std::size_t bytes) noexcept {
        bool clean = false;
        return take(bytes, clean);
    }
    /// Keeps `block` of `bytes`; false, and nothing kept, when the bound is reached.
    bool keep(void *block, std::size_t bytes, bool clean = false) noexcept;
    /// How many bytes are kept now.
    std::size_t keptBytes() const noexcept { return kept_.load(std::memory_order_relaxed); }
    /// Keeps at most `limit` bytes from now on; what lies beyond goes back to the system at once.
    void setLimit(std::size_t limit) noexcept;

private:
    struct Block {
        void *memory;
        std::size_t bytes;
        /// Never written since it was mapped or cleared: it needs no clearing, and pages of
        /// it may still be untouched, which clearing would fault in for nothing.
        bool clean;
    };
    std::mutex lock_;
    std::vector<Block> blocks_;
    std::size_t limit_;
    void (*const release_)(void *, std::size_t) noexcept;
    std::atomic<std::size_t> kept_{0};
};

/// A block of whole huge pages whose contents are left to the caller: one given back before
/// with the same size when there is one, else a fresh `mapHugePages(bytes)`. A model made
/// after another so reuses the pages the system handed over already instead of faulting in
/// new ones. Raises `std::bad_alloc`.
void *takePages(std::size_t bytes);
/// A block given back before with the size of `bytes`, or null when there is none: for a
/// taker that has a cheaper way than fresh pages.
void *takeKeptPages(std::size_t bytes) noexcept;
/// Gives back a block of `takePages` or `mapHugePages` with the size it was asked with: kept
/// for the next taker while the process keeps no more than a bound in all, unmapped beyond.
void givePages(void *block, std::size_t bytes) noexcept;

/// One huge page, the unit most takers want.
inline void *takeHugePageRun() { return takePages(hugePageSize); }
inline void *takeKeptHugePageRun() noexcept { return takeKeptPages(hugePageSize); }
inline void giveHugePageRun(void *run) noexcept { givePages(run, hugePageSize); }

/// How many bytes of pages given back the process keeps at most until told otherwise.
inline constexpr std::size_t defaultKeptPageBytes = 256 * hugePageSize;
/// How many bytes of pages given back the process keeps at most; what lies beyond goes back
/// to the system at once.
void setKeptPageBytes(std::size_t bytes) noexcept;
/// How many bytes of pages are kept now.
std::size_t keptPageBytes() noexcept;

/// Bytes held in blocks of `mapHugePages` by the whole process, for measurements: the
/// heap's own statistics do not see them. Blocks kept for reuse are not counted.
std::size_t mappedBytes() noexcept;

/// `bytes` aligned to 64 whose contents are left to the caller. The sizes that growing
/// arrays take, and that repeat from one model to the next, come from blocks given back
/// before when there are: whole huge pages from `hugePageSize` up (as `takePages`), and heap
/// blocks from `smallestKeptBlock` up, in eight sizes between two powers of two, which the
/// heap would hand to the system and fault in afresh. Raises `std::bad_alloc`.
void *takeBlock(std::size_t bytes);
/// Gives back a block of `takeBlock` with the size it was asked with.
void giveBlock(void *block, std::size_t bytes) noexcept;

/// Heap blocks from this size up are kept for reuse.
inline constexpr std::size_t smallestKeptBlock = 4096;
/// How many bytes of heap blocks given back the process keeps at most until told otherwise.
inline constexpr std::size_t defaultKeptBlockBytes = std::size_t(16) << 20;
/// How many bytes of heap blocks given back the process keeps at most; what lies beyond goes
/// back to the heap at once.
void setKeptBlockBytes(std::size_t bytes) noexcept;
/// How many bytes of heap blocks are kept now.
std::size_t keptBlockBytes() noexcept;

/// `bytes` of zeroed memory aligned to 64, as `takeBlock`: a block given back before is
/// cleared, fresh pages are zero already. Raises `std::bad_alloc`.
void *allocateZeroed(std::size_t bytes);
/// Gives back a block of `allocateZeroed` with the size it was asked with; `unwritten` says
/// that nothing was written into it since, so that its next taker need not clear it.
void freeZeroed(void *block, std::size_t bytes, bool unwritten = false) noexcept;

} // namespace kivra::detail
