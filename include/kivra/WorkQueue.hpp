#pragma once
/// \file
/// Work that waits until no transaction runs on its model or constellation.

#include <kivra/Handles.hpp>
#include <kivra/log/Span.hpp>

#include <deque>
#include <functional>
#include <memory>

namespace kivra {

/// An update of a model that may have to wait for the end of a transaction: a listener
/// that wants to change a model while a commit is under way queues one.
class ModelUpdater {
public:
    virtual ~ModelUpdater() = default;
    virtual void operator()(Model const &model) = 0;
};

/// A `ModelUpdater` that calls a function. An empty function raises `std::bad_function_call`.
class FunctionModelUpdater final : public ModelUpdater {
public:
    explicit FunctionModelUpdater(std::function<void(Model const &)> function) : function_(std::move(function)) {}
    void operator()(Model const &model) override { function_(model); }

private:
    std::function<void(Model const &)> function_;
};

/// One queued update with the model it applies to. Move-only.
class WorkItem {
public:
    WorkItem(Model const &model, std::unique_ptr<ModelUpdater> &&updater);
    WorkItem(WorkItem &&) noexcept;
    WorkItem &operator=(WorkItem &&) noexcept;
    ~WorkItem();

    Model const &getModel() const noexcept { return model_; }
    /// Calls the updater with the item's model.
    void execute();

private:
    Model model_;
    std::unique_ptr<ModelUpdater> updater_;
};

/// The queue of updates of a model or a constellation, first in, first out. An update
/// runs at once when its coordinator is between transactions, and otherwise waits for
/// the end of the running transaction, on the thread that ends it.
class WorkQueue {
public:
    /// A queue owned by `coordinator`; `span`, which may be null, is the parent of the
    /// queue's own span.
    WorkQueue(TransactionCoordinator const *coordinator, log::Span span);
    virtual ~WorkQueue();
    WorkQueue(WorkQueue const &) = delete;
    WorkQueue &operator=(WorkQueue const &) = delete;

    /// Queues `item` and runs what may run. Dropped when the coordinator is destroyed.
    void addToWorkQueue(WorkItem &&item);
    /// Runs items while `isOkToProcess()`, dropping those of a model destroyed or dying. An
    /// update that fails is logged and the next one runs; an interrupt is rethrown.
    void processWorkQueue();
    /// Drops every queued item without running it.
    void discardWorkQueue() noexcept;
    bool empty() const noexcept { return items_.empty(); }
    /// The span "WorkQueue" under the parent span, made on first use.
    log::Span getSpan();

protected:
    /// True when the coordinator is alive, between transactions and not telling observers
    /// of one, and items wait.
    virtual bool isOkToProcess() const;

private:
    std::deque<WorkItem> items_;
    TransactionCoordinator const *coordinator_;
    log::Span parentSpan_;
    log::Span span_;
};

/// The work queue factory used when none is given: a plain `WorkQueue`.
std::shared_ptr<WorkQueue> DefaultWorkQueueFactory(TransactionCoordinator const *coordinator, log::Span span);

} // namespace kivra
