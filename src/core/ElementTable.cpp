#include "core/ElementTable.hpp"
#include "core/PageMemory.hpp"

#include <limits>
#include <mutex>
#include <new>
#include <utility>

namespace kivra::detail {

// Segments, as the index, come from the process's stock of blocks given back: a large model
// then neither faults in fresh pages for its list nor hands them to the system when it goes.
void ElementSet::addSegment() {
    std::size_t const s = segmentOf(end_);
    if (s == segments_.size()) {
        // Positions are 32 bits in the index; a model this large could not have been made.
        if (end_ >= std::numeric_limits<std::uint32_t>::max() - segmentLength(s))
            throw std::bad_alloc();
        segments_.reserve(s + 1);
        segments_.push_back(static_cast<Element **>(takeBlock(segmentLength(s) * sizeof(Element *))));
    }
    findTail();
}

void ElementSet::findHashTail() {
    std::size_t const s = segmentOf(end_);
    if (hashSegments_.size() <= s)
        hashSegments_.resize(s + 1);
    if (!hashSegments_[s]) {
        hashSegments_[s] = static_cast<std::size_t *>(takeBlock(segmentLength(s) * sizeof(std::size_t)));
    }
    hashTail_ = hashSegments_[s] + offsetOf(end_);
    hashRoom_ = tailRoom_;
}

void ElementSet::dropHashes() noexcept {
    for (std::size_t s = 0; s < hashSegments_.size(); ++s)
        if (hashSegments_[s])
            giveBlock(hashSegments_[s], segmentLength(s) * sizeof(std::size_t));
    hashSegments_.clear();
    hashTail_ = nullptr;
    hashRoom_ = noRoom;
}

void ElementSet::findTail() noexcept {
    hashRoom_ = noRoom;
    std::size_t const s = segmentOf(end_);
    if (s < segments_.size()) {
        tail_ = segments_[s] + offsetOf(end_);
        tailRoom_ = segmentLength(s) - offsetOf(end_);
    } else {
        tail_ = nullptr;
        tailRoom_ = 0;
    }
}

// Inlined: it is the whole of settling, once per element.
[[gnu::always_inline]] inline void ElementSet::place(std::uint32_t p, std::size_t hash) noexcept {
    std::uint8_t const tag = tagOf(hash);
    std::size_t const stride = strideOf(tag);
    for (std::size_t c = hash & mask_;; c = (c + stride) & mask_) {
        Chunk &chunk = chunks_[c];
        if (unsigned const m = empties(chunk)) {
            chunk.tags[slotOf(m)] = tag;
            chunk.positions[slotOf(m)] = p;
            return;
        }
        if (chunk.passing != saturated)
            ++chunk.passing;
    }
}

void ElementSet::placeRange(std::size_t first, std::size_t end) noexcept {
    // The elements lie mostly in order in memory, their chunks anywhere in the index: each
    // chunk is asked for a few entries before its entry is placed, so that the misses
    // overlap instead of coming one after the other.
    constexpr std::size_t ahead = 16;
    struct Pending {
        std::uint32_t position;
        std::size_t hash;
    } ring[ahead];
    std::size_t seen = 0;
    forRange(first, end, [&](std::size_t p, Element *const *cell, Element *const *) {
        std::size_t const hash = uuidHash((*cell)->getUuid());
        __builtin_prefetch(&chunks_[hash & mask_], 1);
        Pending &pending = ring[seen++ % ahead];
        if (seen > ahead)
            place(pending.position, pending.hash);
        pending = {static_cast<std::uint32_t>(p), hash};
    });
    for (std::size_t left = seen > ahead ? seen - ahead : 0; left < seen; ++left)
        place(ring[left % ahead].position, ring[left % ahead].hash);
}

void ElementSet::settle() noexcept {
    if (waiting_.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard const lock(settling_);
    std::size_t const count = waiting_.load(std::memory_order_relaxed);
    if (count == 0)
        return; // another reader settled it meanwhile
    // `defer` made room for every entry. Each asks for its chunk a few entries ahead, so
    // that the misses overlap instead of coming one after the other.
    written_ = true;
    constexpr std::size_t ahead = 16;
    for (std::size_t p = end_ - count; p < end_;) {
        std::size_t const s = segmentOf(p);
        std::size_t const first = offsetOf(p);
        std::size_t const length = std::min(segmentLength(s) - first, end_ - p);
        std::size_t const *const hashes = hashSegments_[s] + first;
        for (std::size_t i = 0; i < length; ++i) {
            if (i + ahead < length)
                __builtin_prefetch(&chunks_[hashes[i + ahead] & mask_], 1);
            place(static_cast<std::uint32_t>(p + i), hashes[i]);
        }
        p += length;
    }
    // A model keeps no memory for what waits between transactions.
    dropHashes();
    waiting_.store(0, std::memory_order_release);
}

bool ElementSet::insert(Element *element) {
    settle();
    if (needsGrowth(1))
        grow();
    if (tailRoom_ == 0)
        addSegment();
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
        for (unsigned m = matches(chunk, tag); m; m &= m - 1)
            if (at(chunk.positions[slotOf(m)])->getUuid() == uuid)
                return false;
        if (!freeChunk)
            if (unsigned const m = empties(chunk)) {
                freeChunk = &chunk;
                freeSlot = slotOf(m);
            }
        if (chunk.passing == 0)
            break;
    }
    written_ = true;
    auto const p = static_cast<std::uint32_t>(end_);
    *tail_++ = element;
    --tailRoom_;
    ++end_;
    hashRoom_ = noRoom;
    if (!freeChunk) {
        place(p, hash);
    } else {
        freeChunk->tags[freeSlot] = tag;
        freeChunk->positions[freeSlot] = p;
        for (std::size_t q = home; &chunks_[q] != freeChunk; q = (q + stride) & mask_)
            if (chunks_[q].passing != saturated)
                ++chunks_[q].passing;
    }
    return true;
}

bool ElementSet::erase(Element const *element) noexcept {
    // Undoing a creation takes the newest element, which may not have its slot yet: it
    // leaves the list without the index settling for it.
    if (std::size_t const waiting = waiting_.load(std::memory_order_relaxed); waiting != 0 && at(end_ - 1) == element) {
        --end_;
        findTail();
        waiting_.store(waiting - 1, std::memory_order_relaxed);
        // A transaction whose creations all went back leaves no hashes behind.
        if (waiting == 1)
            dropHashes();
        return true;
    }
    settle();
    if (size() == 0)
        return false;
    std::size_t const hash = uuidHash(element->getUuid());
    std::uint8_t const tag = tagOf(hash);
    std::size_t const stride = strideOf(tag);
    std::size_t const home = hash & mask_;
    std::size_t c = home;
    for (std::size_t visited = 0; visited <= mask_; ++visited, c = (c + stride) & mask_) {
        Chunk &chunk = chunks_[c];
        for (unsigned m = matches(chunk, tag); m; m &= m - 1) {
            int const slot = slotOf(m);
            std::uint32_t const p = chunk.positions[slot];
            if (at(p) != element)
                continue;
            chunk.tags[slot] = 0;
            chunk.positions[slot] = 0;
            // The chunks the entry passed count it no more.
            for (std::size_t q = home; q != c; q = (q + stride) & mask_)
                if (chunks_[q].passing != saturated)
                    --chunks_[q].passing;
            at(p) = nullptr;
            if (p + 1 == end_) {
                --end_;
                for (; end_ != 0 && !at(end_ - 1); --end_)
                    --holes_;
                findTail();
            } else {
                ++holes_;
            }
            // Many holes slow every walk down: once they outnumber the elements, and are
            // worth a pass, the list closes up.
            if (holes_ > 64 && holes_ > size())
                closeUp();
            return true;
        }
        if (chunk.passing == 0)
            break;
    }
    return false;
}

void ElementSet::closeUp() noexcept {
    std::size_t kept = 0;
    for (std::size_t p = 0; p < end_; ++p)
        if (Element *const element = at(p))
            at(kept++) = element;
    end_ = kept;
    holes_ = 0;
    // Segments past the end hold nothing: what a model no longer needs goes back.
    while (!segments_.empty() && segmentOf(end_) < segments_.size() - 1) {
        giveBlock(segments_.back(), segmentLength(segments_.size() - 1) * sizeof(Element *));
        segments_.pop_back();
    }
    findTail();
    // An index sized for a set that was once much larger would be cleared whole at every
    // close-up, for a few elements, and keep its memory: a smaller one, with room for the
    // set to grow fourfold, takes its place. Without memory for it, the old one serves.
    std::size_t fitting = mask_ + 1;
    while (fitting > 1 && 4 * size() * 8 <= (fitting / 2) * slotsPerChunk * 7)
        fitting /= 2;
    Chunk *fresh = nullptr;
    if (fitting * 8 <= mask_ + 1) {
        try {
            fresh = static_cast<Chunk *>(allocateZeroed(fitting * sizeof(Chunk)));
        } catch (std::bad_alloc const &) {
        }
    }
    if (fresh) {
        releaseIndex();
        chunks_ = fresh;
        mask_ = fitting - 1;
        written_ = size() != 0;
    } else {
        std::memset(static_cast<void *>(chunks_), 0, (mask_ + 1) * sizeof(Chunk));
    }
    placeRange(0, end_);
}

void ElementSet::grow() {
    std::size_t const count = chunks_ ? 2 * (mask_ + 1) : 1;
    // Large indexes come zeroed from the system in huge pages: every probe is a random
    // access, and small pages would cost a fault per 4 KiB as the index fills and a
    // translation miss on most probes once it is big.
    auto *const fresh = static_cast<Chunk *>(allocateZeroed(count * sizeof(Chunk)));
    releaseIndex();
    chunks_ = fresh;
    mask_ = count - 1;
    // An index that holds nothing yet is not written: its memory may never have been
    // touched. What waits is entered when it settles.
    std::size_t const waiting = waiting_.load(std::memory_order_relaxed);
    written_ = indexed() != 0;
    if (written_)
        placeRange(0, end_ - waiting);
}

void ElementSet::releaseIndex() noexcept {
    if (chunks_)
        freeZeroed(chunks_, (mask_ + 1) * sizeof(Chunk), !written_);
    chunks_ = nullptr;
    written_ = false;
    mask_ = 0;
}

void ElementSet::clear() noexcept {
    releaseIndex();
    for (std::size_t s = 0; s < segments_.size(); ++s)
        giveBlock(segments_[s], segmentLength(s) * sizeof(Element *));
    std::vector<Element **>().swap(segments_);
    end_ = holes_ = 0;
    tail_ = nullptr;
    tailRoom_ = 0;
    dropHashes();
    waiting_.store(0, std::memory_order_relaxed);
}

} // namespace kivra::detail
