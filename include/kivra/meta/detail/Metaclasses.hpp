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

} // namespace kivra::meta::detail
