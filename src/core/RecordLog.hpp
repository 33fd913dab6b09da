#pragma once
// Not API: the change records of one transaction, in the order of first touch, in storage
// that goes in one step.

#include <kivra/ChangeRecords.hpp>

#include <absl/container/flat_hash_map.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
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
/// Entries lie in chunks from the arena and are as small as they can be, so that a long
/// transaction touches little fresh memory and never copies what it has: on a virtual
/// machine the first touch of a page costs more than the rest of a small change. A record
/// takes one word. A scalar of up to 4 bytes of an element near the chunk's first one takes
/// one word too, its element a distance from that one; any other scalar takes two.
class RecordLog {
public:
    using Changes = ModelElement::Impl::Changes;

    /// A record, or an element whose member keeps its old bytes here.
    class Entry {
    public:
        bool isScalar() const noexcept { return !record_; }
        /// The record, or null for a scalar entry.
        Changes *record() const noexcept { return record_; }
        /// The element the entry is of: counted by the entry, as a record holds its element.
        ModelElement::Impl *element() const noexcept { return record_ ? record_->getElement().get() : element_; }

    private:
        friend class RecordLog;
        Changes *record_ = nullptr;
        ModelElement::Impl *element_ = nullptr;
        std::uint64_t old_ = 0;
        std::size_t shape_ = 0;
    };

    RecordLog() = default;
    RecordLog(RecordLog const &) = delete;
    RecordLog &operator=(RecordLog const &) = delete;
    ~RecordLog();

    /// Calls `visit(Entry const &)` for each entry, records and scalar ones as they stand,
    /// oldest first.
    template <class Visit> void forEach(Visit &&visit) const {
        Entry entry;
        for (Chunk const &chunk : chunks_)
            for (std::size_t at = 0; at < chunk.used;)
                if (chunk.slots[at] == 0)
                    ++at;
                else {
                    at += decode(chunk, at, entry);
                    visit(std::as_const(entry));
                }
    }
    /// As `forEach`, newest first.
    template <class Visit> void forEachReverse(Visit &&visit) const {
        Entry entry;
        std::uint16_t starts[largestChunk];
        for (std::size_t chunk = chunks_.size(); chunk-- > 0;) {
            Chunk const &in = chunks_[chunk];
            if (!in.hasLong) {
                for (std::size_t at = in.used; at-- > 0;)
                    if (in.slots[at] != 0) {
                        decode(in, at, entry);
                        visit(std::as_const(entry));
                    }
                continue;
            }
            std::size_t count = 0;
            for (std::size_t at = 0; at < in.used;)
                if (in.slots[at] == 0)
                    ++at;
                else {
                    starts[count++] = std::uint16_t(at);
                    at += slotsOf(in.slots[at]);
                }
            while (count-- > 0) {
                decode(in, starts[count], entry);
                visit(std::as_const(entry));
            }
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
    struct Chunk {
        std::uint64_t *slots;
        /// The element that the short scalar entries count their distance from; 0 before
        /// the first.
        std::uintptr_t base;
        std::uint32_t used;
        std::uint32_t capacity;
        /// Whether an entry of two words is among them: a walk back has to find where
        /// entries start.
        bool hasLong;
    };

    // A word whose two lowest bits are clear is a record, or zero where an entry was taken
    // out or a chunk's end was left unused. A short scalar entry holds the old bytes in its
    // upper half and, below them, the distance of its element from the chunk's base in
    // words and its shape. A long one holds its element with its shape in the bits above any
    // user address (below 2^48 on the systems this runs on), and the old bytes in the word
    // after it.
    static constexpr std::uint64_t tagBits = 3;
    static constexpr std::uint64_t shortTag = 1;
    static constexpr std::uint64_t longTag = 2;
    static constexpr unsigned shortShapeBits = 7;
    static constexpr unsigned distanceShift = 2 + shortShapeBits;
    /// Distances in words, signed, that a short entry holds.
    static constexpr std::intptr_t farthest = std::intptr_t(1) << (32 - distanceShift - 1);
    static constexpr unsigned shapeShift = 48;
    static constexpr std::uint64_t pointerBits = (std::uint64_t(1) << shapeShift) - 1;
    static constexpr std::size_t maxShapes = std::size_t(1) << (64 - shapeShift);
    /// The first chunk is small, for the many transactions of a change or two; later ones
    /// double up to a size that fills huge pages with little left over.
    static constexpr std::size_t firstChunk = 128;
    static constexpr std::size_t largestChunk = 4096;

    static std::size_t slotsOf(std::uint64_t word) noexcept { return (word & tagBits) == longTag ? 2 : 1; }
    /// Reads the entry at `at` of `chunk` into `entry`; gives the words it takes.
    static std::size_t decode(Chunk const &chunk, std::size_t at, Entry &entry) noexcept {
        std::uint64_t const word = chunk.slots[at];
        switch (word & tagBits) {
        case shortTag:
            entry.record_ = nullptr;
            entry.element_ = reinterpret_cast<ModelElement::Impl *>(
                chunk.base + std::uintptr_t(std::intptr_t(std::int32_t(std::uint32_t(word)) >> distanceShift) * 8));
            entry.shape_ = (word >> 2) & ((1u << shortShapeBits) - 1);
            entry.old_ = word >> 32;
            return 1;
        case longTag:
            entry.record_ = nullptr;
            entry.element_ = reinterpret_cast<ModelElement::Impl *>(word & pointerBits & ~tagBits);
            entry.shape_ = word >> shapeShift;
            entry.old_ = chunk.slots[at + 1];
            return 2;
        default:
            entry.record_ = reinterpret_cast<Changes *>(word);
            return 1;
        }
    }
    /// `count` words for a new entry at the end of the last chunk, after a new chunk where
    /// it has no room.
    std::uint64_t *take(std::size_t count) {
        if (chunks_.empty() || chunks_.back().used + count > chunks_.back().capacity) [[unlikely]]
            grow();
        Chunk &last = chunks_.back();
        std::uint64_t *const words = last.slots + last.used;
        last.used += std::uint32_t(count);
        ++count_;
        return words;
    }
    /// Starts a chunk.
    void grow();
    /// Notes the entry just taken as the first scalar one when there is none before.
    void noteScalar(std::size_t words) noexcept {
        if (hasScalars_)
            return;
        firstScalarChunk_ = chunks_.size() - 1;
        firstScalarWord_ = chunks_.back().used - words;
        hasScalars_ = true;
    }
    /// The number of `shape`, or `maxShapes` when there is no room for another.
    std::size_t shapeOf(Shape const &shape);

    std::vector<Chunk> chunks_;
    /// Entries in the log, those taken out not counted.
    std::size_t count_ = 0;
    /// The first entry that may be a scalar one, as a chunk and a word in it.
    std::size_t firstScalarChunk_ = 0;
    std::size_t firstScalarWord_ = 0;
    bool hasScalars_ = false;
    std::vector<Shape> shapes_;
    absl::flat_hash_map<Shape, std::uint16_t> shapeNumbers_;
    std::size_t lastShape_ = 0;
    mutable absl::flat_hash_map<ModelElement::Impl const *, Changes *> index_;
    mutable bool indexed_ = false;
};

} // namespace kivra::detail
