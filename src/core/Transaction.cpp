#include "core/TransactionImpl.hpp"

#include "core/RecordLog.hpp"

#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/WorkQueue.hpp>

#include <basalt/except/Exception.hpp>
#include <basalt/log/DiagnosticLogger.hpp>

#include <stdexcept>

#include <algorithm>
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
TransactionResult Transaction::commit() { return commit(boost::optional<Value>()); }
TransactionResult Transaction::commit(boost::optional<Value> const &argument) {
    return impl_ ? impl_->commit(argument) : TransactionResult::NotFinished;
}
TransactionResult Transaction::commit(std::string const &argument) {
    return commit(boost::optional<Value>(Value(argument)));
}
TransactionResult Transaction::commit(basalt::ustring const &argument) {
    return commit(boost::optional<Value>(Value(argument)));
}
TransactionResult Transaction::rollBack() { return impl_ ? impl_->rollBack() : TransactionResult::NotFinished; }
bool Transaction::isRollBackOnly() const { return impl_ && impl_->isRollBackOnly(); }
void Transaction::addFirstChangeCallback(std::function<void()> const &callback) {
    if (impl_)
        impl_->addFirstChangeCallback(callback);
}
meta::TransactionOrigin const &Transaction::getOrigin() const {
    static meta::TransactionOrigin const none;
    return impl_ ? impl_->getOrigin() : none;
}

// --- Factories ---------------------------------------------------------------------

Transaction DirectTransactionFactoryImpl::begin(meta::TransactionOrigin const &origin, bool revertible) {
    return model_->innerBeginTransaction(Model::Impl::PrivateTag(), origin, revertible);
}

Transaction DirectTransactionFactoryImpl::beginNested() { return model_->beginNested(Model::Impl::PrivateTag()); }

LocalTransactionFactoryImpl::LocalTransactionFactoryImpl(Model::Impl *model)
    : DirectTransactionFactoryImpl(model), uuid_(ElementImpl::generateNewUuid()) {}

Transaction LocalTransactionFactoryImpl::beginLevel(bool revertible) {
    if (model()->currentTransaction() && model()->isValid()) {
        ++ordinal_;
        return beginNested();
    }
    return begin(nextOrigin(), revertible);
}

meta::TransactionOrigin LocalTransactionFactoryImpl::nextOrigin() {
    meta::TransactionOrigin origin;
    origin.setModel(model()->getUuid());
    origin.setLanguage(meta::Language::CPlusPlus);
    origin.setTransactionId(ElementImpl::generateNewUuid());
    origin.setTransactionOrdinal(ordinal_++);
    origin.setTransactionFactory(uuid_);
    return origin;
}

// --- TransactionImpl: voting -------------------------------------------------------

TransactionImpl::TransactionImpl(Model::Impl *model, TransactionGroup *group, bool deep,
                                 meta::TransactionOrigin const &origin)
    : model_(model->getModel()), group_(group), log_(std::make_shared<detail::RecordLog>()),
      listeners_(model->listeners_), origin_(origin) {
    if (deep)
        flags_ |= Deep;
    if (model->isFrozenOnNotify())
        flags_ |= FreezeOnNotify;
    if (model->isDetectAndRevertUnchangedProperties())
        flags_ |= DetectAndRevert;
    if (group_)
        group_->add(this);
}

TransactionResult TransactionImpl::voteThroughGroup(boost::optional<Value> const &argument, bool tryOnly) {
    if (group_)
        return tryOnly ? group_->tryCommit(argument) : group_->commit(argument);
    // Alone, the transaction is its group: no group is needed until every party voted.
    if (!isReady())
        return TransactionResult::NotFinished;
    TransactionGroup local(nullptr, isDeep(), origin_);
    local.add(this);
    return tryOnly ? local.tryCommit(argument) : local.commit(argument);
}

TransactionResult TransactionImpl::commit(boost::optional<Value> const &argument) {
    if (has(ApplyingRollBack) || isFinished())
        return TransactionResult::NotFinished;
    ++commitRequests_;
    TransactionResult const result = voteThroughGroup(argument, /*tryOnly=*/false);
    if (result != TransactionResult::NotFinished)
        flags_ |= Finished;
    return result;
}

TransactionResult TransactionImpl::rollBack() {
    if (has(ApplyingRollBack) || isFinished())
        return TransactionResult::NotFinished;
    flags_ |= RollBackOnly;
    // At once, with nested levels still open: they find the transaction finished, so
    // that their later votes do nothing.
    if (group_)
        return group_->rollBack();
    TransactionGroup local(nullptr, isDeep(), origin_);
    local.add(this);
    return local.rollBack();
}

void TransactionImpl::removeRef() noexcept {
    if (--refCount_ != 0)
        return;
    if (!isFinished()) {
        // In a group nobody holds, the group owns the transaction.
        if (group_ && commitRequests_ == 0)
            return;
        refCount_ = 0xDEAD;
        try {
            rollBack();
        } catch (...) {
            // Dropping a handle cannot report a failed roll-back.
        }
    }
    delete this;
}

void TransactionImpl::clearMarks() noexcept {
    constexpr auto marks = ModelElement::Impl::RecordedMark | ModelElement::Impl::CreatedHereMark |
                           ModelElement::Impl::DestroyedHereMark;
    log_->forEach([](detail::RecordLog::Entry const &entry) {
        if (ModelElement::Impl *element = entry.element())
            element->marks_ &= std::uint8_t(~marks);
    });
}

void TransactionImpl::finish() noexcept {
    if (isFinished())
        return;
    flags_ |= Finished;
    // A report still held reads old values through the log: they are taken from the
    // elements now, while their members are the ones the entries were made of.
    if (log_.use_count() > 1) {
        try {
            log_->materialize();
        } catch (...) {
            // Out of memory: the report finds no record of the elements left.
        }
    }
    clearMarks();
    group_ = nullptr; // the group is done with this transaction, and may go
    model_->transactionEnded(this);
}

NestedTransaction *TransactionImpl::openNested() {
    NestedTransaction *nested = spareNested_;
    if (nested)
        spareNested_ = nested->nextSpare_;
    else
        nested = new NestedTransaction();
    addRef();
    nested->parent_ = this;
    nested->nextSpare_ = nullptr;
    nested->done_ = false;
    nested->refCount_ = 0;
    return nested;
}

TransactionImpl::~TransactionImpl() {
    while (NestedTransaction *spare = spareNested_) {
        spareNested_ = spare->nextSpare_;
        delete spare;
    }
    clearMarks();
    // No roll-back can bring these back now: they let go of what they still hold.
    log_->forEach([](detail::RecordLog::Entry const &entry) {
        if (ModelElement::Impl::Changes const *record = entry.record();
            record && record->isDestroyed() && !record->getElement()->isValid())
            record->getElement()->basicDisassociateAll();
    });
}

void TransactionImpl::elementCreationFailed(ModelElement::Impl *element) {
    if (!(element->marks_ & ModelElement::Impl::RecordedMark))
        return;
    if (ModelElement::Impl::Changes *record = log_->find(element); record && record->isCreated()) {
        element->marks_ &= std::uint8_t(~(ModelElement::Impl::RecordedMark | ModelElement::Impl::CreatedHereMark));
        log_->erase(record);
    }
}

void TransactionImpl::beginNotifying() { model_->notifying_.push_back(this); }

void TransactionImpl::endNotifying() noexcept {
    auto &stack = model_->notifying_;
    if (auto const found = std::find(stack.rbegin(), stack.rend(), this); found != stack.rend())
        stack.erase(std::next(found).base());
    if (stack.empty() && !model_->currentTransaction_)
        detail::deleteRetiredListeners(model_.get());
}

void TransactionImpl::removeListener(ListenerHolderBase *holder) noexcept {
    std::replace(listeners_.begin(), listeners_.end(), holder, static_cast<ListenerHolderBase *>(nullptr));
}

// --- TransactionImpl: listeners -----------------------------------------------------

std::shared_ptr<ReportData> TransactionImpl::buildReport(boost::optional<Value> const &argument) const {
    auto report = std::make_shared<ReportData>(model_.get(), log_, origin_, isDeep(), has(DetectAndRevert),
                                               has(AllElementsDestroying), argument);
    // Each record names its element object, destroyed ones too: no lookup, and an element
    // destroyed and another made with its UUID are two entries.
    log_->forEachRecord(
        [&](ModelElement::Impl::Changes *record) { report->processElement(record->getElement(), *record); });
    return report;
}

void TransactionImpl::runModifiers() {
    if (listeners_.empty() || !has(HasChanges))
        return;
    // The report holds elements and records: it goes when the phase ends, however it ends.
    struct ReleaseReport {
        std::shared_ptr<ReportData> &report;
        ~ReleaseReport() { report.reset(); }
    } const release{modifierReport_};
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
        ListenerHolderBase *holder = listeners_[i];
        if (!holder || !holder->isModifier())
            continue;
        // A modifier's changes are news to the next one: its report is made afresh.
        if (!modifierReport_ || has(ChangedSinceReport)) {
            modifierReport_ = buildReport(boost::none);
            flags_ &= ~ChangedSinceReport;
        }
        if (!modifierReport_->isEmpty())
            holder->modify(modifierReport_);
    }
    modifierReport_.reset();
}

bool TransactionImpl::runValidators() {
    if (listeners_.empty() || !has(HasChanges))
        return true;
    std::shared_ptr<ReportData> report;
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
        ListenerHolderBase *holder = listeners_[i];
        if (!holder || !holder->isValidator())
            continue;
        if (!report)
            report = buildReport(boost::none);
        try {
            if (!holder->validate(report))
                return false;
        } catch (basalt::InterruptException const &) {
            throw;
        } catch (...) {
            return false; // a validator that fails refuses
        }
    }
    return true;
}

bool TransactionImpl::hasObservers() const noexcept {
    return std::any_of(listeners_.begin(), listeners_.end(),
                       [](ListenerHolderBase const *holder) { return holder && holder->isObserver(); });
}

template <class Call>
void TransactionImpl::notifyObservers(Call const &call, char const *interruptText, char const *failureText) {
    boost::optional<Model::Freezer> freezer;
    if (has(FreezeOnNotify)) {
        // Making a record from a number's kept bytes puts them back into the element for a
        // moment: done before other threads may read the frozen model.
        log_->materialize();
        freezer.emplace(model_);
    }
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
        ListenerHolderBase *holder = listeners_[i];
        if (!holder || !holder->isObserver())
            continue;
        try {
            if (!call(*holder))
                return;
        } catch (basalt::InterruptException const &) {
            model_->getSpan()->log(basalt::log::info, interruptText);
            throw;
        } catch (std::exception const &error) {
            // One observer's failure must not keep the others from hearing of the end. The
            // error's context goes on a scope of its own, not on the model's lasting span.
            log::Span const span = model_->getSpan()->createChild();
            span->addContext(basalt::log::error, "error-message", error.what());
            span->log(basalt::log::error, failureText);
        } catch (...) {
            model_->getSpan()->log(basalt::log::error, failureText);
        }
    }
}

void TransactionImpl::notifyCommitted(boost::optional<Value> const &argument) {
    if (!hasObservers() || !has(HasChanges))
        return;
    std::shared_ptr<ReportData> report;
    notifyObservers(
        [&](ListenerHolderBase &holder) {
            if (!report)
                report = buildReport(argument);
            if (!report->isEmpty())
                holder.transactionCommitted(report);
            return true;
        },
        "InterruptException (Ctrl-C) during listener transactionCommitted() execution. Rethrowing.",
        "Unhandled exception during listener transactionCommitted() execution");
}

std::shared_ptr<ReportData> TransactionImpl::reportForRollBack() {
    if (!hasObservers() || !has(HasChanges))
        return nullptr;
    return buildReport(boost::none);
}

void TransactionImpl::notifyCanceled(std::shared_ptr<ReportData> const &report) {
    if (!report)
        return;
    bool const wasDeep = isDeep();
    notifyObservers(
        [&](ListenerHolderBase &holder) {
            holder.transactionCanceled(wasDeep, report);
            return true;
        },
        "InterruptException (Ctrl-C) during listener transactionCanceled() execution. Rethrowing.",
        "Unhandled exception during listener transactionCanceled() execution");
}

void TransactionImpl::abandon() noexcept {
    listeners_.clear();
    TransactionGroup *const group = group_;
    // Held while the group lets go of it: it may be the group's only owner.
    Transaction const keep((addRef(), this));
    finish();
    if (group) {
        try {
            group->removeTransaction(this);
        } catch (...) {
            // The others' commit is theirs to report; a dying model cannot.
        }
    }
}

// --- TransactionImpl: recording ----------------------------------------------------

bool TransactionImpl::changeInPlace(Model::Impl *model, ModelElement::Impl const *element) noexcept {
    TransactionImpl const *const transaction = model->currentTransaction_;
    if (!transaction)
        return false;
    // A recording transaction keeps old values of every element it did not make: the
    // common refusal comes first and costs two tests.
    std::uint32_t const flags = transaction->flags_;
    bool const madeHere = element->marks_ & ModelElement::Impl::CreatedHereMark;
    if ((flags & Deep) && !madeHere)
        return false;
    // What a level's commit would find: no group to vote in, and another party holding on.
    if (transaction->group_ || (flags & (Finished | ApplyingRollBack)) ||
        transaction->refCount_ <= std::uint32_t(transaction->commitRequests_) || model->freezeCount_ != 0 ||
        model->dataSourceLoadingCount_ != 0 || !model->isValid())
        return false;
    if (transaction->isInterested()) {
        // An element made here is reported whole; the gate has nothing left to mark.
        constexpr std::uint32_t marked = HasChanges | ChangedSinceReport;
        if (!madeHere || (flags & ChangesProhibited) || (flags & marked) != marked)
            return false;
    }
    ++static_cast<LocalTransactionFactoryImpl &>(*model->transactionFactory_).ordinal_;
    return true;
}

bool TransactionImpl::passGate() {
    if (has(ApplyingRollBack) || !isInterested())
        return false;
    if (has(ChangesProhibited))
        kivra::raise<messages::ChangesProhibited>();
    if (!has(HasChanges) && firstChangeCallback_)
        firstChangeCallback_();
    flags_ |= HasChanges | ChangedSinceReport;
    return true;
}

ModelElement::Impl::Changes *TransactionImpl::entryOf(ModelElement::Impl *element) {
    // An element without the mark has no record: the first touch needs no lookup.
    if (element->marks_ & ModelElement::Impl::RecordedMark)
        if (ModelElement::Impl::Changes *record = log_->find(element))
            return record;
    ModelElement::Impl::Changes *record;
    {
        detail::ArenaScope const inLog(log_->arena);
        record = isDeep() ? element->createStorage() : element->createChanges();
    }
    record->element_ = ModelElement::fromImpl(element);
    log_->append(record);
    element->marks_ |= ModelElement::Impl::RecordedMark;
    return record;
}

void TransactionImpl::elementCreated(ModelElement::Impl *element) {
    if (!passGate())
        return;
    entryOf(element)->setCreated();
    element->marks_ |= ModelElement::Impl::CreatedHereMark;
}

void TransactionImpl::elementDestroying(ModelElement::Impl *element) {
    if (!passGate())
        return;
    // The record keeps the element alive until the transaction and its reports are gone.
    entryOf(element)->setDestroyed();
    element->marks_ |= ModelElement::Impl::DestroyedHereMark;
}

void TransactionImpl::elementModifying(ModelElement::Impl *element, std::uint64_t propertyIndex, void const *scalar,
                                       std::size_t size) {
    if (has(ApplyingRollBack) || propertyIndex == 0 || !isInterested())
        return;
    if (!element->isValid() && !(element->marks_ & ModelElement::Impl::RecordedMark))
        return;
    if (!passGate())
        return;
    // A new element has no old value.
    if (element->marks_ & ModelElement::Impl::CreatedHereMark)
        return;
    // The first change of an element that is one scalar keeps its bytes alone; a second
    // change finds the element marked and makes its whole record.
    if (scalar && isDeep() && !(element->marks_ & ModelElement::Impl::RecordedMark) &&
        log_->appendScalar(element, propertyIndex, scalar, size)) {
        element->marks_ |= ModelElement::Impl::RecordedMark;
        return;
    }
    ModelElement::Impl::Changes *record = entryOf(element);
    if (record->isCreated() || (!isDeep() && record->isDestroyed()))
        return;
    // The first old value stays: a second change of the property costs one bit test.
    if (record->setModified(propertyIndex))
        return;
    if (isDeep())
        element->copyValue(static_cast<ModelElement::Impl::Storage *>(record), propertyIndex);
}

void TransactionImpl::elementModifying(ModelElement::Impl *element, meta::Extension const &extension) {
    if (has(ApplyingRollBack) || !isInterested())
        return;
    if (!element->isValid() && !(element->marks_ & ModelElement::Impl::RecordedMark))
        return;
    if (!passGate())
        return;
    if (element->marks_ & ModelElement::Impl::CreatedHereMark)
        return;
    ModelElement::Impl::Changes *record = entryOf(element);
    if (record->isCreated() || (!isDeep() && record->isDestroyed()))
        return;
    if (record->setModified(extension))
        return;
    if (isDeep())
        element->copyExtensionValue(static_cast<ModelElement::Impl::Storage *>(record), extension);
}

void TransactionImpl::elementContainmentChanging(ModelElement::Impl *element) {
    if (!passGate())
        return;
    ModelElement::Impl::Changes *record = entryOf(element);
    if (record->isCreated() || (!isDeep() && record->isDestroyed()))
        return;
    record->setOldContainer(element->container(), element->containmentFeature());
}

void TransactionImpl::allElementsDestroying() {
    if (!passGate())
        return;
    flags_ |= AllElementsDestroying;
}

void TransactionImpl::allElementsDestroyed() {
    // Without a data source the mark stays, so that a report can say that everything went.
}

bool TransactionImpl::isDestroyed(boost::uuids::uuid const &uuid) const {
    bool found = false;
    log_->forEach([&](detail::RecordLog::Entry const &entry) {
        if (ModelElement::Impl::Changes const *record = entry.record())
            found = found || (record->isDestroyed() && record->getUuid() == uuid);
    });
    return found;
}

// --- TransactionImpl: roll-back ----------------------------------------------------

TransactionResult TransactionImpl::revert() {
    if (!has(HasChanges))
        return TransactionResult::NotFinished;
    if (!isDeep())
        return TransactionResult::CannotRevert;
    if (log_->empty())
        return TransactionResult::RolledBack;

    // Every record holds its element, so that nothing is freed while the walks run, and
    // names the very object it is of, so that no lookup is needed.
    Model::Impl *model = model_.get();
    // A scalar entry is of an element neither made nor destroyed here: the last walk alone
    // puts its bytes back.
    using Entry = detail::RecordLog::Entry;
    detail::RecordLog const &log = *log_;
    flags_ |= ApplyingRollBack;
    // New elements leave first: an element destroyed here may come back under a UUID that a
    // new one took.
    log.forEachReverse([&](Entry const &entry) {
        if (ModelElement::Impl::Changes *record = entry.record(); record && record->isCreated() && !record->isDestroyed())
            if (ModelElement::Impl *element = record->getElement().get(); element->isValid()) {
                element->basicDisassociateAll();
                model->forgetCreatedElement(element);
                element->invalidate();
            }
    });
    // Destroyed elements come back before anything refers to them again.
    log.forEachReverse([&](Entry const &entry) {
        if (ModelElement::Impl::Changes *record = entry.record(); record && record->isDestroyed() && !record->isCreated())
            model->resurrectElement(record->getElement().get());
    });
    log.forEachReverse([&](Entry const &entry) {
        if (entry.isScalar())
            log.restore(entry);
        else if (!entry.record()->isCreated())
            entry.element()->copyStateFromStorage(static_cast<ModelElement::Impl::Storage *>(entry.record()));
    });
    return TransactionResult::RolledBack;
}

// --- NestedTransaction -------------------------------------------------------------



TransactionImpl *TransactionImpl::openLevel(Model::Impl *model) noexcept {
    // As the model's own factory begins a nested level, without a handle object.
    TransactionImpl *const transaction = model->currentTransaction_;
    if (!transaction || !model->isValid())
        return nullptr;
    ++static_cast<LocalTransactionFactoryImpl &>(*model->transactionFactory_).ordinal_;
    transaction->addRef();
    return transaction;
}

TransactionResult TransactionImpl::voteAsLevel(boost::optional<Value> const &argument) {
    if (isFinished())
        return TransactionResult::NotFinished;
    return commit(argument);
}

TransactionResult TransactionImpl::voteRollBackAsLevel() {
    if (isFinished())
        return TransactionResult::NotFinished;
    flags_ |= RollBackOnly;
    ++commitRequests_;
    TransactionResult const result = voteThroughGroup(boost::none, /*tryOnly=*/true);
    if (result != TransactionResult::NotFinished)
        flags_ |= Finished;
    return result;
}

void TransactionImpl::voteAsDroppedLevel() noexcept {
    try {
        voteRollBackAsLevel();
    } catch (...) {
        // A dropped level votes; it cannot report a failure of the vote.
    }
}

void TransactionImpl::leaveLevel() noexcept {
    --commitRequests_;
    removeRef();
}

void TransactionImpl::commitLevel() {
    // Alone, with other parties still to vote, the vote would find the transaction not
    // ready and the leave would take it back: only the party goes.
    if (!group_ && !(flags_ & (Finished | ApplyingRollBack)) && refCount_ > std::uint32_t(commitRequests_) + 1) {
        --refCount_;
        return;
    }
    struct Leave {
        TransactionImpl *transaction;
        ~Leave() { transaction->leaveLevel(); }
    } const leave{this};
    voteAsLevel(boost::none);
}

TransactionResult NestedTransaction::commit(boost::optional<Value> const &argument) {
    if (done_)
        return TransactionResult::NotFinished;
    done_ = true;
    return parentImpl()->voteAsLevel(argument);
}

TransactionResult NestedTransaction::rollBack() {
    if (done_)
        return TransactionResult::NotFinished;
    done_ = true;
    return parentImpl()->voteRollBackAsLevel();
}

void NestedTransaction::addFirstChangeCallback(std::function<void()> callback) {
    if (!done_)
        parentImpl()->addFirstChangeCallback(std::move(callback));
}

void NestedTransaction::removeRef() noexcept {
    if (--refCount_ != 0)
        return;
    refCount_ = 0xDEAD;
    TransactionImpl *const parent = std::exchange(parent_, nullptr);
    if (!done_) {
        done_ = true;
        parent->voteAsDroppedLevel();
    }
    // The level waits among the parent's spares, which the parent frees when it goes;
    // its vote and its party on the parent go last, and the parent may go with them.
    nextSpare_ = parent->spareNested_;
    parent->spareNested_ = this;
    parent->leaveLevel();
}

// --- TransactionGroup ----------------------------------------------------------------

namespace {

/// Holds a transaction until its end; left without `finalize`, as when an interrupt
/// passes, it closes the transaction as a roll-back does.
class TransactionRollBackFinalizer {
public:
    explicit TransactionRollBackFinalizer(TransactionImpl *transaction, bool prohibit = true)
        : transaction_(transaction ? (transaction->addRef(), transaction) : nullptr) {
        if (prohibit && transaction)
            impl()->setFlag(TransactionImpl::ChangesProhibited);
    }
    virtual ~TransactionRollBackFinalizer() {
        try {
            if (impl())
                impl()->finish();
        } catch (...) {
            // A closing that fails must not hide the exception that brought us here.
        }
    }
    TransactionRollBackFinalizer(TransactionRollBackFinalizer &&) noexcept = default;
    virtual void finalize() {
        if (impl())
            impl()->finish();
    }

protected:
    TransactionImpl *impl() const noexcept { return static_cast<TransactionImpl *>(transaction_.get()); }

private:
    Transaction transaction_;
};

/// The commit's closing; a commit left by an exception closes as a roll-back.
class TransactionCommitFinalizer final : public TransactionRollBackFinalizer {
public:
    explicit TransactionCommitFinalizer(TransactionImpl *transaction)
        : TransactionRollBackFinalizer(transaction, /*prohibit=*/false) {}
};

} // namespace

bool TransactionGroup::allReady() const {
    for (TransactionImpl const *transaction : transactions_)
        if (transaction && !transaction->isReady())
            return false;
    return true;
}

bool TransactionGroup::anyRollBackOnly() const {
    for (TransactionImpl const *transaction : transactions_)
        if (transaction && transaction->isRollBackOnly())
            return true;
    return false;
}

void TransactionGroup::add(TransactionImpl *transaction) {
    // A model that joins after the modifiers may not change anything either.
    if (prohibited_)
        transaction->setFlag(TransactionImpl::ChangesProhibited);
    transactions_.push_back(transaction);
}

void TransactionGroup::removeTransaction(TransactionImpl *transaction) {
    auto const found = std::find(transactions_.begin(), transactions_.end(), transaction);
    if (found == transactions_.end())
        return;
    if (ending_) {
        // The end of the group is walking the list: the place stays, empty.
        *found = nullptr;
        return;
    }
    transactions_.erase(found);
    if (transactions_.empty()) {
        if (coordinator_)
            coordinator_->transactionGroupCompleted(); // deletes this group
        return;
    }
    // A model that leaves must not hold up the others.
    commit(boost::none);
}

TransactionResult TransactionGroup::commit(boost::optional<Value> const &argument) {
    if (!allReady())
        return TransactionResult::NotFinished;
    return anyRollBackOnly() ? rollBack() : doCommit(argument);
}

TransactionResult TransactionGroup::tryCommit(boost::optional<Value> const &argument) {
    if (!allReady())
        return TransactionResult::NotFinished;
    return doCommit(argument);
}

std::vector<TransactionImpl *> TransactionGroup::takeTransactions() {
    std::vector<TransactionImpl *> done;
    for (TransactionImpl *transaction : transactions_)
        if (transaction)
            done.push_back(transaction);
    transactions_.clear();
    return done;
}

namespace {

/// While observers are told, every transaction of the group counts as notifying on its
/// model: work waits for the last observer, and a listener removed by an observer of
/// another member is skipped.
class NotificationScope {
public:
    explicit NotificationScope(std::vector<TransactionImpl *> const &transactions) : transactions_(transactions) {
        for (TransactionImpl *transaction : transactions_)
            transaction->beginNotifying();
    }
    ~NotificationScope() {
        for (TransactionImpl *transaction : transactions_)
            transaction->endNotifying();
    }

private:
    std::vector<TransactionImpl *> const &transactions_;
};

} // namespace

TransactionResult TransactionGroup::doCommit(boost::optional<Value> const &argument) {
    if (anyRollBackOnly())
        return rollBack();
    // Observers may destroy the constellation's models; it must outlive this commit.
    ModelConstellation const keep = coordinator_ ? coordinator_->getModelConstellationHandle() : ModelConstellation();
    ending_ = true;
    std::vector<TransactionCommitFinalizer> finalizers;
    // Models that join while the phases run get their finalizers too.
    auto const cover = [&] {
        while (finalizers.size() < transactions_.size())
            finalizers.emplace_back(transactions_[finalizers.size()]);
    };
    try {
        cover();
        for (std::size_t i = 0; i < transactions_.size(); ++i)
            if (TransactionImpl *transaction = transactions_[i])
                transaction->runModifiers();
        cover();
        prohibited_ = true;
        for (TransactionImpl *transaction : transactions_)
            if (transaction)
                transaction->setFlag(TransactionImpl::ChangesProhibited);
        // A vote to roll back may come from inside the phases, as from a nested level.
        bool refused = anyRollBackOnly();
        for (std::size_t i = 0; !refused && i < transactions_.size(); ++i)
            if (TransactionImpl *transaction = transactions_[i])
                refused = !transaction->runValidators();
        cover();
        if (refused || anyRollBackOnly()) {
            ending_ = false;
            return rollBack();
        }
    } catch (basalt::InterruptException const &) {
        // The transactions close as a roll-back would, restoring nothing, and the group goes.
        ModelConstellation::Impl *const coordinator = coordinator_;
        takeTransactions();
        for (auto &finalizer : finalizers)
            finalizer.finalize();
        if (coordinator)
            coordinator->transactionGroupCompleted(); // deletes this group
        throw;
    } catch (...) {
        ending_ = false;
        return rollBack();
    }

    std::vector<TransactionImpl *> const done = takeTransactions();
    ModelConstellation::Impl *const coordinator = coordinator_;
    for (auto &finalizer : finalizers)
        finalizer.finalize();
    if (coordinator)
        coordinator->transactionGroupCompleted(); // deletes this group: no member is used below
    {
        // The transaction is over: observers may begin new ones.
        NotificationScope const notifying(done);
        for (TransactionImpl *transaction : done)
            transaction->notifyCommitted(argument);
    }
    effectsComplete(coordinator, done);
    return TransactionResult::Committed;
}

TransactionResult TransactionGroup::rollBack() {
    ModelConstellation const keep = coordinator_ ? coordinator_->getModelConstellationHandle() : ModelConstellation();
    ending_ = true;
    std::vector<TransactionRollBackFinalizer> finalizers;
    finalizers.reserve(transactions_.size());
    for (TransactionImpl *transaction : transactions_)
        finalizers.emplace_back(transaction);
    ModelConstellation::Impl *const coordinator = coordinator_;
    // Reports are made before anything is reverted, so that they show what the
    // transactions did.
    std::vector<std::shared_ptr<ReportData>> reports;
    TransactionResult result = TransactionResult::NotFinished;
    std::vector<TransactionImpl *> done;
    try {
        done = takeTransactions();
        reports.reserve(done.size());
        for (TransactionImpl *transaction : done)
            reports.push_back(transaction->reportForRollBack());
        for (TransactionImpl *transaction : done)
            if (TransactionResult const r = transaction->revert(); r != TransactionResult::NotFinished)
                result = r;
    } catch (...) {
        // Whatever stopped the restore, the transactions end and the group goes.
        for (auto &finalizer : finalizers)
            finalizer.finalize();
        if (coordinator)
            coordinator->transactionGroupCompleted(); // deletes this group
        throw;
    }
    for (auto &finalizer : finalizers)
        finalizer.finalize();
    if (coordinator)
        coordinator->transactionGroupCompleted(); // deletes this group: no member is used below
    {
        NotificationScope const notifying(done);
        for (std::size_t i = 0; i < done.size(); ++i)
            done[i]->notifyCanceled(reports[i]);
    }
    effectsComplete(coordinator, done);
    return result;
}

void TransactionGroup::effectsComplete(ModelConstellation::Impl *coordinator,
                                       std::vector<TransactionImpl *> const &transactions) {
    if (coordinator) {
        ModelConstellation const keep = coordinator->getModelConstellationHandle();
        coordinator->transactionGroupEffectsComplete();
        return;
    }
    for (TransactionImpl *transaction : transactions)
        transaction->model()->transactionGroupEffectsComplete();
}

} // namespace kivra
