#pragma once
/// \file
/// Transactions: every change to a model runs inside one.

#include <kivra/Fwd.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional_fwd.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace kivra::meta {
class TransactionOrigin;
} // namespace kivra::meta

namespace kivra {

class AbstractTransactionImpl;

/// The outcome of `commit` and `rollBack`. Callers that need success treat anything
/// above `Committed` as failure.
enum class TransactionResult : std::uint32_t {
    NotFinished = 0,  ///< not all parties have voted, or it had already ended
    Committed = 1,    ///< the changes are in force
    RolledBack = 2,   ///< the model is restored
    CannotRevert = 3, ///< over, but it kept no old values: the changes stay
};

/// A handle on a transaction of a model. Transactions nest: one begun while another is
/// open joins it, and its commit is a vote; the outermost commit ends the whole. Dropping
/// the last handle of an unfinished transaction votes for roll-back, also when an
/// exception passes.
///
/// Example:
/// \code
///   Transaction t = model->beginRevertibleTransaction();
///   book->setTitle(u"Dune");
///   t.commit();
/// \endcode
class Transaction {
public:
    Transaction() noexcept = default;
    Transaction(Transaction const &other) noexcept;
    Transaction(Transaction &&other) noexcept;
    Transaction &operator=(Transaction other) noexcept;
    ~Transaction();

    /// Votes to finish; returns what the vote brought about.
    TransactionResult commit();
    /// Votes to finish with an argument that listeners find in their report.
    TransactionResult commit(boost::optional<Value> const &argument);
    TransactionResult commit(std::string const &argument);
    TransactionResult commit(basalt::ustring const &argument);
    /// Ends the transaction by restoring the model, or marks the enclosing transaction
    /// for roll-back when this one is nested.
    TransactionResult rollBack();
    /// True when the transaction can only end in a roll-back.
    bool isRollBackOnly() const;
    /// Runs `callback` at the first change that the transaction records (replacing any
    /// earlier one).
    void addFirstChangeCallback(std::function<void()> const &callback);
    /// Where the transaction came from.
    meta::TransactionOrigin const &getOrigin() const;

    AbstractTransactionImpl *get() const noexcept { return impl_; }
    explicit operator bool() const noexcept { return impl_ != nullptr; }

    /// Adopts a reference the caller owns.
    explicit Transaction(AbstractTransactionImpl *impl) noexcept : impl_(impl) {}

private:
    AbstractTransactionImpl *impl_ = nullptr;
};

} // namespace kivra
