#pragma once
// Not API: where each property of a class lives in its reflective elements, computed
// once per class.

#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <absl/container/flat_hash_map.h>

#include <boost/optional/optional.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kivra::reflection::detail {

/// The value a property's default text names, read by the property's type; none when the
/// property has no default or it names nothing the type holds. `dynamic` is set for a
/// default drawn anew for each use (a random UUID). Raises what the reading raises.
boost::optional<Value> readDefaultValue(meta::Property const &property, bool &dynamic);

/// What a slot holds: a plain `Value`, one element handle, an owned element collection,
/// an owned collection of other values, an owned map of texts (the three made on first
/// use), or nothing at all for the element's end of a composite, which is its container
/// link.
enum class SlotKind : std::uint8_t { Plain, Reference, References, Primitives, StringMap, ContainerEnd };

/// Whether the slot's property takes part in associations, whose protocol it serves.
constexpr bool holdsElements(SlotKind kind) noexcept {
    return kind == SlotKind::Reference || kind == SlotKind::References || kind == SlotKind::ContainerEnd;
}

struct PropertySlot {
    meta::Property property;
    /// The other end, raw: the metamodel outlives every model of it.
    meta::Property::Impl *opposite;
    SlotKind kind;
    /// Byte offset in the element's block; unused for the container end.
    std::uint32_t offset;
    /// The position among the plain slots, for their start and empty values.
    std::uint32_t plain;
    /// A default drawn anew for each element (a random UUID).
    bool dynamicDefault;
};

/// The slots of the elements of one class: every non-derived property along the class
/// chain, most derived class first, each class's in the order of its attributes.
class ClassLayout {
public:
    /// The layout of `cls`, made on first use and kept for the life of the process: an
    /// element has the properties of its class as the class stood then. Raises
    /// `CannotUsePropertyWithoutType` for a property without type.
    static ClassLayout const &of(meta::Class const &cls);

    PropertySlot const *find(meta::Property::Impl const *property) const noexcept {
        auto const found = byProperty.find(property);
        return found == byProperty.end() ? nullptr : &slots[found->second];
    }
    /// The reference properties whose opposite's map is keyed by `key`; null when none.
    std::vector<meta::Property> const *usersOf(meta::Property::Impl const *key) const noexcept {
        auto const found = qualifierUsers.find(key);
        return found == qualifierUsers.end() ? nullptr : &found->second;
    }

    meta::Class cls;
    std::vector<PropertySlot> slots;
    absl::flat_hash_map<meta::Property::Impl const *, std::uint32_t> byProperty;
    std::vector<meta::Property> byIndex;
    absl::flat_hash_map<meta::Property::Impl const *, std::vector<meta::Property>> qualifierUsers;
    /// Per plain slot: the value a new element starts with, and the property's empty value.
    std::vector<Value> startValues;
    std::vector<Value> emptyValues;
    std::size_t blockSize = 0;
    /// The count of change-tracked properties, which sizes a change record.
    std::uint64_t propertyCount = 0;
    bool hasDynamicDefaults = false;

private:
    explicit ClassLayout(meta::Class const &cls);
};

} // namespace kivra::reflection::detail
