#pragma once
// Not API: the sort a query records.

#include "query/ResultSet.hpp"

#include <kivra/meta/Handles.hpp>
#include <kivra/query/ReflectiveQuery.hpp>

#include <cstddef>

namespace kivra::query {

/// A sort of one search instance's elements, in one direction.
class QuerySorting {
public:
    QuerySorting(std::size_t instance, SortDirection direction) : instance(instance), direction(direction) {}
    virtual ~QuerySorting();
    /// Orders the rows; raises `UnsupportedSorting` when this sort cannot run here.
    virtual void sort(ResultSet &rows) const = 0;
    /// Makes the call that recorded this sort on `target`.
    virtual void replay(ReflectiveQuery &target) const = 0;

    std::size_t instance;
    SortDirection direction;
};

class ByPropertySorting final : public QuerySorting {
public:
    ByPropertySorting(std::size_t instance, SortDirection direction, meta::Property property)
        : QuerySorting(instance, direction), property(std::move(property)) {}
    void sort(ResultSet &rows) const override;
    void replay(ReflectiveQuery &target) const override;

    meta::Property property;
};

/// An engine's own order; only another engine can run it.
class IntrinsicSorting final : public QuerySorting {
public:
    using QuerySorting::QuerySorting;
    void sort(ResultSet &rows) const override;
    void replay(ReflectiveQuery &target) const override;
};

/// The order of an ordered reference collection; only another engine can run it.
class ByOrdinalSorting final : public QuerySorting {
public:
    ByOrdinalSorting(std::size_t instance, SortDirection direction, meta::Property property)
        : QuerySorting(instance, direction), property(std::move(property)) {}
    void sort(ResultSet &rows) const override;
    void replay(ReflectiveQuery &target) const override;

    meta::Property property;
};

} // namespace kivra::query
