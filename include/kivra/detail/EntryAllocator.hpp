#pragma once
/// \file
/// Not API: the allocator of the vectors behind a model element's sequences.

#include <kivra/Model.hpp>

#include <cstddef>
#include <type_traits>

namespace kivra::detail {

/// A block of `bytes` for the entries of a list that an element of `model` owns: from the
/// model's pool while small, else, and always without a model, from the heap.
void *allocateEntries(Model::Impl *model, std::size_t bytes);
/// Gives back a block of `allocateEntries` with the same model and size.
void freeEntries(Model::Impl *model, void *block, std::size_t bytes) noexcept;

/// Most lists of a model hold a few entries: a heap block each would cost them twice their
/// size and a call into the heap at both ends of their life. Blocks of the model's pool keep
/// the pool alive until they are given back, so a list may outlive its model. A copy of the
/// vector is the heap's; a vector moved from keeps its allocator's model with its blocks.
template <class T> class EntryAllocator {
public:
    using value_type = T;
    using propagate_on_container_copy_assignment = std::false_type;
    using propagate_on_container_move_assignment = std::false_type;
    using propagate_on_container_swap = std::false_type;
    using is_always_equal = std::false_type;

    EntryAllocator() noexcept = default;
    explicit EntryAllocator(Model::Impl *model) noexcept : model_(model) {}
    template <class U> EntryAllocator(EntryAllocator<U> const &other) noexcept : model_(other.model()) {}

    T *allocate(std::size_t n) { return static_cast<T *>(allocateEntries(model_, n * sizeof(T))); }
    void deallocate(T *block, std::size_t n) noexcept { freeEntries(model_, block, n * sizeof(T)); }
    EntryAllocator select_on_container_copy_construction() const noexcept { return EntryAllocator(); }

    Model::Impl *model() const noexcept { return model_; }
    template <class U> bool operator==(EntryAllocator<U> const &other) const noexcept { return model_ == other.model(); }

private:
    Model::Impl *model_ = nullptr;
};

} // namespace kivra::detail
