#include <kivra/reflection/ReflectiveModelElementImpl.hpp>
#include <kivra/detail/Setter.hpp>

#include "reflection/ClassLayout.hpp"
#include "reflection/ReflectiveDataTypeCollections.hpp"
#include "reflection/ReflectiveEnumCollections.hpp"

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/reflection/ReflectiveCollections.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/random_generator.hpp>

#include <absl/container/flat_hash_map.h>

#include <atomic>
#include <mutex>
#include <new>
#include <utility>

namespace kivra::reflection {

using detail::ClassLayout;
using detail::PropertySlot;
using detail::SlotKind;
using Tag = ModelElement::Impl::ReflectionPrivateTag;

namespace {

basalt::ustring qualifiedNameOf(meta::Type const &type) { return type ? type->getQualifiedName() : basalt::ustring(); }

bool isElementValue(Value const &value) {
    return !isCollection(value.getFlags()) && dynamic_cast<meta::Class::Impl const *>(value.getType().get());
}

/// The element collection that a managed collection value views; null for other values.
ReferenceCollection *referenceCollectionIn(Value const &value) {
    if (!value.isManaged() || !isCollection(value.getFlags()) || !value.getPayload() ||
        !dynamic_cast<meta::Class::Impl const *>(value.getType().get()))
        return nullptr;
    return static_cast<ReferenceCollection *>(const_cast<void *>(value.getPayload()));
}

meta::MetaRegistry &registry() { return *meta::MetaRegistry::getInstance(); }

// A collection slot as it stands: null until first use. Readers of a frozen model may
// make it on another thread at the same time, through the same atomic access.
template <class T> T *madeIn(void *slot) {
    return std::atomic_ref<T *>(*static_cast<T **>(slot)).load(std::memory_order_acquire);
}

// Guards the first use of a collection slot, which a reader may make.
std::mutex &firstUseMutex() {
    static std::mutex mutex;
    return mutex;
}

// The key of an entry in a reflective map: the qualifier's value read strictly as `K`; a
// value with no content gives `K`'s default.
template <class K> K readKey(ModelElement::Impl const &entry, meta::Property const &qualifier) {
    Value const key = ReflectiveModelElementImpl::unwrapKey(entry.getPropertyValue(qualifier, Tag::PRIVILEGED_ACCESS));
    return key.hasPayload() ? key.get<K>() : K{};
}

template <class K>
std::unique_ptr<ReferenceCollection> makeKeyed(bool unique, bool hashed, ModelElement::Impl *owner,
                                               meta::Class const &cls, meta::Property::Impl *property,
                                               meta::Property::Impl *opposite, meta::Property const &qualifier) {
    auto key = [qualifier](ModelElement::Impl const &entry) { return readKey<K>(entry, qualifier); };
    if (unique && hashed)
        return std::unique_ptr<ReferenceCollection>(
            new (owner) ReflectiveUnorderedElementMap<K>(key, owner, cls, property, opposite));
    if (unique)
        return std::unique_ptr<ReferenceCollection>(new (owner) ReflectiveElementMap<K>(key, owner, cls, property, opposite));
    if (hashed)
        return std::unique_ptr<ReferenceCollection>(
            new (owner) ReflectiveUnorderedElementMultimap<K>(key, owner, cls, property, opposite));
    return std::unique_ptr<ReferenceCollection>(new (owner) ReflectiveElementMultimap<K>(key, owner, cls, property, opposite));
}

} // namespace

// --- Construction and destruction ----------------------------------------------------------

ModelElement ReflectiveModelElementImpl::createProxy(Model const &model, meta::Class const &cls,
                                                     ProxyId const &proxyId) {
    auto *const impl = new (model) ReflectiveModelElementImpl(model, cls, {});
    ModelElement element = ModelElement::fromImpl(impl);
    impl->makeProxy(proxyId);
    return element;
}

ReflectiveModelElementImpl::ReflectiveModelElementImpl(Model const &model, meta::Class const &cls,
                                                       boost::uuids::uuid const &uuid)
    : ModelElement::Impl(model, uuid), metaClass_(cls), layout_(&ClassLayout::of(cls)) {
    if (layout_->blockSize == 0)
        return;
    slots_.reset(new std::byte[layout_->blockSize]);
    std::size_t made = 0;
    try {
        for (PropertySlot const &s : layout_->slots) {
            void *const at = slot(s.offset);
            switch (s.kind) {
            case SlotKind::Plain:
                // Owned like every value the slot takes later, so that the one release
                // in the destructor or on replacement fits each.
                new (at) Value(registry().convertValueForOwnership(
                    s.dynamicDefault ? Value(s.property->getType(), boost::uuids::random_generator()())
                                     : layout_->startValues[s.plain]));
                break;
            case SlotKind::Reference:
                new (at) ModelElement();
                break;
            case SlotKind::References:
            case SlotKind::Primitives:
            case SlotKind::StringMap:
                // Made on first use: most to-many properties of most elements stay empty.
                *static_cast<void **>(at) = nullptr;
                break;
            case SlotKind::ContainerEnd:
                break;
            }
            ++made;
        }
    } catch (...) {
        destroySlots(made);
        slots_.reset();
        throw;
    }
}

ReflectiveModelElementImpl::~ReflectiveModelElementImpl() {
    if (slots_)
        destroySlots(layout_->slots.size());
}

void ReflectiveModelElementImpl::destroySlots(std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i) {
        PropertySlot const &s = layout_->slots[i];
        void *const at = slot(s.offset);
        switch (s.kind) {
        case SlotKind::Plain: {
            auto *const value = static_cast<Value *>(at);
            registry().releaseOwnedValue(*value);
            value->~Value();
            break;
        }
        case SlotKind::Reference:
            static_cast<ModelElement *>(at)->~ModelElement();
            break;
        case SlotKind::References:
            delete *static_cast<ReferenceCollection **>(at);
            break;
        case SlotKind::Primitives:
            delete *static_cast<AbstractPrimitiveCollection **>(at);
            break;
        case SlotKind::StringMap:
            delete *static_cast<StringToStringMap **>(at);
            break;
        case SlotKind::ContainerEnd:
            break;
        }
    }
}

ReferenceCollection &ReflectiveModelElementImpl::referenceCollection(meta::Property::Impl const *property,
                                                                     std::uint32_t offset) const {
    std::atomic_ref<ReferenceCollection *> held(*static_cast<ReferenceCollection **>(slot(offset)));
    if (ReferenceCollection *present = held.load(std::memory_order_acquire)) [[likely]]
        return *present;
    // Readers of a frozen model may meet here on several threads.
    std::lock_guard const lock(firstUseMutex());
    if (ReferenceCollection *present = held.load(std::memory_order_relaxed))
        return *present;
    std::unique_ptr<ReferenceCollection> made = instantiateCollection(
        meta::Property::fromImpl(const_cast<meta::Property::Impl *>(property)), /*withOwner=*/true, /*hashed=*/false);
    const_cast<ReflectiveModelElementImpl *>(this)->_loadCollectionContents(*made);
    held.store(made.get(), std::memory_order_release);
    return *made.release();
}

AbstractPrimitiveCollection &ReflectiveModelElementImpl::primitiveCollection(meta::Property::Impl const *property,
                                                                             std::uint32_t offset) const {
    std::atomic_ref<AbstractPrimitiveCollection *> held(*static_cast<AbstractPrimitiveCollection **>(slot(offset)));
    if (AbstractPrimitiveCollection *present = held.load(std::memory_order_acquire)) [[likely]]
        return *present;
    std::lock_guard const lock(firstUseMutex());
    if (AbstractPrimitiveCollection *present = held.load(std::memory_order_relaxed))
        return *present;
    std::unique_ptr<AbstractPrimitiveCollection> made = instantiatePrimitiveCollection(
        meta::Property::fromImpl(const_cast<meta::Property::Impl *>(property)), /*withOwner=*/true);
    held.store(made.get(), std::memory_order_release);
    return *made.release();
}

StringToStringMap &ReflectiveModelElementImpl::stringMap(meta::Property::Impl const *property,
                                                         std::uint32_t offset) const {
    std::atomic_ref<StringToStringMap *> held(*static_cast<StringToStringMap **>(slot(offset)));
    if (StringToStringMap *present = held.load(std::memory_order_acquire)) [[likely]]
        return *present;
    std::lock_guard const lock(firstUseMutex());
    if (StringToStringMap *present = held.load(std::memory_order_relaxed))
        return *present;
    auto *const owner = const_cast<ReflectiveModelElementImpl *>(this);
    auto *const made =
        new (owner) StringToStringMap(_privateTag(), owner, const_cast<meta::Property::Impl *>(property));
    held.store(made, std::memory_order_release);
    return *made;
}

std::unique_ptr<ReferenceCollection>
ReflectiveModelElementImpl::instantiateCollection(meta::Property const &property, bool withOwner, bool hashed) const {
    auto *const owner = withOwner ? const_cast<ReflectiveModelElementImpl *>(this) : nullptr;
    meta::Class const cls = meta::Class::fromImpl(dynamic_cast<meta::Class::Impl *>(property->getType().get()));
    meta::Property::Impl *const p = property.get();
    meta::Property::Impl *const opposite = p->peekOpposite();
    if (meta::Property const qualifier = p->getQualifiedBy(); qualifier) {
        bool const unique = p->getIsQualificationUnique();
        meta::Type const &keyType = qualifier->getType();
        auto const is = [&](meta::PrimitiveType const &standard) { return keyType == meta::Type(standard); };
        using Types = meta::StandardTypes;
        if (is(Types::integerMeta))
            return makeKeyed<std::int32_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::integer8Meta))
            return makeKeyed<std::int8_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::integer16Meta))
            return makeKeyed<std::int16_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::integer64Meta))
            return makeKeyed<std::int64_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::unlimitedNaturalMeta))
            return makeKeyed<std::uint32_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::uinteger8Meta))
            return makeKeyed<std::uint8_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::uinteger16Meta))
            return makeKeyed<std::uint16_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::uinteger64Meta) || internal::isEnumType(keyType))
            return makeKeyed<std::uint64_t>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::realMeta))
            return makeKeyed<double>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::stringMeta))
            return makeKeyed<basalt::ustring>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::stdstringMeta))
            return makeKeyed<std::string>(unique, hashed, owner, cls, p, opposite, qualifier);
        if (is(Types::uuidMeta) || dynamic_cast<meta::Class::Impl const *>(keyType.get()))
            return makeKeyed<boost::uuids::uuid>(unique, hashed, owner, cls, p, opposite, qualifier);
        // Keys of data type records come with reflective data types.
        raise<messages::UnsupportedQualification>(qualifiedNameOf(keyType));
    }
    if (p->getIsOrdered())
        return std::unique_ptr<ReferenceCollection>(
            new (owner) ReflectiveElementSequence(owner, cls, p->getIsUnique(), p, opposite));
    return std::unique_ptr<ReferenceCollection>(new (owner) ReflectiveUnorderedElementSet(owner, cls, p, opposite));
}

std::unique_ptr<AbstractPrimitiveCollection>
ReflectiveModelElementImpl::instantiatePrimitiveCollection(meta::Property const &property, bool withOwner) const {
    ModelElement const owner = withOwner ? ModelElement::fromImpl(const_cast<ReflectiveModelElementImpl *>(this))
                                         : ModelElement();
    std::unique_ptr<AbstractOwnedCollection> made(registry().instantiateDynamicCollection(owner, property));
    if (auto *const collection = dynamic_cast<AbstractPrimitiveCollection *>(made.get())) {
        made.release();
        return std::unique_ptr<AbstractPrimitiveCollection>(collection);
    }
    // An enumeration described at run time has no collection of its own.
    if (internal::isEnumType(property->getType()))
        return detail::makeEnumCollection(owner.get(), property);
    // Nor has a data type without generated code: its entries are records.
    if (dynamic_cast<meta::DataType::Impl const *>(property->getType().get()))
        return detail::makeDataTypeCollection(owner.get(), property);
    raise<messages::CannotInstantiateCollection>(qualifiedNameOf(property->getType()));
}

// --- Reflective access ---------------------------------------------------------------------

bool ReflectiveModelElementImpl::hasPropertyValue(meta::Property const &property, Tag const &tag) const {
    PropertySlot const *s = property.get() ? layout_->find(property.get()) : nullptr;
    if (!s || (!property->getIsPublicAccessor() && !tag.isPrivileged()))
        return ModelElement::Impl::hasPropertyValue(property, tag);
    switch (s->kind) {
    case SlotKind::ContainerEnd:
        return containmentFeatureImpl() == s->opposite;
    case SlotKind::Plain:
        return property->getLower() > 0 || *static_cast<Value const *>(slot(s->offset)) != layout_->emptyValues[s->plain];
    case SlotKind::Primitives: {
        auto const *collection = madeIn<AbstractPrimitiveCollection>(slot(s->offset));
        return collection && collection->size() != 0;
    }
    case SlotKind::StringMap: {
        auto const *map = madeIn<StringToStringMap>(slot(s->offset));
        return map && !map->empty();
    }
    case SlotKind::Reference:
        return static_cast<ModelElement const *>(slot(s->offset))->get() != nullptr;
    case SlotKind::References: {
        auto const *collection = madeIn<ReferenceCollection>(slot(s->offset));
        return collection && collection->getGenericInterface() && !collection->getGenericInterface()->genericEmpty();
    }
    }
    return ModelElement::Impl::hasPropertyValue(property, tag);
}

Value ReflectiveModelElementImpl::getPropertyValue(meta::Property const &property, Tag const &tag) const {
    PropertySlot const *s = property.get() ? layout_->find(property.get()) : nullptr;
    if (!s || (!property->getIsPublicAccessor() && !tag.isPrivileged()))
        return ModelElement::Impl::getPropertyValue(property, tag);
    switch (s->kind) {
    case SlotKind::ContainerEnd:
        return Value(property->getType(), containmentFeatureImpl() == s->opposite ? container() : ModelElement());
    case SlotKind::Plain:
        return *static_cast<Value const *>(slot(s->offset));
    case SlotKind::Primitives:
        return Value::createPrimitiveCollectionValue(property, primitiveCollection(property.get(), s->offset));
    case SlotKind::StringMap:
        return stringMap(property.get(), s->offset).toValue();
    case SlotKind::Reference:
        return Value(property->getType(), *static_cast<ModelElement const *>(slot(s->offset)));
    case SlotKind::References:
        return Value::createReflectiveReferenceCollection(property, referenceCollection(property.get(), s->offset));
    }
    return ModelElement::Impl::getPropertyValue(property, tag);
}

meta::Property ReflectiveModelElementImpl::getPropertyByIndex(std::uint64_t index) const {
    return index < layout_->byIndex.size() ? layout_->byIndex[index] : meta::Property();
}

meta::Property::Impl *ReflectiveModelElementImpl::propertyImplByIndex(std::uint64_t index) const {
    return index < layout_->byIndex.size() ? layout_->byIndex[index].get() : nullptr;
}

Value ReflectiveModelElementImpl::unwrapKey(Value const &value) {
    if (!isElementValue(value))
        return value;
    ModelElement const element = value.getElement();
    return Value(meta::Type(meta::StandardTypes::uuidMeta), element ? element->getUuid() : boost::uuids::uuid{});
}

void ReflectiveModelElementImpl::checkUniqueness(ModelElement const &owner, meta::Property const &collectionProperty,
                                                 Value const &key) {
    if (!owner || !collectionProperty || !collectionProperty->getIsQualificationUnique())
        return;
    ReferenceCollection const *collection =
        referenceCollectionIn(owner->getPropertyValue(collectionProperty, Tag::PRIVILEGED_ACCESS));
    GenericCollectionInterface const *view = collection ? collection->getGenericInterface() : nullptr;
    if (view && view->isMapInterface() && static_cast<GenericMapInterface const *>(view)->genericAt(key))
        raise<messages::UniquenessConstraint>();
}

namespace {

// The elements that `property` of `element` holds, proxies included.
std::vector<ModelElement> heldBy(ModelElement::Impl const &element, meta::Property const &property) {
    Value const value = element.getPropertyValue(property, Tag::PRIVILEGED_ACCESS);
    if (ReferenceCollection const *collection = referenceCollectionIn(value))
        return collection->getAllValuesAndProxies();
    if (isElementValue(value))
        if (ModelElement held = value.getElement())
            return {held};
    return {};
}

} // namespace

void ReflectiveModelElementImpl::setPropertyValue(meta::Property const &property, Value const &value, Tag const &tag) {
    meta::Property::Impl const *const p = property.get();
    PropertySlot const *s = p ? layout_->find(p) : nullptr;
    // A collection is changed through the collection, never replaced.
    if (!s || s->kind == SlotKind::References || s->kind == SlotKind::Primitives || p->getUpper() > 1 ||
        (p->getIsReadOnly() && !p->getIsSetOnce()) || (!p->getIsPublicMutator() && !tag.isPrivileged()))
        return ModelElement::Impl::setPropertyValue(property, value, tag);
    checkModifiable();
    if (s->kind == SlotKind::StringMap)
        // The map takes the entries in one change of its own, or none when they are equal.
        return stringMap(p, s->offset).assign(StringToStringMap::fromValue(value));

    bool const ofElements = s->kind == SlotKind::Reference || s->kind == SlotKind::ContainerEnd;
    ModelElement incoming;
    if (!ofElements) {
        checkPlainValue(property, value);
        Value const &old = *static_cast<Value const *>(slot(s->offset));
        if (old == value)
            return;
        if (p->getIsSetOnce() && old != layout_->emptyValues[s->plain])
            raise<messages::CannotSetReadOnlyProperty>(p->getName());
    } else {
        if (!isElementValue(value))
            raise<messages::CannotCastIncompatibleTypes>(qualifiedNameOf(value.getType()));
        incoming = value.getElement();
        if (incoming && !incoming->getMetaClass()->isA(p->getType()))
            raise<messages::CannotCastIncompatibleTypes>(qualifiedNameOf(p->getType()));
        if (getPropertyValue(property, Tag::PRIVILEGED_ACCESS).getElement() == incoming)
            return;
        checkElementValue(*s, incoming);
    }

    // A key: the maps that hold this element under it must not hold the new one already.
    std::vector<std::pair<ModelElement, meta::Property>> holders;
    if (std::vector<meta::Property> const *users = layout_->usersOf(p)) {
        Value const key = unwrapKey(value);
        for (meta::Property const &user : *users) {
            meta::Property const mapProperty = user->getOpposite();
            for (ModelElement const &holder : heldBy(*this, user)) {
                if (holder->isProxy())
                    continue;
                checkUniqueness(holder, mapProperty, key);
                holders.emplace_back(holder, mapProperty);
            }
        }
    }
    // A new holder whose map is keyed: this element's key must be free there.
    meta::Property::Impl const *const opposite = s->opposite;
    if (ofElements && incoming && opposite && !incoming->isProxy())
        if (meta::Property const key = opposite->getQualifiedBy(); key)
            checkUniqueness(incoming, meta::Property::fromImpl(const_cast<meta::Property::Impl *>(opposite)),
                            unwrapKey(getPropertyValue(key, Tag::PRIVILEGED_ACCESS)));
    if (p->getIsComposite() && incoming) {
        incoming->checkCircularContainment(this);
    } else if (s->kind == SlotKind::ContainerEnd) {
        if (!incoming && containmentFeatureImpl() != opposite)
            return;
        checkCircularContainment(incoming.get());
    }

    // Converted before anything changes: a converter that fails leaves the element, and the
    // maps that hold it under its key, as they were. Released again if it is not stored.
    struct OwnedValue {
        boost::optional<Value> value;
        ~OwnedValue() {
            if (value)
                registry().releaseOwnedValue(*value);
        }
    } owned;
    if (s->kind == SlotKind::Plain)
        owned.value = registry().convertValueForOwnership(value);

    auto modification = beginModification(std::uint64_t(std::max(p->getPropertyIndex(), 0)));
    for (auto const &[holder, mapProperty] : holders)
        _inverseRemoveThis(holder.get(), mapProperty);
    switch (s->kind) {
    case SlotKind::Plain: {
        auto &slotValue = *static_cast<Value *>(slot(s->offset));
        registry().releaseOwnedValue(slotValue);
        slotValue = std::move(*owned.value);
        owned.value.reset();
        break;
    }
    case SlotKind::ContainerEnd: {
        meta::Property const feature = meta::Property::fromImpl(const_cast<meta::Property::Impl *>(opposite));
        makeUncontained();
        if (incoming) {
            basicSetContainer(incoming.get(), feature, noPropertyIndex);
            _inverseAddThis(incoming.get(), feature, /*force=*/true);
        }
        break;
    }
    default:
        storeReference(property, s->offset, incoming);
        break;
    }
    for (auto const &[holder, mapProperty] : holders)
        _inverseAddThis(holder.get(), mapProperty, /*force=*/true);
    modification.commit();
}

void ReflectiveModelElementImpl::checkElementValue(PropertySlot const &s, ModelElement const &element) const {
    ModelElement::Impl const *const other = element.get();
    if (s.kind == SlotKind::ContainerEnd) {
        // The element keeps a raw pointer to its container: neither a tombstone nor a
        // proxy would hold the element or outlive it.
        if (other && !other->isValidNonProxy())
            raise<messages::InvalidValue>();
        if (other && other->getModelImpl() != getModelImpl())
            raise<messages::CannotChangeModel>();
        return;
    }
    bool const composite = s.property->getIsComposite();
    if (composite && other && !other->isValid())
        raise<messages::InvalidValue>();
    checkCompatibleModel(other, s.property);
    if (composite && other && other->getModelImpl() != getModelImpl())
        raise<messages::CannotChangeModel>();
}

void ReflectiveModelElementImpl::checkPlainValue(meta::Property const &property, Value const &value) {
    meta::Property::Impl const *const p = property.get();
    if (value.getType().get() != p->getType().get() || isCollection(value.getFlags()) ||
        (p->getLower() == 1 && value.getFlags() == ValueFlags::Optional))
        raise<messages::CannotCastIncompatibleTypes>(qualifiedNameOf(p->getType()));
}

void ReflectiveModelElementImpl::takeStagedValue(meta::Property const &property, Value const &value) {
    if (PropertySlot const *s = layout_->find(property.get()); s && s->kind == SlotKind::Plain) {
        auto &slotValue = *static_cast<Value *>(slot(s->offset));
        Value owned = registry().convertValueForOwnership(value);
        registry().releaseOwnedValue(slotValue);
        slotValue = std::move(owned);
    }
}

bool ReflectiveModelElementImpl::isHeldHereBy(ModelElement::Impl const &child, meta::Property const &feature) const {
    // A child that moved to another composite of this element is held there now.
    return child.containerImpl() == this && child.containmentFeatureImpl() == feature.get();
}

void ReflectiveModelElementImpl::storeReference(meta::Property const &property, std::uint32_t offset,
                                                ModelElement const &element) {
    auto &held = *static_cast<ModelElement *>(slot(offset));
    meta::Property const opposite = property->getOpposite();
    ModelElement const old = std::exchange(held, element);
    if (old && opposite)
        _inverseRemoveThis(old.get(), opposite);
    if (!element) {
        // A composite without opposite lets its old child go to the top level.
        if (old && property->getIsComposite() && !opposite && isHeldHereBy(*old.get(), property))
            _basicSetUncontained(old.get());
        return;
    }
    if (opposite) {
        _inverseAddThis(element.get(), opposite, /*force=*/true);
    } else if (property->getIsComposite()) {
        _setContainedByThis(element.get(), property);
        if (old && old != element && isHeldHereBy(*old.get(), property))
            _basicSetUncontained(old.get());
    }
}

// --- Association protocol --------------------------------------------------------------------

void ReflectiveModelElementImpl::inverseAdd(ModelElement const &other, meta::Property const &property) {
    PropertySlot const *s = property.get() ? layout_->find(property.get()) : nullptr;
    if (!s || !detail::holdsElements(s->kind))
        return ModelElement::Impl::inverseAdd(other, property);
    if (s->kind == SlotKind::References)
        return _basicAdd(referenceCollection(property.get(), s->offset), other);
    std::uint64_t const index = std::uint64_t(std::max(property->getPropertyIndex(), 0));
    notifyModifying(index);
    if (s->kind == SlotKind::ContainerEnd) {
        makeUncontained();
        basicSetContainer(other.get(), meta::Property::fromImpl(s->opposite), index);
        return;
    }
    auto &held = *static_cast<ModelElement *>(slot(s->offset));
    if (held && held != other && s->opposite)
        _inverseRemoveThis(held.get(), meta::Property::fromImpl(s->opposite));
    held = other;
}

void ReflectiveModelElementImpl::inverseRemove(ModelElement const &other, meta::Property const &property) {
    PropertySlot const *s = property.get() ? layout_->find(property.get()) : nullptr;
    if (!s || !detail::holdsElements(s->kind))
        return ModelElement::Impl::inverseRemove(other, property);
    if (s->kind == SlotKind::References) {
        if (auto *collection = *static_cast<ReferenceCollection **>(slot(s->offset)))
            _basicRemove(*collection, other);
        return;
    }
    std::uint64_t const index = std::uint64_t(std::max(property->getPropertyIndex(), 0));
    if (s->kind == SlotKind::ContainerEnd) {
        if (containerImpl() == other.get() && containmentFeatureImpl() == s->opposite)
            basicSetContainer(nullptr, {}, index);
        return;
    }
    auto &held = *static_cast<ModelElement *>(slot(s->offset));
    if (held == other) {
        notifyModifying(index);
        held.reset();
    }
}

void ReflectiveModelElementImpl::basicAssociate(ModelElement const &other, meta::Property const &property) {
    PropertySlot const *s = property.get() ? layout_->find(property.get()) : nullptr;
    if (!s || !detail::holdsElements(s->kind))
        return ModelElement::Impl::basicAssociate(other, property);
    if (s->kind == SlotKind::References)
        return _basicAdd(referenceCollection(property.get(), s->offset), other);
    std::uint64_t const index = std::uint64_t(std::max(property->getPropertyIndex(), 0));
    notifyModifying(index);
    if (s->kind == SlotKind::ContainerEnd) {
        basicSetContainer(other.get(), meta::Property::fromImpl(s->opposite), index);
        return;
    }
    *static_cast<ModelElement *>(slot(s->offset)) = other;
    if (other && property->getIsComposite() && !s->opposite)
        _setContainedByThis(other.get(), property);
}

// --- Change records ----------------------------------------------------------------------------

struct ReflectiveModelElementImpl::ReflectiveStorage::Kept {
    absl::flat_hash_map<meta::Property::Impl const *, Value> values;
    absl::flat_hash_map<meta::Property::Impl const *, ModelElement> references;
    absl::flat_hash_map<meta::Property::Impl const *, std::unique_ptr<ReferenceCollection>> referenceCollections;
    absl::flat_hash_map<meta::Property::Impl const *, std::unique_ptr<AbstractPrimitiveCollection>> primitiveCollections;
    /// A free-standing copy, empty for a map that was never made.
    absl::flat_hash_map<meta::Property::Impl const *, std::unique_ptr<StringToStringMap>> stringMaps;
};

ReflectiveModelElementImpl::ReflectiveStorage::ReflectiveStorage(boost::uuids::uuid const &uuid, Model::Impl *model,
                                                                 meta::Class const &cls, std::uint64_t n)
    : Storage(uuid, model, cls, n), kept_(std::make_unique<Kept>()) {}

ReflectiveModelElementImpl::ReflectiveStorage::~ReflectiveStorage() {
    // The kept values are owned copies, or after a roll-back the element's own, swapped in.
    for (auto const &[property, value] : kept_->values)
        registry().releaseOwnedValue(value);
}

Value ReflectiveModelElementImpl::ReflectiveStorage::getOldValue(meta::Property const &property, Tag const &tag) const {
    meta::Class const &cls = getMetaClass();
    if (!property || !cls || !cls->isATypeOf(property))
        return Storage::getOldValue(property, tag);
    meta::Property::Impl const *p = property.get();
    if (auto const found = kept_->values.find(p); found != kept_->values.end())
        return found->second;
    if (auto const found = kept_->primitiveCollections.find(p); found != kept_->primitiveCollections.end())
        return Value::createPrimitiveCollectionValue(property, *found->second);
    if (auto const found = kept_->references.find(p); found != kept_->references.end())
        return Value(property->getType(), found->second);
    if (auto const found = kept_->referenceCollections.find(p); found != kept_->referenceCollections.end())
        return Value::createReflectiveReferenceCollection(property, *found->second);
    if (auto const found = kept_->stringMaps.find(p); found != kept_->stringMaps.end())
        return found->second->toValue();
    if (property->getUpper() != 1 || (p->peekOpposite() && p->peekOpposite()->getIsComposite()))
        return Storage::getOldValue(property, tag);
    return Value::createEmptyValue(property);
}

ModelElement::Impl::Changes *ReflectiveModelElementImpl::createChanges() const {
    return new Changes(getUuid(), getModelImpl(), metaClass_, layout_->propertyCount);
}

ModelElement::Impl::Storage *ReflectiveModelElementImpl::createStorage() const {
    return new ReflectiveStorage(getUuid(), getModelImpl(), metaClass_, layout_->propertyCount);
}

void ReflectiveModelElementImpl::copyValue(Storage *storage, std::uint64_t index) const {
    meta::Property const property = getPropertyByIndex(index);
    PropertySlot const *s = property ? layout_->find(property.get()) : nullptr;
    if (!s)
        return ModelElement::Impl::copyValue(storage, index);
    auto &kept = *static_cast<ReflectiveStorage *>(storage)->kept_;
    meta::Property::Impl const *p = property.get();
    switch (s->kind) {
    case SlotKind::Plain: {
        Value owned = registry().convertValueForOwnership(*static_cast<Value const *>(slot(s->offset)));
        if (auto const [at, fresh] = kept.values.try_emplace(p, std::move(owned)); !fresh) {
            registry().releaseOwnedValue(at->second);
            at->second = std::move(owned);
        }
        return;
    }
    case SlotKind::Primitives: {
        std::unique_ptr<AbstractPrimitiveCollection> copy = instantiatePrimitiveCollection(property, false);
        if (auto const *present = *static_cast<AbstractPrimitiveCollection *const *>(slot(s->offset)))
            copy->restoreFrom(present);
        kept.primitiveCollections.insert_or_assign(p, std::move(copy));
        return;
    }
    case SlotKind::StringMap: {
        auto const *present = *static_cast<StringToStringMap *const *>(slot(s->offset));
        kept.stringMaps.insert_or_assign(p, present ? present->cloneFreeStanding()
                                                    : std::unique_ptr<StringToStringMap>(new (nullptr) StringToStringMap()));
        return;
    }
    case SlotKind::Reference:
        kept.references.insert_or_assign(p, *static_cast<ModelElement const *>(slot(s->offset)));
        return;
    case SlotKind::References: {
        std::unique_ptr<ReferenceCollection> copy = instantiateCollection(property, false, false);
        if (auto const *present = *static_cast<ReferenceCollection *const *>(slot(s->offset)))
            _basicCopyValues(*copy, *present);
        kept.referenceCollections.insert_or_assign(p, std::move(copy));
        return;
    }
    case SlotKind::ContainerEnd:
        // The element's end of a composite is its container link.
        storage->setOldContainer(container(), containmentFeature());
        return;
    }
}

void ReflectiveModelElementImpl::copyStateFromStorage(Storage *storage) {
    auto &kept = *static_cast<ReflectiveStorage *>(storage)->kept_;
    for (PropertySlot const &s : layout_->slots) {
        meta::Property::Impl const *p = s.property.get();
        if (!storage->isChanged(std::uint64_t(std::max(p->getPropertyIndex(), 0))))
            continue;
        switch (s.kind) {
        case SlotKind::Plain:
            if (auto const found = kept.values.find(p); found != kept.values.end())
                std::swap(*static_cast<Value *>(slot(s.offset)), found->second);
            break;
        case SlotKind::Primitives:
            if (auto const found = kept.primitiveCollections.find(p); found != kept.primitiveCollections.end())
                primitiveCollection(p, s.offset).restoreFrom(found->second.get());
            break;
        case SlotKind::StringMap:
            if (auto const found = kept.stringMaps.find(p); found != kept.stringMaps.end())
                stringMap(p, s.offset).restoreFrom(found->second.get());
            break;
        case SlotKind::Reference:
            if (auto const found = kept.references.find(p); found != kept.references.end())
                *static_cast<ModelElement *>(slot(s.offset)) = found->second;
            break;
        case SlotKind::References:
            if (auto const found = kept.referenceCollections.find(p); found != kept.referenceCollections.end())
                _basicCopyValues(referenceCollection(p, s.offset), *found->second);
            break;
        case SlotKind::ContainerEnd:
            break;
        }
    }
    ModelElement::Impl::copyStateFromStorage(storage);
}

// --- Destruction ---------------------------------------------------------------------------------

void ReflectiveModelElementImpl::disassociateIncoming() {
    ModelElement const self = ModelElement::fromImpl(this);
    for (PropertySlot const &s : layout_->slots) {
        if (s.kind == SlotKind::References) {
            auto *collection = *static_cast<ReferenceCollection **>(slot(s.offset));
            if (!collection || s.property->getIsComposite())
                continue;
            if (s.opposite)
                for (ModelElement const &entry : collection->getAllValues())
                    _inverseRemoveThis(entry.get(), meta::Property::fromImpl(s.opposite));
            _basicClear(*collection);
        } else if (s.kind == SlotKind::Reference && s.opposite && !s.property->getIsComposite()) {
            auto &held = *static_cast<ModelElement *>(slot(s.offset));
            if (held) {
                notifyModifying(std::uint64_t(std::max(s.property->getPropertyIndex(), 0)));
                ModelElement const old = std::exchange(held, ModelElement());
                _inverseRemoveThis(old.get(), meta::Property::fromImpl(s.opposite));
            }
        }
    }
}

void ReflectiveModelElementImpl::doDestroy(bool modelDestroying, bool multiModel) {
    for (PropertySlot const &s : layout_->slots) {
        if (!s.property->getIsComposite())
            continue;
        std::uint64_t const index = std::uint64_t(std::max(s.property->getPropertyIndex(), 0));
        if (s.kind == SlotKind::Reference) {
            auto &held = *static_cast<ModelElement *>(slot(s.offset));
            if (!held)
                continue;
            notifyModifying(index);
            ModelElement const child = std::move(held);
            held = ModelElement();
            if (!child->isProxy())
                child->destroyRecursively(modelDestroying, /*removeFromContainer=*/false, multiModel);
        } else if (s.kind == SlotKind::References) {
            auto *collection = *static_cast<ReferenceCollection **>(slot(s.offset));
            if (!collection || collection->empty())
                continue;
            notifyModifying(index);
            std::vector<ModelElement> const children = collection->getAllValuesAndProxies();
            _basicClear(*collection);
            for (ModelElement const &child : children)
                if (!child->isProxy())
                    child->destroyRecursively(modelDestroying, /*removeFromContainer=*/false, multiModel);
        }
    }
    ModelElement::Impl::doDestroy(modelDestroying, multiModel);
}

void ReflectiveModelElementImpl::basicDisassociateAll() {
    if (slots_)
        for (PropertySlot const &s : layout_->slots) {
            if (s.kind == SlotKind::Reference)
                static_cast<ModelElement *>(slot(s.offset))->reset();
            else if (s.kind == SlotKind::References) {
                // Runs after the transaction has ended: a clear would announce a change
                // with no transaction open, so the collection goes without a word.
                auto *&collection = *static_cast<ReferenceCollection **>(slot(s.offset));
                delete std::exchange(collection, nullptr);
            }
        }
    ModelElement::Impl::basicDisassociateAll();
}

void ReflectiveModelElementImpl::convertReferencesToProxies(bool multiModel, boost::optional<ProxyId> &proxyId) {
    // The model goes away: references let go, so that handles among its elements keep
    // none of them alive, and far ends in other models read as none, as with generated
    // classes. Children are the containment's to release.
    for (PropertySlot const &s : layout_->slots) {
        if (s.property->getIsComposite())
            continue;
        if (s.kind == SlotKind::Reference)
            static_cast<ModelElement *>(slot(s.offset))->reset();
        else if (s.kind == SlotKind::References)
            if (auto *collection = *static_cast<ReferenceCollection **>(slot(s.offset)))
                _basicClear(*collection);
    }
    ModelElement::Impl::convertReferencesToProxies(multiModel, proxyId);
}

} // namespace kivra::reflection

namespace kivra {

ModelElement ModelElement::createReflective(Model const &model, meta::Class const &cls, boost::uuids::uuid const &uuid) {
    // As a builder refuses to create an instance of an abstract class.
    if (cls && cls->getIsAbstract())
        raise<messages::NoSuchOperation>(u"create", cls->getQualifiedName());
    auto *const made = new (model) reflection::ReflectiveModelElementImpl(model, cls, uuid);
    made->addRefWhileUnshared();
    ModelElement element(made, /*addReference=*/false);
    element->notifyCreated();
    return element;
}

} // namespace kivra

namespace kivra::detail {

// Generated setters ask the same question as the run-time elements before a change.
void checkKeyFree(ModelElement::Impl const &element, ModelElement::Impl const &holder, meta::Property const &opposite) {
    using reflection::ReflectiveModelElementImpl;
    if (!opposite->getIsQualificationUnique())
        return;
    meta::Property const key = opposite->getQualifiedBy();
    if (!key)
        return;
    ReflectiveModelElementImpl::checkUniqueness(
        ModelElement::fromImpl(const_cast<ModelElement::Impl *>(&holder)), opposite,
        ReflectiveModelElementImpl::unwrapKey(
            element.getPropertyValue(key, ModelElement::Impl::ReflectionPrivateTag::PRIVILEGED_ACCESS)));
}

} // namespace kivra::detail
