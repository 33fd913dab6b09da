#include "core/DeferredReleases.hpp"
#include "core/ElementTable.hpp"
#include "core/Extensions.hpp"
#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"
#include "core/TransactionImpl.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/Listener.hpp>
#include <kivra/TransactionFactory.hpp>
#include <kivra/WorkQueue.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>
#include <kivra/Value.hpp>
#include <kivra/ElementId.hpp>
#include <kivra/io/ElementId.hpp>
#include <kivra/meta/DataModelUsageProvider.hpp>
#include <kivra/services/ElementIdResolver.hpp>
#include <kivra/services/ModelIdNormalizer.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/meta/PrimitiveType.hpp>

#include <basalt/i18n/Unicode.hpp>
#include <basalt/log/DiagnosticLogger.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <mutex>
#include <bit>
#include <atomic>

namespace kivra {

namespace {

std::atomic<std::uint64_t> modelSerialNumbers{0};

// Tables start small and never grow past one element per bucket: lookups stay at one
// probe on average.
template <class Table> void shapeTable(Table &table) {
    table.max_load_factor(1.0f);
    table.rehash(8);
}

} // namespace

// --- Creation --------------------------------------------------------------------------

Model::Impl::Impl(boost::uuids::uuid const &uuid, ModelConstellation::Impl *constellation,
                  WorkQueueFactory const &workQueueFactory, bool logCreation, std::string const &loggingDomain,
                  ModelContent content)
    : TransactionCoordinator(uuid, Valid), table_(std::make_unique<detail::ElementTable>()),
      serialNumber_(++modelSerialNumbers),
      usageProvider_(std::make_unique<meta::DefaultModelUsageProvider>(content)),
      transactionFactory_(std::make_unique<LocalTransactionFactoryImpl>(this)) {
    shapeTable(lastSeenOrdinals_);
    addRef(); // the reference the returned handle adopts
    if (logCreation) {
        log::Span span = getSpan(loggingDomain);
        span->log(basalt::log::info, "Model created");
    }
    if (constellation) {
        modelURI_ = locationURI_ = u"memory://" + [](std::uint64_t n) {
            std::string const digits = std::to_string(n);
            return std::u16string(digits.begin(), digits.end());
        }(serialNumber_);
        return;
    }
    WorkQueueFactory const factory = workQueueFactory ? workQueueFactory : WorkQueueFactory(&DefaultWorkQueueFactory);
    workQueue_ = factory(this, logCreation ? getSpan() : log::Span());
}

Model Model::Impl::make(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                        WorkQueueFactory const &factory, std::string const &domain, ModelContent content) {
    ModelConstellation members = constellation ? constellation : ModelConstellation::create(factory);
    Model model(new Impl(uuid, members.get(), factory, /*logCreation=*/true, domain, content), /*addReference=*/false);
    members->addModelToConstellation(model.get());
    return model;
}

Model Model::create(ModelSpec const &spec) {
    return Impl::make(spec.getUuid(), spec.getConstellation(), spec.getWorkQueueFactory(), spec.getLoggingDomain(),
                      spec.getModelContent());
}
Model Model::create(ModelConstellation const &constellation, WorkQueueFactory const &factory) {
    return Impl::make({}, constellation, factory, {}, ModelContent::Undetermined);
}
Model Model::create(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                    WorkQueueFactory const &factory) {
    return Impl::make(uuid, constellation, factory, {}, ModelContent::Undetermined);
}
Model Model::createWithLoggingDomain(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                                     WorkQueueFactory const &factory, std::string const &domain) {
    return Impl::make(uuid, constellation, factory, domain, ModelContent::Undetermined);
}
Model Model::createTransientModel(ModelSpec const &spec) {
    return Model(new Impl(spec.getUuid(), nullptr, spec.getWorkQueueFactory(), true, spec.getLoggingDomain(),
                          spec.getModelContent()),
                 false);
}
Model Model::createTransientModel(boost::uuids::uuid const &uuid, WorkQueueFactory const &factory) {
    return Model(new Impl(uuid, nullptr, factory, true, {}, ModelContent::Undetermined), false);
}
Model Model::createRegistryModel(std::u16string const &uri, ModelSpec const &spec) {
    Model model(new Impl(spec.getUuid(), nullptr, spec.getWorkQueueFactory(), /*logCreation=*/false,
                         spec.getLoggingDomain(), spec.getModelContent()),
                false);
    model->modelURI_ = model->locationURI_ = uri;
    return model;
}
Model Model::createRegistryModel(std::u16string const &uri, boost::uuids::uuid const &uuid,
                                 WorkQueueFactory const &factory) {
    Model model(new Impl(uuid, nullptr, factory, false, {}, ModelContent::Undetermined), false);
    model->modelURI_ = model->locationURI_ = uri;
    return model;
}

ModelSpec &ModelSpec::setConstellation(ModelConstellation const &constellation) {
    constellation_ = constellation;
    return *this;
}

// --- Lifetime --------------------------------------------------------------------------

Model::Impl::~Impl() = default;

namespace {
[[gnu::noinline, gnu::cold]] void makePool(std::unique_ptr<detail::ElementPool> &pool, Model::Impl *model) {
    pool = std::make_unique<detail::ElementPool>(model);
}
} // namespace

detail::ElementPool &Model::Impl::elementPool() {
    if (!pool_) [[unlikely]]
        makePool(pool_, this);
    return *pool_;
}

detail::ElementPool &Model::Impl::sharedPool() {
    if (!sharedPool_)
        sharedPool_ = std::make_unique<detail::ElementPool>(this);
    return *sharedPool_;
}

namespace {
/// Its address tells one thread from another.
/// Initial-exec: the library is linked, not loaded late, and every collection made asks for
/// it, which the general model would answer through a call into the loader.
[[gnu::tls_model("initial-exec")]] thread_local char const threadToken = 0;
} // namespace

bool Model::Impl::isWriterThread() const noexcept {
    // Only this thread ever stores its own token, so the answer is exact for it.
    return writer_.load(std::memory_order_relaxed) == &threadToken;
}

// Beside the writer's token and pool: the writer's way, which every element and collection
// takes, is then one call.
void *ModelElement::Impl::operator new(std::size_t size, Model const &model) {
    if (!model)
        raise<messages::CannotCreateWithoutModel>();
    void *const block = model->elementPool().allocate(size);
    // Elements are made by the model's writer, which holds without a locked instruction
    // inside its transaction; outside one, `isWriterThread` is false.
    if (model->isWriterThread())
        model->holdAsWriter();
    else
        model->hold();
    return block;
}

namespace detail {
void *ModelMemory::allocate(Model::Impl *model, std::size_t size) {
    if (!model->isWriterThread())
        return allocateShared(model, size);
    void *const block = model->elementPool().allocate(size);
    model->holdAsWriter();
    return block;
}
} // namespace detail

void Model::Impl::retire() noexcept {
    // From here on handles of the shell count up and down from a value that never
    // reaches zero, so that nothing below can retire the model twice.
    guardAgainstReentrantDeletion();
    if (validity_ != Invalid)
        destroy();
    dropListeners();
    // From here on every hold is counted in `holds_`: a transaction may still be open on
    // the shell, and its thread then holds as any other.
    writer_.store(nullptr, std::memory_order_relaxed);
    holds_.fetch_add(std::exchange(writerHolds_, 0), std::memory_order_relaxed);
    releaseHolds(liveHold);
}

// --- Proxies ---------------------------------------------------------------------------

ProxyId Model::Impl::getPersistentProxyId(ModelElement::Impl const *element, bool local) const {
    return ProxyId(io::ElementId::DEFAULT_IDENTIFIER_TYPE, basalt::i18n::utf8_to_ustring(boost::uuids::to_string(element->getUuid())),
                   local ? boost::optional<basalt::ustring>() : boost::optional<basalt::ustring>(modelURI_));
}

ModelElement Model::Impl::resolveProxy(ModelElement::Impl const *, ModelElement const &proxy) {
    if (validity_ == Destroying)
        return {};
    ProxyId const id = *proxy->getProxyId();
    ModelElement found;
    if (!id.getModelId() || *id.getModelId() == modelURI_)
        found = services::ElementIdResolver::doFindElement(getModel(), proxy->getMetaClass(), io::ElementId(id.getElementId()));
    else if (constellation_)
        found = constellation_->resolveProxy(proxy);
    return found ? found : proxy;
}

ModelElement Model::Impl::peekResolveProxy(ModelElement::Impl const *, ModelElement const &proxy) {
    if (validity_ == Destroying)
        return {};
    ProxyId const id = *proxy->getProxyId();
    ModelElement found;
    if (!id.getModelId() || *id.getModelId() == modelURI_) {
        found = services::ElementIdResolver::doFindElement(getModel(), proxy->getMetaClass(), io::ElementId(id.getElementId()));
    } else if (constellation_) {
        if (Model const other = constellation_->peekModel(*id.getModelId()); other.get() && other.get()->isValid())
            found = services::ElementIdResolver::doFindElement(other, proxy->getMetaClass(), io::ElementId(id.getElementId()));
    }
    return found ? found : proxy;
}

// --- Listeners -------------------------------------------------------------------------

void Model::Impl::addListenerHolder(std::unique_ptr<ListenerHolderBase> holder) {
    // Nothing would ever tell or free a listener of a destroyed model, whose shell may
    // outlive its last handle: the holder goes at once, telling the listener.
    if (validity_ == Invalid)
        return;
    for (ListenerHolderBase const *present : listeners_)
        if (present->getListener() == holder->getListener()) {
            // The listener stays registered: the spare holder must neither tell it nor delete it.
            holder->forgetListener();
            return;
        }
    listeners_.push_back(holder.get());
    if (!holder.release()->isShallow())
        listenerDepth_ = 2;
}

namespace {
// Owned listeners taken off while a transaction of their model runs: one may be taking itself
// off from inside its own callback, which must not return into a deleted object. They are
// told at once and deleted once no transaction of the model runs or tells its observers.
std::mutex retiredLock;
std::vector<std::pair<Model::Impl const *, Listener *>> &retiredListeners() {
    static auto *const retired = new std::vector<std::pair<Model::Impl const *, Listener *>>; // never destroyed
    return *retired;
}
/// How many wait, so that the end of a transaction asks for no lock while none does.
std::atomic<std::size_t> retiredCount{0};
} // namespace

void detail::deleteRetiredListeners(Model::Impl const *model) noexcept {
    // One at a time, the lock let go before each is deleted: a listener's destructor may
    // take a listener off another model.
    while (retiredCount.load(std::memory_order_acquire) != 0) {
        Listener *doomed = nullptr;
        {
            std::lock_guard const lock(retiredLock);
            auto &retired = retiredListeners();
            auto const found = std::find_if(retired.begin(), retired.end(),
                                            [&](auto const &entry) { return entry.first == model; });
            if (found == retired.end())
                return;
            doomed = found->second;
            retired.erase(found);
            retiredCount.store(retired.size(), std::memory_order_release);
        }
        delete doomed;
    }
}

void Model::Impl::removeListener(Listener const &listener) {
    auto const found = std::find_if(listeners_.begin(), listeners_.end(),
                                    [&](ListenerHolderBase const *holder) { return holder->getListener() == &listener; });
    if (found == listeners_.end())
        return;
    std::unique_ptr<ListenerHolderBase> const holder(*found);
    listeners_.erase(found);
    removeListenerFromTransaction(holder.get());
    if (holder->ownsListener_ && (currentTransaction_ || !notifying_.empty())) {
        Listener *const owned = holder->getListener();
        bool retired = true;
        try {
            std::lock_guard const lock(retiredLock);
            retiredListeners().push_back({this, owned});
            retiredCount.store(retiredListeners().size(), std::memory_order_release);
        } catch (std::bad_alloc const &) {
            retired = false; // deleted at once, as the holder would
        }
        if (retired) {
            holder->forgetListener();
            owned->listenerRemoved();
        }
    }
    listenerDepth_ = std::all_of(listeners_.begin(), listeners_.end(),
                                 [](ListenerHolderBase const *remaining) { return remaining->isShallow(); })
                         ? 1
                         : 2;
}

void Model::Impl::removeListenerFromTransaction(ListenerHolderBase *holder) noexcept {
    if (currentTransaction_)
        currentTransaction_->removeListener(holder);
    for (TransactionImpl *transaction : notifying_)
        transaction->removeListener(holder);
}

void Model::Impl::dropListeners() noexcept {
    std::vector<ListenerHolderBase *> holders = std::move(listeners_);
    listeners_.clear();
    listenerDepth_ = 1;
    for (ListenerHolderBase *holder : holders) {
        removeListenerFromTransaction(holder);
        delete holder;
    }
    detail::deleteRetiredListeners(this);
}

namespace detail {
void addListenerHolder(Model const &model, std::unique_ptr<ListenerHolderBase> holder) {
    model->addListenerHolder(std::move(holder));
}
} // namespace detail

void removeListener(Model const &model, Listener const &listener) { model->removeListener(listener); }

ListenerHolderBase::~ListenerHolderBase() {
    if (!listener_)
        return;
    listener_->listenerRemoved();
    if (ownsListener_)
        delete listener_;
}

void Model::Impl::removeRef() {
    if (refCount_.fetch_sub(1) != 1)
        return;
    // A member of a constellation lives as long as the constellation does; the
    // constellation decides whether both are now unreferenced.
    if (constellation_)
        constellation_->modelIsNotExternallyReferenced(this);
    else
        retire();
}

Model Model::Impl::getModel() const { return Model(const_cast<Impl *>(this), true); }

meta::Class const &Model::metaClass() {
    meta::detail::ensureDescribed();
    static meta::Class const &slot = (meta::detail::metaclassSlot(parseUuidLiteral("a559b870-6892-3eec-8508-6ce5485e9784")));
    return slot;
}

void Model::initializeType(meta::MetaRegistry &registry) {
    meta::detail::initializeCoreClass(registry, meta::detail::metaclassSlot(parseUuidLiteral("a559b870-6892-3eec-8508-6ce5485e9784")), "a559b870-6892-3eec-8508-6ce5485e9784",
                                      u"Model", "kivra.Model");
}

meta::Class const &Model::Impl::getMetaClass() const { return Model::metaClass(); }

ModelConstellation Model::Impl::getModelConstellation() const {
    return constellation_ ? ModelConstellation(constellation_) : ModelConstellation();
}

ModelContent Model::Impl::getModelContent() const { return usageProvider_->getModelContent(); }

std::vector<meta::Package> Model::Impl::getUsedPackages() const { return usageProvider_->getUsedPackages(); }

std::vector<std::u16string> Model::Impl::getUsedPackageUris() const { return usageProvider_->getUsedPackageUris(); }

void Model::Impl::setUsageProvider(std::unique_ptr<meta::DataModelUsageProvider> provider) {
    usageProvider_ = std::move(provider);
}

std::set<std::u16string> Model::Impl::getDescriptivePackageURIClosure() const {
    std::set<std::u16string> closure;
    std::vector<meta::Package> pending = getUsedPackages();
    // Each package once: imports may run in a circle.
    std::set<meta::Package::Impl const *> seen;
    while (!pending.empty()) {
        meta::Package const package = std::move(pending.back());
        pending.pop_back();
        if (!package.get() || !seen.insert(package.get()).second)
            continue;
        closure.insert(package->getUri());
        if (!package->hasImportedPackages())
            continue;
        meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
        for (auto const &[family, imported] : package->getImportedPackages())
            pending.push_back(registry.getPackageForFamily(family));
    }
    return closure;
}

ModelElement Model::Impl::findElement(meta::Class const &cls, ElementId const &id) const {
    return services::ElementIdResolver::doFindElement(getModel(), cls, io::ElementId(id));
}

bool Model::Impl::isInMultiModelConstellation() const noexcept {
    return constellation_ && constellation_->isMultiModelConstellation();
}

void Model::Impl::setConstellation(ModelConstellation::Impl *constellation) {
    constellation_ = constellation;
    // A member uses its constellation's queue.
    if (constellation_)
        workQueue_.reset();
}

log::Span Model::Impl::getSpan(std::string const &domain) {
    if (!span_) {
        span_ = domain.empty() ? log::Span::create("kivra::cpp") : log::Span::createWithDomain(domain, "kivra::cpp");
        // Read when a line is written: the model may be gone by then, its identity not.
        span_->addDynamicContext(basalt::log::info, "modelID", std::function<Value()>([id = getUuid()] {
            static meta::PrimitiveType const type = meta::internal::getPrimitiveTypeFromMetaRegistry(u"UUID");
            return Value(type, id);
        }));
    }
    return span_;
}

// --- Elements --------------------------------------------------------------------------

ModelElement Model::Impl::findElement(boost::uuids::uuid const &uuid, FindElementBehavior) const {
    return ModelElement(table_->elements.find(uuid), true);
}

std::size_t Model::Impl::elementCount() const noexcept { return table_->elements.size(); }

std::vector<ModelElement> Model::Impl::getAllElements(FindElementBehavior) const {
    std::vector<ModelElement> result;
    result.reserve(table_->elements.size());
    table_->elements.forEach([&](ModelElement::Impl *element) { result.push_back(ModelElement(element, true)); });
    return result;
}

std::vector<ModelElement> Model::Impl::getTopLevelElements() const {
    std::vector<ModelElement> result;
    result.reserve(topLevelCount_);
    table_->elements.forEach([&](ModelElement::Impl *element) {
        if (element->marks_ & ModelElement::Impl::HeldByModelMark)
            result.push_back(ModelElement(element, true));
    });
    return result;
}

void Model::Impl::holdTopLevel(ModelElement::Impl *element, bool unshared) noexcept {
    if (element->marks_ & ModelElement::Impl::HeldByModelMark)
        return;
    element->marks_ |= ModelElement::Impl::HeldByModelMark;
    if (unshared)
        element->addRefWhileUnshared();
    else
        element->addRef();
    ++topLevelCount_;
}

void Model::Impl::releaseTopLevel(ModelElement::Impl *element) noexcept {
    if (!(element->marks_ & ModelElement::Impl::HeldByModelMark))
        return;
    element->marks_ &= ~ModelElement::Impl::HeldByModelMark;
    --topLevelCount_;
    element->removeRef();
}

void Model::Impl::releaseAllTopLevel() noexcept {
    // Dropping a reference may free an element, which then leaves the table: collect first.
    std::vector<ModelElement::Impl *> held;
    held.reserve(topLevelCount_);
    table_->elements.forEach([&](ModelElement::Impl *element) {
        if (element->marks_ & ModelElement::Impl::HeldByModelMark) {
            element->marks_ &= ~ModelElement::Impl::HeldByModelMark;
            held.push_back(element);
        }
    });
    topLevelCount_ = 0;
    for (ModelElement::Impl *element : held)
        element->removeRef();
}

ProxyId const *Model::Impl::proxyIdOf(ModelElement::Impl const *proxy) const noexcept {
    auto const found = table_->proxyIds.find(proxy);
    return found == table_->proxyIds.end() ? nullptr : found->second.get();
}

void Model::Impl::setProxyId(ModelElement::Impl const *proxy, ProxyId const &id) {
    table_->proxyIds[proxy] = std::make_unique<ProxyId>(id);
}

void Model::Impl::forgetProxyId(ModelElement::Impl const *proxy) noexcept { table_->proxyIds.erase(proxy); }

void Model::Impl::validateTransaction() const {
    // A roll-back puts things back even in a frozen model: it must not stop half way.
    if (validity_ == Destroying || (currentTransaction_ && currentTransaction_->has(TransactionImpl::ApplyingRollBack)))
        return;
    if (freezeCount_ != 0)
        raise<messages::ModelFrozen>();
    if (currentTransaction_ || dataSourceLoadingCount_ != 0)
        return;
    if (isInMultiModelConstellation() || !listeners_.empty())
        raise<messages::NoOpenTransaction>();
}

void Model::Impl::elementCreated(ModelElement::Impl *element, bool topLevel, bool unshared) {
    validateTransaction();
    // A random UUID needs no search for a namesake, and inside a transaction its element
    // can wait to be entered with the others the transaction makes.
    bool const fresh = element->marks_ & ModelElement::Impl::FreshUuidMark;
    element->marks_ &= ~ModelElement::Impl::FreshUuidMark;
    if (fresh && currentTransaction_) {
        table_->elements.defer(element);
    } else if (!table_->elements.insert(element)) {
        // The loser must not take the winner's table entry with it when it dies.
        element->clearUuid();
        raise<messages::UUIDConflict>();
    }
    if (reportsChanges())
        currentTransaction_->elementCreated(element);
    try {
        usageProvider_->elementCreated(element);
    } catch (...) {
        // A refused element was never there: no table entry, no record.
        table_->elements.erase(element);
        if (currentTransaction_)
            currentTransaction_->elementCreationFailed(element);
        throw;
    }
    if (topLevel)
        holdTopLevel(element, unshared);
}

void Model::Impl::elementDestroying(ModelElement::Impl *element) {
    // A model that goes as a whole records and reports nothing, and empties its table and
    // usage account once at the end rather than element by element.
    if (validity_ == Destroying)
        return;
    validateTransaction();
    if (reportsChanges())
        currentTransaction_->elementDestroying(element);
    usageProvider_->elementDestroying(element);
    remove(element);
    if (table_->elements.empty())
        usageProvider_->allElementsDestroyed();
}

void Model::Impl::elementModifying(ModelElement::Impl *element, std::uint64_t propertyIndex, void const *scalar,
                                   std::size_t size) {
    // The common case in one test: a change inside a transaction that keeps nothing.
    if (TransactionImpl const *const transaction = currentTransaction_;
        transaction && freezeCount_ == 0 && !transaction->isInterested())
        return;
    recordModifying(element, propertyIndex, scalar, size);
}

void Model::Impl::recordModifying(ModelElement::Impl *element, std::uint64_t propertyIndex, void const *scalar,
                                  std::size_t size) {
    validateTransaction();
    if (reportsChanges())
        currentTransaction_->elementModifying(element, propertyIndex, scalar, size);
}

void Model::Impl::elementModifying(ModelElement::Impl *element, meta::Extension const &extension) {
    validateTransaction();
    if (reportsChanges())
        currentTransaction_->elementModifying(element, extension);
}

void Model::Impl::elementMadeTopLevel(ModelElement::Impl *element) {
    validateTransaction();
    if (reportsChanges())
        currentTransaction_->elementContainmentChanging(element);
    // Only a live element is held: a tombstone is kept by its handles alone.
    if (element->isValidNonProxy())
        holdTopLevel(element);
}

void Model::Impl::elementNoLongerTopLevel(ModelElement::Impl *element) {
    validateTransaction();
    if (reportsChanges())
        currentTransaction_->elementContainmentChanging(element);
    releaseTopLevel(element);
}

void Model::Impl::allElementsDestroying() {
    validateTransaction();
    if (currentTransaction_)
        currentTransaction_->allElementsDestroying();
}

void Model::Impl::allElementsDestroyed() {
    validateTransaction();
    if (currentTransaction_)
        currentTransaction_->allElementsDestroyed();
}

void Model::Impl::remove(ModelElement::Impl *element) noexcept {
    // Only this very element leaves: a namesake that won a UUID clash stays.
    table_->elements.erase(element);
    // Dropping the model's reference may free the element: that comes last.
    releaseTopLevel(element);
}

void Model::Impl::resurrectElement(ModelElement::Impl *element) {
    element->resurrect();
    table_->elements.insert(element);
    // The usage account comes back with the element: a model never holds both kinds.
    try {
        usageProvider_->elementCreated(element);
    } catch (...) {
        // The element is of the kind the model had when it was destroyed.
    }
    if (element->isTopLevel())
        holdTopLevel(element);
}

void Model::Impl::forgetCreatedElement(ModelElement::Impl *element) {
    usageProvider_->elementDestroying(element);
    remove(element);
    if (table_->elements.empty())
        usageProvider_->allElementsDestroyed();
}

// --- Changes to the whole model ------------------------------------------------------

void Model::Impl::setModelURI(std::u16string const &uri) {
    if (uri == modelURI_)
        return;
    if (!constellation_)
        raise<messages::InvalidValue>();
    std::u16string const location = services::ModelIdNormalizer::convertToLocationModelId(uri);
    if (location != locationURI_)
        constellation_->modelURIAboutToChange(locationURI_, location);
    modelURI_ = services::ModelIdNormalizer::convertToExternalModelId(location);
    locationURI_ = location;
}

void Model::Impl::destroy() noexcept {
    // A destruction asked for from inside this one (a callback it runs) has nothing to add.
    if (validity_ == Invalid || validity_ == Destroying)
        return;
    if (workQueue_)
        workQueue_->discardWorkQueue();
    validity_ = Destroying;
    // Every block of the model that goes now would drop its hold on the model one by one.
    detail::BulkHoldRelease const holds(this);
    if (pool_)
        pool_->close();
    if (sharedPool_)
        sharedPool_->close();
    // The top-level elements, raw: the model's own references keep them until they are
    // released one by one below.
    std::vector<ModelElement::Impl *> topLevel;
    std::size_t released = 0;
    bool collected = false;
    try {
        Transaction transaction = beginTransaction(false);
        dropExtensionListeners();
        dropListeners();
        bool const multi = isInMultiModelConstellation();
        // While every element still lives, references let go (into proxies where a class
        // keeps them), so that nothing outside keeps this model's elements. Letting go frees
        // no element of the table: each is held by the model or by its container. The
        // table's order is the order the elements were made in, which is mostly the order
        // of their memory: an element, and the collections it made as it was filled, follow
        // their neighbours, and the allocator takes back blocks next to the ones it just
        // took back. The top-level elements come out in the same order.
        topLevel.reserve(topLevelCount_);
        auto const collectTopLevel = [&](ModelElement::Impl *element) {
            if (element->marks_ & ModelElement::Impl::HeldByModelMark)
                topLevel.push_back(element);
        };
        try {
            // Dropped by the end of the walk, before the first element is destroyed.
            detail::DeferredReleases const releases(this);
            table_->elements.forEach([&](ModelElement::Impl *element) {
                boost::optional<ProxyId> proxyId;
                element->convertReferencesToProxies(multi, proxyId);
                collectTopLevel(element);
            });
        } catch (...) {
            // Nothing is destroyed yet and every element lives: the trees all stay
            // standing, to be released below.
            topLevel.clear();
            table_->elements.forEach(collectTopLevel);
            table_->elements.clear();
            collected = true;
            throw;
        }
        // The trees go without the table (see `elementDestroying`): a freed element then
        // finds nothing of itself to take out.
        table_->elements.clear();
        collected = true;
        // Each tree goes with its root: once destroyed and released, nothing of it is
        // needed by the trees still to come.
        for (std::size_t i = 0; i < topLevel.size(); ++i) {
            if (i + detail::ElementSet::prefetchDistance < topLevel.size())
                __builtin_prefetch(topLevel[i + detail::ElementSet::prefetchDistance], 1);
            ModelElement::Impl *const element = topLevel[i];
            element->destroyRecursively(/*modelDestroying=*/true, /*removeFromContainer=*/false, multi);
            releaseTopLevel(element);
            released = i + 1;
        }
        // Nothing of a dying model is committed or reported.
        if (currentTransaction_)
            currentTransaction_->abandon();
    } catch (...) {
        // A model's end must not fail its caller; what is left is released below.
        if (currentTransaction_)
            currentTransaction_->abandon();
    }
    dropExtensions();
    if (!collected)
        releaseAllTopLevel(); // nothing was destroyed yet: the table names live elements only
    table_->elements.clear();
    // Trees that a failure left standing go only now: a live element that is freed takes
    // itself out of the table, which by now names elements already freed.
    if (collected)
        for (std::size_t i = released; i < topLevel.size(); ++i)
            releaseTopLevel(topLevel[i]);
    topLevelCount_ = 0;
    usageProvider_->allElementsDestroyed();
    lastSeenOrdinals_.clear();
    invalidate();
    if (constellation_) {
        ModelConstellation::Impl *constellation = std::exchange(constellation_, nullptr);
        constellation->modelIsDestroyed(this);
    }
}

void Model::Impl::destroyAllContents() {
    bool const multi = isInMultiModelConstellation();
    Transaction transaction = beginTransaction(false);
    auto const topLevel = getTopLevelElements();
    allElementsDestroying();
    for (auto const &element : topLevel)
        element->destroyRecursively(/*modelDestroying=*/false, /*removeFromContainer=*/false, multi);
    allElementsDestroyed();
    usageProvider_->allElementsDestroyed();
    releaseAllTopLevel();
    transaction.commit();
}

void Model::Impl::moveAllContentsTo(Model const &target) {
    Impl *to = target.get();
    if (!to || !target || to == this || !listeners_.empty() || currentTransaction_)
        raise<messages::CannotChangeModel>();
    // Asked before anything moves: the extensions go over first, and the elements after
    // them would find a frozen target closed.
    if (to->freezeCount_ != 0)
        raise<messages::ModelFrozen>();
    std::vector<ModelElement::Impl *> moving;
    moving.reserve(table_->elements.size());
    table_->elements.forEach([&](ModelElement::Impl *element) { moving.push_back(element); });
    for (ModelElement::Impl const *element : moving)
        if (to->findElement(element->getUuid(), FindElementBehavior::LoadFromDataSource))
            raise<messages::CannotChangeModel>();
    auto const replaced = moveExtensionsTo(to);

    {
        Transaction transaction = to->beginTransaction(false);
        // The target takes each element's reference over: it holds the top-level ones first,
        // and this model lets go after. The memory stays this model's, and so does the
        // element's hold on it: this shell outlives the elements it gave away.
        for (ModelElement::Impl *element : moving) {
            bool const held = (element->marks_ & ModelElement::Impl::HeldByModelMark) != 0;
            element->marks_ &= ~ModelElement::Impl::HeldByModelMark;
            element->model_ = to;
            try {
                moveExtensionValues(element, to, replaced);
                to->elementCreated(element, element->isTopLevel());
            } catch (std::exception const &) {
                element->model_ = this;
                if (held)
                    element->marks_ |= ModelElement::Impl::HeldByModelMark;
                throw;
            }
            // The memory's hold keeps only this shell: the element holds the one it names
            // now, once, whatever model it came from.
            to->hold();
            if (element->marks_ & ModelElement::Impl::MovedMark)
                releaseHold();
            element->marks_ |= ModelElement::Impl::MovedMark;
            table_->elements.erase(element);
            if (held) {
                --topLevelCount_;
                element->removeRef();
            }
        }
        transaction.commit();
    }
    table_->elements.clear();
    topLevelCount_ = 0;
    usageProvider_->allElementsDestroyed();
    finishExtensionMove(replaced);
}

void Model::Impl::migrateToConstellation(ModelConstellation const &target) {
    if (target.get() == constellation_)
        return;
    if (currentTransaction_ || !constellation_ || constellation_->isMultiModelConstellation() || !target ||
        (workQueue_ && !workQueue_->empty()))
        raise<messages::CannotMigrateModel>();
    target->addModelToConstellation(this);
}

// --- Transactions --------------------------------------------------------------------

Transaction Model::Impl::beginTransaction(bool revertible) {
    return revertible ? transactionFactory_->beginRevertibleTransaction() : transactionFactory_->beginTransaction();
}

Transaction Model::Impl::innerBeginTransaction(PrivateTag, meta::TransactionOrigin const &origin, bool revertible) {
    if (validity_ == Invalid)
        raise<messages::InvalidModel>();
    if (currentTransaction_)
        return beginNested(PrivateTag());
    bool const deep = revertible || listenerDepth_ == 2;
    if (constellation_) {
        // Every member gets a transaction of the one group; this begin joins its own.
        constellation_->createTransactionGroup(deep, origin);
        return beginNested(PrivateTag());
    }
    auto *transaction = new TransactionImpl(this, /*group=*/nullptr, deep, origin);
    transaction->addRef();
    currentTransaction_ = transaction;
    writer_.store(&threadToken, std::memory_order_relaxed);
    return Transaction(transaction);
}

Transaction Model::Impl::beginNested(PrivateTag) {
    // A nested level has the depth of the transaction it joins, and its origin.
    NestedTransaction *nested = currentTransaction_->openNested();
    nested->addRef();
    return Transaction(nested);
}

void Model::Impl::doBeginTransaction(TransactionGroup *group, meta::TransactionOrigin const &origin) {
    // Owned by the group until a handle takes it.
    currentTransaction_ = new TransactionImpl(this, group, group->isDeep(), origin);
    writer_.store(&threadToken, std::memory_order_relaxed);
}

void Model::Impl::transactionEnded(TransactionImpl *transaction) {
    updateLastSeenTransactionOrdinal(transaction->getOrigin().getTransactionFactory(),
                                     transaction->getOrigin().getTransactionOrdinal());
    if (currentTransaction_ == transaction) {
        currentTransaction_ = nullptr;
        writer_.store(nullptr, std::memory_order_relaxed);
        table_->elements.settle();
        if (notifying_.empty())
            detail::deleteRetiredListeners(this);
    }
}

void Model::Impl::transactionGroupEffectsComplete() {
    Model const keep = getModel();
    if (constellation_)
        constellation_->processWorkQueue();
    else
        processWorkQueue();
}

bool Model::Impl::isTransactionNew(boost::uuids::uuid const &factory, std::int32_t ordinal) const {
    auto const found = lastSeenOrdinals_.find(factory);
    return found == lastSeenOrdinals_.end() || found->second < ordinal;
}

void Model::Impl::updateLastSeenTransactionOrdinal(boost::uuids::uuid const &factory, std::int32_t ordinal) {
    if (!trackLastSeenOrdinals_)
        return;
    auto const [entry, inserted] = lastSeenOrdinals_.emplace(factory, ordinal);
    if (!inserted && entry->second < ordinal)
        entry->second = ordinal;
}

bool Model::Impl::isDestroyedInCurrentTransaction(boost::uuids::uuid const &uuid) const {
    return currentTransaction_ && currentTransaction_->isDestroyed(uuid);
}

// --- Work ------------------------------------------------------------------------------

void Model::Impl::addToWorkQueue(std::unique_ptr<ModelUpdater> &&updater) {
    // A dying model takes no more work: the item would keep it alive.
    if (validity_ != Valid)
        return;
    WorkItem item(getModel(), std::move(updater));
    if (constellation_) {
        constellation_->addToWorkQueue(std::move(item));
    } else {
        // An update may drop the last handle of the model, and with it the queue.
        Model const keep = getModel();
        std::shared_ptr<WorkQueue> const queue = workQueue_;
        queue->addToWorkQueue(std::move(item));
    }
}

void Model::Impl::addToWorkQueue(std::function<void(Model const &)> update) {
    addToWorkQueue(std::make_unique<FunctionModelUpdater>(std::move(update)));
}

void Model::Impl::processWorkQueue() {
    if (!workQueue_)
        return;
    Model const keep = getModel();
    std::shared_ptr<WorkQueue> const queue = workQueue_;
    queue->processWorkQueue();
}

// --- Freezing ------------------------------------------------------------------------

Model::Freezer Model::Impl::freeze() { return Freezer(getModel()); }

Model::Freezer::Freezer(Model const &model) : model_(model) {
    // Readers of a frozen model may search on several threads: nothing may wait to be
    // entered then.
    model_->table_->elements.settle();
    ++model_->freezeCount_;
}

Model::Freezer::Freezer(Freezer &&other) noexcept
    : model_(std::move(other.model_)), thawCount_(std::exchange(other.thawCount_, 0)) {}

Model::Freezer &Model::Freezer::operator=(Freezer &&other) noexcept {
    if (this != &other) {
        deactivate();
        model_ = std::move(other.model_);
        thawCount_ = std::exchange(other.thawCount_, 0);
    }
    return *this;
}

Model::Freezer::~Freezer() { deactivate(); }

void Model::Freezer::deactivate() noexcept {
    if (!model_.get())
        return;
    // A destroyed model's count no longer matters; a thawed freezer has lifted its share.
    if (model_.get()->isValid() && thawCount_ == 0)
        --model_->freezeCount_;
    thawCount_ = 0;
    model_.reset();
}

void Model::Freezer::doThaw() noexcept {
    if (++thawCount_ == 1 && model_.get())
        --model_->freezeCount_;
}

void Model::Freezer::undoThaw() noexcept {
    if (thawCount_-- == 1 && model_.get()) {
        model_->table_->elements.settle();
        ++model_->freezeCount_;
    }
}

Model::Thawer Model::Freezer::thaw() { return Thawer(this); }

Model::Thawer::Thawer(Freezer *freezer) : freezer_(freezer) {
    if (freezer_)
        freezer_->doThaw();
}

Model::Thawer::Thawer(Thawer &&other) noexcept : freezer_(std::exchange(other.freezer_, nullptr)) {}

Model::Thawer &Model::Thawer::operator=(Thawer &&other) noexcept {
    if (this != &other) {
        deactivate();
        freezer_ = std::exchange(other.freezer_, nullptr);
    }
    return *this;
}

void Model::Thawer::deactivate() noexcept {
    if (Freezer *freezer = std::exchange(freezer_, nullptr))
        freezer->undoThaw();
}

// --- In-progress state ---------------------------------------------------------------

Model::InProgressIndicator::InProgressIndicator(Model model, std::int32_t Model::Impl::*counter, bool onlyWhileValid)
    : model_(std::move(model)), counter_(counter), onlyWhileValid_(onlyWhileValid) {
    ++(model_.get()->*counter_);
}

Model::InProgressIndicator &Model::InProgressIndicator::operator=(InProgressIndicator &&other) noexcept {
    if (this != &other) {
        InProgressIndicator old(std::move(*this));
        model_ = std::move(other.model_);
        counter_ = other.counter_;
        onlyWhileValid_ = other.onlyWhileValid_;
    }
    return *this;
}

Model::InProgressIndicator::~InProgressIndicator() {
    Impl *model = model_.get();
    if (model && (!onlyWhileValid_ || model->isValid()))
        --(model->*counter_);
}

Model::ParseInProgressIndicator Model::Impl::startParse() {
    return ParseInProgressIndicator(getModel(), &Impl::parseCount_, false);
}
Model::DataSourceLoadingInProgressIndicator Model::Impl::startDataSourceLoading() {
    return DataSourceLoadingInProgressIndicator(getModel(), &Impl::dataSourceLoadingCount_, true);
}
Model::DataSourceModificationInProgressIndicator Model::Impl::startDataSourceModification() {
    return DataSourceModificationInProgressIndicator(getModel(), &Impl::dataSourceModificationCount_, true);
}

} // namespace kivra
