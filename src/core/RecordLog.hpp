#pragma once
// Not API: the change records of one transaction, in the order of first touch, in storage
// that goes in one step.

#include <kivra/ChangeRecords.hpp>

#include <absl/container/flat_hash_map.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kivra::detail {

/// Bump allocation in blocks: records are made one after the other and freed together.
/// A log that has grown past a few heap blocks takes whole runs of huge pages: on a
/// virtual machine the first touch of each fresh page is the larger part of what a small
/// record costs.
class RecordArena {
public:
    RecordArena() = default;
    RecordArena(RecordArena const &) = delete;
    RecordArena &operator=(RecordArena const &) = delete;
    ~RecordArena();

    void *allocate(std::size_t size) {
        size = (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
        if (size > left_) [[unlikely]]
            grow(size);
        void *result = next_;
        next_ += size;
        left_ -= size;
        return result;
    }

    /// True for memory of the block in use: what a failed construction gives back.
    bool ownsRecent(void const *pointer) const noexcept {
        if (blocks_.empty())
            return false;
        auto const *start = static_cast<std::byte const *>(blocks_.back().memory);
        return pointer >= start && pointer < next_;
    }

private:
    struct Block {
        void *memory;
        std::size_t size;
    };
    static constexpr std::size_t heapBlock = 64 * 1024;
    /// Heap blocks a log takes before it takes runs of huge pages.
    static constexpr std::size_t heapBlocks = 8;
    void grow(std::size_t size);

    std::vector<Block> blocks_;
    std::byte *next_ = nullptr;
    std::size_t left_ = 0;
};

/// While one lives, change records made on this thread go into `arena`. Scopes nest: a
/// record's constructor arguments may build a metaclass, whose description makes records
/// of its own in between the record's allocation and its constructor.
class ArenaScope {
public:
    explicit ArenaScope(RecordArena &arena) noexcept;
    ~ArenaScope();
    ArenaScope(ArenaScope const &) = delete;
    ArenaScope &operator=(ArenaScope const &) = delete;

private:
    RecordArena *previous_;
    void const *previousRecord_;
};

/// The old bytes of one trivially copyable member of an element, kept in place of a whole
/// record while that member is all the transaction changed of the element: most changes in
/// a revertible transaction set one scalar, and a record shadows every member of the class.
struct ScalarChange {
    ModelElement element; ///< counted, as a record holds its element
    std::uint64_t old;
    std::uint64_t index;
    std::ptrdiff_t offset; ///< of the member from the element's `Impl`
    std::size_t size;

    void restore() const noexcept;
};

/// The records of one transaction, shared by the transaction and the reports made from
/// it. Records are kept in the order in which their elements were first touched; an
/// element's record is found through an index built when first asked for, which most
/// transactions never need: a change to an element without a record makes one at once.
///
/// An entry is a record or, with its lowest bit set, a `ScalarChange`. Whoever asks for
/// records (`records`, `find`) gets whole ones: the scalar entries are turned into records
/// then, which the transaction's own walks (`entries`) never need.
class RecordLog {
public:
    using Changes = ModelElement::Impl::Changes;
    RecordLog() = default;
    RecordLog(RecordLog const &) = delete;
    RecordLog &operator=(RecordLog const &) = delete;
    ~RecordLog();

    std::vector<Changes *> const &records() const {
        if (firstScalar_ != noScalar)
            const_cast<RecordLog *>(this)->materialize();
        return entries_;
    }
    /// Records and scalar entries as they stand.
    std::vector<Changes *> const &entries() const noexcept { return entries_; }
    static ScalarChange *scalarOf(Changes *entry) noexcept {
        auto const bits = reinterpret_cast<std::uintptr_t>(entry);
        return bits & 1 ? reinterpret_cast<ScalarChange *>(bits - 1) : nullptr;
    }
    bool empty() const noexcept { return entries_.empty(); }
    /// The record of this very element object, or null.
    Changes *find(ModelElement::Impl const *element) const;
    void append(Changes *record);
    /// Keeps the `size` bytes of `member`, a member of `element` that is about to change
    /// and that the transaction has no record of.
    void appendScalar(ModelElement::Impl *element, std::uint64_t index, void const *member, std::size_t size);
    /// Takes a record out and frees it.
    void erase(Changes *record) noexcept;
    /// Turns every scalar entry into a record of its element's class that holds the old
    /// value. Raises what making a record raises.
    void materialize();

    RecordArena arena;

private:
    static constexpr std::size_t noScalar = ~std::size_t(0);
    std::vector<Changes *> entries_;
    /// The first scalar entry not yet turned into a record.
    std::size_t firstScalar_ = noScalar;
    mutable absl::flat_hash_map<ModelElement::Impl const *, Changes *> index_;
    mutable bool indexed_ = false;
};

} // namespace kivra::detail
