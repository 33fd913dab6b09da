#include <kivra/ModelConstellation.hpp>

#include "core/TransactionImpl.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/services/ElementIdResolver.hpp>
#include <kivra/services/ModelIdNormalizer.hpp>

#include <kivra/Messages.hpp>
#include <kivra/WorkQueue.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include <algorithm>
#include <exception>
#include <vector>

#include <basalt/i18n/Unicode.hpp>

namespace kivra {

namespace {
bool sameFamily(ModelContent a, ModelContent b) {
    auto reified = [](ModelContent c) { return c == ModelContent::InferredReified || c == ModelContent::DeclaredReified; };
    return reified(a) == reified(b);
}
} // namespace

ModelConstellation ModelConstellation::create(WorkQueueFactory const &factory) {
    auto *impl = new Impl(factory);
    return ModelConstellation(impl);
}

ModelConstellation::Impl::Impl(WorkQueueFactory const &workQueueFactory) : TransactionCoordinator({}, Valid) {
    WorkQueueFactory const factory = workQueueFactory ? workQueueFactory : WorkQueueFactory(&DefaultWorkQueueFactory);
    workQueue_ = factory(this, log::Span());
}

ModelConstellation::Impl::~Impl() {
    guardAgainstReentrantDeletion();
    destroy();
    delete group_;
}

meta::Class const &ModelConstellation::metaClass() {
    meta::detail::ensureDescribed();
    static meta::Class const &slot = (meta::detail::metaclassSlot(parseUuidLiteral("9dbcfe9e-bec1-3843-9db4-a894b2344149")));
    return slot;
}

void ModelConstellation::initializeType(meta::MetaRegistry &registry) {
    meta::detail::initializeCoreClass(registry, meta::detail::metaclassSlot(parseUuidLiteral("9dbcfe9e-bec1-3843-9db4-a894b2344149")), "9dbcfe9e-bec1-3843-9db4-a894b2344149",
                                      u"ModelConstellation", "kivra.ModelConstellation");
}

meta::Class const &ModelConstellation::Impl::getMetaClass() const { return ModelConstellation::metaClass(); }

void ModelConstellation::Impl::removeRef() {
    if (refCount_.fetch_sub(1) == 1 && !hasAliveModels())
        deleteThis();
}

bool ModelConstellation::Impl::hasAliveModels() {
    // The walk holds a reference so that nothing it looks at can go away under it; the
    // reference is dropped without a second check, which the caller makes.
    refCount_.fetch_add(1);
    bool alive = false;
    for (auto const &entry : models_)
        if (entry.second->referenceCount() != 0) {
            alive = true;
            break;
        }
    refCount_.fetch_sub(1);
    return alive;
}

void ModelConstellation::Impl::modelIsNotExternallyReferenced(Model::Impl *) {
    // Taking and dropping one reference runs the deletion check of `removeRef`.
    addRef();
    removeRef();
}

bool ModelConstellation::Impl::isCoordinatorOf(Model const &model) const {
    for (auto const &entry : models_)
        if (entry.second == model.get())
            return true;
    return false;
}

bool ModelConstellation::Impl::isNotifying() const {
    for (auto const &entry : models_)
        if (entry.second->isNotifying())
            return true;
    return false;
}

void ModelConstellation::Impl::debug_validateModelContent(ModelContent content) const {
    if (content == ModelContent::Undetermined)
        return;
    for (auto const &entry : models_) {
        ModelContent const member = entry.second->getModelContent();
        if (member != ModelContent::Undetermined && !sameFamily(member, content))
            raise<messages::InvalidModelContentAddedToConstellation>();
    }
}

void ModelConstellation::Impl::addModelToConstellation(Model::Impl *model) {
    // A group that keeps no old values could not roll the newcomer back with the rest.
    if (group_ && !group_->isDeep())
        raise<messages::CannotJoinShallowTransaction>();
    debug_validateModelContent(model->getModelContent());
    if (models_.count(model->getLocationURI()))
        raise<messages::UniquenessConstraint>();
    models_.emplace(model->getLocationURI(), model);
    if (ModelConstellation::Impl *previous = model->constellationImpl(); previous && previous != this)
        previous->modelIsDestroyed(model);
    model->setConstellation(this);
    // Listeners hear of the member before it joins the running group; a listener that fails
    // does not keep it out of the group or the URI history.
    std::exception_ptr failure;
    {
        ModelConstellation const self(this);
        Model const added = model->getModel();
        try {
            forEachListener([&](ConstellationListener &listener) { listener.modelAdded(self, added); });
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (group_)
        model->doBeginTransaction(group_, group_->getOrigin());
    latestURIs_[model->getModelURI()] = LatestEntry{model, {}};
    if (failure)
        std::rethrow_exception(failure);
}

template <class Call> void ModelConstellation::Impl::forEachListener(Call const &call) {
    // A listener may remove others: each is asked only while it is still there.
    for (auto const &entry : std::vector<ListenerEntry>(listeners_)) {
        bool const present = std::any_of(listeners_.begin(), listeners_.end(),
                                          [&](ListenerEntry const &e) { return e.listener == entry.listener; });
        if (present)
            call(*entry.listener);
    }
}

void ModelConstellation::Impl::modelIsDestroyed(Model::Impl *model) {
    ModelConstellation keep(this);
    {
        Model const removed = model->getModel();
        forEachListener([&](ConstellationListener &listener) { listener.modelRemoved(keep, removed); });
    }
    models_.erase(model->getLocationURI());
    for (auto entry = latestURIs_.begin(); entry != latestURIs_.end();) {
        if (entry->second.model != model) {
            ++entry;
        } else if (model->getModelURI().starts_with(u"memory://")) {
            entry = latestURIs_.erase(entry);
        } else {
            entry->second = LatestEntry{nullptr, model->getModelURI()};
            ++entry;
        }
    }
}

void ModelConstellation::Impl::modelURIAboutToChange(std::u16string const &from, std::u16string const &to) {
    if (models_.count(to))
        raise<messages::UniquenessConstraint>();
    auto const found = models_.find(from);
    if (found == models_.end())
        return;
    Model::Impl *model = found->second;
    models_.erase(found);
    models_.emplace(to, model);
    latestURIs_[model->getModelURI()] = LatestEntry{model, {}};
}

void ModelConstellation::Impl::addToWorkQueue(WorkItem &&item) {
    if (validity_ == Invalid)
        return;
    ModelConstellation const keep(this);
    std::shared_ptr<WorkQueue> const queue = workQueue_;
    queue->addToWorkQueue(std::move(item));
}

void ModelConstellation::Impl::processWorkQueue() {
    // An update may drop the last handle of the constellation, and with it the queue.
    ModelConstellation const keep(this);
    std::shared_ptr<WorkQueue> const queue = workQueue_;
    queue->processWorkQueue();
}

Model ModelConstellation::Impl::peekModel(std::u16string const &uri) const {
    auto found = models_.find(uri);
    if (found == models_.end())
        found = models_.find(services::ModelIdNormalizer::convertToLocationModelId(uri));
    return found == models_.end() ? Model() : found->second->getModel();
}

Model ModelConstellation::Impl::fetchModel(std::u16string const &uri) {
    services::ModelLoadOptions options;
    options.evolve = evolveModelsWhileResolvingProxies_;
    Model const model = services::ModelIdNormalizer::load(uri, options);
    if (!model || model->isTransientModel())
        return {};
    if (model->isRegistryModel())
        return model;
    // The service built the model in a constellation of its own: it moves here.
    model->setModelURI(uri);
    model->migrateToConstellation(ModelConstellation(this));
    return model;
}

void ModelConstellation::Impl::saveModels(SaveModelMode mode) {
    std::vector<std::pair<Model, std::u16string>> members;
    for (auto const &[location, model] : models_)
        members.emplace_back(model->getModel(), location);
    for (auto const &[model, location] : members) {
        try {
            services::ModelIdNormalizer::save(model, location, mode);
        } catch (std::exception const &error) {
            if (mode == SaveModelMode::StopOnError)
                raise<io::ModelConstellationSaveFailed>(basalt::i18n::utf8_to_ustring(error.what()));
        }
    }
}

ModelElement ModelConstellation::Impl::resolveProxy(ModelElement const &proxy) {
    if (validity_ == Destroying)
        return {};
    ProxyId const id = *proxy->getProxyId();
    std::u16string const uri = getLatestModelURI(id.getModelId().value_or(std::u16string()));
    Model model = peekModel(uri);
    // A loaded model that cannot join a shallow group raises: the proxy is no element
    // that was looked for and not found, and its reader must not take it for one. A frozen
    // model loads nothing: its readers may be on several threads, and a load changes the
    // constellation they all look at.
    if (!model && !proxy->getModelImpl()->isFrozen())
        model = fetchModel(uri);
    if (!model)
        return proxy;
    ModelElement found = services::ElementIdResolver::doFindElement(model, proxy->getMetaClass(), io::ElementId(id.getElementId()));
    return found ? found : proxy;
}

void ModelConstellation::Impl::addConstellationListener(ConstellationListener *listener) {
    for (auto const &entry : listeners_)
        if (entry.listener == listener)
            return;
    listeners_.push_back({listener, false});
}

void ModelConstellation::Impl::addOwnedConstellationListener(std::unique_ptr<ConstellationListener> listener) {
    listeners_.push_back({listener.release(), true});
}

void ModelConstellation::Impl::removeConstellationListener(ConstellationListener *listener) {
    auto const found = std::find_if(listeners_.begin(), listeners_.end(),
                                    [&](ListenerEntry const &entry) { return entry.listener == listener; });
    if (found == listeners_.end())
        return;
    ListenerEntry const entry = *found;
    listeners_.erase(found);
    entry.listener->listenerRemoved(ModelConstellation(this));
    if (entry.owned)
        delete entry.listener;
}

void ModelConstellation::Impl::createTransactionGroup(bool deep, meta::TransactionOrigin const &origin) {
    delete std::exchange(group_, nullptr);
    // Several models can only be rolled back together if every one keeps its old values.
    group_ = new TransactionGroup(this, deep || models_.size() > 1, origin);
    for (auto const &[location, model] : models_)
        model->doBeginTransaction(group_, origin);
}

void ModelConstellation::Impl::transactionGroupCompleted() noexcept { delete std::exchange(group_, nullptr); }

void ModelConstellation::Impl::transactionGroupEffectsComplete() { processWorkQueue(); }

std::u16string ModelConstellation::Impl::getLatestModelURI(std::u16string const &uri) const {
    auto const found = latestURIs_.find(uri);
    if (found == latestURIs_.end())
        return uri;
    return found->second.model ? found->second.model->getModelURI() : found->second.uri;
}

void ModelConstellation::Impl::setModelURIOverride(std::u16string const &uri, std::u16string const &replacement) {
    latestURIs_[uri] = LatestEntry{nullptr, replacement};
}

void ModelConstellation::Impl::destroy() noexcept {
    if (validity_ == Invalid)
        return;
    // A group whose end is running completes by itself; the members leave it below.
    if (group_ && !group_->isEnding()) {
        try {
            group_->rollBack();
        } catch (...) {
            // A constellation's end must not fail its caller.
        }
    }
    workQueue_->discardWorkQueue();
    std::vector<Model> members;
    members.reserve(models_.size());
    for (auto const &entry : models_)
        members.push_back(entry.second->getModel());
    for (auto const &model : members)
        model->destroy();
    invalidate();
    for (auto const &entry : std::vector<ListenerEntry>(std::move(listeners_))) {
        entry.listener->listenerRemoved(ModelConstellation(this));
        if (entry.owned)
            delete entry.listener;
    }
    listeners_.clear();
    // The handles above are the last references of the members; dropping them deletes
    // the models, which no longer count on this constellation.
    members.clear();
}

} // namespace kivra
