#include <kivra/query/Constrainables.hpp>

#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/query/ReflectiveQuery.hpp>

namespace kivra {

ModelElement::Constrainables::Constrainables(query::AbstractQuery &query, meta::Class const &cls,
                                             query::SearchClassMatchMode mode)
    : query_(&query), instanceId_(query.getUnderlyingQuery()->addSearchClass(cls, mode)) {}

ModelElement::Constrainables::Constrainables(
    std::pair<query::AbstractQuery &, query::SearchClassMatchMode const> const &on)
    : Constrainables(on.first, ModelElement::metaClass(), on.second) {}

ModelElement::Constrainables::~Constrainables() = default;

query::IsTopLevelConstraint<query::InstanceAttachment> ModelElement::Constrainables::requireTopLevelElement() {
    return query::IsTopLevelConstraint<query::InstanceAttachment>(query::InstanceAttachment(*this));
}

query::SpecificValueConstraint<query::InstanceAttachment, ModelElement>
ModelElement::Constrainables::operator==(ModelElement const &element) {
    return {element, query::InstanceAttachment(*this)};
}

namespace query {

namespace detail {

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    Value operand(meta::Property const &property, Native const &constant) {                                           \
        return Value(property->getType(), constant);                                                                   \
    }
#include <kivra/meta/PrimitiveTypes.def>

Value enumOperand(meta::Property const &property, std::int64_t literal) {
    // Literals travel as their number, sign-extended, as the generated readers give them.
    return Value(property->getType(), static_cast<std::uint64_t>(literal));
}

Value elementOperand(meta::Property const &property, ModelElement const &element) {
    return Value(property->getType(), element);
}

Value emptyOperand(meta::Property const &property) { return Value(property->getType(), boost::none); }

} // namespace detail

DisjunctionConstraint::DisjunctionConstraint(ValueRelationConstraint<InstanceAttachment> first,
                                             ValueRelationConstraint<InstanceAttachment> second) {
    alternatives_.reserve(2);
    alternatives_.push_back(std::move(first));
    alternatives_.push_back(std::move(second));
}

// --- handing typed constraints to the run-time query ----------------------------------------

std::size_t AbstractQuery::instanceOf(InstanceAttachment const &attachment) const {
    // An instance of another query would name whatever instance has its id here.
    if (&attachment.getConstrainables().getQuery() != this)
        raise<NoSuchInstanceId>();
    return attachment.getInstanceId();
}

void AbstractQuery::add(ValueRelationConstraint<InstanceAttachment> const &constraint) {
    query_->addPropertyRelationValue(constraint.getProperty(), constraint.getRelation(), constraint.getOperand(),
                                     instanceOf(constraint.getAttachment()));
}

void AbstractQuery::add(PropertyRelationConstraint<InstanceAttachment, InstanceAttachment> const &constraint) {
    auto const &a = constraint.getLeft();
    auto const &b = constraint.getRight();
    query_->addPropertyRelationProperty(a.getProperty(), instanceOf(a.getAttachment()), constraint.getRelation(),
                                        b.getProperty(), instanceOf(b.getAttachment()));
}

void AbstractQuery::add(AssociationConstraint<InstanceAttachment, InstanceAttachment> const &constraint) {
    auto const &holder = constraint.getHolder();
    query_->addAssociatedObject(holder.getProperty(), instanceOf(holder.getAttachment()),
                                instanceOf(constraint.getValue()));
}

void AbstractQuery::add(DisjunctionConstraint const &constraint) {
    // Checked before the group is made: a group left unfinished by a failure would stay
    // in the query, if without effect.
    for (auto const &alternative : constraint.getAlternatives())
        instanceOf(alternative.getAttachment());
    ReflectiveDisjunction *const group = query_->createDisjunction();
    for (auto const &alternative : constraint.getAlternatives())
        group->addPropertyRelationValue(alternative.getProperty(), alternative.getRelation(), alternative.getOperand(),
                                        alternative.getAttachment().getInstanceId());
    group->finish();
}

void AbstractQuery::add(IsTopLevelConstraint<InstanceAttachment> const &constraint) {
    query_->requireTopLevelElement(instanceOf(constraint.getAttachment()));
}

void AbstractQuery::addSpecificElement(ModelElement const &element, InstanceAttachment const &attachment) {
    query_->setSpecificElement(element, instanceOf(attachment));
}

void AbstractQuery::sortByProperty(PropertyConstrainable<InstanceAttachment> const &property,
                                   SortDirection direction) {
    query_->sortByProperty(property.getProperty(), instanceOf(property.getAttachment()), direction);
}

void AbstractQuery::sortByOrdinal(PropertyConstrainable<InstanceAttachment> const &collection,
                                  SortDirection direction) {
    query_->sortByOrdinal(collection.getProperty(), instanceOf(collection.getAttachment()), direction);
}

void AbstractQuery::sortIntrinsic(ModelElement::Constrainables const &instance, SortDirection direction) {
    if (&instance.getQuery() != this)
        raise<NoSuchInstanceId>();
    query_->sortIntrinsic(instance.getInstanceId(), direction);
}

} // namespace query
} // namespace kivra
