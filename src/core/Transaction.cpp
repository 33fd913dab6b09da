#include "core/TransactionImpl.hpp"

#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/WorkQueue.hpp>

#include <utility>

namespace kivra {

// --- Transaction handle ------------------------------------------------------------

Transaction::Transaction(Transaction const &other) noexcept : impl_(other.impl_) {
    if (impl_)
        impl_->addRef();
}
Transaction::Transaction(Transaction &&other) noexcept : impl_(std::exchange(other.impl_, nullptr)) {}
Transaction &Transaction::operator=(Transaction other) noexcept {
    std::swap(impl_, other.impl_);
    return *this;
}
Transaction::~Transaction() {
    if (impl_)
        impl_->removeRef();
}
TransactionResult Transaction::commit() { return impl_ ? impl_->commit() : TransactionResult::NotFinished; }
TransactionResult Transaction::rollBack() { return impl_ ? impl_->rollBack() : TransactionResult::NotFinished; }
bool Transaction::isRollBackOnly() const { return impl_ && impl_->isRollBackOnly(); }

// --- TransactionImpl -----------------------------------------------------------------

TransactionImpl::TransactionImpl(Model::Impl *model, bool deep) : model_(model->getModel()) {
    if (deep)
        flags_ |= Deep;
    if (model->isFrozenOnNotify())
        flags_ |= FreezeOnNotify;
    if (model->isDetectAndRevertUnchangedProperties())
        flags_ |= DetectAndRevert;
}

TransactionResult TransactionImpl::commit() {
    if (flags_ & (ApplyingRollBack | Finished))
        return TransactionResult::NotFinished;
    ++commitRequests_;
    return tryFinish();
}

TransactionResult TransactionImpl::rollBack() {
    if (flags_ & (ApplyingRollBack | Finished))
        return TransactionResult::NotFinished;
    flags_ |= RollBackOnly;
    // Rolls back at once, with nested levels still open: they find the transaction
    // finished, so their later votes do nothing.
    return doRollBack();
}

TransactionResult TransactionImpl::tryFinish() {
    if (refCount_ != static_cast<std::uint32_t>(commitRequests_))
        return TransactionResult::NotFinished;
    return (flags_ & RollBackOnly) ? doRollBack() : doCommit();
}

TransactionResult TransactionImpl::doCommit() {
    finish();
    // The effects are complete: work waiting for the end of the transaction runs now.
    Model::Impl *model = model_.get();
    if (auto *constellation = model->constellationImpl())
        constellation->processWorkQueue();
    else
        model->processWorkQueue();
    return TransactionResult::Committed;
}

TransactionResult TransactionImpl::doRollBack() {
    // Nothing is recorded yet that could restore the model: what changed stays, and the
    // result says so.
    bool const changed = hasChanges();
    finish();
    return changed ? TransactionResult::CannotRevert : TransactionResult::NotFinished;
}

void TransactionImpl::finish() noexcept {
    flags_ |= Finished;
    Model::Impl *model = model_.get();
    if (model->currentTransaction_ == this)
        model->currentTransaction_ = nullptr;
    // Destroyed elements may go now; a handle held elsewhere keeps its tombstone.
    destroyedElements_.reset();
}

void TransactionImpl::abandon() noexcept { finish(); }

void TransactionImpl::removeRef() noexcept {
    if (--refCount_ != 0)
        return;
    if (!isFinished()) {
        refCount_ = 0xDEAD;
        try {
            doRollBack();
        } catch (...) {
            // Dropping a handle must not throw; the transaction is over either way.
        }
    }
    delete this;
}

void TransactionImpl::recordChange() {
    if (flags_ & ChangesProhibited)
        raise<messages::ChangesProhibited>();
    flags_ |= HasChanges | ChangedSinceReport;
}

void TransactionImpl::elementCreated(ModelElement::Impl *) {
    if (flags_ & AllElementsDestroying)
        raise<messages::CreateWithDestroyAll>();
    recordChange();
}
void TransactionImpl::elementDestroying(ModelElement::Impl *element) {
    recordChange();
    if (!destroyedElements_)
        destroyedElements_ = std::make_unique<decltype(destroyedElements_)::element_type>();
    destroyedElements_->emplace(element->getUuid(), model_->findElement(element->getUuid()));
}

bool TransactionImpl::isDestroyed(boost::uuids::uuid const &uuid) const {
    return destroyedElements_ && destroyedElements_->count(uuid) != 0;
}
void TransactionImpl::elementModifying(ModelElement::Impl *, std::uint64_t) { recordChange(); }
void TransactionImpl::elementContainmentChanging(ModelElement::Impl *) { recordChange(); }
void TransactionImpl::allElementsDestroying() { flags_ |= AllElementsDestroying; }
void TransactionImpl::allElementsDestroyed() { flags_ &= ~AllElementsDestroying; }

// --- NestedTransaction ---------------------------------------------------------------

NestedTransaction::NestedTransaction(TransactionImpl *parent) : parent_((parent->addRef(), parent)) {}

NestedTransaction::~NestedTransaction() {
    // The vote and the reference on the parent go away together.
    if (done_)
        --parentImpl()->commitRequests_;
}

TransactionResult NestedTransaction::commit() {
    if (done_)
        return TransactionResult::NotFinished;
    done_ = true;
    TransactionImpl *parent = parentImpl();
    if (parent->isFinished())
        return TransactionResult::NotFinished;
    ++parent->commitRequests_;
    return parent->tryFinish();
}

TransactionResult NestedTransaction::rollBack() {
    if (done_)
        return TransactionResult::NotFinished;
    done_ = true;
    return voteRollBack();
}

TransactionResult NestedTransaction::voteRollBack() {
    TransactionImpl *parent = parentImpl();
    if (parent->isFinished())
        return TransactionResult::NotFinished;
    parent->flags_ |= TransactionImpl::RollBackOnly;
    ++parent->commitRequests_;
    return parent->tryFinish();
}

void NestedTransaction::removeRef() noexcept {
    if (--refCount_ != 0)
        return;
    refCount_ = 0xDEAD;
    if (!done_) {
        done_ = true;
        try {
            voteRollBack();
        } catch (...) {
            // A dropped handle votes; it cannot report a failure of the vote.
        }
    }
    delete this;
}

} // namespace kivra
