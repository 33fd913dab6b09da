#pragma once
/// \file
/// Makers of collections for the values of one type.

#include <kivra/Value.hpp>

#include <boost/optional/optional.hpp>

#include <memory>
#include <vector>

namespace kivra::meta::detail {

/// Makes the collections that hold values of one type, as the registry asks for them.
class CollectionInstantiator {
public:
    virtual ~CollectionInstantiator() = default;
    /// The collection that `owner` keeps for `property`, or null when this instantiator
    /// cannot make that shape. The owner takes the collection.
    virtual AbstractOwnedCollection *instantiateDynamicCollection(ModelElement const &owner,
                                                                  Property const &property) = 0;
    /// A free-standing collection value of the property's shape, or none when this
    /// instantiator cannot make that shape.
    virtual boost::optional<Value> instantiateUnmanagedCollection(Property const &property) = 0;
};

/// The instantiators of one type, asked in the order in which they came; the first that
/// makes something wins. Lets several metamodels serve one type.
class CompositeCollectionInstantiator final : public CollectionInstantiator {
public:
    explicit CompositeCollectionInstantiator(std::unique_ptr<CollectionInstantiator> first);

    void add(std::unique_ptr<CollectionInstantiator> instantiator);
    /// Destroys `instantiator` when it is one of these; true when it was.
    bool remove(CollectionInstantiator const *instantiator);
    bool empty() const noexcept { return parts_.empty(); }

    AbstractOwnedCollection *instantiateDynamicCollection(ModelElement const &owner,
                                                          Property const &property) override;
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property) override;

private:
    std::vector<std::unique_ptr<CollectionInstantiator>> parts_;
};

/// Bits of the shapes an instantiator can make.
enum CollectionShapes : unsigned { OrderedShape = 1, SortedShape = 2, HashedShape = 4 };

/// The instantiator of a native type `T`. `Owned` and `Unmanaged` are masks of
/// `CollectionShapes`: which collections it makes for an owning element, and which
/// free-standing ones. The property's `isOrdered` picks a vector, else `isHashed` a hashed
/// set, else a sorted set.
template <class T, unsigned Owned, unsigned Unmanaged, class = void>
class CollectionInstantiatorImpl final : public CollectionInstantiator {
public:
    AbstractOwnedCollection *instantiateDynamicCollection(ModelElement const &owner, Property const &property) override;
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property) override;
};

} // namespace kivra::meta::detail
