#pragma once
/// \file
/// The identifier of an element as the writers and the parser's model builder see it.

#include <kivra/ElementId.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional.hpp>
#include <boost/uuid/uuid.hpp>

#include <utility>

namespace kivra::io {

/// An element id as written to and read from a document, with the identifier kinds the
/// library itself produces and access to a UUID identifier.
///
/// It derives from `kivra::ElementId` rather than wrapping one: it is the same record
/// with a few helpers, so it passes wherever a core id is expected without a copy, and
/// its accessors, `compare`, `==` and `<` are the core ones rather than duplicates that
/// could drift apart.
class ElementId : public kivra::ElementId {
public:
    /// The identifier type of an id whose identifier is the element's UUID: "uuid".
    ///
    /// The constants are `ustring`s so that they pass directly to constructors and
    /// compare with identifier types; as inline variables they are initialised before
    /// any static that is defined after this header in the same file, so static
    /// initialisers may use them.
    static inline basalt::ustring const DEFAULT_IDENTIFIER_TYPE{u"uuid"};
    /// The identifier type of an id taken from the element itself or from a counter: "id".
    static inline basalt::ustring const INTRINSIC_IDENTIFIER_TYPE{u"id"};

    /// An id with an empty identifier type and an empty identifier.
    ElementId() : kivra::ElementId(basalt::ustring(), basalt::ustring()) {}
    /// An id from the kind of identifier and the identifier.
    ElementId(basalt::ustring const &identifierType, basalt::ustring identifier)
        : kivra::ElementId(identifierType, std::move(identifier)) {}
    /// The same id as the core `id`.
    explicit ElementId(kivra::ElementId const &id) : kivra::ElementId(id) {}

    /// The UUID that the identifier names when the identifier type is
    /// `DEFAULT_IDENTIFIER_TYPE` and the identifier is a UUID in its one written form:
    /// 8-4-4-4-12 lower-case hexadecimal digits. None otherwise: for any other type, and
    /// for upper-case, braced, undashed or otherwise different text, since ids compare
    /// by their text and two spellings of one UUID would be two ids.
    boost::optional<boost::uuids::uuid> getUuid() const;
};

} // namespace kivra::io
