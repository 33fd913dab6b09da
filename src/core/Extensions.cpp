#include "core/Extensions.hpp"

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/ChangeRecords.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/TransactionFactory.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DynamicExtensions.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/ExtensionPrototype.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/Type.hpp>

#include <algorithm>

namespace kivra {

using detail::DeclaredExtension;
using detail::ElementExtensionValues;
using detail::ExtensionSlot;
using detail::ExtensionValue;
using detail::ModelExtensions;

namespace {

basalt::ustring qualifiedNameOf(meta::Class const &cls) { return cls.get() ? cls->getQualifiedName() : basalt::ustring(); }

[[noreturn]] void raiseNoSuchExtension(basalt::ustring const &name, meta::Class const &cls) {
    raise<messages::NoSuchExtension>(name, qualifiedNameOf(cls));
}

bool isElementValued(meta::Type const &type) { return dynamic_cast<meta::Class::Impl *>(type.get()) != nullptr; }

bool isSingle(meta::Extension const &extension) { return extension->getUpper() == 1; }

/// A new collection for `extension`, owned by `owner` or free-standing; null when its type
/// has none.
std::unique_ptr<AbstractOwnedCollection> makeCollection(ModelElement const &owner, meta::Extension const &extension) {
    return std::unique_ptr<AbstractOwnedCollection>(
        meta::MetaRegistry::getInstance()->instantiateDynamicCollection(owner, extension));
}

/// The `DynamicExtensions` of the model with serial number `modelID` under `cls`, made
/// when there is none; in a transaction of the registry model.
meta::DynamicExtensions ownerIn(meta::Class const &cls, std::uint64_t modelID, Model const &registryModel) {
    if (meta::DynamicExtensions found = cls->getExtensions().at(modelID))
        return found;
    meta::DynamicExtensions const owner = meta::DynamicExtensions::create(registryModel);
    // The key first: the class files its owners under it.
    owner->setModelID(modelID);
    owner->setOwningClass(cls);
    return owner;
}

/// Ends a registry transaction, which must commit.
void commitOrRaise(Transaction &transaction) {
    if (transaction.commit() != TransactionResult::Committed)
        raise<messages::NoOpenTransaction>();
}

} // namespace

namespace detail {

Value ExtensionSlot::read(meta::Extension const &extension) const {
    if (!collection)
        return *value;
    if (auto *primitive = dynamic_cast<AbstractPrimitiveCollection *>(collection.get()))
        return Value(*primitive, extension);
    return Value(static_cast<ReferenceCollection &>(*collection), extension);
}

DeclaredExtension const *ModelExtensions::find(meta::Class const &cls, basalt::ustring const &name,
                                               bool inherited) const {
    if (!cls)
        return nullptr;
    // A name is unique along every chain of inheritance, so at most one record can be an
    // ancestor of the class: the nearest is the only one.
    auto const [first, last] = declared.equal_range(name);
    for (auto record = first; record != last; ++record)
        if (record->second.owningClass == cls || (inherited && cls->isA(record->second.owningClass)))
            return &record->second;
    return nullptr;
}

} // namespace detail

// --- Declarations on the model -----------------------------------------------------------

meta::Extension Model::Impl::extendMetaclass(meta::Class const &cls, meta::ExtensionPrototype const &prototype,
                                             boost::optional<Value> const &defaultValue) {
    meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
    meta::MetaRegistry::LockedModel const locked = registry.getMetaRegistryModel();
    Model const &registryModel = locked.get();
    if (!cls || cls->getModelImpl() != registryModel.get())
        raise<messages::CannotCreateWithoutModel>();
    meta::Type const type = registry.getType(prototype.getTypeName());
    if (!type)
        raise<messages::NoSuchType>(prototype.getTypeName());
    bool const elementValued = isElementValued(type);
    if (prototype.getName().empty())
        raise<messages::ExtensionMustHaveName>();
    if (extensions_) {
        auto const [first, last] = extensions_->declared.equal_range(prototype.getName());
        for (auto record = first; record != last; ++record)
            if (record->second.owningClass->isA(cls) || cls->isA(record->second.owningClass))
                raise<messages::ExtensionNameMustBeUnique>();
    }
    if (prototype.getUpper() == 1 && !defaultValue && !elementValued)
        raise<messages::ExtensionMustHaveDefaultValue>();

    if (!extensions_)
        extensions_ = std::make_unique<ModelExtensions>();
    meta::Extension extension;
    {
        // Revertible, so that a failure below leaves the registry model as it was.
        Transaction transaction = registryModel->getDefaultTransactionFactory().beginRevertibleTransaction();
        meta::DynamicExtensions const owner = ownerIn(cls, serialNumber_, registryModel);
        extension = meta::Extension::create(registryModel);
        extension->setName(prototype.getName());
        extension->setType(type);
        extension->setOwner(owner);
        extension->setLower(prototype.getLower());
        extension->setUpper(prototype.getUpper());
        extension->setIsUnique(prototype.getIsUnique());
        extension->setIsOrdered(prototype.getIsOrdered());
        extension->setIsPublicAccessor(true);
        extension->setIsPublicMutator(true);
        if (defaultValue)
            defaultValue->checkCompatibleWithProperty(extension);
        if (prototype.getUpper() != 1 && !meta::MetaRegistry::getInstance()->instantiateUnmanagedCollection(extension))
            raise<messages::CannotInstantiateCollection>(type->getQualifiedName());
        commitOrRaise(transaction);
    }

    boost::optional<Value> kept = defaultValue;
    if (elementValued && prototype.getUpper() == 1)
        kept = Value::createEmptyValue(meta::Class::fromImpl(static_cast<meta::Class::Impl *>(type.get())));
    extensions_->declared.emplace(prototype.getName(), DeclaredExtension{extension, cls, std::move(kept)});
    notifyExtensionAdded(extension);
    return extension;
}

void Model::Impl::unextendMetaclass(meta::Class const &cls, basalt::ustring const &name) {
    meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
    meta::MetaRegistry::LockedModel const locked = registry.getMetaRegistryModel();
    Model const &registryModel = locked.get();
    if (!cls || cls->getModelImpl() != registryModel.get())
        raise<messages::CannotCreateWithoutModel>();
    meta::DynamicExtensions const owner = cls->getExtensions().at(serialNumber_);
    meta::Extension const extension = owner ? owner->getExtensions().at(name) : meta::Extension();
    if (!extension || !extensions_)
        raiseNoSuchExtension(name, cls);
    {
        Transaction transaction = registryModel->getDefaultTransactionFactory().beginRevertibleTransaction();
        Model const self = getModel();
        forEachListener([&](ExtensionListener *listener) { listener->extensionRemoved(self, extension); });
        extension->destroy();
        if (!owner->hasExtensions())
            owner->destroy();
        commitOrRaise(transaction);
    }
    auto const [first, last] = extensions_->declared.equal_range(name);
    for (auto entry = first; entry != last; ++entry)
        if (entry->second.extension == extension) {
            extensions_->declared.erase(entry);
            break;
        }
}

meta::Extension Model::Impl::getDeclaredExtension(meta::Class const &cls, basalt::ustring const &name) const {
    meta::MetaRegistry::LockedConstModel const locked(*meta::MetaRegistry::getInstance());
    DeclaredExtension const *record = extensions_ ? extensions_->find(cls, name, /*inherited=*/false) : nullptr;
    return record ? record->extension : meta::Extension();
}

meta::Extension Model::Impl::getExtension(meta::Class const &cls, basalt::ustring const &name) const {
    DeclaredExtension const *record = extensions_ ? extensions_->find(cls, name, /*inherited=*/true) : nullptr;
    return record ? record->extension : meta::Extension();
}

Value Model::Impl::getExtensionDefault(meta::Class const &cls, basalt::ustring const &name) const {
    DeclaredExtension const *record = extensions_ ? extensions_->find(cls, name, /*inherited=*/true) : nullptr;
    if (!record || !record->defaultValue)
        raiseNoSuchExtension(name, cls);
    return *record->defaultValue;
}

meta::Extension Model::Impl::validateExtension(meta::Extension const &extension,
                                               boost::optional<Value> const &defaultValue) const {
    if (!extensions_)
        return extension;
    meta::Class const extended = extension->getExtendedMetaclass();
    auto const [first, last] = extensions_->declared.equal_range(extension->getName());
    for (auto entry = first; entry != last; ++entry) {
        DeclaredExtension const &record = entry->second;
        meta::Class const &owner = record.owningClass;
        if (extended && extended->isA(owner) && extended != owner)
            return {};
        if (!owner->isA(extended))
            continue;
        meta::Extension const &mine = record.extension;
        if (mine->getType() != extension->getType())
            return {};
        if (mine->getUpper() < 2) {
            if (extension->getUpper() > 1 || extension->getLower() != mine->getLower())
                return {};
            if (!isElementValued(mine->getType()) &&
                (record.defaultValue.has_value() != defaultValue.has_value() ||
                 (defaultValue && *defaultValue != *record.defaultValue)))
                return {};
        } else if (extension->getUpper() < 2 || extension->getIsUnique() != mine->getIsUnique() ||
                   extension->getIsOrdered() != mine->getIsOrdered()) {
            return {};
        }
        return mine;
    }
    return extension;
}

void Model::Impl::notifyExtensionAdded(meta::Extension const &extension) {
    if (!extensions_)
        return;
    Model const self = getModel();
    forEachListener([&](ExtensionListener *listener) { listener->extensionAdded(self, extension); });
}

void Model::Impl::forEachListener(std::function<void(ExtensionListener *)> const &tell) {
    // A listener may take others off, and they may be gone by the time their turn comes:
    // only those still listening are told.
    std::vector<ExtensionListener *> const listening = extensions_->listeners;
    for (ExtensionListener *listener : listening)
        if (extensions_ && std::find(extensions_->listeners.begin(), extensions_->listeners.end(), listener) !=
                               extensions_->listeners.end())
            tell(listener);
}

void Model::Impl::addExtensionListener(ExtensionListener *listener) {
    if (!listener)
        return;
    if (!isValid()) {
        listener->listenerRemoved();
        return;
    }
    if (!extensions_)
        extensions_ = std::make_unique<ModelExtensions>();
    auto &listeners = extensions_->listeners;
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end())
        listeners.push_back(listener);
}

void Model::Impl::removeExtensionListener(ExtensionListener *listener) {
    if (!extensions_)
        return;
    auto &listeners = extensions_->listeners;
    if (auto found = std::find(listeners.begin(), listeners.end(), listener); found != listeners.end()) {
        listeners.erase(found);
        listener->listenerRemoved();
    }
}

// --- Values on elements ------------------------------------------------------------------

void ModelElement::Impl::notifyModifying(meta::Extension const &extension) { model_->elementModifying(this, extension); }

Value ModelElement::Impl::getExtension(basalt::ustring const &name) {
    meta::Class const &cls = getMetaClass();
    ModelExtensions *tables = model_->extensions_.get();
    DeclaredExtension const *record = tables ? tables->find(cls, name, /*inherited=*/true) : nullptr;
    std::unique_lock<std::mutex> const readers = tables ? tables->lockForReaders(model_->isFrozen())
                                                        : std::unique_lock<std::mutex>();
    if (tables)
        if (auto values = tables->values.find(this); values != tables->values.end()) {
            ElementExtensionValues &own = *values->second;
            if (auto found = own.find(name); found != own.end()) {
                if (record && found->second.extension == record->extension->getUuid())
                    return found->second.read(record->extension);
                own.retire(found); // stale: the extension it was made for is gone
            }
        }
    if (!record)
        raiseNoSuchExtension(name, cls);
    if (isSingle(record->extension)) {
        if (!record->defaultValue)
            raiseNoSuchExtension(name, cls);
        return *record->defaultValue;
    }
    // The first read of a collection makes it, empty: changes go through it.
    std::unique_ptr<AbstractOwnedCollection> collection = makeCollection(ModelElement(this, true), record->extension);
    if (!collection)
        raiseNoSuchExtension(name, cls);
    auto &own = tables->values[this];
    if (!own)
        own = std::make_unique<ElementExtensionValues>();
    ExtensionValue &entry = (*own)[name];
    entry.extension = record->extension->getUuid();
    entry.collection = std::move(collection);
    return entry.read(record->extension);
}

void ModelElement::Impl::setExtension(basalt::ustring const &name, Value const &value) {
    meta::Extension const extension = model_->getExtension(getMetaClass(), name);
    if (!extension || !isSingle(extension))
        raiseNoSuchExtension(name, getMetaClass());
    setExtension(extension, value);
}

void ModelElement::Impl::setExtension(meta::Extension const &extension, Value const &value) {
    checkModifiable();
    // Only the extension that this model gives the element's class names a value of it.
    if (!extension || model_->getExtension(getMetaClass(), extension->getName()) != extension)
        raiseNoSuchExtension(extension ? extension->getName() : basalt::ustring(), getMetaClass());
    Transaction transaction = model_->beginTransaction(false);
    value.checkCompatibleWithProperty(extension);
    Value copy = value;
    if (meta::Type const type = extension->getType(); type && type->getName() == u"VantorArray")
        copy = meta::MetaRegistry::getInstance()->convertValueForOwnership(copy);
    basalt::ustring const &name = extension->getName();
    Value const defaultValue = model_->getExtensionDefault(getMetaClass(), name);
    auto &own = model_->extensions_->values[this];
    if (!own)
        own = std::make_unique<ElementExtensionValues>();
    auto found = own->find(name);
    if (found != own->end() && found->second.extension != extension->getUuid()) {
        own->retire(found);
        found = own->end();
    }
    if (copy == defaultValue) {
        if (found != own->end()) {
            notifyModifying(extension);
            own->erase(found);
        }
    } else if (found != own->end()) {
        if (!(found->second.value && *found->second.value == copy)) {
            notifyModifying(extension);
            found->second.value = std::move(copy);
        }
    } else {
        notifyModifying(extension);
        ExtensionValue &entry = (*own)[name];
        entry.extension = extension->getUuid();
        entry.value = std::move(copy);
    }
    if (own->holdsNothing())
        model_->extensions_->values.erase(this);
    transaction.commit();
}

bool ModelElement::Impl::hasNonDefaultExtension(basalt::ustring const &name) const {
    ModelExtensions *tables = model_->extensions_.get();
    if (!tables)
        return false;
    // Beside the readers of a frozen model that make collections (see `getExtension`).
    std::unique_lock<std::mutex> const readers = tables->lockForReaders(model_->isFrozen());
    auto const values = tables->values.find(this);
    if (values == tables->values.end())
        return false;
    DeclaredExtension const *record = tables->find(getMetaClass(), name, /*inherited=*/true);
    if (!record)
        return false;
    auto const found = values->second->find(name);
    if (found == values->second->end() || found->second.extension != record->extension->getUuid())
        return false;
    return !found->second.collection || !found->second.collection->empty();
}

void ModelElement::Impl::copyExtensionValue(Storage *storage, meta::Extension const &extension) const {
    detail::ExtensionChanges *changes = storage->extensionChanges();
    auto *entry = changes ? changes->find(extension->getUuid()) : nullptr;
    if (!entry || entry->second)
        return;
    auto slot = std::make_unique<ExtensionSlot>();
    ExtensionValue const *current = nullptr;
    if (ModelExtensions const *tables = model_->extensions_.get())
        if (auto values = tables->values.find(this); values != tables->values.end())
            if (auto found = values->second->find(extension->getName());
                found != values->second->end() && found->second.extension == extension->getUuid())
                current = &found->second;
    if (!isSingle(extension)) {
        // Made for this element, whose record keeps it alive; filled by copy, it announces nothing.
        slot->collection = makeCollection(ModelElement(const_cast<ModelElement::Impl *>(this), true), extension);
        if (slot->collection && current && current->collection)
            slot->collection->copyContents(*current->collection);
    } else if (current) {
        slot->value = current->value;
    } else {
        slot->value = model_->getExtensionDefault(getMetaClass(), extension->getName());
    }
    entry->second = std::move(slot);
}

void ModelElement::Impl::restoreExtensions(Storage *storage) {
    detail::ExtensionChanges *changes = storage->extensionChanges();
    if (!changes)
        return;
    meta::MetaRegistry::LockedConstModel const registry(*meta::MetaRegistry::getInstance());
    // A roll-back stores the old values as they were, with no transaction and no notice.
    for (auto const &[uuid, slot] : changes->entries) {
        if (!slot)
            continue;
        auto const extension = meta::Extension::fromImpl(
            dynamic_cast<meta::Extension::Impl *>(registry->findElement(uuid).get()));
        if (!extension || !model_->extensions_)
            continue;
        basalt::ustring const &name = extension->getName();
        if (!isSingle(extension)) {
            if (slot->collection) {
                getExtension(name); // makes the collection when the element has none
                (*model_->extensions_->values[this])[name].collection->copyContents(*slot->collection);
            }
            continue;
        }
        auto &own = model_->extensions_->values[this];
        if (!own)
            own = std::make_unique<ElementExtensionValues>();
        DeclaredExtension const *record = model_->extensions_->find(getMetaClass(), name, /*inherited=*/true);
        if (auto const stale = own->find(name); stale != own->end() && stale->second.collection)
            own->retire(stale);
        if (record && record->defaultValue && *record->defaultValue == *slot->value) {
            own->erase(name);
        } else {
            ExtensionValue &entry = (*own)[name];
            entry.extension = uuid;
            entry.value = *slot->value;
        }
        if (own->holdsNothing())
            model_->extensions_->values.erase(this);
    }
}

void Model::Impl::forgetExtensionValues(ModelElement::Impl const *element) noexcept {
    // The values go before the element: a collection among them names it as its owner.
    if (auto found = extensions_->values.find(element); found != extensions_->values.end()) {
        std::unique_ptr<ElementExtensionValues> values = std::move(found->second);
        extensions_->values.erase(found);
    }
}

// --- Change records ----------------------------------------------------------------------

bool ModelElement::Impl::Changes::setModified(meta::Extension const &extension) {
    if (!extensions_)
        extensions_ = std::make_unique<detail::ExtensionChanges>();
    if (extensions_->find(extension->getUuid()))
        return true;
    extensions_->entries.emplace_back(extension->getUuid(), nullptr);
    return false;
}

bool ModelElement::Impl::Changes::isExtensionChanged(basalt::ustring const &name) const {
    if (!extensions_ || !model_)
        return false;
    meta::Extension const extension = model_->getExtension(getMetaClass(), name);
    return extension && extension->isValid() && extensions_->find(extension->getUuid());
}

std::vector<meta::Extension> ModelElement::Impl::Changes::getChangedExtensions() const {
    std::vector<meta::Extension> result;
    if (!extensions_)
        return result;
    meta::MetaRegistry::LockedConstModel const registry(*meta::MetaRegistry::getInstance());
    for (auto const &entry : extensions_->entries)
        if (auto *extension = dynamic_cast<meta::Extension::Impl *>(registry->findElement(entry.first).get()))
            result.push_back(meta::Extension::fromImpl(extension));
    return result;
}

Value ModelElement::Impl::Storage::getExtensionOldValue(basalt::ustring const &name) const {
    meta::Class const &cls = getMetaClass();
    meta::Extension const extension = getModel() ? getModel()->getExtension(cls, name) : meta::Extension();
    auto *entry = extension && extensionChanges() ? extensionChanges()->find(extension->getUuid()) : nullptr;
    if (!entry || !entry->second)
        raise<messages::NoSuchProperty>(name, qualifiedNameOf(cls));
    return entry->second->read(extension);
}

} // namespace kivra

namespace kivra {

// --- The model's end and its move ----------------------------------------------------------

void Model::Impl::dropExtensionListeners() noexcept {
    if (!extensions_)
        return;
    std::vector<ExtensionListener *> const listeners = std::move(extensions_->listeners);
    extensions_->listeners.clear();
    for (ExtensionListener *listener : listeners)
        listener->listenerRemoved();
}

namespace {

/// Takes `extension` out of its owner, and the owner out of its class once it holds no
/// other extension; in a transaction of the registry model.
void destroyWithEmptyOwner(meta::Extension const &extension) {
    meta::DynamicExtensions const owner = extension->getOwner();
    extension->destroy();
    if (owner && owner->isValid() && !owner->hasExtensions())
        owner->destroy();
}

/// Destroys extensions and the owners they leave empty, in one registry transaction.
void destroyInRegistry(std::vector<meta::Extension> const &extensions) {
    if (extensions.empty())
        return;
    meta::MetaRegistry::LockedModel const locked = meta::MetaRegistry::getInstance()->getMetaRegistryModel();
    Transaction transaction = locked->getDefaultTransactionFactory().beginTransaction();
    for (meta::Extension const &extension : extensions)
        destroyWithEmptyOwner(extension);
    transaction.commit();
}

} // namespace

void Model::Impl::dropExtensions() noexcept {
    if (!extensions_)
        return;
    // Values may hold the last handles of elements, whose own ends look into the table:
    // the table is empty by the time they go.
    auto values = std::move(extensions_->values);
    extensions_->values.clear();
    values.clear();
    std::vector<meta::Extension> extensions;
    for (auto &[name, record] : extensions_->declared)
        extensions.push_back(record.extension);
    extensions_->declared.clear();
    try {
        if (meta::MetaRegistry::getInstance()->getMetaRegistryModel().get().get() != this)
            destroyInRegistry(extensions);
    } catch (...) {
        // A model's end does not fail; the registry keeps what it could not destroy.
    }
}

std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> Model::Impl::moveExtensionsTo(Impl *to) {
    std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> replaced;
    if (!extensions_ || extensions_->declared.empty())
        return replaced;
    std::vector<DeclaredExtension *> moving;
    for (auto &[name, record] : extensions_->declared) {
        meta::Extension const use = to->validateExtension(record.extension, record.defaultValue);
        if (!use)
            raise<messages::ExtensionNameMustBeUnique>();
        if (use != record.extension)
            replaced.emplace_back(record.extension->getUuid(), use->getUuid());
        else
            moving.push_back(&record);
    }
    meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
    meta::MetaRegistry::LockedModel const locked = registry.getMetaRegistryModel();
    Model const &registryModel = locked.get();
    if (!to->extensions_)
        to->extensions_ = std::make_unique<ModelExtensions>();
    {
        Transaction transaction = registryModel->getDefaultTransactionFactory().beginRevertibleTransaction();
        for (DeclaredExtension *record : moving) {
            meta::DynamicExtensions const from = record->extension->getOwner();
            record->extension->setOwner(ownerIn(record->owningClass, to->serialNumber_, registryModel));
            // An owner that keeps replaced extensions goes with them at the end.
            if (from && !from->hasExtensions())
                from->destroy();
        }
        if (transaction.commit() != TransactionResult::Committed)
            raise<messages::CannotChangeModel>();
    }
    for (DeclaredExtension *record : moving) {
        to->extensions_->declared.emplace(record->extension->getName(), *record);
        to->notifyExtensionAdded(record->extension);
    }
    return replaced;
}

void Model::Impl::moveExtensionValues(ModelElement::Impl const *element, Impl *to,
                                      std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> const &replaced) {
    if (!extensions_)
        return;
    auto found = extensions_->values.find(element);
    if (found == extensions_->values.end())
        return;
    for (auto &[name, value] : *found->second)
        for (auto const &[from, into] : replaced)
            if (value.extension == from)
                value.extension = into;
    if (!to->extensions_)
        to->extensions_ = std::make_unique<ModelExtensions>();
    to->extensions_->values[element] = std::move(found->second);
    extensions_->values.erase(found);
}

void Model::Impl::finishExtensionMove(
    std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> const &replaced) noexcept {
    if (!extensions_)
        return;
    std::vector<meta::Extension> extensions;
    for (auto &[name, record] : extensions_->declared)
        if (std::any_of(replaced.begin(), replaced.end(),
                        [&](auto const &pair) { return pair.first == record.extension->getUuid(); }))
            extensions.push_back(record.extension);
    extensions_->declared.clear();
    try {
        destroyInRegistry(extensions);
    } catch (...) {
        // The contents have moved; what the registry could not destroy stays there.
    }
}

} // namespace kivra
