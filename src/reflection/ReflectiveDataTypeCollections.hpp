#pragma once
// Not API: the collection of a reflective element's to-many property whose type is a data
// type without generated code. An entry is a record; it reads back as a reflective value.

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/meta/Handles.hpp>

#include <memory>

namespace kivra::reflection::detail {

/// The collection for `property` of `owner` (none for a free-standing copy): a sequence
/// in the order of addition, ordered or not, that keeps repeated records.
std::unique_ptr<AbstractPrimitiveCollection> makeDataTypeCollection(ModelElement::Impl *owner,
                                                                    meta::Property const &property);

} // namespace kivra::reflection::detail
