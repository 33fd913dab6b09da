#include "query/NativeKivraQuery.hpp"

#include "query/TypeKinds.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/query/AbstractQuery.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <algorithm>
#include <stdexcept>

namespace kivra::query {

ModelElement::Impl::ReflectionPrivateTag const &ReflectiveQuery::privilegedTag =
    ModelElement::Impl::ReflectionPrivateTag::PRIVILEGED_ACCESS;

ReflectiveQuery::~ReflectiveQuery() = default;
ReflectiveQuery::ResultIterator::~ResultIterator() = default;
ReflectiveDisjunction::~ReflectiveDisjunction() = default;

namespace {

// Limits and offsets travel as 32-bit signed numbers in other engines.
constexpr std::size_t limitBound = 0x80000000;


ValueComparator const *comparatorFor(ValueMatchRelation asGiven, ValueMatchRelation relation,
                                     meta::Property const &property) {
    meta::Type const type = property->getType();
    ValueComparator const *const comparator =
        ValueComparatorRegistry::getInstance()->getComparator(relation, type, property->getLower() > 0);
    if (!comparator)
        raise<RelationAndTypeNotSupported>(basalt::i18n::utf8_to_ustring(ValueMatchRelationName(asGiven)),
                                           type ? type->getName() : basalt::ustring());
    return comparator;
}

void checkProperty(meta::Property const &property) {
    if (!property)
        raise<messages::InvalidValue>();
}

} // namespace

// --- instances and constraints ---------------------------------------------------------

SearchInstance &NativeKivraQuery::instanceAt(std::size_t instance) {
    if (instance >= instances.size())
        raise<NoSuchInstanceId>();
    return instances[instance];
}

SearchInstance const &NativeKivraQuery::instanceAt(std::size_t instance) const {
    if (instance >= instances.size())
        raise<NoSuchInstanceId>();
    return instances[instance];
}

void NativeKivraQuery::clear() {
    instances.clear();
    joinGroups.clear();
    disjunctions.clear();
    limit = 0;
    offset = 0;
}

std::size_t NativeKivraQuery::addSearchClass(meta::Class const &cls, SearchClassMatchMode mode) {
    if (!cls)
        raise<InvalidSearchClass>();
    SearchInstance &added = instances.emplace_back();
    added.searchClass = cls;
    added.matchMode = mode;
    added.constraints.push_back(std::make_unique<IsAConstraint>(added.searchClass, mode));
    return instances.size() - 1;
}

void NativeKivraQuery::addPropertyRelationProperty(meta::Property const &a, std::size_t instanceA,
                                                   ValueMatchRelation relation, meta::Property const &b,
                                                   std::size_t instanceB) {
    checkProperty(a);
    checkProperty(b);
    SearchInstance &holderA = instanceAt(instanceA);
    instanceAt(instanceB);
    if (a->getType() != b->getType())
        raise<PropertyRelationPropertyTypeMismatch>();
    ValueComparator const *const comparator = comparatorFor(relation, relation, a);
    if (instanceA == instanceB) {
        holderA.constraints.push_back(
            std::make_unique<PropertyRelationPropertySingleObjectConstraint>(a, relation, b, comparator));
        return;
    }
    auto &group = joinGroups[{std::min(instanceA, instanceB), std::max(instanceA, instanceB)}];
    group.push_back(
        std::make_unique<PropertyRelationPropertyJoinConstraint>(a, instanceA, relation, b, instanceB, comparator));
}

std::unique_ptr<PropertyRelationValueConstraint>
NativeKivraQuery::makeValueConstraint(meta::Property const &property, ValueMatchRelation relation, Value const &value,
                                      std::size_t instance) const {
    instanceAt(instance);
    checkProperty(property);
    if (static_cast<std::uint32_t>(value.getFlags()) > static_cast<std::uint32_t>(ValueFlags::Single))
        raise<PropertyRelationValueNotPrimitive>();
    if (relation == ValueMatchRelation::like) {
        Value expression = likePatternToRegularExpression(value, property->getType());
        ValueComparator const *const comparator = comparatorFor(relation, ValueMatchRelation::regexpMatch, property);
        return std::make_unique<PropertyRelationValueConstraint>(property, ValueMatchRelation::regexpMatch,
                                                                 std::move(expression), comparator, instance);
    }
    ValueComparator const *const comparator = comparatorFor(relation, relation, property);
    return std::make_unique<PropertyRelationValueConstraint>(property, relation, value, comparator, instance);
}

void NativeKivraQuery::addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                                Value const &value, std::size_t instance) {
    auto constraint = makeValueConstraint(property, relation, value, instance);
    instances[instance].constraints.push_back(std::move(constraint));
}

void NativeKivraQuery::requireTopLevelElement(std::size_t instance) {
    instanceAt(instance).constraints.push_back(std::make_unique<IsTopLevelElementConstraint>());
}

void NativeKivraQuery::setSpecificElement(ModelElement const &element, std::size_t instance) {
    SearchInstance &target = instanceAt(instance);
    if (target.specificElement && !(target.specificElement == element))
        raise<ConflictingSpecificElements>();
    if (!element)
        raise<SpecificElementMustExist>();
    // Whatever the match mode: the class test still runs on the element and may drop it.
    if (!element->getMetaClass()->isA(target.searchClass))
        raise<messages::CannotCastIncompatibleTypes>(target.searchClass->getQualifiedName());
    target.specificElement = element;
}

void NativeKivraQuery::addAssociatedObject(meta::Property const &property, std::size_t holderInstance,
                                           std::size_t valueInstance) {
    checkProperty(property);
    instanceAt(holderInstance);
    instanceAt(valueInstance);
    joinGroups[{std::min(holderInstance, valueInstance), std::max(holderInstance, valueInstance)}].push_back(
        std::make_unique<AssociatedObjectConstraint>(property, holderInstance, valueInstance));
}

ReflectiveDisjunction *NativeKivraQuery::createDisjunction() {
    return disjunctions.emplace_back(std::make_unique<ReflectiveDisjunctionImpl>(*this)).get();
}

void NativeKivraQuery::setResultLimit(std::size_t value) {
    if (value >= limitBound)
        raise<InvalidLimitOffsetValue>();
    limit = value;
}

void NativeKivraQuery::setResultOffset(std::size_t value) {
    if (value >= limitBound)
        raise<InvalidLimitOffsetValue>();
    offset = value;
}

// --- sorts ---------------------------------------------------------------------------------

void NativeKivraQuery::sortByProperty(meta::Property const &property, std::size_t instance, SortDirection direction) {
    sorting = std::make_unique<ByPropertySorting>(instance, direction, property);
}

void NativeKivraQuery::sortIntrinsic(std::size_t instance, SortDirection direction) {
    sorting = std::make_unique<IntrinsicSorting>(instance, direction);
}

void NativeKivraQuery::sortByOrdinal(meta::Property const &property, std::size_t instance, SortDirection direction) {
    if (!property || property->getUpper() == 1 || !property->getIsOrdered() || !detail::isClassType(property->getType()))
        raise<UnsupportedSorting>();
    sorting = std::make_unique<ByOrdinalSorting>(instance, direction, property);
}

// --- runs ----------------------------------------------------------------------------------

std::unique_ptr<ReflectiveQuery::ResultIterator> NativeKivraQuery::execute(std::vector<std::size_t> const &) {
    if (instances.empty())
        raise<NoSearchInstances>();
    if (!model)
        raise<NoModel>();
    // The scan, joins, row filters, sort and paging of a run come with the engine proper.
    throw std::logic_error("kivra::query: queries cannot be run yet");
}

std::vector<ModelElement> NativeKivraQuery::getFirstResult() {
    std::vector<ModelElement> row;
    execute({})->next(row);
    return row;
}

std::size_t NativeKivraQuery::countResults() {
    std::size_t count = 0;
    std::vector<ModelElement> row;
    for (auto rows = execute({}); rows->next(row);)
        ++count;
    return count;
}

// --- replay --------------------------------------------------------------------------------

void NativeKivraQuery::retarget(ReflectiveQuery &target) const {
    target.clear();
    for (std::size_t id = 0; id < instances.size(); ++id) {
        SearchInstance const &instance = instances[id];
        target.addSearchClass(instance.searchClass, instance.matchMode);
        for (auto const &constraint : instance.constraints)
            constraint->replay(id, target);
        if (instance.specificElement)
            target.setSpecificElement(instance.specificElement, id);
    }
    for (auto const &[ids, group] : joinGroups)
        for (auto const &constraint : group)
            constraint->replay(target);
    for (auto const &disjunction : disjunctions) {
        if (!disjunction->finished)
            continue;
        ReflectiveDisjunction *const copy = target.createDisjunction();
        for (auto const &constraint : disjunction->constraints)
            constraint->replayInto(*copy);
        copy->finish();
    }
    target.setResultLimit(limit);
    if (sorting)
        sorting->replay(target);
}

// --- disjunctions --------------------------------------------------------------------------

void ReflectiveDisjunctionImpl::addPropertyRelationValue(meta::Property const &property, ValueMatchRelation relation,
                                                         Value const &value, std::size_t instance) {
    constraints.push_back(query->makeValueConstraint(property, relation, value, instance));
    instances.insert(instance);
}

void ReflectiveDisjunctionImpl::finish() {
    if (finished)
        return;
    if (instances.size() == 1)
        query->instances[*instances.begin()].constraints.push_back(
            std::make_unique<SingleObjectDisjunctionConstraint>(this));
    finished = true;
}

bool ReflectiveDisjunctionImpl::SingleObjectDisjunctionConstraint::test(ModelElement const &element) const {
    for (auto const &constraint : group->constraints)
        if (constraint->test(element))
            return true;
    return false;
}

// --- construction --------------------------------------------------------------------------

std::unique_ptr<ReflectiveQuery> createNativeQuery(Model const &model) {
    auto query = std::make_unique<NativeKivraQuery>();
    query->setModel(model);
    return query;
}

std::unique_ptr<RetargetableQuery> createNativeQuery() { return std::make_unique<NativeKivraQuery>(); }

AbstractQuery::AbstractQuery(Model const &model) : query_(createNativeQuery()) { query_->setModel(model); }
AbstractQuery::AbstractQuery() : query_(createNativeQuery()) {}
AbstractQuery::~AbstractQuery() = default;

void AbstractQuery::setResultLimit(std::size_t limit) { query_->setResultLimit(limit); }
void AbstractQuery::setResultOffset(std::size_t offset) { query_->setResultOffset(offset); }

} // namespace kivra::query
