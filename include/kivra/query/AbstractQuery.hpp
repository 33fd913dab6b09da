#pragma once
/// \file
/// The base of the typed query classes of generated metamodels.

#include <kivra/Handles.hpp>
#include <kivra/query/Fwd.hpp>
#include <kivra/query/ValueMatchRelation.hpp>

#include <cstddef>
#include <memory>

namespace kivra::query {

/// The base of a typed query: owns the underlying run-time query, to which the
/// `Constrainables` of each search instance hand their constraints. The constraints come
/// from the operators of the constrainables (`kivra/query/Constrainables.hpp`); each
/// `add` makes the run-time call that records it and raises what that call raises.
///
/// Example:
/// \code
///   query::AbstractQuery query(model);
///   Book::Constrainables books({query, query::SearchClassMatchMode::ClassOrSubclass});
///   Author::Constrainables writers({query, query::SearchClassMatchMode::ExactClass});
///   query.add(books.pages > 100);
///   query.add(books.writer == writers);
///   query.add(books.title.like(u"Dune%") || books.title == u"Emma");
///   query.sortByProperty(books.pages, query::SortDirection::Descending);
/// \endcode
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

    /// A property related to a constant. Every `add` raises `NoSuchInstanceId` when an
    /// instance of the constraint belongs to another query.
    void add(ValueRelationConstraint<InstanceAttachment> const &constraint);
    /// Two properties related: of one element, or a join of two instances.
    void add(PropertyRelationConstraint<InstanceAttachment, InstanceAttachment> const &constraint);
    /// The element of one instance is a value of a reference of another's.
    void add(AssociationConstraint<InstanceAttachment, InstanceAttachment> const &constraint);
    /// Alternatives of which one must hold.
    void add(DisjunctionConstraint const &constraint);
    /// The instance's element must have no container.
    void add(IsTopLevelConstraint<InstanceAttachment> const &constraint);
    /// The instance stands for one element only.
    template <class T> void add(SpecificValueConstraint<InstanceAttachment, T> const &constraint) {
        addSpecificElement(constraint.getElement(), constraint.getAttachment());
    }

    /// Sorts by a single-valued property of an instance; replaces an earlier sort.
    void sortByProperty(PropertyConstrainable<InstanceAttachment> const &property, SortDirection direction);
    /// Sorts by the position of the instance's elements in an ordered reference
    /// collection. Raises `UnsupportedSorting` for any other property.
    void sortByOrdinal(PropertyConstrainable<InstanceAttachment> const &collection, SortDirection direction);
    /// Sorts in an engine's own order of the instance's elements.
    void sortIntrinsic(ModelElement::Constrainables const &instance, SortDirection direction);

protected:
    /// The run-time query that records this one; never null.
    RetargetableQuery *getUnderlyingQuery() const noexcept { return query_.get(); }

private:
    friend class ModelElement::Constrainables;
    void addSpecificElement(ModelElement const &element, InstanceAttachment const &attachment);
    std::size_t instanceOf(InstanceAttachment const &attachment) const;

    std::unique_ptr<RetargetableQuery> query_;
};

} // namespace kivra::query
