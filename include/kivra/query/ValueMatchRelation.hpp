#pragma once
/// \file
/// The small vocabularies of queries: how two values are related, how a search class
/// matches an element's class, and which way a sort runs.

#include <string_view>

namespace kivra::query {

/// The relation of a property comparison in a query.
enum class ValueMatchRelation : int {
    equal = 0,
    equalStringNocase = 1, ///< equal texts after case folding
    notEqual = 2,
    greater = 3,
    greaterOrEqual = 4,
    less = 5,
    lessOrEqual = 6,
    like = 7,         ///< a pattern with "%" and "_"; rewritten into `regexpMatch` when the constraint is built
    regexpMatch = 8,  ///< the whole text matches a regular expression
    regexpSearch = 9, ///< a regular expression matches somewhere in the text
};

/// The name of `relation` ("equal", "notEqual", ...); the empty string for a value that
/// is no relation.
std::string_view ValueMatchRelationName(ValueMatchRelation relation) noexcept;

/// How a search class matches the class of an element. Any value other than
/// `ExactClass` acts as `ClassOrSubclass`.
enum class SearchClassMatchMode : int {
    ExactClass = 0,      ///< the element's class is the search class itself
    ClassOrSubclass = 1, ///< the element's class is the search class or derives from it
};

/// The direction of a sort. Any value other than `Ascending` acts as `Descending`.
enum class SortDirection : int { Ascending = 0, Descending = 1 };

} // namespace kivra::query
