#pragma once
/// \file
/// Where a transaction came from.

#include <kivra/meta/Handles.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/uuid.hpp>

#include <cstdint>

namespace kivra::meta {

/// Where a transaction came from: the model, the language, the transaction's own id, an
/// optional synchronizer, and the factory with its ordinal, which increases with each
/// transaction the factory begins. A value type.
class TransactionOrigin {
public:
    boost::uuids::uuid const &getModel() const noexcept { return model_; }
    Language getLanguage() const noexcept { return language_; }
    boost::uuids::uuid const &getTransactionId() const noexcept { return transactionId_; }
    boost::optional<boost::uuids::uuid> const &getSynchronizer() const noexcept { return synchronizer_; }
    bool hasSynchronizer() const noexcept { return synchronizer_.has_value(); }
    std::int32_t getTransactionOrdinal() const noexcept { return transactionOrdinal_; }
    boost::uuids::uuid const &getTransactionFactory() const noexcept { return transactionFactory_; }

    void setModel(boost::uuids::uuid const &model) noexcept { model_ = model; }
    void setLanguage(Language language) noexcept { language_ = language; }
    void setTransactionId(boost::uuids::uuid const &id) noexcept { transactionId_ = id; }
    void setSynchronizer(boost::optional<boost::uuids::uuid> const &synchronizer) { synchronizer_ = synchronizer; }
    void setTransactionOrdinal(std::int32_t ordinal) noexcept { transactionOrdinal_ = ordinal; }
    void setTransactionFactory(boost::uuids::uuid const &factory) noexcept { transactionFactory_ = factory; }

    friend bool operator==(TransactionOrigin const &, TransactionOrigin const &) = default;

private:
    boost::uuids::uuid model_{};
    Language language_ = Language::Unknown;
    boost::uuids::uuid transactionId_{};
    boost::optional<boost::uuids::uuid> synchronizer_;
    std::int32_t transactionOrdinal_ = 0;
    boost::uuids::uuid transactionFactory_{};
};

} // namespace kivra::meta
