#pragma once
/// \file
/// Queries built at run time from the metamodel: a query selects rows of elements of one
/// model, one element per search instance, narrowed by constraints.

#include <kivra/Handles.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Fwd.hpp>
#include <kivra/query/ValueMatchRelation.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace kivra::query {

/// A group of constraints of which one must hold: an OR. Made and owned by its query;
/// it takes part in the query once `finish()` has been called.
class ReflectiveDisjunction {
public:
    virtual ~ReflectiveDisjunction();
    /// Adds one alternative, checked as `ReflectiveQuery::addPropertyRelationValue`
    /// checks it, with the same errors.
    virtual void addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                          Value const &value, std::size_t instance) = 0;
    /// Closes the group. A group over one instance becomes one more constraint of that
    /// instance; a group over several acts on whole rows.
    virtual void finish() = 0;
};

/// The run-time interface of a query: search instances, constraints on them, one sort,
/// an offset and a limit; then runs. Every call that names an instance takes the id that
/// `addSearchClass` gave, and raises `NoSuchInstanceId` for any other. A call that fails
/// leaves the query as it was.
///
/// Example:
/// \code
///   std::unique_ptr<query::ReflectiveQuery> books = query::createNativeQuery(model);
///   std::size_t const book = books->addSearchClass(Book::metaClass(), query::SearchClassMatchMode::ClassOrSubclass);
///   books->addPropertyRelationValue(Book::Impl::titleProperty(), query::ValueMatchRelation::like,
///                                   Value(basalt::ustring(u"Dune%")), book);
///   books->sortByProperty(Book::Impl::pagesProperty(), book, query::SortDirection::Descending);
///   books->setResultLimit(10);
/// \endcode
class ReflectiveQuery {
public:
    /// The rows of one run, in order; owns them, and does not see later changes of the model.
    class ResultIterator {
    public:
        virtual ~ResultIterator();
        /// Puts the next row into `row` and gives true; at the end, gives false and leaves
        /// `row` as wide as a row, with empty handles.
        virtual bool next(std::vector<ModelElement> &row) = 0;
    };

    /// The access with which queries read properties: they see private ones too.
    static ModelElement::Impl::ReflectionPrivateTag const &privilegedTag;

    virtual ~ReflectiveQuery();

    /// Forgets instances, constraints and disjunctions and resets limit and offset to 0;
    /// keeps the model and the sort.
    virtual void clear() = 0;
    /// A new search instance over elements of `cls` (and its subclasses unless `mode` is
    /// `ExactClass`); gives its id, counted from 0. Raises `InvalidSearchClass` for an
    /// empty class.
    virtual std::size_t addSearchClass(meta::Class const &cls, SearchClassMatchMode mode) = 0;
    /// Relates property `a` of the element of `instanceA` to property `b` of the element of
    /// `instanceB`: one element when the instances are the same, a join otherwise. Raises
    /// `PropertyRelationPropertyTypeMismatch` when the properties' types differ, and
    /// `RelationAndTypeNotSupported` when the relation does not apply to them.
    virtual void addPropertyRelationProperty(meta::Property const &a, std::size_t instanceA,
                                             ValueMatchRelation relation, meta::Property const &b,
                                             std::size_t instanceB) = 0;
    /// Relates a property of the instance's element to a constant, which the query copies.
    /// For a collection property, some entry must relate. Raises
    /// `PropertyRelationValueNotPrimitive` for a collection constant,
    /// `RelationAndTypeNotSupported`, for `like` `LikePatternNotSingle` or
    /// `LikePatternNotString`, and `InvalidValue` for a regular expression that does not
    /// compile.
    virtual void addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                          Value const &value, std::size_t instance) = 0;
    /// The instance's element must have no container.
    virtual void requireTopLevelElement(std::size_t instance) = 0;
    /// The instance stands for `element` only. Raises `ConflictingSpecificElements` when it
    /// already stands for another, `SpecificElementMustExist` for an empty handle, and
    /// `CannotCastIncompatibleTypes` when the element is not of the search class.
    virtual void setSpecificElement(ModelElement const &element, std::size_t instance) = 0;
    /// The element of `valueInstance` must be a value of `property` on the element of
    /// `holderInstance`.
    virtual void addAssociatedObject(meta::Property const &property, std::size_t holderInstance,
                                     std::size_t valueInstance) = 0;
    /// A new OR group, owned by the query.
    virtual ReflectiveDisjunction *createDisjunction() = 0;
    /// At most `limit` rows; 0 for no limit. Raises `InvalidLimitOffsetValue` from 2^31 on.
    virtual void setResultLimit(std::size_t limit) = 0;
    /// Skips the first `offset` rows. Raises `InvalidLimitOffsetValue` from 2^31 on.
    virtual void setResultOffset(std::size_t offset) = 0;
    /// Sorts by a single-valued property that is not a reference; replaces an earlier sort.
    virtual void sortByProperty(meta::Property const &property, std::size_t instance, SortDirection direction) = 0;
    /// Sorts in an engine's own order of the instance's elements; replaces an earlier sort.
    virtual void sortIntrinsic(std::size_t instance, SortDirection direction) = 0;
    /// Sorts by the position of the instance's elements in an ordered reference collection;
    /// replaces an earlier sort. Raises `UnsupportedSorting` for any other property.
    virtual void sortByOrdinal(meta::Property const &property, std::size_t instance, SortDirection direction) = 0;

    /// The first row; a row of empty handles when there is none.
    virtual std::vector<ModelElement> getFirstResult() = 0;
    /// Runs the query. `columns` lists the instances wanted in each row, in order; empty
    /// means all. Raises `NoSearchInstances` and `NoModel`.
    virtual std::unique_ptr<ResultIterator> execute(std::vector<std::size_t> const &columns) = 0;
    /// The number of rows a run gives, limit and offset counted.
    virtual std::size_t countResults() = 0;
};

/// A query whose model can be set later, and which can repeat itself into another query.
class RetargetableQuery : public ReflectiveQuery {
public:
    /// The model the query runs on.
    virtual void setModel(Model const &model) = 0;
    /// Clears `target` and repeats into it every call that built this query, except the
    /// offset; instance ids stay the same.
    virtual void retarget(ReflectiveQuery &target) const = 0;
    /// The model the query runs on; empty when none was set.
    virtual Model getModel() const = 0;
};

/// A query of the in-memory engine on `model`, owned by the caller.
std::unique_ptr<ReflectiveQuery> createNativeQuery(Model const &model);
/// A query of the in-memory engine without a model yet, owned by the caller.
std::unique_ptr<RetargetableQuery> createNativeQuery();

} // namespace kivra::query
