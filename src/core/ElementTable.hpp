#pragma once
// Not API: the table of a model's live elements, found by UUID.

#include "core/PageMemory.hpp"
#include "core/UuidHash.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>

#include <absl/container/flat_hash_map.h>

#include <atomic>
#include <bit>
#include <mutex>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace kivra::detail {

/// An open-addressing set of raw element pointers, keyed by the element's UUID, in
/// chunks of one cache line: seven slots, their seven tag bytes (7 bits of the hash and a
/// mark of use) and a count of the entries that had to pass the chunk because it was
/// full. A probe reads one line in the common case and touches an element only when a tag
/// matches. A full chunk sends an entry on by an odd stride drawn from its tag, so that
/// runs do not pile up behind one another; the passing counts tell a search where to stop,
/// and an entry leaves by taking its own counts back, with nothing to move and no element
/// to read. At most 6/7 of the slots are used. The slot order, and with it iteration,
/// depends on nothing but the UUIDs and the sequence of operations.
///
/// An element whose UUID was just drawn at random, and so is no other's, can wait in a
/// backlog for its slot: a transaction that makes many elements then enters them all at
/// once, each asking for its chunk a few entries ahead, instead of waiting on a cache miss
/// per element. The model settles the backlog when its
/// transaction ends and when it freezes; any read settles what still waits first, under a
/// lock, so that readers of a frozen model (or of a constellation's other member, through
/// a proxy) on several threads settle it once and then only read.
class ElementSet {
public:
    using Element = ModelElement::Impl;
    ElementSet() = default;
    ElementSet(ElementSet const &) = delete;
    ElementSet &operator=(ElementSet const &) = delete;
    ~ElementSet() {
        release();
        dropBacklog();
    }

    std::size_t size() const noexcept {
        settleWaiting();
        return size_;
    }
    bool empty() const noexcept { return size() == 0; }

    /// How many elements ahead a walk asks for the element it will visit: slot order is
    /// random in memory, and the walk would otherwise wait for each element in turn.
    static constexpr std::size_t prefetchDistance = 8;

    /// The element with `uuid`, or null.
    Element *find(boost::uuids::uuid const &uuid) const noexcept {
        settleWaiting();
        if (size_ == 0)
            return nullptr;
        std::size_t const hash = uuidHash(uuid);
        std::uint8_t const tag = tagOf(hash);
        std::size_t const stride = strideOf(tag);
        // The odd stride visits every chunk once; saturated counts could otherwise send a
        // search round for ever.
        std::size_t c = hash & mask_;
        for (std::size_t visited = 0; visited <= mask_; ++visited, c = (c + stride) & mask_) {
            Chunk const &chunk = chunks_[c];
            for (std::uint64_t m = matches(chunk, tag); m; m &= m - 1)
                if (Element *candidate = chunk.slots[slotOf(m)]; candidate->getUuid() == uuid)
                    return candidate;
            if (chunk.passing == 0)
                break;
        }
        return nullptr;
    }

    /// Puts `element`, whose UUID was drawn at random for it and so is no other's, in the
    /// backlog. Raises `std::bad_alloc`, and nothing changes.
    void defer(Element *element) {
        // The table is sized for the backlog now, so that settling needs no memory: while
        // a model fills, the table is mostly empty and growing it moves little.
        std::size_t const waiting = backlogSize_.load(std::memory_order_relaxed);
        if ((size_ + waiting + 1) * 7 > capacity() * 6)
            grow();
        if (pieceUsed_ == pieceCapacity_)
            growBacklog();
        backlog_[pieceUsed_++] = {element, uuidHash(element->getUuid())};
        backlogSize_.store(waiting + 1, std::memory_order_relaxed);
    }

    /// Enters every element of the backlog and gives back its memory.
    void settle() noexcept;

    /// Enters `element`; false, and nothing changes, when its UUID is taken.
    bool insert(Element *element) {
        settle();
        if ((size_ + 1) * 7 > capacity() * 6)
            grow();
        // One walk both looks for a namesake and finds the first free slot: the path of a
        // search ends where nothing passed, and a free slot never lies beyond it.
        boost::uuids::uuid const &uuid = element->getUuid();
        std::size_t const hash = uuidHash(uuid);
        std::uint8_t const tag = tagOf(hash);
        std::size_t const stride = strideOf(tag);
        std::size_t const home = hash & mask_;
        Chunk *freeChunk = nullptr;
        int freeSlot = 0;
        std::size_t c = home;
        for (std::size_t visited = 0; visited <= mask_; ++visited, c = (c + stride) & mask_) {
            Chunk &chunk = chunks_[c];
            for (std::uint64_t m = matches(chunk, tag); m; m &= m - 1)
                if (chunk.slots[slotOf(m)]->getUuid() == uuid)
                    return false;
            if (!freeChunk)
                if (std::uint64_t const m = empties(chunk)) {
                    freeChunk = &chunk;
                    freeSlot = slotOf(m);
                }
            if (chunk.passing == 0)
                break;
        }
        written_ = true;
        if (!freeChunk) {
            place(element, hash);
        } else {
            freeChunk->tags[freeSlot] = tag;
            freeChunk->slots[freeSlot] = element;
            for (std::size_t p = home; &chunks_[p] != freeChunk; p = (p + stride) & mask_)
                if (chunks_[p].passing != saturated)
                    ++chunks_[p].passing;
        }
        ++size_;
        return true;
    }

    /// Takes out this very element (not a namesake); false when it is not in.
    bool erase(Element const *element) noexcept {
        settle();
        if (size_ == 0)
            return false;
        std::size_t const hash = uuidHash(element->getUuid());
        std::uint8_t const tag = tagOf(hash);
        std::size_t const stride = strideOf(tag);
        std::size_t const home = hash & mask_;
        std::size_t c = home;
        for (std::size_t visited = 0; visited <= mask_; ++visited, c = (c + stride) & mask_) {
            Chunk &chunk = chunks_[c];
            for (int i = 0; i < slotsPerChunk; ++i) {
                if (chunk.slots[i] != element || chunk.tags[i] == 0)
                    continue;
                chunk.tags[i] = 0;
                chunk.slots[i] = nullptr;
                // The chunks the entry passed count it no more.
                for (std::size_t p = home; p != c; p = (p + stride) & mask_)
                    if (chunks_[p].passing != saturated)
                        --chunks_[p].passing;
                --size_;
                return true;
            }
            if (chunk.passing == 0)
                break;
        }
        return false;
    }

    void clear() noexcept {
        release();
        chunks_ = nullptr;
        written_ = false;
        mask_ = size_ = 0;
        dropBacklog();
        backlogSize_.store(0, std::memory_order_relaxed);
    }

    /// The elements, moved to the front of the table's own memory, which the caller now
    /// owns and gives back with `freeZeroed(elements, bytes)`; the set is left empty. For a
    /// model that goes as a whole: it walks its elements once more in an order of its own,
    /// and a copy of a large table would cost fresh pages that the walk does not repay.
    struct Detached {
        Element **elements = nullptr;
        std::size_t count = 0;
        std::size_t bytes = 0;
    };
    Detached detach() noexcept {
        settle();
        Detached taken;
        if (!chunks_)
            return taken;
        taken.bytes = (mask_ + 1) * sizeof(Chunk);
        auto **const out = reinterpret_cast<Element **>(static_cast<void *>(chunks_));
        std::size_t filled = 0;
        // A chunk is read whole before anything is written: the entries written so far end
        // below the chunk's last word, but may reach its first ones.
        for (std::size_t c = 0; c <= mask_; ++c) {
            Chunk chunk;
            std::memcpy(static_cast<void *>(&chunk), &chunks_[c], sizeof chunk);
            for (int i = 0; i < slotsPerChunk; ++i)
                if (chunk.tags[i] != 0)
                    out[filled++] = chunk.slots[i];
        }
        taken.elements = out;
        taken.count = filled;
        chunks_ = nullptr;
        written_ = false;
        mask_ = size_ = 0;
        return taken;
    }

    /// Calls `f` with every element, in slot order; `f` must not change the set.
    template <class F> void forEach(F &&f) const {
        settleWaiting();
        if (size_ == 0)
            return;
        for (std::size_t c = 0; c <= mask_; ++c) {
            if (c + 1 <= mask_)
                for (int i = 0; i < slotsPerChunk; ++i)
                    if (chunks_[c + 1].tags[i] != 0)
                        __builtin_prefetch(chunks_[c + 1].slots[i]);
            Chunk const &chunk = chunks_[c];
            for (int i = 0; i < slotsPerChunk; ++i)
                if (chunk.tags[i] != 0)
                    f(chunk.slots[i]);
        }
    }

private:
    static constexpr int slotsPerChunk = 7;
    struct Waiting {
        Element *element;
        std::size_t hash;
    };
    static constexpr std::uint8_t saturated = 255;

    struct alignas(64) Chunk {
        std::uint8_t tags[slotsPerChunk] = {};
        /// Entries whose home lies before this chunk on their path and that passed it.
        std::uint8_t passing = 0;
        Element *slots[slotsPerChunk] = {};
    };
    static_assert(sizeof(Chunk) == 64);

    static std::uint8_t tagOf(std::size_t hash) noexcept { return std::uint8_t(0x80 | (hash >> 57)); }

    // The seven tags and the passing count read as one word, tested a byte at a time with
    // no loop: a byte of the result has its high bit set where the test holds.
    static constexpr std::uint64_t tagOnes = 0x0001010101010101ull;
    static constexpr std::uint64_t tagHighs = 0x0080808080808080ull;
    static_assert(std::endian::native == std::endian::little, "slot i is byte i of the tag word");
    static std::uint64_t tagWord(Chunk const &chunk) noexcept {
        std::uint64_t word;
        std::memcpy(&word, chunk.tags, sizeof word);
        return word;
    }
    static std::uint64_t zeroBytes(std::uint64_t word) noexcept { return (word - tagOnes) & ~word & tagHighs; }
    /// Slots whose tag may equal `tag`: a byte above an equal one can show falsely, so the
    /// caller compares UUIDs.
    static std::uint64_t matches(Chunk const &chunk, std::uint8_t tag) noexcept {
        return zeroBytes(tagWord(chunk) ^ (tagOnes * tag));
    }
    /// Free slots, exactly: a used tag has its high bit set, so no borrow can fake one.
    static std::uint64_t empties(Chunk const &chunk) noexcept { return zeroBytes(tagWord(chunk)); }
    static int slotOf(std::uint64_t mask) noexcept { return __builtin_ctzll(mask) / 8; }
    static std::size_t strideOf(std::uint8_t tag) noexcept { return 2 * std::size_t(tag) + 1; }
    std::size_t capacity() const noexcept { return chunks_ ? (mask_ + 1) * slotsPerChunk : 0; }

    void growBacklog();
    void dropBacklog() noexcept;
    /// A read's first step: a backlog left waiting is settled, once, whichever thread asks.
    void settleWaiting() const noexcept {
        if (backlogSize_.load(std::memory_order_acquire) != 0) [[unlikely]]
            const_cast<ElementSet *>(this)->settle();
    }

    /// Puts an element known to be absent into the first free slot of its path.
    void place(Element *element, std::size_t hash) noexcept {
        std::uint8_t const tag = tagOf(hash);
        std::size_t const stride = strideOf(tag);
        for (std::size_t c = hash & mask_;; c = (c + stride) & mask_) {
            Chunk &chunk = chunks_[c];
            if (std::uint64_t const m = empties(chunk)) {
                chunk.tags[slotOf(m)] = tag;
                chunk.slots[slotOf(m)] = element;
                return;
            }
            if (chunk.passing != saturated)
                ++chunk.passing;
        }
    }

    // Large tables come zeroed from the system in huge pages: every probe is a random
    // access, and small pages would cost a fault per 4 KiB as the table fills and a
    // translation miss on most probes once it is big.
    static Chunk *allocateChunks(std::size_t count) {
        return static_cast<Chunk *>(allocateZeroed(count * sizeof(Chunk)));
    }
    void release() noexcept {
        if (chunks_)
            freeZeroed(chunks_, (mask_ + 1) * sizeof(Chunk), !written_);
    }

    void grow() {
        std::size_t const newChunks = chunks_ ? 2 * (mask_ + 1) : 2;
        Chunk *const old = std::exchange(chunks_, allocateChunks(newChunks));
        std::size_t const oldChunks = old ? mask_ + 1 : 0;
        mask_ = newChunks - 1;
        struct Release {
            Chunk *chunks;
            std::size_t count;
            bool written;
            ~Release() {
                if (chunks)
                    freeZeroed(chunks, count * sizeof(Chunk), !written);
            }
        } const release{old, oldChunks, written_};
        written_ = size_ != 0;
        // A table that holds nothing yet is not read: its memory may never have been touched.
        for (std::size_t c = 0; size_ != 0 && c < oldChunks; ++c) {
            if (c + 1 < oldChunks)
                for (int i = 0; i < slotsPerChunk; ++i)
                    if (old[c + 1].tags[i] != 0)
                        __builtin_prefetch(old[c + 1].slots[i]);
            for (int i = 0; i < slotsPerChunk; ++i)
                if (old[c].tags[i] != 0)
                    place(old[c].slots[i], uuidHash(old[c].slots[i]->getUuid()));
        }
    }

    Chunk *chunks_ = nullptr;
    std::size_t mask_ = 0;
    /// Whether anything was written into `chunks_`: while a transaction fills a model, the
    /// table grows many times before its first entry, and a table never written goes back
    /// as zero, for the next to take without clearing it (or faulting in its pages).
    bool written_ = false;
    /// Elements in slots; those of the backlog are not counted.
    std::size_t size_ = 0;
    /// The backlog's piece being filled. The first piece is a kept run of one huge page
    /// when the process has one, else it comes from the heap and doubles up to half a huge
    /// page; beyond, full pieces stand in `fullPieces_` and each further one is a run.
    Waiting *backlog_ = nullptr;
    std::size_t pieceUsed_ = 0;
    std::size_t pieceCapacity_ = 0;
    std::vector<Waiting *> fullPieces_;
    /// Whether the first piece is a run rather than the heap's.
    bool firstPieceIsRun_ = false;
    /// Written by the writer as it defers, and set to 0 by the settling thread once every
    /// entry is in its slot.
    std::atomic<std::size_t> backlogSize_{0};
    std::mutex settling_;
};

/// The elements of a model. Whether an element is top level is a mark on the element
/// itself, which also says that the model holds a reference on it.
struct ElementTable {
    ElementSet elements;
    /// The ids that proxies stand for, beside the proxies: most elements are none.
    absl::flat_hash_map<ModelElement::Impl const *, std::unique_ptr<ProxyId>> proxyIds;
};

/// The way in to a model's elements for a reader that walks them all, such as a query's
/// scan: the walk takes no count on the elements it visits.
class ElementTableAccess {
public:
    static ElementSet const &elementsOf(Model::Impl const &model) noexcept { return model.table_->elements; }
};

} // namespace kivra::detail
