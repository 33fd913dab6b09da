#include "collections/HeldElements.hpp"

#include <kivra/meta/Class.hpp>

#include <typeinfo>

namespace kivra::detail {

ReferenceCollection const *managedReferenceCollection(Value const &value) {
    // As the value reads its own entries: an element's collection is the payload itself.
    // A class is told by its implementation, so that this holds before the metamodel has
    // described itself.
    if (!isCollection(value.getFlags()) || !value.isManaged() || !value.hasPayload() ||
        !dynamic_cast<meta::Class::Impl const *>(value.getType().get()))
        return nullptr;
    return static_cast<ReferenceCollection const *>(value.getPayload());
}

ElementSequenceBase const *asElementSequence(ReferenceCollection const &collection) noexcept {
    // A join asks this of every holder, and the holders of one property share one kind of
    // collection: the answer for the last kind seen is kept.
    thread_local std::type_info const *lastKind = nullptr;
    thread_local bool lastIsSequence = false;
    std::type_info const &kind = typeid(collection);
    if (&kind != lastKind) {
        lastIsSequence = dynamic_cast<ElementSequenceBase const *>(&collection) != nullptr;
        lastKind = &kind;
    }
    return lastIsSequence ? static_cast<ElementSequenceBase const *>(&collection) : nullptr;
}

} // namespace kivra::detail
