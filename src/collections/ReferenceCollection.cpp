#include <kivra/ReferenceCollection.hpp>
#include <kivra/meta/Extension.hpp>

#include <kivra/ElementSequence.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/detail/Collections.hpp>
#include <kivra/detail/Setter.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include "collections/OwnFarEnd.hpp"
#include "collections/QuietChange.hpp"
#include "core/ElementPool.hpp"
#include "core/Uncounted.hpp"

namespace kivra {

// --- AbstractOwnedCollection -------------------------------------------------------------

AbstractOwnedCollection::AbstractOwnedCollection(ModelElement::Impl *owner, meta::Property::Impl *property)
    : owner_(owner), property_(meta::Property::fromImpl(property)) {}

AbstractOwnedCollection::~AbstractOwnedCollection() = default;

void *AbstractOwnedCollection::operator new(std::size_t size, ModelElement::Impl *owner) {
    return owner ? detail::ModelMemory::allocate(owner->getModelImpl(), size) : ::operator new(size);
}

void AbstractOwnedCollection::operator delete(void *block, ModelElement::Impl *owner) noexcept {
    if (owner)
        detail::ElementPool::abandon(block)->releaseHold();
    else
        ::operator delete(block);
}

void AbstractOwnedCollection::operator delete(AbstractOwnedCollection *collection, std::destroying_delete_t,
                                              std::size_t size) noexcept {
    // Where the memory came from is read before the object ends: an owner means the pool.
    // The block starts at the whole object, which need not be where this base lies.
    bool const pooled = collection->owner_ != nullptr;
    void *const block = dynamic_cast<void *>(collection);
    collection->~AbstractOwnedCollection();
    if (pooled)
        detail::ModelMemory::giveBack(block, size);
    else
        ::operator delete(block);
}

ModelElement AbstractOwnedCollection::getOwner() const { return ModelElement::fromImpl(owner_); }

void AbstractOwnedCollection::modifying() {
    if (!owner_)
        return;
    // A tombstone's collections stay readable while the transaction that destroyed it
    // runs, but take no change: its far ends and children have let go of it already.
    if (!owner_->isValid()) [[unlikely]]
        owner_->checkModifiable();
    if (!property_ || detail::QuietChange::covers(owner_->getModelImpl()))
        return;
    // Extensions, whose collections have no index of their own, are announced by name once
    // they exist; until then a property without index records nothing.
    if (std::int32_t const index = property_->getPropertyIndex(); index > 0)
        owner_->notifyModifying(std::uint64_t(index));
    else if (auto *extension = dynamic_cast<meta::Extension::Impl *>(property_.get()))
        owner_->notifyModifying(meta::Extension::fromImpl(extension));
}

AbstractOwnedCollection::Operation::Operation(AbstractOwnedCollection const &collection) {
    ModelElement::Impl *const owner = collection.owner_;
    if (!owner)
        return;
    Model::Impl *const model = owner->getModelImpl();
    if (model->currentTransaction())
        return;
    transaction_ = model->beginTransaction(false);
}

// --- ReferenceCollection -----------------------------------------------------------------

ReferenceCollection::~ReferenceCollection() = default;

meta::Property ReferenceCollection::getOpposite() const { return meta::Property::fromImpl(opposite_); }

bool ReferenceCollection::isComposite() const noexcept { return property_ && property_->getIsComposite(); }

void ReferenceCollection::checkCompatibleModel(ModelElement::Impl const *element) const {
    if (!owner_)
        return;
    // A tombstone takes no container, and a list that held it would name a child that does
    // not name the list: refused, as by a single composite.
    if (element && !element->isValid() && isComposite())
        raise<messages::InvalidValue>();
    owner_->checkCompatibleModel(element, property_);
    if (element && element->isValidNonProxy() && isComposite()) {
        // A child never changes model by joining a container. Its container would refuse it
        // only after the entry is stored, which a shallow transaction cannot take back.
        if (element->getModelImpl() != owner_->getModelImpl())
            raise<messages::CannotChangeModel>();
        // A child may not contain its new container.
        element->checkCircularContainment(owner_);
    }
}

ModelElement ReferenceCollection::resolveProxy(ModelElement const &proxy) const {
    return owner_ ? owner_->getModelImpl()->resolveProxy(owner_, proxy) : proxy;
}

ModelElement ReferenceCollection::peekResolveProxy(ModelElement const &proxy) const {
    return owner_ ? owner_->getModelImpl()->peekResolveProxy(owner_, proxy) : proxy;
}

void ReferenceCollection::copyContents(AbstractOwnedCollection const &other) {
    assignFrom(static_cast<ReferenceCollection const &>(other));
}

namespace {
/// The opposite as a handle for one call, without touching its count: every link passes
/// it, and the metamodel outlives the model.
using UncountedProperty = detail::Uncounted<meta::Property>;
} // namespace

void ReferenceCollection::associate(ModelElement::Impl *element) {
    if (!owner_ || !element || element->isProxy())
        return;
    if (opposite_) {
        // An owner linked to itself has this collection as far end: told again, it would
        // hold the owner twice.
        if (!detail::isOwnFarEnd(element, owner_, property_.get(), opposite_))
            owner_->_inverseAddThis(element, UncountedProperty(opposite_), /*force=*/false);
    } else if (isComposite()) {
        owner_->_setContainedByThis(element, property_);
    }
}

void ReferenceCollection::dissociate(ModelElement::Impl *element) {
    if (!owner_ || !element || element->isProxy())
        return;
    if (opposite_) {
        // Nor may it let go of the owner before its own removal, which would then take
        // whatever moved into the owner's place.
        if (!detail::isOwnFarEnd(element, owner_, property_.get(), opposite_))
            owner_->_inverseRemoveThis(element, UncountedProperty(opposite_));
    } else if (isComposite()) {
        // Only a child that this collection still holds leaves its container.
        if (element->containerImpl() == owner_ && element->containmentFeatureImpl() == property_.get())
            owner_->_basicSetUncontained(element);
    }
}

bool ReferenceCollection::isEntryClass(ModelElement const &element, meta::Class const &entryClass) {
    if (!entryClass)
        return true;
    meta::Class const &cls = element->getMetaClass();
    return cls && cls->isA(entryClass);
}

void ReferenceCollection::checkEntryClass(ModelElement const &element, meta::Class const &entryClass) {
    if (isEntryClass(element, entryClass))
        return;
    meta::Class const &cls = element->getMetaClass();
    raise<messages::CannotAddIncompatibleTypes>(cls ? cls->getQualifiedName() : basalt::ustring(),
                                                entryClass->getQualifiedName());
}

void ReferenceCollection::destroyAllContents() {
    std::vector<ModelElement> const doomed = getAllValues();
    Operation operation(*this);
    modifying();
    basicClear();
    for (ModelElement const &element : doomed)
        element->destroy();
    operation.commit();
}

// --- The store-only level, reached through elements --------------------------------------

void ModelElement::Impl::_basicAdd(ReferenceCollection &collection, ModelElement const &element) {
    collection.basicAdd(element);
}

void ModelElement::Impl::_basicRemove(ReferenceCollection &collection, ModelElement const &element) {
    collection.basicRemove(element);
}

void ModelElement::Impl::_basicClear(ReferenceCollection &collection) { collection.basicClear(); }

void ModelElement::Impl::_basicCopyValues(ReferenceCollection &collection, ReferenceCollection const &other) {
    collection.basicCopyValues(other);
}

bool ModelElement::Impl::_basicContainsProxyTo(ReferenceCollection &collection, ModelElement const &element) {
    return collection.basicContainsProxyTo(element);
}

void ModelElement::Impl::_loadCollectionContents(ReferenceCollection &) {
    // Data sources fill collections here once they exist; a model without one has
    // nothing to load.
}

} // namespace kivra

namespace kivra::detail {

void raiseCollectionOfProxy() { raise<messages::CannotModifyProxy>(); }

void raiseKeyTaken() { raise<messages::UniquenessConstraint>(); }

void leaveKeyHolders(ModelElement::Impl &element, std::vector<KeyHolder> const &holders) {
    for (KeyHolder const &holder : holders)
        element._inverseRemoveThis(holder.owner, *holder.property);
}

void returnToKeyHolders(ModelElement::Impl &element, std::vector<KeyHolder> const &holders) {
    for (KeyHolder const &holder : holders)
        element._inverseAddThis(holder.owner, *holder.property, /*force=*/true);
}

meta::Property::Impl *oppositeOf(meta::Property const &property) {
    if (!property)
        return nullptr;
    // Every new collection asks: the stored end spares a count, unless it must resolve.
    if (meta::Property::Impl *const stored = property->peekOpposite(); !stored || !stored->isProxy())
        return stored;
    return property->getOpposite().get();
}

void resolveCollectionOnAccess(ModelElement::Impl const &owner, ReferenceCollection &collection) {
    // Readers of a frozen model, on several threads at once, store nothing: the proxies of
    // a collection wait for the thaw, as a single reference's do.
    Model::Impl const *const model = owner.getModelImpl();
    if (!model->isParsingInProgress() && !model->isFrozen())
        collection.resolveAll();
}

void assignCollection(ReferenceCollection &collection, Value const &value) {
    if (value.getPayload() == &collection)
        return;
    std::vector<Value> const entries = value.extractEntryValues();
    GenericCollectionInterface &view = *collection.getGenericInterface();
    // An entry may still be refused after the old ones have gone: with no transaction open,
    // the assignment takes one that keeps old values, so that a refusal puts them back.
    ModelElement::Impl *const owner = collection.getOwnerImpl();
    Transaction own;
    if (owner && !owner->getModelImpl()->currentTransaction())
        own = owner->getModelImpl()->beginTransaction(/*revertible=*/true);
    view.genericClear();
    for (Value const &entry : entries)
        view.genericAdd(entry.getElement());
    own.commit();
}

void destroyChildren(ModelElement::Impl &owner, ReferenceCollection &collection, std::uint64_t index,
                     bool modelDestroying, bool multiModel) {
    // Announced first, so that a roll-back gets the children back into their places.
    owner.notifyModifying(index);
    // The entries leave the collection before the children go, and their references go
    // with them: a sequence, the common case, hands its vector over without a copy.
    auto const destroy = [&](auto const &children) {
        for (ModelElement const &child : children)
            if (child.get() && !child->isProxy())
                child->destroyRecursively(modelDestroying, /*removeFromContainer=*/false, multiModel);
    };
    if (auto *sequence = dynamic_cast<ElementSequenceBase *>(&collection)) {
        destroy(sequence->basicTakeAll());
        return;
    }
    std::vector<ModelElement> const children = collection.getAllValuesAndProxies();
    ModelElement::Impl::_basicClear(collection);
    destroy(children);
}

} // namespace kivra::detail
