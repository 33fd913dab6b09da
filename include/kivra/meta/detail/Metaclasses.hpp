#pragma once
/// \file
/// Not API: where the handles of the metaclasses are kept.

#include <kivra/meta/Handles.hpp>
#include <kivra/meta/MetaRegistry.hpp>

#include <basalt/ustring.hpp>

#include <boost/uuid/uuid.hpp>

#include <atomic>
#include <string>

namespace kivra::meta::detail {

/// The registry once it holds the metamodel's description; null before.
extern std::atomic<MetaRegistry *> describedRegistry;

/// Builds the registry and the description on first use. Call it before a function-local
/// static reads a slot, never inside the static's initializer: the description reads the
/// same statics while it runs.
inline void ensureDescribed() {
    if (!describedRegistry.load(std::memory_order_acquire)) [[unlikely]]
        MetaRegistry::getInstance();
}

/// The slot that holds the metaclass with `uuid`: a handle that lives for the process
/// and keeps its address, empty until the self-description enters the metaclass. Each
/// class's `metaClass()` asks for its slot once and keeps the reference.
Class &metaclassSlot(boost::uuids::uuid const &uuid);
/// The slot of the property with `uuid`, in the same way.
Property &propertySlot(boost::uuids::uuid const &uuid);

/// The class in `slot` once it is in the registry model: made there under `name` with
/// the UUID of the text `uuid` when the slot is empty or its class was destroyed.
Class const &initializeCoreClass(MetaRegistry &registry, Class &slot, char const *uuid, basalt::ustring const &name,
                                 std::string const &vantorName);

/// Enters `owner` as the class that declares `property`. A generated package does this for
/// each of its properties, which its classes do not hold among their attributes.
void declareOwningClass(Property const &property, Class const &owner);
/// The type that owns `property`: its `owningType`, else the class declared for it; empty
/// when neither is known.
StructuredType owningTypeOf(Property const &property);

} // namespace kivra::meta::detail
