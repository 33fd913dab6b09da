#pragma once
// Not API: a counted handle that borrows what it names for one call.

namespace kivra::detail {

/// A handle on an object that the caller holds, for one call, without touching its count:
/// on a large model the count's line is a miss, and its locked update waits for every store
/// before it. The callee takes a count of its own if it keeps the handle.
template <class Handle> class Uncounted : public Handle {
public:
    explicit Uncounted(typename Handle::Impl *impl) noexcept : Handle(impl, /*addReference=*/false) {}
    Uncounted(Uncounted const &) = delete;
    Uncounted &operator=(Uncounted const &) = delete;
    ~Uncounted() { this->releaseImpl(); }
};

} // namespace kivra::detail
