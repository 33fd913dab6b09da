#pragma once
/// \file
/// The base of the typed query classes of generated metamodels.

#include <kivra/Handles.hpp>

#include <cstddef>
#include <memory>

namespace kivra::query {

class RetargetableQuery;

/// The base of a typed query: owns the underlying run-time query, to which the
/// `Constrainables` of each search instance hand their constraints.
class AbstractQuery {
public:
    /// A query on `model`.
    explicit AbstractQuery(Model const &model);
    /// A query whose model is set later, through the underlying query.
    AbstractQuery();
    virtual ~AbstractQuery();
    AbstractQuery(AbstractQuery const &) = delete;
    AbstractQuery &operator=(AbstractQuery const &) = delete;

    /// At most `limit` rows; 0 for no limit. Raises `InvalidLimitOffsetValue` from 2^31 on.
    void setResultLimit(std::size_t limit);
    /// Skips the first `offset` rows. Raises `InvalidLimitOffsetValue` from 2^31 on.
    void setResultOffset(std::size_t offset);

protected:
    /// The run-time query that records this one; never null.
    RetargetableQuery *getUnderlyingQuery() const noexcept { return query_.get(); }

private:
    std::unique_ptr<RetargetableQuery> query_;
};

} // namespace kivra::query
