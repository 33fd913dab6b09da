#pragma once
// Not API: the table of a model's live elements, found by UUID.

#include "core/PageMemory.hpp"
#include "core/UuidHash.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>

#include <absl/container/flat_hash_map.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <atomic>
#include <bit>
#include <mutex>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace kivra::detail {

/// The live elements of a model, in the order they were entered, and an index to find them
/// by UUID.
///
/// The elements stand in a list in segments, each position written once: an element that
/// leaves leaves a hole, and when holes are the greater part the list closes up, keeping
/// its order. A walk so meets the elements in the order they were made, which is the order
/// of their memory as the model's pools hand it out: a scan streams instead of jumping at
/// random, and two runs of the same operations walk alike.
///
/// The index is an open-addressing table of positions in the list, in chunks of one cache
/// line: twelve slots, their tag bytes (7 bits of the hash and a mark of use) and a count
/// of the entries that had to pass the chunk because it was full. A probe reads one line in
/// the common case, and the list and an element only when a tag matches. A full chunk
/// sends an entry on by an odd stride drawn from its tag, so that runs do not pile up
/// behind one another; the passing counts tell a search where to stop, and an entry leaves
/// by taking its own counts back, with nothing to move. At most 7/8 of the slots are used.
///
/// An element whose UUID was just drawn at random, and so is no other's, joins the list at
/// once but waits for its slot in the index: a transaction that makes many elements then
/// enters them all at once, each asking for its chunk a few entries ahead, instead of
/// waiting on a cache miss per element. The model settles what waits when its transaction
/// ends and when it freezes; a search settles it first, under a lock, so that readers of a
/// frozen model (or of a constellation's other member, through a proxy) on several threads
/// settle it once and then only read. Walks and counts need no index.
class ElementSet {
public:
    using Element = ModelElement::Impl;
    ElementSet() = default;
    ElementSet(ElementSet const &) = delete;
    ElementSet &operator=(ElementSet const &) = delete;
    ~ElementSet() { clear(); }

    std::size_t size() const noexcept { return end_ - holes_; }
    bool empty() const noexcept { return size() == 0; }

    /// How many elements ahead a walk asks for the element it will visit: neighbours in
    /// the list mostly lie side by side in memory, but not always.
    static constexpr std::size_t prefetchDistance = 8;

    /// The element with `uuid`, or null.
    Element *find(boost::uuids::uuid const &uuid) const noexcept {
        settleWaiting();
        if (indexed() == 0)
            return nullptr;
        std::size_t const hash = uuidHash(uuid);
        std::uint8_t const tag = tagOf(hash);
        std::size_t const stride = strideOf(tag);
        // The odd stride visits every chunk once; saturated counts could otherwise send a
        // search round for ever.
        std::size_t c = hash & mask_;
        for (std::size_t visited = 0; visited <= mask_; ++visited, c = (c + stride) & mask_) {
            Chunk const &chunk = chunks_[c];
            for (unsigned m = matches(chunk, tag); m; m &= m - 1)
                if (Element *candidate = at(chunk.positions[slotOf(m)]); candidate->getUuid() == uuid)
                    return candidate;
            if (chunk.passing == 0)
                break;
        }
        return nullptr;
    }

    /// Puts `element`, whose UUID was drawn at random for it and so is no other's, at the
    /// end of the list, to wait for its slot in the index. Raises `std::bad_alloc`, and
    /// nothing changes.
    void defer(Element *element) {
        // The index is sized for what waits now, so that settling needs no memory: while a
        // model fills, the index is mostly empty and growing it moves little.
        std::size_t const waiting = waiting_.load(std::memory_order_relaxed);
        if (needsGrowth(1))
            grow();
        if (tailRoom_ == 0) [[unlikely]]
            addSegment();
        // Its hash waits beside it: settling then reads no element, whose line is long
        // gone from the cache in a large transaction.
        if (hashRoom_ != tailRoom_) [[unlikely]]
            findHashTail();
        *hashTail_++ = uuidHash(element->getUuid());
        --hashRoom_;
        *tail_++ = element;
        --tailRoom_;
        ++end_;
        waiting_.store(waiting + 1, std::memory_order_relaxed);
    }

    /// Enters every waiting element in the index.
    void settle() noexcept;

    /// Enters `element`; false, and nothing changes, when its UUID is taken.
    bool insert(Element *element);

    /// Takes out this very element (not a namesake); false when it is not in.
    bool erase(Element const *element) noexcept;

    void clear() noexcept;

    /// Calls `f` with every element, in the list's order; `f` must not change the set.
    template <class F> void forEach(F &&f) const {
        forRange(0, end_, [&f](std::size_t, Element *const *at, Element *const *stop) {
            if (at + prefetchDistance < stop)
                __builtin_prefetch(at[prefetchDistance]);
            f(*at);
        });
    }

private:
    static constexpr int slotsPerChunk = 12;
    static constexpr unsigned slotBits = (1u << slotsPerChunk) - 1;
    static constexpr std::uint8_t saturated = 255;

    struct alignas(64) Chunk {
        std::uint8_t tags[slotsPerChunk] = {};
        /// Entries whose home lies before this chunk on their path and that passed it.
        std::uint8_t passing = 0;
        std::uint8_t unused[3] = {};
        std::uint32_t positions[slotsPerChunk] = {};
    };
    static_assert(sizeof(Chunk) == 64);

    // The list's first segment holds 16 positions and each next one twice as many up to
    // 2^12; then every one holds 2^12 up to position 2^18, and from there on a huge page
    // of them. A small model wastes little, a large one takes its list from the page stock,
    // and a position is found with two reads.
    static constexpr unsigned firstSegmentBits = 4;
    static constexpr unsigned segmentBits = 12;
    static constexpr unsigned hugeSegmentBits = 18;
    static_assert((std::size_t(1) << hugeSegmentBits) * sizeof(Element *) == hugePageSize);
    /// Segments before position 2^12, and before position 2^18.
    static constexpr std::size_t doublingSegments = segmentBits - firstSegmentBits + 1;
    static constexpr std::size_t steadySegments =
        doublingSegments + (std::size_t(1) << (hugeSegmentBits - segmentBits)) - 1;
    static std::size_t segmentLength(std::size_t s) noexcept {
        if (s == 0)
            return std::size_t(1) << firstSegmentBits;
        if (s < doublingSegments)
            return std::size_t(1) << (s + firstSegmentBits - 1);
        return std::size_t(1) << (s < steadySegments ? segmentBits : hugeSegmentBits);
    }
    static std::size_t segmentOf(std::size_t p) noexcept {
        if (p < (std::size_t(1) << firstSegmentBits))
            return 0;
        if (p < (std::size_t(1) << segmentBits))
            return std::size_t(std::bit_width(p)) - firstSegmentBits;
        if (p < (std::size_t(1) << hugeSegmentBits))
            return doublingSegments - 1 + (p >> segmentBits);
        return steadySegments - 1 + (p >> hugeSegmentBits);
    }
    static std::size_t offsetOf(std::size_t p) noexcept {
        if (p < (std::size_t(1) << firstSegmentBits))
            return p;
        if (p < (std::size_t(1) << segmentBits))
            return p ^ std::bit_floor(p);
        if (p < (std::size_t(1) << hugeSegmentBits))
            return p & ((std::size_t(1) << segmentBits) - 1);
        return p & ((std::size_t(1) << hugeSegmentBits) - 1);
    }
    Element *&at(std::size_t p) const noexcept { return segments_[segmentOf(p)][offsetOf(p)]; }
    /// Calls `f(position, cell, end of the cells walked in its segment)` for every cell of
    /// [first, end) that holds an element.
    template <class F> void forRange(std::size_t first, std::size_t end, F &&f) const {
        for (std::size_t p = first; p < end;) {
            std::size_t const s = segmentOf(p);
            Element *const *const segment = segments_[s];
            Element *const *cell = segment + offsetOf(p);
            Element *const *const stop = cell + std::min(end - p, segmentLength(s) - offsetOf(p));
            for (; cell != stop; ++cell, ++p)
                if (*cell)
                    f(p, cell, stop);
        }
    }

    static std::uint8_t tagOf(std::size_t hash) noexcept { return std::uint8_t(0x80 | (hash >> 57)); }
    static std::size_t strideOf(std::uint8_t tag) noexcept { return 2 * std::size_t(tag) + 1; }
    static int slotOf(unsigned mask) noexcept { return std::countr_zero(mask); }

    /// Slots whose tag equals `tag`, one bit each.
    static unsigned matches(Chunk const &chunk, std::uint8_t tag) noexcept {
#if defined(__SSE2__)
        __m128i const tags = _mm_load_si128(reinterpret_cast<__m128i const *>(chunk.tags));
        return unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(tags, _mm_set1_epi8(char(tag))))) & slotBits;
#else
        unsigned mask = 0;
        for (int i = 0; i < slotsPerChunk; ++i)
            mask |= unsigned(chunk.tags[i] == tag) << i;
        return mask;
#endif
    }
    /// Free slots: a used tag has its high bit set and is never zero.
    static unsigned empties(Chunk const &chunk) noexcept { return matches(chunk, 0); }

    std::size_t capacity() const noexcept { return chunks_ ? (mask_ + 1) * slotsPerChunk : 0; }
    /// Whether the index must grow before `more` entries join the list, whose elements it
    /// holds or awaits.
    bool needsGrowth(std::size_t more) const noexcept { return (size() + more) * 8 > capacity() * 7; }
    /// Elements that have their slot in the index.
    std::size_t indexed() const noexcept { return size() - waiting_.load(std::memory_order_relaxed); }

    /// A read's first step: what was left waiting is settled, once, whichever thread asks.
    void settleWaiting() const noexcept {
        if (waiting_.load(std::memory_order_acquire) != 0) [[unlikely]]
            const_cast<ElementSet *>(this)->settle();
    }

    /// Makes room at the end of the list: the next segment, made when there is none.
    void addSegment();
    /// Points `tail_` at the end of the list after the end moved.
    void findTail() noexcept;
    /// Points `hashTail_` beside `tail_`, making its segment when there is none.
    void findHashTail();
    void dropHashes() noexcept;
    /// Closes the list up over its holes, in order, and enters every element afresh.
    void closeUp() noexcept;
    void grow();
    /// Enters the element at position `p`, whose hash is `hash` and which is not in the index.
    void place(std::uint32_t p, std::size_t hash) noexcept;
    /// Enters the elements at positions [first, end) that are not holes.
    void placeRange(std::size_t first, std::size_t end) noexcept;
    void releaseIndex() noexcept;

    Chunk *chunks_ = nullptr;
    std::size_t mask_ = 0;
    /// Whether anything was written into `chunks_`: while a transaction fills a model, the
    /// index grows many times before its first entry, and an index never written goes back
    /// as zero, for the next to take without clearing it (or faulting in its pages).
    bool written_ = false;
    std::vector<Element **> segments_;
    /// Positions used, holes included.
    std::size_t end_ = 0;
    /// The cell of position `end_`, and how many cells its segment has from there on.
    Element **tail_ = nullptr;
    std::size_t tailRoom_ = 0;
    /// The hashes of the waiting elements, in segments beside the list's: made as elements
    /// wait, dropped once they are settled.
    std::vector<std::size_t *> hashSegments_;
    /// The hash cell beside `tail_` while `hashRoom_` equals `tailRoom_`; any other value
    /// says that it must be found again.
    std::size_t *hashTail_ = nullptr;
    std::size_t hashRoom_ = noRoom;
    static constexpr std::size_t noRoom = ~std::size_t{0};
    std::size_t holes_ = 0;
    /// How many elements at the end of the list wait for their slot. Written by the writer
    /// as it defers, and set to 0 by the settling thread once every one is in.
    std::atomic<std::size_t> waiting_{0};
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
