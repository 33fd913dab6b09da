#pragma once
/// \file
/// Factories that begin transactions on a model, each with its origin.

#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>

namespace kivra {

/// Begins the transactions of a model. A model has a default factory of its own; a
/// client that needs to mark where its transactions come from derives from
/// `DelegatingTransactionFactoryImpl`.
class AbstractTransactionFactoryImpl {
public:
    virtual Transaction beginTransaction() = 0;
    virtual Transaction beginRevertibleTransaction() = 0;
    virtual ~AbstractTransactionFactoryImpl() = default;
};

/// A factory that begins transactions directly on its model with an origin it makes.
class DirectTransactionFactoryImpl : public AbstractTransactionFactoryImpl {
protected:
    explicit DirectTransactionFactoryImpl(Model::Impl *model) noexcept : model_(model) {}
    /// Begins on the model with `origin`; only factories may.
    Transaction begin(meta::TransactionOrigin const &origin, bool revertible);
    /// A nested level on the model's transaction in progress, which must exist.
    Transaction beginNested();
    Model::Impl *model() const noexcept { return model_; }

private:
    Model::Impl *model_;
};

/// A factory that passes both operations to another: the base of factories that add
/// behaviour around a model's own.
class DelegatingTransactionFactoryImpl : public AbstractTransactionFactoryImpl {
public:
    explicit DelegatingTransactionFactoryImpl(AbstractTransactionFactoryImpl &delegate) noexcept : delegate_(delegate) {}
    Transaction beginTransaction() override { return delegate_.beginTransaction(); }
    Transaction beginRevertibleTransaction() override { return delegate_.beginRevertibleTransaction(); }

private:
    AbstractTransactionFactoryImpl &delegate_;
};

} // namespace kivra
