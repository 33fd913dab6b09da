#pragma once
// Not API: the implementations behind `Transaction`.

#include <kivra/ChangeRecords.hpp>
#include <kivra/Listener.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/TransactionFactory.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/TransactionOrigin.hpp>

#include <boost/optional/optional.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace kivra {

class TransactionGroup;
class NestedTransaction;

/// The counted object behind a `Transaction` handle: the outermost transaction of a model
/// or a nested level on it. The count is not atomic; a transaction belongs to its model's
/// thread.
class AbstractTransactionImpl {
public:
    AbstractTransactionImpl() = default;
    virtual TransactionResult commit(boost::optional<Value> const &argument) = 0;
    virtual TransactionResult rollBack() = 0;
    virtual bool isRollBackOnly() const = 0;
    virtual void addFirstChangeCallback(std::function<void()> callback) = 0;
    virtual ~AbstractTransactionImpl() = default;
    virtual void removeRef() noexcept = 0;

    void addRef() noexcept { ++refCount_; }
    virtual meta::TransactionOrigin const &getOrigin() const noexcept = 0;

protected:
    std::uint32_t refCount_ = 0;
};

namespace detail {
class RecordLog;
/// Deletes the owned listeners of `model` that were taken off while a transaction of it ran;
/// called once none runs or tells its observers any more.
void deleteRetiredListeners(Model::Impl const *model) noexcept;
} // namespace detail

/// The one transaction in progress on a model. Its reference count counts the parties
/// that hold it (the outer handle and every open nested level), `commitRequests` those
/// that have voted to finish; it acts when both are equal.
class TransactionImpl final : public AbstractTransactionImpl {
public:
    enum Flags : std::uint32_t {
        AllElementsDestroying = 1,
        ApplyingRollBack = 2,
        ChangesProhibited = 4,
        HasChanges = 8,
        ChangedSinceReport = 16,
        RollBackOnly = 32,
        Finished = 64,
        FreezeOnNotify = 128,
        Deep = 256,
        DetectAndRevert = 512,
    };

    TransactionImpl(Model::Impl *model, TransactionGroup *group, bool deep, meta::TransactionOrigin const &origin);
    ~TransactionImpl() override;
    meta::TransactionOrigin const &getOrigin() const noexcept override { return origin_; }
    /// A nested level on this transaction, counted by the caller's handle.
    NestedTransaction *openNested();
    /// A level with no handle of its own (the frame of one change) on `model`'s transaction
    /// in progress, which it counts as one more party; null when none is in progress.
    /// It draws an ordinal like every begin.
    static TransactionImpl *openLevel(Model::Impl *model) noexcept;
    /// The vote of a level that finishes: nothing once the transaction has ended. The
    /// level's party stays until `leaveLevel`.
    TransactionResult voteAsLevel(boost::optional<Value> const &argument);
    /// The vote of a level for roll-back: the transaction can then only roll back.
    TransactionResult voteRollBackAsLevel();
    /// The same vote from a level dropped unfinished, which cannot report a failure.
    void voteAsDroppedLevel() noexcept;
    /// The level's vote and party go; the transaction may go with them.
    void leaveLevel() noexcept;
    /// A handle-less level votes to finish and leaves.
    void commitLevel();

    TransactionResult commit(boost::optional<Value> const &argument) override;
    TransactionResult rollBack() override;
    bool isRollBackOnly() const override { return (flags_ & RollBackOnly) != 0; }
    void addFirstChangeCallback(std::function<void()> callback) override { firstChangeCallback_ = std::move(callback); }
    void removeRef() noexcept override;

    bool has(Flags flag) const noexcept { return (flags_ & flag) != 0; }
    void setFlag(Flags flag) noexcept { flags_ |= flag; }
    bool isFinished() const noexcept { return has(Finished); }
    bool isDeep() const noexcept { return has(Deep); }
    /// True when every party that holds the transaction has voted.
    bool isReady() const noexcept { return refCount_ == static_cast<std::uint32_t>(commitRequests_); }
    Model::Impl *model() const noexcept { return model_.get(); }
    /// Whether anybody needs the records: a callback, old values, or listeners.
    bool isInterested() const noexcept { return firstChangeCallback_ || isDeep() || !listeners_.empty(); }
    detail::RecordLog const &records() const noexcept { return *log_; }

    /// True, with the level counted, when a change of `element` would leave nothing in
    /// the model's transaction and a level on it would only come and go: see
    /// `ModelElement::Impl::changesInPlace`.
    static bool changeInPlace(Model::Impl *model, ModelElement::Impl const *element) noexcept;

    // What the model reports while the transaction runs.
    void elementCreated(ModelElement::Impl *element);
    void elementDestroying(ModelElement::Impl *element);
    /// `scalar`, when given, is the member of `size` bytes that the change overwrites.
    void elementModifying(ModelElement::Impl *element, std::uint64_t propertyIndex, void const *scalar = nullptr,
                          std::size_t size = 0);
    void elementModifying(ModelElement::Impl *element, meta::Extension const &extension);
    void elementContainmentChanging(ModelElement::Impl *element);
    void allElementsDestroying();
    void allElementsDestroyed();

    /// True when the element was destroyed while this transaction ran.
    bool isDestroyed(boost::uuids::uuid const &uuid) const;
    /// Forgets the record of an element whose creation the model refused.
    void elementCreationFailed(ModelElement::Impl *element);
    /// Skips a listener that was taken off the model in the phases still to come.
    void removeListener(ListenerHolderBase *holder) noexcept;

    // The phases of the end, in the order the group runs them.
    void runModifiers();
    bool runValidators();
    void notifyCommitted(boost::optional<Value> const &argument);
    /// The report of what the transaction did, made before a roll-back restores anything.
    std::shared_ptr<ReportData> reportForRollBack();
    void notifyCanceled(std::shared_ptr<ReportData> const &report);
    /// Marks the model as telling its observers: work waits, removed listeners are skipped.
    void beginNotifying();
    void endNotifying() noexcept;

    /// Puts the model back as it was at the begin: `RolledBack`, `CannotRevert` for a
    /// shallow transaction with changes, `NotFinished` with none.
    TransactionResult revert();
    /// Ends the transaction with nothing run and nothing restored: the model goes away.
    void abandon() noexcept;
    /// The common end of commit and roll-back: finished, and the model lets go of it.
    void finish() noexcept;

private:
    friend class NestedTransaction;
    friend class TransactionGroup;

    /// The recording gate: false when nothing is to be recorded; raises
    /// `ChangesProhibited` after the modifiers.
    bool passGate();
    ModelElement::Impl::Changes *entryOf(ModelElement::Impl *element);
    /// Clears what the elements carry of this transaction's records.
    void clearMarks() noexcept;
    std::shared_ptr<ReportData> buildReport(boost::optional<Value> const &argument) const;
    bool hasObservers() const noexcept;
    /// Runs `call` on each observer, freezing the model if asked, logging failures and
    /// letting only an interrupt stop the walk.
    template <class Call> void notifyObservers(Call const &call, char const *interruptText, char const *failureText);
    /// Votes through the group: the transaction's own, or a local one of this alone.
    TransactionResult voteThroughGroup(boost::optional<Value> const &argument, bool tryOnly);

    Model model_;
    TransactionGroup *group_;
    std::function<void()> firstChangeCallback_;
    std::shared_ptr<detail::RecordLog> log_;
    std::vector<ListenerHolderBase *> listeners_;

    std::shared_ptr<ReportData> modifierReport_;
    meta::TransactionOrigin origin_;
    /// Nested levels that have ended, kept for the next ones: a nested level costs no
    /// allocation once the first few exist.
    NestedTransaction *spareNested_ = nullptr;
    std::uint32_t flags_ = 0;
    std::int32_t commitRequests_ = 0;
};

/// A transaction begun while another is in progress: its commit is a vote on the
/// outermost one, and dropping it unfinished is a vote for roll-back.
class NestedTransaction final : public AbstractTransactionImpl {
public:
    NestedTransaction() = default;
    /// Its origin is the parent's: a nested level is part of the one transaction.
    meta::TransactionOrigin const &getOrigin() const noexcept override { return parentImpl()->getOrigin(); }

    TransactionResult commit(boost::optional<Value> const &argument) override;
    TransactionResult rollBack() override;
    bool isRollBackOnly() const override { return parentImpl()->isRollBackOnly(); }
    void addFirstChangeCallback(std::function<void()> callback) override;
    void removeRef() noexcept override;

private:
    TransactionImpl *parentImpl() const noexcept { return parent_; }
    friend class TransactionImpl;
    /// Counted: the level is one of the parent's parties until it is dropped.
    TransactionImpl *parent_ = nullptr;
    NestedTransaction *nextSpare_ = nullptr;
    bool done_ = false;
};

/// The transactions that finish together: one per model of a constellation, or a lone
/// model's transaction alone. It acts only when all of them are ready.
class TransactionGroup {
public:
    /// A group of `coordinator`'s models, or (null) a lone model's transaction alone.
    TransactionGroup(ModelConstellation::Impl *coordinator, bool deep, meta::TransactionOrigin origin)
        : coordinator_(coordinator), deep_(deep), origin_(std::move(origin)) {}

    void add(TransactionImpl *transaction);
    /// Takes a transaction out; the others may then be ready.
    void removeTransaction(TransactionImpl *transaction);
    /// Rolls back when any transaction is roll-back-only, commits otherwise, once all
    /// are ready; `NotFinished` before.
    TransactionResult commit(boost::optional<Value> const &argument);
    /// Commits once all are ready.
    TransactionResult tryCommit(boost::optional<Value> const &argument);
    TransactionResult rollBack();

    bool isDeep() const noexcept { return deep_; }
    /// True while the group's commit or roll-back runs.
    bool isEnding() const noexcept { return ending_; }
    meta::TransactionOrigin const &getOrigin() const noexcept { return origin_; }

private:
    bool allReady() const;
    bool anyRollBackOnly() const;
    /// The transactions still in the group, which it then no longer holds.
    std::vector<TransactionImpl *> takeTransactions();
    TransactionResult doCommit(boost::optional<Value> const &argument);
    /// What waits for the end of the group runs: the coordinator's queue, or each model's.
    /// Static: the group may be gone by then.
    static void effectsComplete(ModelConstellation::Impl *coordinator, std::vector<TransactionImpl *> const &transactions);

    ModelConstellation::Impl *coordinator_;
    /// In the order they joined; a place is emptied when its model leaves during the end.
    std::vector<TransactionImpl *> transactions_;
    bool deep_;
    bool ending_ = false;     ///< the commit or roll-back is walking the transactions
    bool prohibited_ = false; ///< past the modifiers: newcomers may change nothing
    meta::TransactionOrigin origin_;
};

/// The factory every model has: stamps origins with the model, a fresh id, its own
/// identity and an ordinal that starts at 0.
class LocalTransactionFactoryImpl final : public DirectTransactionFactoryImpl {
public:
    explicit LocalTransactionFactoryImpl(Model::Impl *model);
    Transaction beginTransaction() override { return beginLevel(false); }
    Transaction beginRevertibleTransaction() override { return beginLevel(true); }
    boost::uuids::uuid const &getUuid() const noexcept { return uuid_; }

private:
    meta::TransactionOrigin nextOrigin();
    /// Every begin draws an ordinal; a nested level needs no origin of its own.
    Transaction beginLevel(bool revertible);
    friend class TransactionImpl;

    boost::uuids::uuid uuid_;
    std::int32_t ordinal_ = 0;
};

} // namespace kivra
