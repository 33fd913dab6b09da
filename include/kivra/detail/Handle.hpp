#pragma once
/// \file
/// Not API: the counted-pointer mechanics shared by every handle class.
///
/// A handle holds one pointer to an implementation derived from `ElementImpl` and one
/// counted reference on it. Every handle class (`Model`, `ModelConstellation`,
/// `ModelElement` and each generated metaclass handle `X`) is a thin layer over this:
/// - `X` derives from `HandleBase` (protected), or publicly from its superclass's handle,
///   and adds no data, so that a handle is always one pointer;
/// - `X::get()` and `X::operator->()` return `X::Impl *` without any check;
/// - conversion only goes up the class chain, never between unrelated handles.

#include <kivra/ElementImpl.hpp>

#include <utility>

namespace kivra::detail {

class HandleBase {
public:
    HandleBase() noexcept = default;
    HandleBase(HandleBase const &other) noexcept : impl_(other.impl_) {
        if (impl_)
            impl_->addRef();
    }
    HandleBase(HandleBase &&other) noexcept : impl_(std::exchange(other.impl_, nullptr)) {}
    HandleBase &operator=(HandleBase const &other) noexcept {
        // Take the new reference before dropping the old one: the object of `other`
        // may be kept alive only by this handle.
        if (other.impl_)
            other.impl_->addRef();
        if (ElementImpl *old = std::exchange(impl_, other.impl_))
            old->removeRef();
        return *this;
    }
    HandleBase &operator=(HandleBase &&other) noexcept {
        if (this != &other) {
            if (ElementImpl *old = std::exchange(impl_, std::exchange(other.impl_, nullptr)))
                old->removeRef();
        }
        return *this;
    }
    ~HandleBase() { reset(); }

    /// Nulls the handle, then drops its reference.
    void reset() noexcept {
        if (ElementImpl *old = std::exchange(impl_, nullptr))
            old->removeRef();
    }

    /// True for a non-null pointer whose object is not `Invalid` (a proxy is true).
    explicit operator bool() const noexcept { return impl_ && impl_->isValid(); }
    bool operator!() const noexcept { return !static_cast<bool>(*this); }

protected:
    HandleBase(ElementImpl *impl, bool addReference) noexcept : impl_(impl) {
        if (impl_ && addReference)
            impl_->addRef();
    }
    ElementImpl *rawImpl() const noexcept { return impl_; }
    void swapImpl(HandleBase &other) noexcept { std::swap(impl_, other.impl_); }
    /// Gives up the pointer without touching the count.
    ElementImpl *releaseImpl() noexcept { return std::exchange(impl_, nullptr); }

private:
    ElementImpl *impl_ = nullptr;
};

} // namespace kivra::detail
