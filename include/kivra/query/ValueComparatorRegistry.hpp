#pragma once
/// \file
/// The one table through which every comparison of a query goes.

#include <kivra/Fwd.hpp>
#include <kivra/meta/Fwd.hpp>
#include <kivra/query/ValueMatchRelation.hpp>

#include <memory>

namespace kivra::query {

/// A comparison of the value read from an element (`left`) with a constant or the value
/// of a second property (`right`). Keeps no state.
using ValueComparator = bool (*)(Value const &left, Value const &right);

/// The comparators of queries and sorts, by type, relation and requiredness. What the
/// table does not hold is not supported. Built at the first `getInstance()`, immutable
/// afterwards, and safe to share between threads.
///
/// Example:
/// \code
///   auto const *registry = query::ValueComparatorRegistry::getInstance();
///   query::ValueComparator const *less =
///       registry->getComparator(query::ValueMatchRelation::less, meta::StandardTypes::integerMeta, true);
///   bool const below = (*less)(Value(std::int32_t(1)), Value(std::int32_t(2))); // true
/// \endcode
class ValueComparatorRegistry {
public:
    /// The process-wide table; the first call builds it, and with it the metamodel.
    static ValueComparatorRegistry const *getInstance();

    /// The comparator for `relation` on values of `type`; null when there is none.
    /// `required` is true when the compared property's `lower` is above 0: without it,
    /// each operand may be empty, and an empty value stands below every other value.
    /// Any class stands for the class `meta::Class`, where only required `equal` and
    /// `notEqual` exist; any enum stands for the class `meta::Enum`. A comparator raises
    /// `CannotCastIncompatibleTypes` for operands of another type, and the regular
    /// expression comparators raise the regular expression library's error for a
    /// pattern that does not compile. `like` has no comparator: it is rewritten first.
    ValueComparator const *getComparator(ValueMatchRelation relation, meta::Type const &type, bool required) const;

    ValueComparatorRegistry(ValueComparatorRegistry const &) = delete;
    ValueComparatorRegistry &operator=(ValueComparatorRegistry const &) = delete;

private:
    ValueComparatorRegistry();
    ~ValueComparatorRegistry();

    struct Table;
    std::unique_ptr<Table> table_;
};

} // namespace kivra::query
