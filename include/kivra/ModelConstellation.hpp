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

namespace kivra {

/// The implementation of a constellation. It owns its models: the constellation and all
/// its models go away together when neither it nor any of them is referenced from
/// outside. Every model made with `Model::create` lives in one.
class ModelConstellation::Impl final : public TransactionCoordinator {
public:
    ~Impl() override;

    /// Always null: a constellation is in no model.
    Model getModel() const override { return {}; }
    meta::Class const &getMetaClass() const override;
    void removeRef() override;

    bool isCoordinatorOf(Model const &model) const override;
    /// True while a transaction runs on any member.
    bool isTransactionInProgress() const override;
    bool isNotifying() const override;
    bool isMultiModelConstellation() const noexcept { return models_.size() > 1; }
    std::uint64_t modelsCount() const noexcept { return models_.size(); }
    /// True when a member is referenced from outside.
    bool hasAliveModels();

    /// The member stored under `uri`, or a null handle; never loads anything.
    Model peekModel(std::u16string const &uri) const;
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

    /// Queues an update on the constellation's queue, unless the constellation is destroyed.
    void addToWorkQueue(WorkItem &&item);
    void processWorkQueue();

private:
    friend class ModelConstellation;
    explicit Impl(WorkQueueFactory const &workQueueFactory);

    struct LatestEntry {
        Model::Impl *model = nullptr;
        std::u16string uri;
    };

    std::map<std::u16string, Model::Impl *> models_;
    std::map<std::u16string, LatestEntry> latestURIs_;
    std::shared_ptr<WorkQueue> workQueue_;
};

inline ModelConstellation::Impl *ModelConstellation::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline ModelConstellation::ModelConstellation(Impl *impl) noexcept : HandleBase(impl, true) {}
inline ModelConstellation::Impl *ModelConstellation::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
