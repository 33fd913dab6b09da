#pragma once
/// \file
/// Makers of collections for the values of one type.

#include <kivra/Value.hpp>

#include <boost/optional/optional.hpp>

namespace kivra::meta::detail {

/// Makes the collections that hold values of one type, as the registry asks for them.
class CollectionInstantiator {
public:
    virtual ~CollectionInstantiator() = default;
    /// A free-standing collection value of the property's shape, or none when this
    /// instantiator cannot make that shape.
    virtual boost::optional<Value> instantiateUnmanagedCollection(Property const &property) = 0;
};

/// Bits of the shapes an instantiator can make.
enum CollectionShapes : unsigned { OrderedShape = 1, SortedShape = 2, HashedShape = 4 };

/// The instantiator of a native type `T`: `Unmanaged` tells which free-standing shapes
/// it makes (a vector, a sorted set, a hashed set). `Owned` is kept for collections that
/// an element owns.
template <class T, unsigned Owned, unsigned Unmanaged, class = void>
class CollectionInstantiatorImpl final : public CollectionInstantiator {
public:
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property) override;
};

} // namespace kivra::meta::detail
