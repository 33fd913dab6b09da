#pragma once
/// \file
/// Not API: the frames of generated typed setters, shared by all of them so that each
/// setter is one line.

#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/detail/References.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include <cstdint>
#include <type_traits>
#include <vector>

namespace kivra::detail {

/// The member itself when its bytes are all there is to keep of its old value (a
/// trivially copyable value of at most 8 bytes), else null.
template <class T> void const *scalarBytes(T const &member) {
    if constexpr (std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(std::uint64_t))
        return &member;
    else
        return nullptr;
}

/// A plain member: proxy test, compare and return when equal (no transaction, no
/// record), store at once when nothing is to be kept, else open a transaction, announce,
/// store, commit. An exception leaves through the transaction, which then votes to roll
/// back. A scalar member is announced with its bytes, which are then all a revertible
/// transaction needs to keep of it.
template <class T, class U>
void setMember(ModelElement::Impl &element, T &member, U const &value, std::uint64_t index) {
    element.checkModifiable();
    if (member == value)
        return;
    if (element.changesInPlace()) {
        member = value;
        return;
    }
    auto transaction = element.beginModification(index, scalarBytes(member), sizeof(T));
    member = value;
    transaction.commit();
}

/// Raises `UniquenessConstraint` when `holder` keeps its `opposite` as a map whose keys are
/// unique and another element holds the key of `element` there: the map would keep that
/// entry and the two ends would disagree.
void checkKeyFree(ModelElement::Impl const &element, ModelElement::Impl const &holder, meta::Property const &opposite);

/// A single reference: with an opposite, the far ends are told too. The present value is
/// read as the getter reads it, so that a held proxy counts as the element it stands for.
template <class H>
void setReference(ModelElement::Impl &element, H &member, H const &value, meta::Property const &property,
                  std::uint64_t index) {
    element.checkModifiable();
    // A proxy may read as an element it does not hold yet: that element's far end lets go.
    H const present = readReference(element, member);
    if (present == value)
        return;
    element.checkCompatibleModel(value.get(), property);
    meta::Property const opposite = property ? property->getOpposite() : meta::Property();
    if (opposite && value.get() && !value->isProxy())
        checkKeyFree(element, *value.get(), opposite);
    auto transaction = element.beginModification(index);
    member = value;
    if (opposite) {
        element._inverseRemoveThis(present.get(), opposite);
        element._inverseAddThis(value.get(), opposite, /*force=*/false);
    }
    transaction.commit();
}

/// A single composite reference: the new child leaves its old container and the old
/// child becomes top level. A containment never crosses models: a proxy of another
/// model's element, or an element that the model rules keep out, is refused as a
/// cross-model association before the child's model is compared.
template <class H>
void setComposite(ModelElement::Impl &element, H &member, H const &value, meta::Property const &property,
                  std::uint64_t index) {
    element.checkModifiable();
    H const present = readReference(element, member);
    if (present == value)
        return;
    if (value.get() && !value->isValid())
        raise<messages::InvalidValue>();
    element.checkCompatibleModel(value.get(), property);
    if (value.get()) {
        if (value->getModelImpl() != element.getModelImpl())
            raise<messages::CannotChangeModel>();
        value->checkCircularContainment(&element);
    }
    auto transaction = element.beginModification(index);
    if (value.get())
        element._setContainedByThis(value.get(), property);
    member = value;
    if (present.get() && present->containerImpl() == &element)
        element._basicSetUncontained(present.get());
    transaction.commit();
}

/// The reverse end of a composite: the element moves to `container`, held by its
/// composite `feature`, or becomes top level.
template <class H>
void setContainer(ModelElement::Impl &element, H const &container, meta::Property const &feature, std::uint64_t index) {
    element.checkModifiable();
    // The present value is the container only when it holds this element by `feature`.
    ModelElement::Impl const *present =
        !feature || element.containmentFeatureImpl() == feature.get() ? element.containerImpl() : nullptr;
    if (present == container.get())
        return;
    // The child keeps only a raw pointer to its container, and neither a tombstone nor a
    // proxy takes the child as the far end: such a container would neither hold the child
    // nor outlive it.
    if (container.get() && !container->isValidNonProxy())
        raise<messages::InvalidValue>();
    if (container.get() && container->getModelImpl() != element.getModelImpl())
        raise<messages::CannotChangeModel>();
    element.checkCircularContainment(container.get());
    auto transaction = element.beginModification(index);
    if (!element.isTopLevel())
        element.makeUncontained();
    element.basicSetContainer(container.get(), feature, index);
    element._inverseAddThis(container.get(), feature, /*force=*/true);
    transaction.commit();
}

/// `element` as an `Impl` of the target class (null for a null handle); raises
/// `CannotCastIncompatibleTypes` with the element's class for an element of another class.
template <class TargetImpl> TargetImpl *elementAs(ModelElement const &element) {
    if (!element.get())
        return nullptr;
    if (auto *target = dynamic_cast<TargetImpl *>(element.get()))
        return target;
    meta::Class const &cls = element->getMetaClass();
    raise<messages::CannotCastIncompatibleTypes>(cls.get() ? cls->getQualifiedName() : basalt::ustring());
}

/// The element that `value` refers to, as above.
template <class TargetImpl> TargetImpl *elementAs(Value const &value) { return elementAs<TargetImpl>(value.getElement()); }

/// An element that holds another in a keyed collection, and that collection's property.
struct KeyHolder {
    ModelElement::Impl *owner;
    meta::Property const *property;
};

/// Raises `UniquenessConstraint`: a new key is held by another element.
[[noreturn]] void raiseKeyTaken();
/// The element leaves each holder's keyed collection, at the store-only level.
void leaveKeyHolders(ModelElement::Impl &element, std::vector<KeyHolder> const &holders);
/// The element comes back into each holder's keyed collection under its present key.
void returnToKeyHolders(ModelElement::Impl &element, std::vector<KeyHolder> const &holders);

/// A member that is the key of its element in keyed collections: since a container never
/// looks at a key again by itself, the element leaves them before the change and comes
/// back after it, all in one transaction.
template <class T, class U>
void setKey(ModelElement::Impl &element, T &member, U const &value, std::uint64_t index,
            std::vector<KeyHolder> const &holders) {
    // The holders' collections keep their own records: of the element, its key is all.
    auto transaction = element.beginModification(index, scalarBytes(member), sizeof(T));
    leaveKeyHolders(element, holders);
    member = value;
    returnToKeyHolders(element, holders);
    transaction.commit();
}

} // namespace kivra::detail
