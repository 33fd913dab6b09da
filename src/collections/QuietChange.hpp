#pragma once
// Not API: a change of one collection whose far end is known to keep and tell nothing.

#include <kivra/Model.hpp>

#include <utility>

namespace kivra::detail {

/// While it stands, the collections of `model` that this thread changes skip asking the
/// model's transaction whether it keeps or tells anything: the caller asked once, for the
/// near end of an association, and the far end's change belongs to the same step.
class QuietChange {
public:
    explicit QuietChange(Model::Impl const *model) noexcept : outer_(std::exchange(active, model)) {}
    QuietChange(QuietChange const &) = delete;
    QuietChange &operator=(QuietChange const &) = delete;
    ~QuietChange() { active = outer_; }

    static bool covers(Model::Impl const *model) noexcept { return active == model; }

private:
    [[gnu::tls_model("initial-exec")]] static inline thread_local Model::Impl const *active = nullptr;
    Model::Impl const *outer_;
};

} // namespace kivra::detail
