#include <kivra/meta/CollectionInstantiator.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/PrimitiveCollection.hpp>
#include <kivra/meta/Property.hpp>

namespace kivra::meta::detail {

CompositeCollectionInstantiator::CompositeCollectionInstantiator(std::unique_ptr<CollectionInstantiator> first) {
    add(std::move(first));
}

void CompositeCollectionInstantiator::add(std::unique_ptr<CollectionInstantiator> instantiator) {
    if (instantiator)
        parts_.push_back(std::move(instantiator));
}

bool CompositeCollectionInstantiator::remove(CollectionInstantiator const *instantiator) {
    for (auto part = parts_.begin(); part != parts_.end(); ++part)
        if (part->get() == instantiator) {
            parts_.erase(part);
            return true;
        }
    return false;
}

AbstractOwnedCollection *CompositeCollectionInstantiator::instantiateDynamicCollection(ModelElement const &owner,
                                                                                      Property const &property) {
    for (auto const &part : parts_)
        if (AbstractOwnedCollection *collection = part->instantiateDynamicCollection(owner, property))
            return collection;
    return nullptr;
}

boost::optional<Value> CompositeCollectionInstantiator::instantiateUnmanagedCollection(Property const &property) {
    for (auto const &part : parts_)
        if (auto value = part->instantiateUnmanagedCollection(property))
            return value;
    return boost::none;
}

template <class T, unsigned Owned, unsigned Unmanaged, class Extra>
AbstractOwnedCollection *
CollectionInstantiatorImpl<T, Owned, Unmanaged, Extra>::instantiateDynamicCollection(ModelElement const &owner,
                                                                                    Property const &property) {
    // Without owner the collection is free-standing, as a change record's copy is.
    ModelElement::Impl *const impl = owner.get();
    Property::Impl *const described = property.get();
    if (!described)
        return nullptr;
    if (described->getIsOrdered()) {
        if constexpr ((Owned & OrderedShape) != 0)
            return new (impl) PrimitiveSequence<T>(ModelElement::Impl::_privateTag(), impl, described, described->getIsUnique());
    } else if (described->getIsHashed()) {
        if constexpr ((Owned & HashedShape) != 0)
            return new (impl) UnorderedPrimitiveSet<T>(ModelElement::Impl::_privateTag(), impl, described);
    } else if constexpr ((Owned & SortedShape) != 0) {
        return new (impl) PrimitiveSet<T>(ModelElement::Impl::_privateTag(), impl, described);
    }
    return nullptr;
}

template <class T, unsigned Owned, unsigned Unmanaged, class Extra>
boost::optional<Value>
CollectionInstantiatorImpl<T, Owned, Unmanaged, Extra>::instantiateUnmanagedCollection(Property const &property) {
    using kivra::detail::CollectionPayload;
    // The same choice as for owned collections: order first, then hashing, else sorted.
    if (property->getIsOrdered()) {
        if constexpr ((Unmanaged & OrderedShape) != 0) {
            using C = std::vector<T>;
            return Value::adoptUnmanagedCollection(property, new C, &CollectionPayload<C>::functions);
        }
    } else if (property->getIsHashed()) {
        if constexpr ((Unmanaged & HashedShape) != 0) {
            using C = kivra::detail::HashedSet<T>;
            return Value::adoptUnmanagedCollection(property, new C, &CollectionPayload<C>::functions);
        }
    } else if constexpr ((Unmanaged & SortedShape) != 0) {
        using C = std::set<T>;
        return Value::adoptUnmanagedCollection(property, new C, &CollectionPayload<C>::functions);
    }
    return boost::none;
}

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    template class CollectionInstantiatorImpl<Native, 7, 7>;
#include <kivra/meta/PrimitiveTypes.def>
// The imported packages of a package are a map, which its accessor makes; a property of
// that data type is otherwise only ever a list.
template class CollectionInstantiatorImpl<VersionInfo, OrderedShape, 0>;

} // namespace kivra::meta::detail
