#pragma once
// Not API: what kind of type a query compares.

#include <kivra/meta/Class.hpp>

namespace kivra::query::detail {

/// True for a class: its values are elements. Told by the implementation rather than by
/// the metaclass, so that it holds before the metamodel has described itself.
inline bool isClassType(meta::Type const &type) {
    return dynamic_cast<meta::Class::Impl const *>(type.get()) != nullptr;
}

} // namespace kivra::query::detail
