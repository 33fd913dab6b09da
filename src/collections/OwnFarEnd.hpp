#pragma once
// Not API: the one link whose far end is the collection that makes it.

#include <kivra/ModelElement.hpp>
#include <kivra/meta/Property.hpp>

namespace kivra::detail {

/// Whether `element` is the `owner` of a collection of `property`, and `property` its own
/// `opposite`: the far end of that link is the very collection that asks, which is changing
/// or reading it already and must not hear of it again.
inline bool isOwnFarEnd(ModelElement::Impl const *element, ModelElement::Impl const *owner,
                        meta::Property::Impl const *property, meta::Property::Impl const *opposite) noexcept {
    return element == owner && opposite == property;
}

} // namespace kivra::detail
