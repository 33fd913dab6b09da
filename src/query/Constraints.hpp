#pragma once
// Not API: the constraints a query records, and how each repeats itself into another query.

#include "collections/HeldElements.hpp"

#include <kivra/ElementSequence.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/query/ReflectiveQuery.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <basalt/ustring.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <span>
#include <vector>

namespace kivra::query {

using kivra::detail::anyHeldElement;
using kivra::detail::asElementSequence;
using kivra::detail::managedReferenceCollection;

/// A test of one element of one instance.
class SingleObjectConstraint {
public:
    virtual ~SingleObjectConstraint();
    virtual bool test(ModelElement::Impl const &element) const = 0;
    /// Makes the call that built this constraint on `target`, for `instance`.
    virtual void replay(std::size_t instance, ReflectiveQuery &target) const = 0;
};

/// The class test that opens every instance; `addSearchClass` repeats it.
class IsAConstraint final : public SingleObjectConstraint {
public:
    IsAConstraint(meta::Class const &searchClass, SearchClassMatchMode matchMode)
        : searchClass(searchClass), matchMode(matchMode) {}
    bool test(ModelElement::Impl const &element) const override;
    void replay(std::size_t, ReflectiveQuery &) const override {}
    /// The test on an element's metaclass alone.
    bool matches(meta::Class const &cls) const;

    meta::Class searchClass;
    SearchClassMatchMode matchMode;
};

class IsTopLevelElementConstraint final : public SingleObjectConstraint {
public:
    bool test(ModelElement::Impl const &element) const override;
    void replay(std::size_t instance, ReflectiveQuery &target) const override;
};

/// Two properties of the same element.
class PropertyRelationPropertySingleObjectConstraint final : public SingleObjectConstraint {
public:
    PropertyRelationPropertySingleObjectConstraint(meta::Property a, ValueMatchRelation relation, meta::Property b,
                                                   ValueComparator const *comparator)
        : propertyA(std::move(a)), relation(relation), propertyB(std::move(b)), comparator(comparator) {}
    bool test(ModelElement::Impl const &element) const override;
    void replay(std::size_t instance, ReflectiveQuery &target) const override;

    meta::Property propertyA;
    ValueMatchRelation relation;
    meta::Property propertyB;
    ValueComparator const *comparator;
};

/// A constraint that can also stand in a disjunction.
class SingleObjectConstraintWithDisjunction : public SingleObjectConstraint {
public:
    virtual void replayInto(ReflectiveDisjunction &target) const = 0;
    virtual std::size_t getInstance() const = 0;
};

/// A constant converted once to the native type of a property, for comparing with members
/// read in place: integers and enum literals widened to `integer` (unsigned ones to
/// `natural`), and the rest in their own field.
struct NativeOperand {
    std::int64_t integer = 0;
    std::uint64_t natural = 0;
    double real = 0;
    bool boolean = false;
    basalt::ustring text;
    std::string stdText;
};

/// A property of the element related to a constant.
class PropertyRelationValueConstraint final : public SingleObjectConstraintWithDisjunction {
public:
    PropertyRelationValueConstraint(meta::Property property, ValueMatchRelation relation, Value constant,
                                    ValueComparator const *comparator, std::size_t instance);
    bool test(ModelElement::Impl const &element) const override;
    void replay(std::size_t instance, ReflectiveQuery &target) const override;
    void replayInto(ReflectiveDisjunction &target) const override;
    std::size_t getInstance() const override { return instance; }

    meta::Property property;
    ValueMatchRelation relation; ///< as it stands after a `like` was rewritten
    Value constant;
    ValueComparator const *comparator;
    std::size_t instance;

private:
    // The comparator's relation on a member that an element shows in place, as the comparator
    // would judge its value and the constant; null when every element is read as a `Value`.
    bool (*nativeTest_)(void const *member, NativeOperand const &constant) = nullptr;
    NativeOperand nativeConstant_;
};

/// A test of a row: the elements of two or more instances.
class JoinConstraint {
public:
    virtual ~JoinConstraint();
    virtual std::vector<std::size_t> getInstances() const = 0;
    /// `row` holds the elements of the instances `ids`, in that order.
    virtual bool test(std::span<ModelElement::Impl const *const> row, std::vector<std::size_t> const &ids) const = 0;
    virtual void replay(ReflectiveQuery &target) const = 0;
};

/// The element of `valueInstance` is a value of `property` on the element of `holderInstance`.
class AssociatedObjectConstraint final : public JoinConstraint {
public:
    AssociatedObjectConstraint(meta::Property property, std::size_t holderInstance, std::size_t valueInstance)
        : property(std::move(property)), holderInstance(holderInstance), valueInstance(valueInstance) {}
    std::vector<std::size_t> getInstances() const override { return {holderInstance, valueInstance}; }
    bool test(std::span<ModelElement::Impl const *const> row, std::vector<std::size_t> const &ids) const override;
    void replay(ReflectiveQuery &target) const override;

    meta::Property property;
    std::size_t holderInstance;
    std::size_t valueInstance;
};

/// Two properties of the elements of two instances.
class PropertyRelationPropertyJoinConstraint final : public JoinConstraint {
public:
    PropertyRelationPropertyJoinConstraint(meta::Property a, std::size_t instanceA, ValueMatchRelation relation,
                                           meta::Property b, std::size_t instanceB, ValueComparator const *comparator)
        : propertyA(std::move(a)), instanceA(instanceA), relation(relation), propertyB(std::move(b)),
          instanceB(instanceB), comparator(comparator) {}
    std::vector<std::size_t> getInstances() const override { return {instanceA, instanceB}; }
    bool test(std::span<ModelElement::Impl const *const> row, std::vector<std::size_t> const &ids) const override;
    void replay(ReflectiveQuery &target) const override;

    meta::Property propertyA;
    std::size_t instanceA;
    ValueMatchRelation relation;
    meta::Property propertyB;
    std::size_t instanceB;
    ValueComparator const *comparator;
};

/// Whether `comparator` holds between the value of `property` on `element` and
/// `constant`; for a collection, whether it holds for some entry.
bool testPropertyValue(ModelElement::Impl const &element, meta::Property const &property, ValueComparator comparator,
                       Value const &constant);

/// The regular expression that matches what the like pattern `value` matches, as a value of
/// `type`. Raises `LikePatternNotSingle` and `LikePatternNotString`.
Value likePatternToRegularExpression(Value const &value, meta::Type const &type);

} // namespace kivra::query
