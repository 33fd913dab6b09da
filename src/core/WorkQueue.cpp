#include <kivra/WorkQueue.hpp>

#include <kivra/ElementImpl.hpp>
#include <kivra/Model.hpp>

#include <basalt/except/Exception.hpp>
#include <basalt/log/DiagnosticLogger.hpp>

namespace kivra {

WorkItem::WorkItem(Model const &model, std::unique_ptr<ModelUpdater> &&updater)
    : model_(model), updater_(std::move(updater)) {}
WorkItem::WorkItem(WorkItem &&) noexcept = default;
WorkItem &WorkItem::operator=(WorkItem &&) noexcept = default;
WorkItem::~WorkItem() = default;

void WorkItem::execute() { (*updater_)(model_); }

WorkQueue::WorkQueue(TransactionCoordinator const *coordinator, log::Span span)
    : coordinator_(coordinator), parentSpan_(std::move(span)) {}

WorkQueue::~WorkQueue() = default;

void WorkQueue::addToWorkQueue(WorkItem &&item) {
    if (!coordinator_->isValid())
        return;
    items_.push_back(std::move(item));
    processWorkQueue();
}

bool WorkQueue::isOkToProcess() const {
    return coordinator_->isValid() && !coordinator_->isTransactionInProgress() && !coordinator_->isNotifying() &&
           !items_.empty();
}

void WorkQueue::processWorkQueue() {
    // The test comes before each item: an update that leaves a transaction open stops the
    // queue, and one that commits re-enters here through its own commit and takes the
    // next items itself.
    while (isOkToProcess()) {
        WorkItem item = std::move(items_.front());
        items_.pop_front();
        // A constellation's queue outlives its members, and a member may be destroyed by an
        // update ahead of its own, whose commit re-enters here in the middle of the
        // destruction: the work of a member that is not live is dropped.
        if (Model::Impl const *model = item.getModel().get(); model && model->getValidity() != ElementImpl::Valid)
            continue;
        try {
            item.execute();
        } catch (basalt::InterruptException const &) {
            getSpan()->log(basalt::log::info, "InterruptException (Ctrl-C) during WorkQueueItem.execute. Rethrowing.");
            throw;
        } catch (std::exception const &error) {
            // The queue goes on: one failed update must not hold up the others.
            log::Span const span = getSpan();
            span->addContext(basalt::log::error, "error-message", error.what());
            span->log(basalt::log::error, "Unhandled exception during WorkQueueItem.execute.");
        } catch (...) {
            getSpan()->log(basalt::log::error, "Unhandled exception during WorkQueueItem.execute.");
        }
    }
}

void WorkQueue::discardWorkQueue() noexcept {
    std::deque<WorkItem> dropped;
    dropped.swap(items_);
}

log::Span WorkQueue::getSpan() {
    if (!span_) {
        if (!parentSpan_)
            parentSpan_ = log::Span::create("kivra::cpp");
        span_ = parentSpan_->createChild("WorkQueue");
    }
    return span_;
}

std::shared_ptr<WorkQueue> DefaultWorkQueueFactory(TransactionCoordinator const *coordinator, log::Span span) {
    return std::make_shared<WorkQueue>(coordinator, std::move(span));
}

} // namespace kivra
