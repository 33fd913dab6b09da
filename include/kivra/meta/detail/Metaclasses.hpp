#pragma once
/// \file
/// Not API: where the handles of the metaclasses are kept.

#include <kivra/meta/Handles.hpp>

#include <boost/uuid/uuid.hpp>

namespace kivra::meta::detail {

/// The slot that holds the metaclass with `uuid`: a handle that lives for the process
/// and keeps its address, empty until the self-description enters the metaclass. Each
/// class's `metaClass()` asks for its slot once and keeps the reference.
Class &metaclassSlot(boost::uuids::uuid const &uuid);
/// The slot of the property with `uuid`, in the same way.
Property &propertySlot(boost::uuids::uuid const &uuid);

/// Enters `owner` as the class that declares `property`. A generated package does this for
/// each of its properties, which its classes do not hold among their attributes.
void declareOwningClass(Property const &property, Class const &owner);
/// The type that owns `property`: its `owningType`, else the class declared for it; empty
/// when neither is known.
StructuredType owningTypeOf(Property const &property);

} // namespace kivra::meta::detail
