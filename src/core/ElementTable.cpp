#include "core/ElementTable.hpp"
#include "core/PageMemory.hpp"

#include <cstdlib>

#include <mutex>
#include <new>
#include <utility>

namespace kivra::detail {

namespace {
constexpr std::size_t firstPieceLimit = hugePageSize / 2;
} // namespace

void ElementSet::growBacklog() {
    // A run that a model gave back is in memory already: the first piece then costs neither
    // the faults of fresh heap pages nor the copies of growing, and it goes back at the end
    // of the transaction, before anything measures the model.
    if (!backlog_) {
        if (void *const kept = takeKeptHugePageRun()) {
            backlog_ = static_cast<Waiting *>(kept);
            firstPieceIsRun_ = true;
            pieceCapacity_ = hugePageSize / sizeof(Waiting);
            return;
        }
    }
    if (!firstPieceIsRun_ && pieceCapacity_ * sizeof(Waiting) < firstPieceLimit) {
        std::size_t const capacity = pieceCapacity_ != 0 ? 2 * pieceCapacity_ : 256;
        auto *const grown = static_cast<Waiting *>(std::realloc(backlog_, capacity * sizeof(Waiting)));
        if (grown == nullptr)
            throw std::bad_alloc();
        backlog_ = grown;
        pieceCapacity_ = capacity;
        return;
    }
    fullPieces_.reserve(fullPieces_.size() + 1);
    auto *const run = static_cast<Waiting *>(takeHugePageRun());
    fullPieces_.push_back(std::exchange(backlog_, run));
    pieceUsed_ = 0;
    pieceCapacity_ = hugePageSize / sizeof(Waiting);
}

void ElementSet::dropBacklog() noexcept {
    // The first piece may be the heap's; every later one is a run.
    Waiting *const first = fullPieces_.empty() ? backlog_ : fullPieces_.front();
    for (Waiting *piece : fullPieces_)
        if (piece != first)
            giveHugePageRun(piece);
    if (backlog_ != first)
        giveHugePageRun(backlog_);
    if (firstPieceIsRun_)
        giveHugePageRun(first);
    else
        std::free(first);
    std::vector<Waiting *>().swap(fullPieces_);
    backlog_ = nullptr;
    pieceUsed_ = pieceCapacity_ = 0;
    firstPieceIsRun_ = false;
}

void ElementSet::settle() noexcept {
    if (backlogSize_.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard const lock(settling_);
    std::size_t const count = backlogSize_.load(std::memory_order_relaxed);
    if (count == 0)
        return; // another reader settled it meanwhile
    // The entries fall anywhere in the table: each asks for its chunk a few entries ahead,
    // so that the misses overlap instead of coming one after the other. `defer` made room
    // for every entry.
    constexpr std::size_t ahead = 16;
    auto const enter = [this](Waiting const *piece, std::size_t used) {
        for (std::size_t i = 0; i < used; ++i) {
            if (i + ahead < used)
                __builtin_prefetch(&chunks_[piece[i + ahead].hash & mask_], 1);
            place(piece[i].element, piece[i].hash);
        }
    };
    written_ = true;
    std::size_t const firstCapacity = (firstPieceIsRun_ ? hugePageSize : firstPieceLimit) / sizeof(Waiting);
    for (std::size_t p = 0; p < fullPieces_.size(); ++p)
        enter(fullPieces_[p], p == 0 ? firstCapacity : hugePageSize / sizeof(Waiting));
    enter(backlog_, pieceUsed_);
    size_ += count;
    // A model keeps no memory for the backlog between transactions.
    dropBacklog();
    backlogSize_.store(0, std::memory_order_release);
}

} // namespace kivra::detail
