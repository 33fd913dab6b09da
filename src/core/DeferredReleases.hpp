#pragma once
// Not API: the references a model's collections let go of while the model goes.

#include <kivra/Model.hpp>
#include <kivra/ModelElement.hpp>

#include <cstddef>
#include <utility>

namespace kivra::detail {

/// While it stands, the collections of `model` that this thread frees hand their entries
/// over instead of dropping each reference as they go. An entry may lie anywhere in memory,
/// and a collection of a few entries cannot ask for them early enough to hide the misses;
/// a batch of them can. A full batch, and the rest when the batch goes, drops them in turn,
/// asking for each element some places ahead: nothing lives longer than the walk that
/// frees the collections.
class DeferredReleases {
public:
    explicit DeferredReleases(Model::Impl const *model) noexcept : model_(model), outer_(std::exchange(active, this)) {}
    DeferredReleases(DeferredReleases const &) = delete;
    DeferredReleases &operator=(DeferredReleases const &) = delete;
    ~DeferredReleases() {
        flush();
        active = outer_;
    }

    /// The batch that stands for `model` on this thread, or null: the collections of that
    /// model hand their entries to it with `take`.
    static DeferredReleases *forModel(Model::Impl const *model) noexcept {
        DeferredReleases *const batch = active;
        return batch && batch->model_ == model ? batch : nullptr;
    }

    /// Takes over the reference of `entry`.
    void take(ModelElement &entry) noexcept {
        if (!entry.get())
            return;
        if (count_ == capacity)
            flush();
        held_[count_++] = entry.release();
    }

    /// Drops every reference taken so far.
    void flush() noexcept {
        // An element freed here frees its collections, which drop their references at once.
        DeferredReleases *const self = std::exchange(active, nullptr);
        std::size_t const count = std::exchange(count_, 0);
        constexpr std::size_t ahead = 16;
        for (std::size_t i = 0; i < count && i < ahead; ++i)
            __builtin_prefetch(held_[i], 1);
        for (std::size_t i = 0; i < count; ++i) {
            if (i + ahead < count)
                __builtin_prefetch(held_[i + ahead], 1);
            held_[i]->removeRef();
        }
        active = self;
    }

private:
    static constexpr std::size_t capacity = 512;

    [[gnu::tls_model("initial-exec")]] static inline thread_local DeferredReleases *active = nullptr;
    Model::Impl const *model_;
    DeferredReleases *outer_;
    std::size_t count_ = 0;
    ModelElement::Impl *held_[capacity];
};

} // namespace kivra::detail
