#include <kivra/meta/CollectionInstantiator.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/meta/Property.hpp>

namespace kivra::meta::detail {

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

} // namespace kivra::meta::detail
