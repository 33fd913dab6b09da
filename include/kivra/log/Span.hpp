#pragma once
/// \file
/// Diagnostic spans: named scopes in a tree, through which the library logs.

#include <kivra/Handles.hpp>
#include <kivra/Messages.hpp>

#include <basalt/ustring.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace basalt::log {
template <class CharT> class basic_diagnostic_logger;
} // namespace basalt::log

namespace kivra {
class Value;
namespace io {
class DisplaySummaryMap;
} // namespace io
} // namespace kivra

namespace kivra::log {

class SpanCreator;

/// A counted handle on a node of the tree of diagnostic scopes. Its name is the path from
/// its root; its contexts are name and value pairs; a line logged through it is a
/// document of the line's text and the contexts of the span and all its ancestors. Nothing
/// is computed unless the logger has the line's event type enabled. May be empty.
///
/// Example:
/// \code
///   log::Span span = log::Span::create("kivra::cpp");
///   span->addContext(basalt::log::error, "file-name", "notes.json");
///   span->log(basalt::log::error, "kivra:io:FileNotFound");
/// \endcode
class Span {
public:
    class Impl;
    class DisplaySummaryImpl;

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
/// thread at a time, like the model that owns it. Every operation tests the logger's mask
/// first, so that a disabled event type costs neither a string nor a value.
class Span::Impl {
public:
    /// A context computed now, once, when `type` is enabled.
    virtual void addContext(std::uint32_t type, std::string const &name, std::function<Value()> const &value) = 0;
    virtual void addContext(std::uint32_t type, std::string const &name, ModelElement const &element) = 0;
    /// A text context, kept as a `StdString` value.
    virtual void addContext(std::uint32_t type, std::string const &name, char const *text) = 0;
    virtual void addContext(std::uint32_t type, std::string const &name, Value const &value) = 0;
    virtual ~Impl() = default;
    /// A context computed when a line is written, so that it shows the state of then.
    virtual void addDynamicContext(std::uint32_t type, std::string const &name,
                                   std::function<ModelElement()> const &element) = 0;
    virtual void addDynamicContext(std::uint32_t type, std::string const &name,
                                   std::function<Value()> const &value) = 0;
    /// Writes a line of `message` when `type` is enabled.
    virtual void log(std::uint32_t type, std::string const &message) = 0;
    /// A child named `name` + "::" + `childName`, with a logger of its own.
    virtual Span createChild(std::string const &childName) = 0;
    /// A new scope with this span's name, sharing its logger.
    virtual Span createChild() = 0;
    /// A factory of children named `childName` that share one logger, made once.
    virtual std::unique_ptr<SpanCreator> getChildFactory(std::string const &childName) = 0;

    void addRef() noexcept { ++refCount_; }
    void removeRef() noexcept;

private:
    std::uint32_t refCount_ = 0;
};

/// The span of the library: its contexts live in a display summary map of its format,
/// made at the first enabled event, and its lines go to a platform logger of its name.
class Span::DisplaySummaryImpl final : public Span::Impl {
public:
    using Logger = basalt::log::basic_diagnostic_logger<char>;

    /// A span with a logger of `name` and an empty domain.
    DisplaySummaryImpl(Span parent, std::string name, basalt::ustring format);
    /// A span with a logger of `domain` and `name`.
    DisplaySummaryImpl(Span parent, std::string domain, std::string name, basalt::ustring format);
    /// A span sharing `logger`.
    DisplaySummaryImpl(Span parent, std::string domain, std::string name, std::shared_ptr<Logger> logger,
                       basalt::ustring format);
    ~DisplaySummaryImpl() override;

    void addContext(std::uint32_t type, std::string const &name, std::function<Value()> const &value) override;
    void addContext(std::uint32_t type, std::string const &name, ModelElement const &element) override;
    void addContext(std::uint32_t type, std::string const &name, char const *text) override;
    void addContext(std::uint32_t type, std::string const &name, Value const &value) override;
    void addDynamicContext(std::uint32_t type, std::string const &name,
                           std::function<ModelElement()> const &element) override;
    void addDynamicContext(std::uint32_t type, std::string const &name, std::function<Value()> const &value) override;
    void log(std::uint32_t type, std::string const &message) override;
    Span createChild(std::string const &childName) override;
    Span createChild() override;
    std::unique_ptr<SpanCreator> getChildFactory(std::string const &childName) override;

    /// The map of this span's contexts, made on first use.
    io::DisplaySummaryMap &getDisplaySummaryMap();
    std::string const &getName() const noexcept { return name_; }
    std::string const &getDomain() const noexcept { return domain_; }
    std::shared_ptr<Logger> const &getLogger() const noexcept { return logger_; }
    /// True when a line of `type` would be written.
    bool isEnabled(std::uint32_t type) const noexcept;

private:
    std::unique_ptr<io::DisplaySummaryMap> map_;
    basalt::ustring format_;
    std::shared_ptr<Logger> logger_;
    std::string name_;
    std::string domain_;
    Span parent_;
};

/// Makes spans of one kind on request.
class SpanCreator {
public:
    virtual ~SpanCreator() = default;
    virtual Span createSpan() const = 0;
};

/// Makes children of one span with one name, all sharing one logger.
class DisplaySummaryImplSpanCreator final : public SpanCreator {
public:
    DisplaySummaryImplSpanCreator(Span parent, std::string const &childName);
    Span createSpan() const override;

private:
    Span parent_;
    std::string name_;
    std::string domain_;
    std::shared_ptr<Span::DisplaySummaryImpl::Logger> logger_;
};

namespace detail {
void logBeforeRaise(Span const &span, std::string const &errorText, basalt::except::IMsgIDException const &error);
} // namespace detail

/// The library's way of failing where a span is at hand: records "error-message" (when
/// `errorText` is not empty) and "exception-message" in `span`, logs the message identity
/// at the error event type, and raises `Error<M>` built from `arguments`.
template <class M, class... Arguments>
[[noreturn]] void raise(Span const &span, std::string const &errorText, Arguments const &...arguments) {
    Error<M> error{M(arguments...)};
    if (span)
        detail::logBeforeRaise(span, errorText, error);
    throw error;
}

} // namespace kivra::log
