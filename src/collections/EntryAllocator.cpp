#include <kivra/detail/EntryAllocator.hpp>

#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"

#include <new>

namespace kivra::detail {

namespace {
bool pooled(Model::Impl *model, std::size_t bytes) noexcept { return model && bytes <= ElementPool::largestPooled; }
} // namespace

// The long arrays of a large model's lists come from the stock of blocks given back, as the
// model's table does: the heap would hand them to the system when they go and fault them in
// afresh for the next model.
void *allocateEntries(Model::Impl *model, std::size_t bytes) {
    if (pooled(model, bytes))
        return ModelMemory::allocate(model, bytes);
    return bytes >= smallestKeptBlock ? takeBlock(bytes) : ::operator new(bytes);
}

void freeEntries(Model::Impl *model, void *block, std::size_t bytes) noexcept {
    if (pooled(model, bytes))
        ModelMemory::giveBack(block, bytes);
    else if (bytes >= smallestKeptBlock)
        giveBlock(block, bytes);
    else
        ::operator delete(block, bytes);
}

} // namespace kivra::detail
