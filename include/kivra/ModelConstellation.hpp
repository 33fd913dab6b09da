#pragma once
/// \file
/// A group of models that commit together and refer to each other by proxies.

#include <kivra/ElementImpl.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Model.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kivra {

class TransactionGroup;
enum class SaveModelMode : std::uint32_t;
namespace meta {
class TransactionOrigin;
} // namespace meta

/// Told when models join or leave a constellation.
class ConstellationListener {
public:
    virtual ~ConstellationListener() = default;
    virtual void modelAdded(ModelConstellation const &constellation, Model const &model) = 0;
    virtual void modelRemoved(ModelConstellation const &constellation, Model const &model) = 0;
    /// Called once when the listener is taken off, or the constellation goes away.
    virtual void listenerRemoved(ModelConstellation const &) {}
};

/// The implementation of a constellation. It owns its models: the constellation and all
/// its models go away together when neither it nor any of them is referenced from
/// outside. Every model made with `Model::create` lives in one.
class ModelConstellation::Impl final : public TransactionCoordinator {
public:
    ~Impl() override;

    /// Always null: a constellation is in no model.
    Model getModel() const override { return {}; }
    /// A counted handle on this constellation.
    ModelConstellation getModelConstellationHandle() const { return ModelConstellation(const_cast<Impl *>(this)); }
    meta::Class const &getMetaClass() const override;
    void removeRef() override;

    bool isCoordinatorOf(Model const &model) const override;
    /// True while a transaction runs on any member.
    /// True while the models' transaction group runs.
    bool isTransactionInProgress() const override { return group_ != nullptr; }
    bool isNotifying() const override;
    bool isMultiModelConstellation() const noexcept { return models_.size() > 1; }
    std::uint64_t modelsCount() const noexcept { return models_.size(); }
    /// True when a member is referenced from outside.
    bool hasAliveModels();

    /// The member stored under `uri` (or under its location form), or a null handle;
    /// never loads anything.
    Model peekModel(std::u16string const &uri) const;
    /// Loads the model of `uri` through the model id services and moves it into this
    /// constellation; a registry model is returned as it is, a transient one not at all.
    Model fetchModel(std::u16string const &uri);
    /// Saves every member through the model id services. With `StopOnError` a failure
    /// raises `ModelConstellationSaveFailed`; otherwise it is dropped.
    void saveModels(SaveModelMode mode);
    /// The element a proxy of another model stands for, loading that model when needed
    /// (unless the proxy's model is frozen); the proxy itself when nothing is found; null
    /// while being destroyed.
    ModelElement resolveProxy(ModelElement const &proxy);
    void setEvolveModelsWhileResolvingProxies(bool evolve) noexcept { evolveModelsWhileResolvingProxies_ = evolve; }
    bool shouldEvolveModelsWhileResolvingProxies() const noexcept { return evolveModelsWhileResolvingProxies_; }

    /// Adds a listener that the caller keeps; adding it twice does nothing.
    void addConstellationListener(ConstellationListener *listener);
    /// Adds a listener that the constellation owns.
    void addOwnedConstellationListener(std::unique_ptr<ConstellationListener> listener);
    void removeConstellationListener(ConstellationListener *listener);
    /// The URI that `uri` has led to since renames: the model's present URI, an override,
    /// or `uri` itself.
    std::u16string getLatestModelURI(std::u16string const &uri) const;
    /// Makes `uri` lead to `replacement`, replacing any history of it.
    void setModelURIOverride(std::u16string const &uri, std::u16string const &replacement);

    /// Destroys every member and invalidates the constellation. Never raises.
    void destroy() noexcept;

    // --- Called by models ------------------------------------------------------------

    /// Enters a model. Raises `InvalidModelContentAddedToConstellation` for a model of the
    /// other content family and `UniquenessConstraint` when its location URI is taken.
    void addModelToConstellation(Model::Impl *model);
    void modelIsDestroyed(Model::Impl *model);
    /// Moves a member to a new location URI; raises `UniquenessConstraint` when taken.
    void modelURIAboutToChange(std::u16string const &from, std::u16string const &to);
    void modelIsNotExternallyReferenced(Model::Impl *model);
    /// Raises `InvalidModelContentAddedToConstellation` when `content` cannot join.
    void debug_validateModelContent(ModelContent content) const;
    /// Begins one transaction on every member, in one group that finishes together.
    void createTransactionGroup(bool deep, meta::TransactionOrigin const &origin);
    /// The group has ended: it goes.
    void transactionGroupCompleted() noexcept;
    /// What waits for the end of the group runs now.
    void transactionGroupEffectsComplete();

    /// Queues an update on the constellation's queue, unless the constellation is destroyed.
    void addToWorkQueue(WorkItem &&item);
    void processWorkQueue();

private:
    friend class ModelConstellation;
    explicit Impl(WorkQueueFactory const &workQueueFactory);
    template <class Call> void forEachListener(Call const &call);

    struct LatestEntry {
        Model::Impl *model = nullptr;
        std::u16string uri;
    };
    struct ListenerEntry {
        ConstellationListener *listener;
        bool owned;
    };

    std::map<std::u16string, Model::Impl *> models_;
    TransactionGroup *group_ = nullptr;
    std::map<std::u16string, LatestEntry> latestURIs_;
    std::vector<ListenerEntry> listeners_;
    std::shared_ptr<WorkQueue> workQueue_;
    bool evolveModelsWhileResolvingProxies_ = false;
};

inline ModelConstellation::Impl *ModelConstellation::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline ModelConstellation::ModelConstellation(Impl *impl) noexcept : HandleBase(impl, true) {}
inline ModelConstellation::Impl *ModelConstellation::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
