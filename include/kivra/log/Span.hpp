#pragma once
/// \file
/// Diagnostic spans: named scopes in a tree, through which the library logs.

#include <cstdint>
#include <memory>
#include <string>

namespace basalt::log {
template <class CharT> class basic_diagnostic_logger;
} // namespace basalt::log

namespace kivra::log {

/// A counted handle on a node of the tree of diagnostic scopes. Its name is the path
/// from its root; a line logged through it goes to the platform logger of its name,
/// and only when that logger has the line's event type enabled. May be empty.
///
/// Example:
/// \code
///   log::Span span = log::Span::create("kivra::cpp");
///   span->log(basalt::log::info, "Model created");
/// \endcode
class Span {
public:
    class Impl;

    Span() noexcept = default;
    /// Takes a reference on a non-null `impl`.
    explicit Span(Impl *impl) noexcept;
    Span(Span const &other) noexcept;
    Span(Span &&other) noexcept;
    Span &operator=(Span other) noexcept;
    ~Span();

    /// A root span of `name` with an empty domain and a logger of its own.
    static Span create(std::string const &name);
    /// A root span of `domain` and `name` with a logger of its own.
    static Span createWithDomain(std::string const &domain, std::string const &name);

    Impl *get() const noexcept { return impl_; }
    /// Unchecked: an empty span must not be dereferenced.
    Impl *operator->() const noexcept { return impl_; }
    explicit operator bool() const noexcept { return impl_ != nullptr; }
    bool operator!() const noexcept { return impl_ == nullptr; }
    friend bool operator==(Span const &a, Span const &b) noexcept { return a.impl_ == b.impl_; }

    void swap(Span &other) noexcept;
    /// Drops the reference.
    void reset() noexcept;
    /// Gives up the pointer without touching the count; the caller balances it.
    Impl *release() noexcept;

private:
    Impl *impl_ = nullptr;
};

/// The implementation behind a span. Its count is not atomic: a span belongs to one
/// thread at a time, like the model that owns it.
class Span::Impl {
public:
    virtual ~Impl() = default;
    /// Logs `message` at `type` when the logger has `type` enabled.
    virtual void log(std::uint32_t type, std::string const &message) = 0;
    /// A child scope named `name` + "::" + `childName`, with a logger of its own.
    virtual Span createChild(std::string const &childName) = 0;
    /// A new scope with this span's name, sharing its logger.
    virtual Span createChild() = 0;

    /// True when a line of `type` would be written.
    virtual bool isEnabled(std::uint32_t type) const = 0;
    virtual std::string const &getName() const = 0;
    virtual std::string const &getDomain() const = 0;

    void addRef() noexcept { ++refCount_; }
    void removeRef() noexcept;

private:
    std::uint32_t refCount_ = 0;
};

} // namespace kivra::log
