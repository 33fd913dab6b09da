#pragma once
// Not API: the collections of a reflective element's to-many property whose type is an
// enumeration. An entry is the literal's number; it reads back as a value of the
// enumeration.

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/meta/Handles.hpp>

#include <cstdint>
#include <memory>

namespace kivra::reflection::detail {

/// The collection for `property` of `owner` (none for a free-standing copy): a sequence
/// when the property is ordered, else a sorted set, or a hashed one for a hashed property.
std::unique_ptr<AbstractPrimitiveCollection> makeEnumCollection(ModelElement::Impl *owner,
                                                                meta::Property const &property);

} // namespace kivra::reflection::detail
