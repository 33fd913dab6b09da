#include <kivra/log/Span.hpp>

#include <kivra/Value.hpp>
#include <kivra/io/DisplaySummaryMap.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/services/DisplaySummaryMapProvider.hpp>

#include <basalt/i18n/Unicode.hpp>
#include <basalt/log/DiagnosticLogger.hpp>

#include <utility>

namespace kivra::log {

namespace {

using Logger = Span::DisplaySummaryImpl::Logger;

std::shared_ptr<Logger> loggerOf(std::string const &domain, std::string const &name) {
    return domain.empty() ? std::make_shared<Logger>(name) : std::make_shared<Logger>(domain, name);
}

Value textValue(char const *text) {
    static meta::PrimitiveType const type = meta::internal::getPrimitiveTypeFromMetaRegistry(u"StdString");
    return Value(type, std::string(text));
}

} // namespace

// --- Span -------------------------------------------------------------------------------

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
    return Span(new DisplaySummaryImpl(Span(), name, services::DisplaySummaryMapProvider::FORMAT_JSON));
}
Span Span::createWithDomain(std::string const &domain, std::string const &name) {
    return Span(new DisplaySummaryImpl(Span(), domain, name, services::DisplaySummaryMapProvider::FORMAT_JSON));
}

void Span::Impl::removeRef() noexcept {
    if (--refCount_ == 0) {
        refCount_ = 0xdeadbeef;
        delete this;
    }
}

// --- DisplaySummaryImpl -----------------------------------------------------------------

Span::DisplaySummaryImpl::DisplaySummaryImpl(Span parent, std::string name, basalt::ustring format)
    : format_(std::move(format)), logger_(loggerOf({}, name)), name_(std::move(name)), parent_(std::move(parent)) {}

Span::DisplaySummaryImpl::DisplaySummaryImpl(Span parent, std::string domain, std::string name, basalt::ustring format)
    : format_(std::move(format)), logger_(loggerOf(domain, name)), name_(std::move(name)), domain_(std::move(domain)),
      parent_(std::move(parent)) {}

Span::DisplaySummaryImpl::DisplaySummaryImpl(Span parent, std::string domain, std::string name,
                                             std::shared_ptr<Logger> logger, basalt::ustring format)
    : format_(std::move(format)), logger_(std::move(logger)), name_(std::move(name)), domain_(std::move(domain)),
      parent_(std::move(parent)) {}

Span::DisplaySummaryImpl::~DisplaySummaryImpl() = default;

bool Span::DisplaySummaryImpl::isEnabled(std::uint32_t type) const noexcept { return logger_->is_enabled(type); }

io::DisplaySummaryMap &Span::DisplaySummaryImpl::getDisplaySummaryMap() {
    if (!map_)
        map_ = io::DisplaySummaryMap::create(format_);
    return *map_;
}

void Span::DisplaySummaryImpl::addContext(std::uint32_t type, std::string const &name,
                                          std::function<Value()> const &value) {
    if (isEnabled(type))
        getDisplaySummaryMap().add(name, value());
}

void Span::DisplaySummaryImpl::addContext(std::uint32_t type, std::string const &name, ModelElement const &element) {
    if (isEnabled(type))
        getDisplaySummaryMap().add(name, element);
}

void Span::DisplaySummaryImpl::addContext(std::uint32_t type, std::string const &name, char const *text) {
    if (isEnabled(type))
        getDisplaySummaryMap().add(name, textValue(text));
}

void Span::DisplaySummaryImpl::addContext(std::uint32_t type, std::string const &name, Value const &value) {
    if (isEnabled(type))
        getDisplaySummaryMap().add(name, value);
}

void Span::DisplaySummaryImpl::addDynamicContext(std::uint32_t type, std::string const &name,
                                                 std::function<ModelElement()> const &element) {
    if (isEnabled(type))
        getDisplaySummaryMap().addDynamic(name, element);
}

void Span::DisplaySummaryImpl::addDynamicContext(std::uint32_t type, std::string const &name,
                                                 std::function<Value()> const &value) {
    if (isEnabled(type))
        getDisplaySummaryMap().addDynamic(name, value);
}

void Span::DisplaySummaryImpl::log(std::uint32_t type, std::string const &message) {
    if (!isEnabled(type))
        return;
    std::unique_ptr<io::LogDocument> document = getDisplaySummaryMap().createDocument(message);
    // The nearest ancestor wraps first, up to the root.
    for (Impl *ancestor = parent_.get(); ancestor;) {
        auto *span = static_cast<DisplaySummaryImpl *>(ancestor);
        span->getDisplaySummaryMap().wrapDocument(document.get());
        ancestor = span->parent_.get();
    }
    std::string text;
    document->visitString(text);
    logger_->write(type, text, /*preformattedJson=*/true);
}

Span Span::DisplaySummaryImpl::createChild(std::string const &childName) {
    std::string full = name_ + "::" + childName;
    if (domain_.empty())
        return Span(new DisplaySummaryImpl(Span(this), std::move(full), format_));
    return Span(new DisplaySummaryImpl(Span(this), domain_, std::move(full), format_));
}

Span Span::DisplaySummaryImpl::createChild() {
    return Span(new DisplaySummaryImpl(Span(this), domain_, name_, logger_, format_));
}

std::unique_ptr<SpanCreator> Span::DisplaySummaryImpl::getChildFactory(std::string const &childName) {
    return std::make_unique<DisplaySummaryImplSpanCreator>(Span(this), childName);
}

// --- Span creators ----------------------------------------------------------------------

DisplaySummaryImplSpanCreator::DisplaySummaryImplSpanCreator(Span parent, std::string const &childName)
    : parent_(std::move(parent)) {
    auto const *span = static_cast<Span::DisplaySummaryImpl const *>(parent_.get());
    name_ = span->getName() + "::" + childName;
    domain_ = span->getDomain();
    // The expensive part, done once for every span this factory makes.
    logger_ = loggerOf(domain_, name_);
}

Span DisplaySummaryImplSpanCreator::createSpan() const {
    return Span(new Span::DisplaySummaryImpl(parent_, domain_, name_, logger_,
                                             services::DisplaySummaryMapProvider::FORMAT_JSON));
}

// --- Log and raise ----------------------------------------------------------------------

void detail::logBeforeRaise(Span const &span, std::string const &errorText,
                            basalt::except::IMsgIDException const &error) {
    if (!errorText.empty())
        span->addContext(basalt::log::error, "error-message", errorText.c_str());
    std::string const message = basalt::i18n::ustring_to_utf8(error.GetUnicodeMessageTxt());
    span->addContext(basalt::log::error, "exception-message", message.c_str());
    span->log(basalt::log::error, error.get_error_id());
}

} // namespace kivra::log
