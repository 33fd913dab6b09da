#include <kivra/log/Span.hpp>

#include <basalt/log/DiagnosticLogger.hpp>

#include <utility>

namespace kivra::log {

namespace {

using Logger = basalt::log::basic_diagnostic_logger<char>;

/// A span that writes its lines to the platform logger of its name.
class LoggerSpan final : public Span::Impl {
public:
    LoggerSpan(Span parent, std::string domain, std::string name, std::shared_ptr<Logger> logger)
        : parent_(std::move(parent)), domain_(std::move(domain)), name_(std::move(name)), logger_(std::move(logger)) {}

    void log(std::uint32_t type, std::string const &message) override {
        if (logger_->is_enabled(type))
            logger_->write(type, message);
    }
    Span createChild(std::string const &childName) override {
        std::string full = name_ + "::" + childName;
        auto logger = domain_.empty() ? std::make_shared<Logger>(full) : std::make_shared<Logger>(domain_, full);
        return Span(new LoggerSpan(Span(this), domain_, std::move(full), std::move(logger)));
    }
    Span createChild() override { return Span(new LoggerSpan(Span(this), domain_, name_, logger_)); }
    bool isEnabled(std::uint32_t type) const override { return logger_->is_enabled(type); }
    std::string const &getName() const override { return name_; }
    std::string const &getDomain() const override { return domain_; }

private:
    Span parent_;
    std::string domain_;
    std::string name_;
    std::shared_ptr<Logger> logger_;
};

} // namespace

Span::Span(Impl *impl) noexcept : impl_(impl) {
    if (impl_)
        impl_->addRef();
}
Span::Span(Span const &other) noexcept : Span(other.impl_) {}
Span::Span(Span &&other) noexcept : impl_(std::exchange(other.impl_, nullptr)) {}
Span &Span::operator=(Span other) noexcept {
    swap(other);
    return *this;
}
Span::~Span() { reset(); }

void Span::swap(Span &other) noexcept { std::swap(impl_, other.impl_); }
void Span::reset() noexcept {
    if (Impl *old = std::exchange(impl_, nullptr))
        old->removeRef();
}
Span::Impl *Span::release() noexcept { return std::exchange(impl_, nullptr); }

Span Span::create(std::string const &name) {
    return Span(new LoggerSpan(Span(), {}, name, std::make_shared<Logger>(name)));
}
Span Span::createWithDomain(std::string const &domain, std::string const &name) {
    return Span(new LoggerSpan(Span(), domain, name, std::make_shared<Logger>(domain, name)));
}

void Span::Impl::removeRef() noexcept {
    if (--refCount_ == 0) {
        refCount_ = 0xdeadbeef;
        delete this;
    }
}

} // namespace kivra::log
