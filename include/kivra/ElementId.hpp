#pragma once
/// \file
/// Names of elements outside the current object graph: `ElementId` within a model,
/// `ProxyId` anywhere.

#include <basalt/ustring.hpp>

#include <boost/optional.hpp>

#include <utility>

namespace kivra {

/// Names an element within a model by the kind of identifier and the identifier, such
/// as ("uuid", "0f8fad5b-d9cb-469f-a165-70867728950e") or ("id", "chapter-3"). A
/// copyable value, ordered by its text; it resolves nothing by itself.
class ElementId {
public:
    /// An element id from the kind of identifier and the identifier.
    ElementId(basalt::ustring const &identifierType, basalt::ustring identifier);

    /// The kind of identifier, such as "uuid" or "id".
    basalt::ustring const &getIdentifierType() const noexcept { return identifierType_; }
    /// The identifier, read according to its type.
    basalt::ustring const &getIdentifier() const noexcept { return identifier_; }

    /// Orders by identifier type and then by identifier, both in UTF-16 code-unit
    /// order. Negative, zero or positive, as `std::strcmp`.
    int compare(ElementId const &other) const noexcept;
    /// True when both the identifier types and the identifiers are equal.
    bool operator==(ElementId const &other) const noexcept;
    /// True when `compare(other)` is negative.
    bool operator<(ElementId const &other) const noexcept { return compare(other) < 0; }

private:
    basalt::ustring identifierType_;
    basalt::ustring identifier_;
};

/// Names an element anywhere: its `ElementId` and, optionally, the URI of the model that
/// holds it (a `ModelId` text). Without a model URI the element lives in the same model
/// as the proxy that holds this id.
///
/// Equality tells "no model URI" from "an empty model URI", but the order counts both as
/// the empty text: two ids that differ only so are unequal, yet neither is less than the
/// other. Ordered containers such as `std::set<ProxyId>` therefore keep only one of them;
/// use equality where the difference matters.
class ProxyId : public ElementId {
public:
    /// A proxy id from the parts of its element id and the model URI, if any.
    ProxyId(basalt::ustring const &identifierType, basalt::ustring const &identifier,
            boost::optional<basalt::ustring> const &modelId);

    /// The element id within its model.
    ElementId const &getElementId() const noexcept { return *this; }
    /// The URI of the model that holds the element; none for the proxy's own model.
    boost::optional<basalt::ustring> const &getModelId() const noexcept { return modelId_; }

    /// True when the element ids are equal and either neither has a model URI or both
    /// have equal ones.
    bool operator==(ProxyId const &other) const noexcept;
    /// Orders by identifier type, identifier and then model URI, where no model URI
    /// counts as the empty text.
    bool operator<(ProxyId const &other) const noexcept;

private:
    boost::optional<basalt::ustring> modelId_;
};

} // namespace kivra
