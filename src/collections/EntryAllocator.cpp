#include <kivra/detail/EntryAllocator.hpp>

#include "core/ElementPool.hpp"

#include <new>

namespace kivra::detail {

namespace {
bool pooled(Model::Impl *model, std::size_t bytes) noexcept { return model && bytes <= ElementPool::largestPooled; }
} // namespace

void *allocateEntries(Model::Impl *model, std::size_t bytes) {
    return pooled(model, bytes) ? ModelMemory::allocate(model, bytes) : ::operator new(bytes);
}

void freeEntries(Model::Impl *model, void *block, std::size_t bytes) noexcept {
    if (pooled(model, bytes))
        ModelMemory::giveBack(block, bytes);
    else
        ::operator delete(block, bytes);
}

} // namespace kivra::detail
