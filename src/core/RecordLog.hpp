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

/// The records of one transaction, shared by the transaction and the reports made from
/// it. Records are kept in the order in which their elements were first touched; an
/// element's record is found through an index built when first asked for, which most
/// transactions never need: a change to an element without a record makes one at once.
///
/// An entry is a record or the old bytes of one trivially copyable member of an element,
/// kept in place of a whole record while that member is all the transaction changed of
/// the element: most changes in a revertible transaction set one scalar, and a record
/// shadows every member of the class. Whoever asks for records (`forEachRecord`, `find`)
/// gets whole ones: the scalar entries are turned into records then, which the
/// transaction's own walks (`forEach`) never need.
///
/// Entries are 16 bytes in chunks from the arena, so that a long transaction touches as
/// little fresh memory as it can and never copies what it has: on a virtual machine the
/// first touch of a page costs more than the rest of a small change.
class RecordLog {
public:
    using Changes = ModelElement::Impl::Changes;

    /// A record, or an element whose member keeps its old bytes here.
    class Entry {
    public:
        bool isScalar() const noexcept { return tagged_ & scalarBit; }
        /// The record, or null for a scalar entry.
        Changes *record() const noexcept { return isScalar() ? nullptr : reinterpret_cast<Changes *>(tagged_); }
        /// The element the entry is of: counted by the entry, as a record holds its element.
        ModelElement::Impl *element() const noexcept {
            return isScalar() ? reinterpret_cast<ModelElement::Impl *>(tagged_ & pointerBits & ~scalarBit)
                              : record()->getElement().get();
        }

    private:
        friend class RecordLog;
        /// A record; or, with the lowest bit set, an element and the shape of its member in
        /// the bits above any user address; zero for an entry taken out.
        std::uintptr_t tagged_;
        std::uint64_t old_;
    };

    RecordLog() = default;
    RecordLog(RecordLog const &) = delete;
    RecordLog &operator=(RecordLog const &) = delete;
    ~RecordLog();

    /// Calls `visit(Entry const &)` for each entry, records and scalar ones as they stand,
    /// oldest first.
    template <class Visit> void forEach(Visit &&visit) const {
        for (std::size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
            Entry const *const entries = chunks_[chunk];
            std::size_t const count = chunk + 1 == chunks_.size() ? used_ : capacityOf(chunk);
            for (std::size_t i = 0; i < count; ++i)
                if (entries[i].tagged_)
                    visit(entries[i]);
        }
    }
    /// As `forEach`, newest first.
    template <class Visit> void forEachReverse(Visit &&visit) const {
        for (std::size_t chunk = chunks_.size(); chunk-- > 0;) {
            Entry const *const entries = chunks_[chunk];
            for (std::size_t i = chunk + 1 == chunks_.size() ? used_ : capacityOf(chunk); i-- > 0;)
                if (entries[i].tagged_)
                    visit(entries[i]);
        }
    }
    /// Calls `visit(Changes *)` for each record, oldest first, after turning the scalar
    /// entries into records. Raises what making a record raises.
    template <class Visit> void forEachRecord(Visit &&visit) const {
        if (hasScalars_)
            const_cast<RecordLog *>(this)->materialize();
        forEach([&](Entry const &entry) { visit(entry.record()); });
    }
    bool empty() const noexcept { return count_ == 0; }
    /// The record of this very element object, or null.
    Changes *find(ModelElement::Impl const *element) const;
    void append(Changes *record);
    /// Keeps the `size` bytes of `member`, a member of `element` that is about to change
    /// and that the transaction has no record of. False, and nothing kept, where the entry
    /// cannot say which member it is of: the element then needs a whole record.
    bool appendScalar(ModelElement::Impl *element, std::uint64_t index, void const *member, std::size_t size);
    /// Puts the old bytes of a scalar entry back into its element's member.
    void restore(Entry const &entry) const noexcept;
    /// Takes a record out and frees it.
    void erase(Changes *record) noexcept;
    /// Turns every scalar entry into a record of its element's class that holds the old
    /// value. Raises what making a record raises.
    void materialize();

    RecordArena arena;

private:
    /// Which member of its element a scalar entry keeps, and its property index.
    struct Shape {
        std::uint64_t index;
        std::ptrdiff_t offset; ///< of the member from the element's `Impl`
        std::size_t size;
        bool operator==(Shape const &) const = default;
        template <class H> friend H AbslHashValue(H hash, Shape const &shape) {
            return H::combine(std::move(hash), shape.index, shape.offset, shape.size);
        }
    };
    static constexpr std::uintptr_t scalarBit = 1;
    /// User addresses lie below 2^48 on the systems this runs on; the bits above hold
    /// the shape of a scalar entry.
    static constexpr unsigned shapeShift = 48;
    static constexpr std::uintptr_t pointerBits = (std::uintptr_t(1) << shapeShift) - 1;
    static constexpr std::size_t maxShapes = std::size_t(1) << (64 - shapeShift);
    /// The first chunk is small, for the many transactions of a change or two; later ones
    /// double up to a size that fills huge pages with little left over.
    static constexpr std::size_t firstChunk = 64;
    static constexpr std::size_t largestChunk = 2048;
    static std::size_t capacityOf(std::size_t chunk) noexcept {
        return chunk < 5 ? firstChunk << chunk : largestChunk;
    }
    Entry &push();
    void grow();
    /// The number of `shape`, or `maxShapes` when there is no room for another.
    std::size_t shapeOf(Shape const &shape);

    std::vector<Entry *> chunks_;
    /// Entries used in the last chunk.
    std::size_t used_ = 0;
    /// Entries in the log, those taken out not counted.
    std::size_t count_ = 0;
    /// The first entry that may be a scalar one, as a chunk and an entry in it.
    std::size_t firstScalarChunk_ = 0;
    std::size_t firstScalarEntry_ = 0;
    bool hasScalars_ = false;
    std::vector<Shape> shapes_;
    absl::flat_hash_map<Shape, std::uint16_t> shapeNumbers_;
    std::size_t lastShape_ = 0;
    mutable absl::flat_hash_map<ModelElement::Impl const *, Changes *> index_;
    mutable bool indexed_ = false;
};

} // namespace kivra::detail
