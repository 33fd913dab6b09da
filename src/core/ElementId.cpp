#include <kivra/ElementId.hpp>
#include <kivra/io/ElementId.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace kivra {

namespace {

int sign(int value) noexcept { return (value > 0) - (value < 0); }

} // namespace

ElementId::ElementId(basalt::ustring const &identifierType, basalt::ustring identifier)
    : identifierType_(identifierType), identifier_(std::move(identifier)) {}

int ElementId::compare(ElementId const &other) const noexcept {
    // std::u16string compares char16_t, an unsigned type, so this is code-unit order.
    if (int const byType = identifierType_.compare(other.identifierType_); byType != 0)
        return sign(byType);
    return sign(identifier_.compare(other.identifier_));
}

bool ElementId::operator==(ElementId const &other) const noexcept {
    return identifier_ == other.identifier_ && identifierType_ == other.identifierType_;
}

ProxyId::ProxyId(basalt::ustring const &identifierType, basalt::ustring const &identifier,
                 boost::optional<basalt::ustring> const &modelId)
    : ElementId(identifierType, identifier), modelId_(modelId) {}

bool ProxyId::operator==(ProxyId const &other) const noexcept {
    // boost::optional's equality already tells none from an empty text.
    return getElementId() == other.getElementId() && modelId_ == other.modelId_;
}

bool ProxyId::operator<(ProxyId const &other) const noexcept {
    if (int const byElement = compare(other); byElement != 0)
        return byElement < 0;
    // Views rather than value_or, which would copy both texts on every comparison.
    std::u16string_view const left = modelId_ ? std::u16string_view(*modelId_) : std::u16string_view();
    std::u16string_view const right = other.modelId_ ? std::u16string_view(*other.modelId_) : std::u16string_view();
    return left < right;
}

namespace io {

boost::optional<boost::uuids::uuid> ElementId::getUuid() const {
    if (getIdentifierType() != DEFAULT_IDENTIFIER_TYPE)
        return boost::none;
    try {
        std::string const text = basalt::i18n::ustring_to_utf8(getIdentifier());
        boost::uuids::uuid const uuid = boost::uuids::string_generator()(text);
        // The generator also reads braces, upper case and undashed digits; only text that
        // it would write back unchanged is this UUID's id, since ids compare by text.
        if (boost::uuids::to_string(uuid) != text)
            return boost::none;
        return uuid;
    } catch (std::exception const &) {
        return boost::none;
    }
}

} // namespace io

} // namespace kivra
