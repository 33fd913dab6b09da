#include "query/Constraints.hpp"

#include "query/TypeKinds.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <functional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <string_view>

namespace kivra::query {

SingleObjectConstraint::~SingleObjectConstraint() = default;
JoinConstraint::~JoinConstraint() = default;

namespace {

ModelElement::Impl::ReflectionPrivateTag const &tag() { return ReflectiveQuery::privilegedTag; }

Value readScalar(ModelElement::Impl const &element, meta::Property const &property) {
    Value value = element.getPropertyValue(property, tag());
    if (isCollection(value.getFlags()))
        raise<PropertyRelationValueNotPrimitive>();
    return value;
}

// The element of `instance` in a row that holds the elements of `ids`.
ModelElement::Impl const *elementOf(std::span<ModelElement::Impl const *const> row,
                                    std::vector<std::size_t> const &ids, std::size_t instance) {
    return ids[0] == instance ? row[0] : row[1];
}

// The field of `NativeOperand` that holds a constant of native type `T`.
template <class T, class Operand> auto &operandOf(Operand &operand) {
    if constexpr (std::is_same_v<T, bool>)
        return operand.boolean;
    else if constexpr (std::is_same_v<T, double>)
        return operand.real;
    else if constexpr (std::is_same_v<T, basalt::ustring>)
        return operand.text;
    else if constexpr (std::is_same_v<T, std::string>)
        return operand.stdText;
    else if constexpr (std::is_signed_v<T>)
        return operand.integer;
    else
        return operand.natural;
}

template <class T, class Relation> bool compareInPlace(void const *member, NativeOperand const &constant) {
    return Relation{}(*static_cast<T const *>(member), operandOf<T>(constant));
}

using NativeTest = bool (*)(void const *, NativeOperand const &);

template <class T> NativeTest nativeTestFor(ValueMatchRelation relation) {
    switch (relation) {
    case ValueMatchRelation::equal: return &compareInPlace<T, std::equal_to<>>;
    case ValueMatchRelation::notEqual: return &compareInPlace<T, std::not_equal_to<>>;
    case ValueMatchRelation::greater: return &compareInPlace<T, std::greater<>>;
    case ValueMatchRelation::greaterOrEqual: return &compareInPlace<T, std::greater_equal<>>;
    case ValueMatchRelation::less: return &compareInPlace<T, std::less<>>;
    case ValueMatchRelation::lessOrEqual: return &compareInPlace<T, std::less_equal<>>;
    default: return nullptr;
    }
}

// The test for a constant of native type `T`, kept in `operand`; the types without a plain
// order of their own are left to their comparators.
template <class T> NativeTest nativeTestFor(ValueMatchRelation relation, Value const &constant, NativeOperand &operand) {
    if constexpr (std::is_arithmetic_v<T> || std::is_same_v<T, basalt::ustring> || std::is_same_v<T, std::string>) {
        operandOf<T>(operand) = constant.get<T>();
        return nativeTestFor<T>(relation);
    } else {
        return nullptr;
    }
}

// The test of a member read in place that gives what `comparator` gives on its value and
// `constant`, with the constant stored in `operand`; null where there is none. Both sides
// are then set, so an optional property's ordering is the plain one; its equality compares
// values as `Value` does and stays there.
NativeTest nativeTestFor(meta::Property const &property, ValueMatchRelation relation, Value const &constant,
                         NativeOperand &operand) {
    if (!property || property->getUpper() != 1 || constant.getFlags() != ValueFlags::Single ||
        !constant.hasPayload() || constant.getType() != property->getType())
        return nullptr;
    bool const equality = relation == ValueMatchRelation::equal || relation == ValueMatchRelation::notEqual;
    if (equality && property->getLower() == 0)
        return nullptr;
    meta::Type const &type = property->getType();
    using meta::StandardTypes;
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    if (type == StandardTypes::member.get())                                                                           \
        return nativeTestFor<Native>(relation, constant, operand);
#include <kivra/meta/PrimitiveTypes.def>
    // Enum literals travel as their number sign-extended to 64 bits, and live as 32.
    if (equality && internal::isEnumType(type)) {
        operand.integer = static_cast<std::int64_t>(constant.get<std::uint64_t>());
        return nativeTestFor<std::int32_t>(relation);
    }
    return nullptr;
}

} // namespace

PropertyRelationValueConstraint::PropertyRelationValueConstraint(meta::Property property, ValueMatchRelation relation,
                                                                 Value constant, ValueComparator const *comparator,
                                                                 std::size_t instance)
    : property(std::move(property)), relation(relation), constant(std::move(constant)), comparator(comparator),
      instance(instance) {
    if (comparator)
        nativeTest_ = nativeTestFor(this->property, relation, this->constant, nativeConstant_);
}

bool IsAConstraint::test(ModelElement::Impl const &element) const { return matches(element.getMetaClass()); }

bool IsAConstraint::matches(meta::Class const &cls) const {
    if (matchMode == SearchClassMatchMode::ExactClass)
        return cls == searchClass;
    return cls->isA(searchClass);
}

bool IsTopLevelElementConstraint::test(ModelElement::Impl const &element) const { return element.isTopLevel(); }

void IsTopLevelElementConstraint::replay(std::size_t instance, ReflectiveQuery &target) const {
    target.requireTopLevelElement(instance);
}

bool PropertyRelationPropertySingleObjectConstraint::test(ModelElement::Impl const &element) const {
    return (*comparator)(readScalar(element, propertyA), readScalar(element, propertyB));
}

void PropertyRelationPropertySingleObjectConstraint::replay(std::size_t instance, ReflectiveQuery &target) const {
    target.addPropertyRelationProperty(propertyA, instance, relation, propertyB, instance);
}

bool testPropertyValue(ModelElement::Impl const &element, meta::Property const &property, ValueComparator comparator,
                       Value const &constant) {
    Value const value = element.getPropertyValue(property, tag());
    if (!isCollection(value.getFlags()))
        return comparator(value, constant);
    // Some entry must relate; an empty collection relates to nothing, not even by notEqual.
    for (Value const &entry : value.extractEntryValues())
        if (comparator(entry, constant))
            return true;
    return false;
}

bool PropertyRelationValueConstraint::test(ModelElement::Impl const &element) const {
    if (nativeTest_)
        if (void const *const member = element.nativeValueAddress(*property.get()))
            return nativeTest_(member, nativeConstant_);
    return testPropertyValue(element, property, *comparator, constant);
}

void PropertyRelationValueConstraint::replay(std::size_t instance, ReflectiveQuery &target) const {
    target.addPropertyRelationValue(property, relation, constant, instance);
}

void PropertyRelationValueConstraint::replayInto(ReflectiveDisjunction &target) const {
    target.addPropertyRelationValue(property, relation, constant, instance);
}

bool AssociatedObjectConstraint::test(std::span<ModelElement::Impl const *const> row,
                                      std::vector<std::size_t> const &ids) const {
    ModelElement::Impl const *const holder = elementOf(row, ids, holderInstance);
    ModelElement::Impl const *const target = ids[0] == holderInstance ? row[1] : row[0];
    if (!holder || !holder->isValid() || !target || !target->isValid())
        return false;
    Value const value = holder->getPropertyValue(property, ReflectiveQuery::privilegedTag);
    // A proxy of the target names it by UUID; the text is made once, and only if needed.
    boost::optional<basalt::ustring> targetUuid;
    auto const matches = [&](ModelElement const &entry) {
        if (entry.get() == target)
            return true;
        if (!entry || !entry->isProxy())
            return false;
        boost::optional<ProxyId> const id = entry->getProxyId();
        if (!id || id->getIdentifierType() != u"uuid")
            return false;
        if (!targetUuid)
            targetUuid = basalt::i18n::utf8_to_ustring(boost::uuids::to_string(target->getUuid()));
        return id->getIdentifier() == *targetUuid;
    };
    // Proxies count as entries here: a query never loads what they stand for.
    return anyHeldElement(value, property->getUpper() == 1, matches);
}

void AssociatedObjectConstraint::replay(ReflectiveQuery &target) const {
    target.addAssociatedObject(property, holderInstance, valueInstance);
}

bool PropertyRelationPropertyJoinConstraint::test(std::span<ModelElement::Impl const *const> row,
                                                  std::vector<std::size_t> const &ids) const {
    return (*comparator)(elementOf(row, ids, instanceA)->getPropertyValue(propertyA, tag()),
                         elementOf(row, ids, instanceB)->getPropertyValue(propertyB, tag()));
}

void PropertyRelationPropertyJoinConstraint::replay(ReflectiveQuery &target) const {
    target.addPropertyRelationProperty(propertyA, instanceA, relation, propertyB, instanceB);
}

Value likePatternToRegularExpression(Value const &value, meta::Type const &type) {
    if (value.getFlags() != ValueFlags::Single)
        raise<LikePatternNotSingle>();
    bool const utf16 = type == meta::StandardTypes::stringMeta.get();
    if (!utf16 && type != meta::StandardTypes::stdstringMeta.get())
        raise<LikePatternNotString>();

    std::string const pattern = value.getType() == meta::StandardTypes::stdstringMeta.get()
                                    ? value.get<std::string>()
                                    : basalt::i18n::ustring_to_utf8(value.get<basalt::ustring>());
    // The characters that mean something in a regular expression stand for themselves in a
    // like pattern; only "_" and "%" are wildcards, and there is no escape character.
    static constexpr std::string_view special = "^$\\.*+?()[]{}|";
    std::string expression;
    expression.reserve(pattern.size() + pattern.size() / 2);
    for (char const c : pattern) {
        if (special.find(c) != std::string_view::npos) {
            expression += '\\';
            expression += c;
        } else if (c == '_') {
            expression += '.';
        } else if (c == '%') {
            expression += ".*";
        } else {
            expression += c;
        }
    }
    if (utf16)
        return Value(type, basalt::i18n::utf8_to_ustring(expression));
    return Value(type, expression);
}

} // namespace kivra::query
