#include <kivra/WorkQueue.hpp>

#include <kivra/ElementImpl.hpp>

namespace kivra {

WorkQueue::WorkQueue(TransactionCoordinator *owner, log::Span span) : owner_(owner), span_(std::move(span)) {}

WorkQueue::~WorkQueue() = default;

void WorkQueue::addToWorkQueue(std::function<void()> item) { items_.push_back(std::move(item)); }

void WorkQueue::processWorkQueue() {
    // Items may queue further items and begin transactions of their own; each runs only
    // when the owner is between transactions.
    while (!items_.empty() && !(owner_ && owner_->isTransactionInProgress())) {
        auto item = std::move(items_.front());
        items_.pop_front();
        item();
    }
}

std::shared_ptr<WorkQueue> DefaultWorkQueueFactory(TransactionCoordinator *owner, log::Span span) {
    return std::make_shared<WorkQueue>(owner, std::move(span));
}

} // namespace kivra
