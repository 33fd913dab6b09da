#include <kivra/ModelElement.hpp>

#include "collections/HeldElements.hpp"
#include "core/ElementPool.hpp"
#include "core/TransactionImpl.hpp"
#include "core/Uncounted.hpp"

#include <kivra/ChangeRecords.hpp>
#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/Value.hpp>
#include <kivra/detail/References.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>
#include <kivra/reflection/ReflectiveModelElementImpl.hpp>

#include <boost/optional/optional.hpp>

#include <mutex>
#include <unordered_map>

namespace kivra {

using Tag = ModelElement::Impl::ReflectionPrivateTag;
Tag const Tag::PUBLIC_ACCESS;
Tag const Tag::PRIVILEGED_ACCESS;
Tag const Tag::NO_PROXY_RESOLVE;
Tag const Tag::IN_MEMORY_ONLY;

namespace {

static_assert(sizeof(ModelElement::Impl) == 48, "an element's containment lives in the spare bytes of its identity");

/// The properties of the rare containments whose index cannot stand for them.
struct WideContainments {
    std::mutex mutex;
    std::unordered_map<ModelElement::Impl const *, meta::Property::Impl *> properties;
};
WideContainments &wideContainments() {
    static WideContainments *const table = new WideContainments; // used by elements that outlive statics
    return *table;
}

} // namespace

meta::Class const &ModelElement::metaClass() {
    meta::detail::ensureDescribed();
    static meta::Class const &slot = (meta::detail::metaclassSlot(parseUuidLiteral("42663bf5-8b3d-3c82-938a-ed709e37a269")));
    return slot;
}

void ModelElement::initializeType(meta::MetaRegistry &registry) {
    meta::detail::initializeCoreClass(registry, meta::detail::metaclassSlot(parseUuidLiteral("42663bf5-8b3d-3c82-938a-ed709e37a269")), "42663bf5-8b3d-3c82-938a-ed709e37a269",
                                      u"ModelElement", "kivra.ModelElement");
}

// The hold on the model is taken with the memory and given up with it: the pool lives in
// the model, so the shell must outlast the return of the last block.
void ModelElement::Impl::operator delete(void *block, Model const &) noexcept {
    detail::ElementPool::abandon(block)->releaseHold();
}

void ModelElement::Impl::operator delete(void *block, std::size_t size) noexcept {
    detail::BulkHoldRelease::release(detail::ElementPool::deallocate(block, size));
}

ModelElement::Impl::Impl(Model const &model, boost::uuids::uuid const &uuid)
    : ElementImpl(uuid, UnderConstruction), model_(model.get()) {
    if (uuid.is_nil())
        marks_ |= FreshUuidMark;
}

ModelElement::Impl::~Impl() {
    guardAgainstReentrantDeletion();
    if (containment_ == wideContainment) [[unlikely]]
        clearContainment();
    if (isProxy()) {
        model_->forgetProxyId(this);
    } else if (validity_ > 0) {
        Model keep = model_->getModel();
        // A tombstone's model may be gone; it let go of its extension values when it died.
        if (model_->extensions_) [[unlikely]]
            model_->forgetExtensionValues(this);
        model_->remove(this);
    }
    if (marks_ & MovedMark) [[unlikely]]
        model_->releaseHold();
}

// --- Proxies -------------------------------------------------------------------------------

ModelElement ModelElement::createProxy(Model const &model, meta::Class const &cls, ProxyId const &proxyId) {
    if (ModelElement proxy = meta::MetaRegistry::getInstance()->instantiateProxy(cls, model, proxyId))
        return proxy;
    // Without a generated class the proxy is a reflective element; an abstract class has none.
    if (cls && !cls->getIsAbstract())
        return reflection::ReflectiveModelElementImpl::createProxy(model, cls, proxyId);
    raise<messages::NoSuchType>(cls.get() ? cls->getQualifiedName() : basalt::ustring());
}

void ModelElement::Impl::makeProxy(ProxyId const &proxyId) {
    model_->setProxyId(this, proxyId);
    marks_ |= ProxyMark;
    validity_ = Proxy;
}

boost::optional<ProxyId> ModelElement::Impl::getProxyId() const {
    ProxyId const *id = isProxy() ? model_->proxyIdOf(this) : nullptr;
    return id ? boost::optional<ProxyId>(*id) : boost::none;
}

ProxyId ModelElement::Impl::getPersistentProxyId(bool local) const {
    ProxyId const *id = isProxy() ? model_->proxyIdOf(this) : nullptr;
    return id ? *id : model_->getPersistentProxyId(this, local);
}

ProxyId ModelElement::Impl::_getPersistentProxyId() const { return model_->getPersistentProxyId(this, false); }

namespace detail {
ModelElement resolveHeldProxy(ModelElement::Impl const &holder, ModelElement const &proxy) {
    return holder.getModelImpl()->resolveProxy(&holder, proxy);
}

ModelElement peekResolveHeldProxy(ModelElement::Impl const &holder, ModelElement const &proxy) {
    return holder.getModelImpl()->peekResolveProxy(&holder, proxy);
}

bool mayStoreOnRead(ModelElement::Impl const &holder) noexcept { return !holder.getModelImpl()->isFrozen(); }
} // namespace detail

Model ModelElement::Impl::getModel() const { return model_->getModel(); }

// --- Containment -------------------------------------------------------------------------

ModelElement ModelElement::Impl::container() const { return ModelElement(containerImpl(), true); }

meta::Property::Impl *ModelElement::Impl::containmentFeatureImpl() const noexcept {
    if (containment_ == 0 || validity_ == Invalid)
        return nullptr;
    if (containment_ == wideContainment) [[unlikely]] {
        WideContainments &wide = wideContainments();
        std::lock_guard const lock(wide.mutex);
        return wide.properties.at(this);
    }
    return container_->propertyImplByIndex(containment_);
}

void ModelElement::Impl::setContainment(Impl *container, meta::Property::Impl *property) {
    std::int32_t const index = property->getPropertyIndex();
    bool const fits = index > 0 && index < wideContainment && container->propertyImplByIndex(std::uint64_t(index)) == property;
    if (fits) [[likely]] {
        if (containment_ == wideContainment)
            clearContainment();
        containment_ = std::uint16_t(index);
    } else {
        WideContainments &wide = wideContainments();
        std::lock_guard const lock(wide.mutex);
        wide.properties[this] = property;
        containment_ = wideContainment;
    }
    container_ = container;
}

void ModelElement::Impl::clearContainment() noexcept {
    if (containment_ == wideContainment) [[unlikely]] {
        WideContainments &wide = wideContainments();
        std::lock_guard const lock(wide.mutex);
        wide.properties.erase(this);
    }
    containment_ = 0;
    container_ = nullptr;
}

meta::Property ModelElement::Impl::containmentFeature() const {
    return meta::Property::fromImpl(containmentFeatureImpl());
}

meta::Property ModelElement::Impl::containerFeature() const {
    meta::Property::Impl const *const feature = containmentFeatureImpl();
    return feature ? feature->getOpposite() : meta::Property();
}

// --- Reflective access -------------------------------------------------------------------

void ModelElement::Impl::raiseNoSuchProperty(meta::Property const &property) const {
    meta::Class const &cls = getMetaClass();
    raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(),
                                    cls.get() ? cls->getQualifiedName() : basalt::ustring());
}

bool ModelElement::Impl::hasPropertyValue(meta::Property const &property, ReflectionPrivateTag const &) const {
    raiseNoSuchProperty(property);
}

void const *ModelElement::Impl::nativeValueAddress(meta::Property::Impl const &) const noexcept { return nullptr; }

Value ModelElement::Impl::getPropertyValue(meta::Property const &property, ReflectionPrivateTag const &) const {
    // Extensions, which a model adds to a class for itself, answer here once they exist.
    raiseNoSuchProperty(property);
}

void ModelElement::Impl::setPropertyValue(meta::Property const &property, Value const &, ReflectionPrivateTag const &) {
    raiseNoSuchProperty(property);
}

meta::Property ModelElement::Impl::getPropertyByIndex(std::uint64_t) const { return {}; }

meta::Property::Impl *ModelElement::Impl::propertyImplByIndex(std::uint64_t index) const {
    // A class without a raw lookup of its own: the handle's property outlives the handle.
    return getPropertyByIndex(index).get();
}

basalt::ustring ModelElement::Impl::identifier() const { return {}; }

// --- Creation and change protocol --------------------------------------------------------

void ModelElement::Impl::notifyCreated() {
    validity_ = Valid;
    model_->elementCreated(this, /*topLevel=*/true, /*unshared=*/true);
    didCreate();
}

void ModelElement::Impl::notifyModifying(std::uint64_t index, void const *scalar, std::size_t size) {
    if (index == 0 || index == noPropertyIndex || validity_ == UnderConstruction || validity_ == Proxy)
        return;
    model_->elementModifying(this, index, scalar, size);
}

void ModelElement::Impl::raiseNotModifiable() const {
    if (isProxy())
        raise<messages::CannotModifyProxy>();
    // A tombstone's model may be gone; nothing may reach it through the element.
    raise<messages::InvalidValue>();
}

ModelElement::Impl::Modification::Modification(Impl &element, std::uint64_t index, void const *scalar,
                                               std::size_t size)
    : level_(TransactionImpl::openLevel(element.model_)) {
    if (!level_)
        own_ = element.model_->beginTransaction(false);
    try {
        element.notifyModifying(index, scalar, size);
    } catch (...) {
        if (level_)
            dropLevel();
        throw;
    }
}

bool ModelElement::Impl::changesInPlace() noexcept { return TransactionImpl::changeInPlace(model_, this); }

void ModelElement::Impl::Modification::commit() {
    if (!level_) {
        own_.commit();
        return;
    }
    TransactionImpl *const transaction = std::exchange(level_, nullptr);
    transaction->commitLevel();
}

void ModelElement::Impl::Modification::dropLevel() noexcept {
    TransactionImpl *const transaction = std::exchange(level_, nullptr);
    transaction->voteAsDroppedLevel();
    transaction->leaveLevel();
}

void ModelElement::Impl::basicSetContainer(Impl *container, meta::Property const &feature, std::uint64_t index) {
    notifyModifying(index);
    if (container && feature) {
        if (container->model_ != model_)
            raise<messages::CannotChangeModel>();
        // The table changes before the pointers, so that the transaction still reads the
        // old container.
        if (isTopLevel())
            model_->elementNoLongerTopLevel(this);
        setContainment(container, feature.get());
    } else {
        if (!isTopLevel())
            model_->elementMadeTopLevel(this);
        clearContainment();
    }
}

void ModelElement::Impl::makeUncontained() {
    if (isTopLevel() || validity_ == Invalid)
        return;
    Transaction transaction = model_->beginTransaction(false);
    ModelElement const self(this, true);
    meta::Property const feature = containmentFeature();
    if (!container_->isProxy())
        container_->inverseRemove(self, feature);
    // The far end may have run this already.
    if (!isTopLevel()) {
        meta::Property const opposite = feature->getOpposite();
        notifyModifying(opposite ? std::uint64_t(opposite->getPropertyIndex()) : noPropertyIndex);
        model_->elementMadeTopLevel(this);
        clearContainment();
    }
    transaction.commit();
}

void ModelElement::Impl::checkCircularContainment(Impl const *newContainer) const {
    for (Impl const *ancestor = newContainer; ancestor; ancestor = ancestor->containerImpl())
        if (ancestor == this)
            raise<messages::CircularContainment>();
}

void ModelElement::Impl::checkCompatibleModel(Impl const *target, meta::Property const &property) const {
    if (!target || !target->isValid())
        return;
    if (!target->isProxy() && target->model_ == model_)
        return;
    meta::Property::Impl const *p = property.get();
    if (p && p->getIsComposite()) {
        if (ProxyId const *id = target->isProxy() ? target->model_->proxyIdOf(target) : nullptr; id && id->getModelId())
            raise<messages::CannotCreateCrossModelAssociation>();
        target->checkCircularContainment(this);
    }
    bool const twoWay = p && p->getOpposite();
    if (model_->isRegistryModel())
        raise<messages::CannotCreateCrossModelAssociation>();
    // References into the metamodel, and out of a transient model, are one-way only.
    if ((target->model_->isRegistryModel() || model_->isTransientModel()) && twoWay)
        raise<messages::CannotCreateCrossModelAssociation>();
}

// --- Association protocol ----------------------------------------------------------------

void ModelElement::Impl::inverseAdd(ModelElement const &, meta::Property const &property) {
    raiseNoSuchProperty(property);
}

void ModelElement::Impl::inverseRemove(ModelElement const &, meta::Property const &property) {
    raiseNoSuchProperty(property);
}

bool ModelElement::Impl::inverseContainsProxyTo(ModelElement const &, meta::Property const &property) const {
    // The far end of a composite is the link to the container, which holds no proxy.
    if (property) {
        meta::Property const opposite = property->getOpposite();
        if (opposite && opposite->getIsComposite())
            return true;
    }
    raiseNoSuchProperty(property);
}

void ModelElement::Impl::basicAssociate(ModelElement const &, meta::Property const &property) {
    raiseNoSuchProperty(property);
}

namespace {
/// This element as a handle for one call to its far end.
using UncountedSelf = detail::Uncounted<ModelElement>;
} // namespace

void ModelElement::Impl::_inverseAddThis(Impl *target, meta::Property const &property, bool force) {
    // A proxy's far end is completed when it resolves; a tombstone has none to keep, and
    // its model may be a shell that must not be asked for a transaction.
    if (!target || !target->isValidNonProxy())
        return;
    if (!force && model_->isParsingInProgress() && property->getUpper() != 1 && !property->getIsComposite()) {
        // While a document is read, both ends of a many-valued pair arrive by themselves.
        meta::Property const opposite = property->getOpposite();
        if (!opposite || !opposite->getIsComposite())
            return;
    }
    target->inverseAdd(UncountedSelf(this), property);
}

void ModelElement::Impl::_inverseRemoveThis(Impl *target, meta::Property const &property) {
    if (!target || !target->isValidNonProxy())
        return;
    target->inverseRemove(UncountedSelf(this), property);
}

namespace {

/// Whether `far`'s `property` holds `owner`, or a proxy that stands for it, read off its
/// values: the far end's own question puts `owner` in place of the proxy it finds.
bool holdsWithoutStoring(ModelElement::Impl &far, meta::Property const &property, ModelElement::Impl const *owner) {
    // The far end of a composite is the link to the container, which holds no proxy.
    if (meta::Property const opposite = property ? property->getOpposite() : meta::Property();
        opposite && opposite->getIsComposite())
        return true;
    Value const value = far.getPropertyValue(property, Tag::NO_PROXY_RESOLVE);
    return detail::anyHeldElement(value, !isCollection(value.getFlags()), [&](ModelElement const &entry) {
        return entry.get() == owner ||
               (entry.get() && entry->isProxy() && detail::peekResolveHeldProxy(far, entry).get() == owner);
    });
}

} // namespace

bool ModelElement::Impl::_inverseContainsThis(Impl *target, meta::Property const &property) {
    // Readers of a frozen model, on several threads at once, store nothing: they resolve a
    // proxy whose far end may hold a proxy too, which its own answer would replace. Nor
    // does the far end keep this element while it is new in a transaction: a roll-back
    // would leave it there dead, in place of the proxy.
    if (!detail::mayStoreOnRead(*target) || isNewInTransaction())
        return holdsWithoutStoring(*target, property, this);
    return target->inverseContainsProxyTo(UncountedSelf(this), property);
}

namespace {

// The index of the child's end of `feature`, where the child records its change of
// container, whichever end made it.
std::uint64_t containerEndIndex(meta::Property const &feature) {
    meta::Property const end = feature ? feature->getOpposite() : meta::Property();
    return end ? std::uint64_t(end->getPropertyIndex()) : ModelElement::Impl::noPropertyIndex;
}

} // namespace

void ModelElement::Impl::_setContainedByThis(Impl *element, meta::Property const &property) {
    element->makeUncontained();
    element->basicSetContainer(this, property, containerEndIndex(property));
}

bool ModelElement::Impl::_changesQuietly() const noexcept {
    Model::Impl const *const model = model_;
    TransactionImpl const *const transaction = model->currentTransaction_;
    return transaction && validity_ == Valid && !transaction->isInterested() &&
           !transaction->has(TransactionImpl::ApplyingRollBack) && model->freezeCount_ == 0 &&
           model->dataSourceLoadingCount_ == 0 && model->isValid();
}

ModelElement::Impl *ModelElement::Impl::_adoptQuietly(Impl *child, meta::Property::Impl *property) {
    // Filling a model puts each new element into its container's list: the general path
    // passes a dozen layers that each find nothing to record, check or tell. This one asks
    // once whether any of them would, and otherwise ends where they would end.
    Model::Impl *const model = model_;
    if (!_changesQuietly())
        return nullptr;
    if (child->model_ != model || child->validity_ != Valid ||
        (child->marks_ & (ProxyMark | HeldByModelMark)) != HeldByModelMark || !child->isTopLevel())
        return nullptr;
    for (Impl const *ancestor = this; ancestor; ancestor = ancestor->containerImpl())
        if (ancestor == child)
            return nullptr;
    child->setContainment(this, property);
    // The model's reference moves to the caller: as top level, then as a child, the
    // element is held once.
    child->marks_ &= ~HeldByModelMark;
    --model->topLevelCount_;
    return child;
}

void ModelElement::Impl::_basicSetUncontained(Impl *element) {
    element->basicSetContainer(nullptr, {}, containerEndIndex(element->containmentFeature()));
}

void ModelElement::Impl::_destroyRecursively(Impl *element, bool modelDestroying, bool multiModel) {
    if (element)
        element->destroyRecursively(modelDestroying, false, multiModel);
}

void ModelElement::Impl::basicDisassociateAll() {
    clearContainment();
    // Element values of extensions are counted handles too: two dead elements that name
    // each other there would hold each other until the model goes.
    if (model_->extensions_) [[unlikely]]
        model_->forgetExtensionValues(this);
}

void ModelElement::Impl::convertReferencesToProxies(bool, boost::optional<ProxyId> &) {}

void ModelElement::Impl::convertToProxy(meta::Property const &, ProxyId const &, ModelElement const &) {}

// --- Change records ------------------------------------------------------------------------

void ModelElement::Impl::copyValue(Storage *, std::uint64_t index) const {
    raiseNoSuchProperty(getPropertyByIndex(index));
}

void ModelElement::Impl::copyStateFromStorage(Storage *storage) {
    if (storage->extensionChanges()) [[unlikely]]
        restoreExtensions(storage);
    if (!storage->isContainerChanged())
        return;
    // Both ends of a containment have records of their own: this end puts back only its
    // link, with no far end and no notice.
    if (meta::Property const &feature = storage->getOldContainmentFeature(); feature) {
        basicSetContainer(storage->getOldContainer().get(), feature, noPropertyIndex);
    } else if (!isTopLevel()) {
        model_->elementMadeTopLevel(this);
        clearContainment();
    }
}

// --- Destruction ---------------------------------------------------------------------------

void ModelElement::Impl::notifyDestroying() { model_->elementDestroying(this); }

void ModelElement::Impl::destroy() {
    if (validity_ == Invalid)
        return;
    ModelElement const keep(this, true);
    bool const multiModel = model_->isInMultiModelConstellation();
    Transaction transaction = model_->beginTransaction(false);
    if (validity_ != Invalid) {
        if (!isProxy()) {
            aboutToDestroy();
            notifyDestroying();
            disassociateIncoming();
            if (!isTopLevel())
                container_->inverseRemove(keep, containmentFeature());
            doDestroy(/*modelDestroying=*/false, multiModel);
        }
        invalidate();
        releaseUnlessRestorable();
    }
    transaction.commit();
}

void ModelElement::Impl::destroyRecursively(bool modelDestroying, bool removeFromContainer, bool multiModel) {
    if (validity_ == Invalid)
        return;
    // The container or the model's table may hold the last reference.
    ModelElement const keep(this, true);
    if (!isProxy()) {
        aboutToDestroy();
        notifyDestroying();
        if (!modelDestroying)
            disassociateIncoming();
        if (removeFromContainer && !isTopLevel())
            container_->inverseRemove(keep, containmentFeature());
        doDestroy(modelDestroying, multiModel);
    }
    invalidate();
    releaseUnlessRestorable();
}

void ModelElement::Impl::releaseUnlessRestorable() {
    // A tombstone that no roll-back can bring back must not keep others alive: two that
    // refer to each other would never be freed. A deep transaction lets go at its end.
    if (!(marks_ & DestroyedHereMark))
        basicDisassociateAll();
}

void ModelElement::Impl::invalidate() { ElementImpl::invalidate(); }

void ModelElement::Impl::doDestroy(bool, bool) {}

} // namespace kivra
