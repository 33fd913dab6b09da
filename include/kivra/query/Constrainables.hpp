#pragma once
/// \file
/// The typed front of queries: constrainables that stand for a property of a search
/// instance, and the operators that turn them into constraints for `AbstractQuery::add`.
///
/// A generated class `X` has `X::Constrainables`, one search instance with one member
/// per property, and static accessors `X::name()` that name a property before any
/// instance is chosen; `X::Uuid()` names the element itself. A constraint built from the
/// static accessors is tied to instances with `on(...)`.

#include <kivra/Handles.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/query/AbstractQuery.hpp>
#include <kivra/query/Fwd.hpp>
#include <kivra/query/ValueMatchRelation.hpp>

#include <basalt/ustring.hpp>

#include <boost/none.hpp>
#include <boost/optional/optional.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kivra {

/// One search instance of a typed query: made on a query, it adds its class as a search
/// instance there. The generated `X::Constrainables` derive from it and add one
/// constrainable per property. It cannot be copied: its constrainables point at it.
class ModelElement::Constrainables {
public:
    /// Adds `cls` as a search instance of `query`. Raises `InvalidSearchClass` for an
    /// empty class.
    Constrainables(query::AbstractQuery &query, meta::Class const &cls, query::SearchClassMatchMode mode);
    /// Adds the elements of every class as a search instance of the query.
    explicit Constrainables(std::pair<query::AbstractQuery &, query::SearchClassMatchMode const> const &on);
    virtual ~Constrainables();
    Constrainables(Constrainables const &) = delete;
    Constrainables &operator=(Constrainables const &) = delete;

    /// The id of the search instance in its query.
    std::size_t getInstanceId() const noexcept { return instanceId_; }
    /// The query the instance belongs to.
    query::AbstractQuery &getQuery() const noexcept { return *query_; }

    /// The element must have no container.
    query::IsTopLevelConstraint<query::InstanceAttachment> requireTopLevelElement();
    /// The instance stands for `element` only.
    query::SpecificValueConstraint<query::InstanceAttachment, ModelElement> operator==(ModelElement const &element);

private:
    query::AbstractQuery *query_;
    std::size_t instanceId_;
};

namespace query {

/// Ties a constrainable to one search instance, through its `Constrainables`.
class InstanceAttachment {
public:
    explicit InstanceAttachment(ModelElement::Constrainables &instance) noexcept : instance_(&instance) {}
    ModelElement::Constrainables &getConstrainables() const noexcept { return *instance_; }
    std::size_t getInstanceId() const noexcept { return instance_->getInstanceId(); }

private:
    ModelElement::Constrainables *instance_;
};

/// Names the class `T` of a constrainable whose instance is not chosen yet.
template <class T> class MetaclassAttachment {
public:
    /// Whether a search instance of class `C` can stand for a `T`.
    template <class C> static constexpr bool accepts = std::is_base_of_v<typename T::Constrainables, C>;
};

namespace detail {
template <class A> inline constexpr bool isMetaclassAttachment = false;
template <class T> inline constexpr bool isMetaclassAttachment<MetaclassAttachment<T>> = true;

// The constants of comparisons, as values of the property's type; out of line so that the
// operators stay small.
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    Value operand(meta::Property const &property, Native const &constant);
#include <kivra/meta/PrimitiveTypes.def>
Value enumOperand(meta::Property const &property, std::int64_t literal);
Value elementOperand(meta::Property const &property, ModelElement const &element);
Value emptyOperand(meta::Property const &property);

template <class V> Value operandOf(meta::Property const &property, V const &constant) {
    if constexpr (std::is_enum_v<V>)
        return enumOperand(property, static_cast<std::int64_t>(constant));
    else
        return operand(property, constant);
}
} // namespace detail

/// A property constrained on a search instance, or on a class when `Attachment` is a
/// `MetaclassAttachment`: what every constrainable holds.
template <class Attachment> class PropertyConstrainable {
public:
    PropertyConstrainable(meta::Property property, Attachment attachment)
        : attachment_(std::move(attachment)), property_(std::move(property)) {}
    PropertyConstrainable(PropertyConstrainable const &) = default;
    PropertyConstrainable &operator=(PropertyConstrainable const &) = default;
    virtual ~PropertyConstrainable() = default;

    meta::Property const &getProperty() const noexcept { return property_; }
    Attachment const &getAttachment() const noexcept { return attachment_; }

private:
    Attachment attachment_;
    meta::Property property_;
};

/// The base of the constrainables of a property whose values are `V`; `optional` is 1
/// for a property that may be empty.
template <class V, class Attachment, int optional>
class AbstractConstrainable : public PropertyConstrainable<Attachment> {
public:
    using PropertyConstrainable<Attachment>::PropertyConstrainable;
};

/// A property related to a constant.
template <class Attachment> class ValueRelationConstraint {
public:
    ValueRelationConstraint(meta::Property property, ValueMatchRelation relation, Value operand, Attachment attachment)
        : property_(std::move(property)), relation_(relation), operand_(std::move(operand)),
          attachment_(std::move(attachment)) {}

    meta::Property const &getProperty() const noexcept { return property_; }
    ValueMatchRelation getRelation() const noexcept { return relation_; }
    Value const &getOperand() const noexcept { return operand_; }
    Attachment const &getAttachment() const noexcept { return attachment_; }

    /// The same constraint on the search instance `instance`.
    template <class C>
        requires detail::isMetaclassAttachment<Attachment> && Attachment::template accepts<C>
    ValueRelationConstraint<InstanceAttachment> on(C &instance) const {
        return {property_, relation_, operand_, InstanceAttachment(instance)};
    }

private:
    meta::Property property_;
    ValueMatchRelation relation_;
    Value operand_;
    Attachment attachment_;
};

/// Two properties related; of one element when both are on the same instance.
template <class AttachmentA, class AttachmentB> class PropertyRelationConstraint {
public:
    PropertyRelationConstraint(PropertyConstrainable<AttachmentA> a, ValueMatchRelation relation,
                               PropertyConstrainable<AttachmentB> b)
        : a_(std::move(a)), relation_(relation), b_(std::move(b)) {}

    PropertyConstrainable<AttachmentA> const &getLeft() const noexcept { return a_; }
    ValueMatchRelation getRelation() const noexcept { return relation_; }
    PropertyConstrainable<AttachmentB> const &getRight() const noexcept { return b_; }

    /// The same constraint between the search instances `a` and `b`.
    template <class CA, class CB>
        requires detail::isMetaclassAttachment<AttachmentA> && detail::isMetaclassAttachment<AttachmentB> &&
                 AttachmentA::template accepts<CA> && AttachmentB::template accepts<CB>
    PropertyRelationConstraint<InstanceAttachment, InstanceAttachment> on(CA &a, CB &b) const {
        return {{a_.getProperty(), InstanceAttachment(a)}, relation_, {b_.getProperty(), InstanceAttachment(b)}};
    }

private:
    PropertyConstrainable<AttachmentA> a_;
    ValueMatchRelation relation_;
    PropertyConstrainable<AttachmentB> b_;
};

/// The element of the value instance is held by a reference of the holder instance's.
template <class HolderAttachment, class ValueAttachment> class AssociationConstraint {
public:
    AssociationConstraint(PropertyConstrainable<HolderAttachment> holder, ValueAttachment value)
        : holder_(std::move(holder)), value_(std::move(value)) {}

    PropertyConstrainable<HolderAttachment> const &getHolder() const noexcept { return holder_; }
    ValueAttachment const &getValue() const noexcept { return value_; }

    /// The same constraint between the search instances `holder` and `value`.
    template <class CH, class CV>
        requires detail::isMetaclassAttachment<HolderAttachment> && detail::isMetaclassAttachment<ValueAttachment> &&
                 HolderAttachment::template accepts<CH> && ValueAttachment::template accepts<CV>
    AssociationConstraint<InstanceAttachment, InstanceAttachment> on(CH &holder, CV &value) const {
        return {{holder_.getProperty(), InstanceAttachment(holder)}, InstanceAttachment(value)};
    }

private:
    PropertyConstrainable<HolderAttachment> holder_;
    ValueAttachment value_;
};

/// Fixes a search instance to one element of class `T`.
template <class Attachment, class T> class SpecificValueConstraint {
public:
    SpecificValueConstraint(T element, Attachment attachment)
        : element_(std::move(element)), attachment_(std::move(attachment)) {}
    T const &getElement() const noexcept { return element_; }
    Attachment const &getAttachment() const noexcept { return attachment_; }

private:
    T element_;
    Attachment attachment_;
};

/// The element of a search instance has no container.
template <class Attachment> class IsTopLevelConstraint {
public:
    explicit IsTopLevelConstraint(Attachment attachment) : attachment_(std::move(attachment)) {}
    Attachment const &getAttachment() const noexcept { return attachment_; }

private:
    Attachment attachment_;
};

/// Relations to constants of which at least one must hold: built with `||`.
class DisjunctionConstraint {
public:
    DisjunctionConstraint(ValueRelationConstraint<InstanceAttachment> first,
                          ValueRelationConstraint<InstanceAttachment> second);
    std::vector<ValueRelationConstraint<InstanceAttachment>> const &getAlternatives() const noexcept {
        return alternatives_;
    }

    friend DisjunctionConstraint operator||(DisjunctionConstraint group,
                                            ValueRelationConstraint<InstanceAttachment> alternative) {
        group.alternatives_.push_back(std::move(alternative));
        return group;
    }

private:
    std::vector<ValueRelationConstraint<InstanceAttachment>> alternatives_;
};

/// Two alternatives, of which one must hold.
inline DisjunctionConstraint operator||(ValueRelationConstraint<InstanceAttachment> first,
                                        ValueRelationConstraint<InstanceAttachment> second) {
    return {std::move(first), std::move(second)};
}

/// A property with values of a primitive type or an enumeration `V`. Compared with a
/// constant (`==`, `!=`, `<`, `<=`, `>`, `>=`) it gives a `ValueRelationConstraint`;
/// with another property of the same type a `PropertyRelationConstraint`. An optional
/// property also compares with `boost::none`, which stands below every value.
template <class V, class Attachment, int optional, class>
class ConstrainableWithAttachment : public AbstractConstrainable<V, Attachment, optional> {
    using Base = AbstractConstrainable<V, Attachment, optional>;
    using R = ValueMatchRelation;
    static constexpr bool isText = std::is_same_v<V, basalt::ustring> || std::is_same_v<V, std::string>;

public:
    using Base::Base;

    /// The property related to `constant` by `relation`, for relations that have no
    /// operator. Raises `RelationAndTypeNotSupported` when handed to a query, for a relation
    /// that the property's type does not support.
    ValueRelationConstraint<Attachment> relate(ValueMatchRelation relation, V const &constant) const {
        return {this->getProperty(), relation, detail::operandOf(this->getProperty(), constant), this->getAttachment()};
    }
    /// The property related to another of the same type by `relation`.
    template <class B, int o>
    PropertyRelationConstraint<Attachment, B> relate(ValueMatchRelation relation,
                                                     ConstrainableWithAttachment<V, B, o> const &other) const {
        return {*this, relation, other};
    }

    /// Texts only: the whole text matches the pattern, in which "%" stands for any run of
    /// characters and "_" for any one character.
    ValueRelationConstraint<Attachment> like(V const &pattern) const
        requires isText
    {
        return relate(R::like, pattern);
    }
    /// Texts only: equal after case folding.
    ValueRelationConstraint<Attachment> equalStringNocase(V const &text) const
        requires isText
    {
        return relate(R::equalStringNocase, text);
    }
    /// Texts only: the whole text matches the regular expression.
    ValueRelationConstraint<Attachment> regexpMatch(V const &expression) const
        requires isText
    {
        return relate(R::regexpMatch, expression);
    }
    /// Texts only: the regular expression matches somewhere in the text.
    ValueRelationConstraint<Attachment> regexpSearch(V const &expression) const
        requires isText
    {
        return relate(R::regexpSearch, expression);
    }

#define KIVRA_CONSTRAINABLE_OPERATOR(op, relation)                                                                     \
    friend ValueRelationConstraint<Attachment> operator op(ConstrainableWithAttachment const &c, V const &constant) {  \
        return c.relate(R::relation, constant);                                                                        \
    }                                                                                                                  \
    friend ValueRelationConstraint<Attachment> operator op(ConstrainableWithAttachment const &c, boost::none_t)        \
        requires(optional != 0)                                                                                        \
    {                                                                                                                  \
        return {c.getProperty(), R::relation, detail::emptyOperand(c.getProperty()), c.getAttachment()};               \
    }                                                                                                                  \
    template <class B, int o>                                                                                          \
    PropertyRelationConstraint<Attachment, B> operator op(ConstrainableWithAttachment<V, B, o> const &other) const {   \
        return relate(R::relation, other);                                                                             \
    }
    KIVRA_CONSTRAINABLE_OPERATOR(==, equal)
    KIVRA_CONSTRAINABLE_OPERATOR(!=, notEqual)
    KIVRA_CONSTRAINABLE_OPERATOR(<, less)
    KIVRA_CONSTRAINABLE_OPERATOR(<=, lessOrEqual)
    KIVRA_CONSTRAINABLE_OPERATOR(>, greater)
    KIVRA_CONSTRAINABLE_OPERATOR(>=, greaterOrEqual)
#undef KIVRA_CONSTRAINABLE_OPERATOR
};

/// The element itself, as named by `X::Uuid()`: a reference equated with it gives an
/// `AssociationConstraint`.
template <class Attachment> class IdentityConstrainable {
public:
    IdentityConstrainable() = default;
    explicit IdentityConstrainable(Attachment attachment) : attachment_(std::move(attachment)) {}
    Attachment const &getAttachment() const noexcept { return attachment_; }

private:
    Attachment attachment_;
};

/// A single reference to an element of class `V`. Equated with an element it gives a
/// `ValueRelationConstraint`, with another search instance (or `X::Uuid()`) an
/// `AssociationConstraint`, with another reference a `PropertyRelationConstraint`.
template <class V, class Attachment>
class ConstrainableRelationWithAttachment : public AbstractConstrainable<V, Attachment, 0> {
    using Base = AbstractConstrainable<V, Attachment, 0>;
    using R = ValueMatchRelation;

public:
    using Base::Base;

    friend ValueRelationConstraint<Attachment> operator==(ConstrainableRelationWithAttachment const &c,
                                                          V const &element) {
        return {c.getProperty(), R::equal, detail::elementOperand(c.getProperty(), element), c.getAttachment()};
    }
    friend ValueRelationConstraint<Attachment> operator!=(ConstrainableRelationWithAttachment const &c,
                                                          V const &element) {
        return {c.getProperty(), R::notEqual, detail::elementOperand(c.getProperty(), element), c.getAttachment()};
    }
    friend AssociationConstraint<Attachment, InstanceAttachment>
    operator==(ConstrainableRelationWithAttachment const &c, typename V::Constrainables &instance) {
        return {c, InstanceAttachment(instance)};
    }
    template <class U>
        requires std::derived_from<U, V>
    AssociationConstraint<Attachment, MetaclassAttachment<U>>
    operator==(IdentityConstrainable<MetaclassAttachment<U>> const &identity) const {
        return {*this, identity.getAttachment()};
    }
    template <class B>
    PropertyRelationConstraint<Attachment, B> operator==(ConstrainableRelationWithAttachment<V, B> const &other) const {
        return {*this, R::equal, other};
    }
    template <class B>
    PropertyRelationConstraint<Attachment, B> operator!=(ConstrainableRelationWithAttachment<V, B> const &other) const {
        return {*this, R::notEqual, other};
    }
};

/// A collection of references to elements of class `V`: `contains` holds when some entry
/// is the element, or the element of another search instance.
template <class V, class Attachment>
class ConstrainableCollectionWithAttachment : public AbstractConstrainable<V, Attachment, 0> {
    using Base = AbstractConstrainable<V, Attachment, 0>;

public:
    using Base::Base;

    ValueRelationConstraint<Attachment> contains(V const &element) const {
        return {this->getProperty(), ValueMatchRelation::equal, detail::elementOperand(this->getProperty(), element),
                this->getAttachment()};
    }
    AssociationConstraint<Attachment, InstanceAttachment> contains(typename V::Constrainables &instance) const {
        return {*this, InstanceAttachment(instance)};
    }
    template <class U>
        requires std::derived_from<U, V>
    AssociationConstraint<Attachment, MetaclassAttachment<U>>
    contains(IdentityConstrainable<MetaclassAttachment<U>> const &identity) const {
        return {*this, identity.getAttachment()};
    }
};

} // namespace query
} // namespace kivra
