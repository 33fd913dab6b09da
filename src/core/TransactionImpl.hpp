#pragma once
// Not API: the implementations behind `Transaction`.

#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace kivra {

/// The counted object behind a `Transaction` handle: the outermost transaction of a model
/// or a nested level on it. The count is not atomic; a transaction belongs to its model's
/// thread.
class AbstractTransactionImpl {
public:
    virtual ~AbstractTransactionImpl() = default;
    virtual TransactionResult commit() = 0;
    virtual TransactionResult rollBack() = 0;
    virtual bool isRollBackOnly() const = 0;

    void addRef() noexcept { ++refCount_; }
    virtual void removeRef() noexcept = 0;

protected:
    std::uint32_t refCount_ = 0;
};

/// The one outermost transaction of a model. Its reference count counts the parties that
/// hold it (the outer handle and every open nested level), `commitRequests` those that
/// have voted to finish; it finishes when both are equal.
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

    TransactionImpl(Model::Impl *model, bool deep);

    TransactionResult commit() override;
    TransactionResult rollBack() override;
    bool isRollBackOnly() const override { return (flags_ & RollBackOnly) != 0; }
    void removeRef() noexcept override;

    bool isFinished() const noexcept { return (flags_ & Finished) != 0; }
    bool isDeep() const noexcept { return (flags_ & Deep) != 0; }
    bool hasChanges() const noexcept { return (flags_ & HasChanges) != 0; }

    // What the model reports while the transaction runs.
    void elementCreated(ModelElement::Impl *element);
    void elementDestroying(ModelElement::Impl *element);
    void elementModifying(ModelElement::Impl *element, std::uint64_t propertyIndex);
    void elementContainmentChanging(ModelElement::Impl *element);
    void allElementsDestroying();
    void allElementsDestroyed();

    /// Ends the transaction with nothing run and nothing restored: the model is going away.
    void abandon() noexcept;

    /// True when the element was destroyed while this transaction ran.
    bool isDestroyed(boost::uuids::uuid const &uuid) const;

private:
    friend class NestedTransaction;

    /// Acts once every party has voted.
    TransactionResult tryFinish();
    TransactionResult doCommit();
    TransactionResult doRollBack();
    void finish() noexcept;
    void recordChange();

    Model model_;
    /// Keeps destroyed elements in memory until the transaction ends, so that their
    /// identity is still there to restore.
    std::unique_ptr<std::unordered_map<boost::uuids::uuid, ModelElement,
                                       services::hashers::KivraHasher<boost::uuids::uuid>>>
        destroyedElements_;
    std::uint32_t flags_ = 0;
    std::int32_t commitRequests_ = 0;
};

/// A transaction begun while another is in progress: its commit is a vote on the
/// outermost one, and dropping it unfinished is a vote for roll-back.
class NestedTransaction final : public AbstractTransactionImpl {
public:
    explicit NestedTransaction(TransactionImpl *parent);
    ~NestedTransaction() override;

    TransactionResult commit() override;
    TransactionResult rollBack() override;
    bool isRollBackOnly() const override { return parentImpl()->isRollBackOnly(); }
    void removeRef() noexcept override;

private:
    TransactionImpl *parentImpl() const noexcept { return static_cast<TransactionImpl *>(parent_.get()); }
    TransactionResult voteRollBack();

    Transaction parent_;
    bool done_ = false;
};

} // namespace kivra
