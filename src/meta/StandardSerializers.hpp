#pragma once
// Not API: the serializers that the registry makes for itself.

#include <kivra/meta/PropertySerializer.hpp>

#include <memory>
#include <string>
#include <vector>

namespace kivra::meta::detail {

/// One registration of the standard set.
struct StandardSerializer {
    PrimitiveType const &type;
    char const *flavour;
    std::unique_ptr<PropertySerializer> serializer;
};

/// The serializers of the standard types, in the order of their registration.
std::vector<StandardSerializer> makeStandardSerializers();

/// The serializers of enums known only as model elements, by flavour: "" by name, "ID" by
/// number, "PublicID" by public identifier.
std::vector<std::pair<std::string, std::unique_ptr<PropertySerializer>>> makeReflectiveEnumSerializers();

/// The serializer of `KivraModel`, whose values are model handles that live only in
/// memory: each writes as the empty text, and any text reads as the empty handle.
std::unique_ptr<PropertySerializer> makeTransientOnlyModelSerializer();

} // namespace kivra::meta::detail
