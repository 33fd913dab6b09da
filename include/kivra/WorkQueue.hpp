#pragma once
/// \file
/// Work that waits for the end of the current transaction.

#include <kivra/Fwd.hpp>
#include <kivra/log/Span.hpp>

#include <deque>
#include <functional>
#include <memory>

namespace kivra {

/// The queue of work of a model or a constellation. Items run after the outermost
/// transaction of their owner has finished, on the thread that finished it.
class WorkQueue {
public:
    WorkQueue(TransactionCoordinator *owner, log::Span span);
    virtual ~WorkQueue();
    WorkQueue(WorkQueue const &) = delete;
    WorkQueue &operator=(WorkQueue const &) = delete;

    /// Queues `item`; it runs at the next `processWorkQueue` outside a transaction.
    void addToWorkQueue(std::function<void()> item);
    /// Runs the queued items in order, unless the owner is in a transaction.
    virtual void processWorkQueue();
    /// Drops every queued item without running it.
    void discard() noexcept { items_.clear(); }
    bool empty() const noexcept { return items_.empty(); }
    TransactionCoordinator *owner() const noexcept { return owner_; }

private:
    TransactionCoordinator *owner_;
    log::Span span_;
    std::deque<std::function<void()>> items_;
};

/// The work queue factory used when none is given.
std::shared_ptr<WorkQueue> DefaultWorkQueueFactory(TransactionCoordinator *owner, log::Span span);

} // namespace kivra
