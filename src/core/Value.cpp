#include <kivra/Value.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <boost/optional/optional.hpp>

#include <new>
#include <utility>

namespace kivra {

namespace {

bool isClass(meta::Type const &type) { return dynamic_cast<meta::Class::Impl const *>(type.get()) != nullptr; }

basalt::ustring qualifiedName(meta::Type const &type) { return type.get() ? type->getQualifiedName() : basalt::ustring(); }

// Element references: the payload is a heap handle, which may be empty.
void deleteElement(void *payload) { delete static_cast<ModelElement *>(payload); }
void *cloneElement(void const *payload) { return new ModelElement(*static_cast<ModelElement const *>(payload)); }
bool elementEquals(void const *a, void const *b) {
    if (!a || !b)
        return a == b;
    return *static_cast<ModelElement const *>(a) == *static_cast<ModelElement const *>(b);
}
bool elementLess(void const *, void const *) { return false; }
std::uint64_t elementHash(void const *payload) {
    return payload ? std::hash<ModelElement>()(*static_cast<ModelElement const *>(payload)) : 0;
}
void copyElementInto(void *to, void const *from) { new (to) ModelElement(*static_cast<ModelElement const *>(from)); }
void moveElementInto(void *to, void *from) {
    new (to) ModelElement(std::move(*static_cast<ModelElement *>(from)));
    static_cast<ModelElement *>(from)->~ModelElement();
}
void destroyElementInPlace(void *payload) { static_cast<ModelElement *>(payload)->~ModelElement(); }
// Records of data types without generated code: the payload is a heap record.
using reflection::ReflectiveDataType;
void deleteRecord(void *payload) { delete static_cast<ReflectiveDataType *>(payload); }
void *cloneRecord(void const *payload) { return new ReflectiveDataType(*static_cast<ReflectiveDataType const *>(payload)); }
bool recordEquals(void const *a, void const *b) {
    if (!a || !b)
        return a == b;
    return *static_cast<ReflectiveDataType const *>(a) == *static_cast<ReflectiveDataType const *>(b);
}
std::uint64_t recordHash(void const *payload) { return static_cast<ReflectiveDataType const *>(payload)->hash(); }
constexpr PayloadFunctions recordFunctions{&deleteRecord, &cloneRecord, &recordEquals, nullptr, &recordHash, nullptr};

bool isDataType(meta::Type const &type) { return dynamic_cast<meta::DataType::Impl const *>(type.get()) != nullptr; }

constexpr PayloadFunctions elementFunctions{&deleteElement,   &cloneElement,    &elementEquals,
                                            &elementLess,     &elementHash,     nullptr,
                                            &copyElementInto, &moveElementInto, &destroyElementInPlace};

} // namespace

// --- ValueMeta -----------------------------------------------------------------------------

namespace detail {

ValueType::ValueType(meta::Type const &type, Immortal) noexcept
    : meta::Type(type.get(), /*addReference=*/false), counted_(false) {}
ValueType::ValueType(ValueType const &other) noexcept
    : meta::Type(other.get(), /*addReference=*/other.counted_), counted_(other.counted_) {}
ValueType::ValueType(ValueType &&other) noexcept : meta::Type(std::move(other)), counted_(other.counted_) {}
ValueType &ValueType::operator=(ValueType other) noexcept {
    swapImpl(other);
    std::swap(counted_, other.counted_);
    return *this;
}

} // namespace detail

ValueMeta::ValueMeta(meta::Type const &type, ValueFlags flags) : type_(type), flags_(flags) {}

ValueMeta::ValueMeta(meta::Property const &property) : type_(property->getType()), flags_(doGetFlags(property)) {
    if (meta::Property const key = property->getQualifiedBy(); key.get()) {
        qualifiedByProperty_ = key;
        qualifiedBy_ = key->getType();
    }
}

ValueMeta ValueMeta::getEntryType() const { return ValueMeta(type_, ValueFlags::Single); }

ValueFlags ValueMeta::doGetFlags(meta::Property const &property) {
    // `upper` is unbounded at all ones, so it compares as unsigned.
    if (property->getUpper() < 2u)
        return property->getLower() == 0 && !isClass(property->getType()) ? ValueFlags::Optional : ValueFlags::Single;
    if (property->getQualifiedBy().get()) {
        if (property->getIsQualificationUnique())
            return property->getIsHashed() ? ValueFlags::HashMap : ValueFlags::Map;
        return property->getIsHashed() ? ValueFlags::HashMultimap : ValueFlags::Multimap;
    }
    if (property->getIsOrdered())
        return ValueFlags::Sequence;
    if (!property->getIsHashed() && !isClass(property->getType()))
        return ValueFlags::SortedSet;
    return ValueFlags::HashSet;
}

void ValueMeta::setReflective() {
    reflective_ = true;
    // A reflective element is typed at the root only.
    if (isClass(type_))
        type_ = ModelElement::metaClass();
}

// --- Construction --------------------------------------------------------------------------

Value::Value(meta::Type const &type, boost::none_t) : ValueMeta(type, ValueFlags::Optional) {}

template <ScalarPayload T> Value::Value(meta::Type const &type, T const &native, bool) : ValueMeta(type, ValueFlags::Single) {
    detail::checkScalarType<T>(type);
    payload_ = new (inline_) T(native);
    functions_ = &detail::ScalarPayload<T>::functions;
}

template <ScalarPayload T>
Value::Value(T const &native) : ValueMeta(detail::primitiveTypeOf<T>(), ValueFlags::Single, detail::ValueType::Immortal()) {
    payload_ = new (inline_) T(native);
    functions_ = &detail::ScalarPayload<T>::functions;
}

template <ScalarPayload T>
Value::Value(meta::Type const &type, boost::optional<T> const &native, bool required)
    : ValueMeta(type, ValueFlags::Optional) {
    // An absent value that is not required is the empty optional of whatever type it names.
    if (!native && !required)
        return;
    detail::checkScalarType<T>(type);
    if (!native) {
        if (internal::isEnumType(type))
            raise<messages::InvalidValue>();
        // A required value of a plain type that is absent: its default.
        payload_ = new (inline_) T();
    } else {
        payload_ = new (inline_) T(*native);
    }
    flags_ = ValueFlags::Single;
    functions_ = &detail::ScalarPayload<T>::functions;
}

Value::Value(meta::Type const &declared, ModelElement const &element)
    : ValueMeta(declared, ValueFlags::Single), payload_(new (inline_) ModelElement(element)), functions_(&elementFunctions) {
    // Typed by the element's own class once the metamodel describes it.
    if (element.get())
        if (meta::Class const &cls = element->getMetaClass(); cls.get())
            type_ = cls;
}

Value::Value(AbstractPrimitiveCollection &collection, meta::Property const &property)
    : ValueMeta(property), payload_(&collection) {}

Value::Value(ReferenceCollection &collection, meta::Property const &property)
    : ValueMeta(property), payload_(&collection) {}

Value Value::createPrimitiveCollectionValue(meta::Property const &property, AbstractPrimitiveCollection &collection) {
    return Value(collection, property);
}

Value Value::createElementCollectionValue(meta::Property const &property, ReferenceCollection &collection) {
    return Value(collection, property);
}

Value Value::createReflectiveReferenceCollection(meta::Property const &property, ReferenceCollection &collection) {
    Value value(collection, property);
    value.setReflective();
    return value;
}

Value::Value(Value const &other) : ValueMeta(other) { takePayload(other, false); }

Value::Value(Value &&other) noexcept : ValueMeta(std::move(other)) { takePayload(other, true); }

Value &Value::operator=(Value const &other) {
    if (this == &other)
        return *this;
    Value copy(other);
    return *this = std::move(copy);
}

Value &Value::operator=(Value &&other) noexcept {
    if (this == &other)
        return *this;
    freePayload();
    ValueMeta::operator=(std::move(other));
    takePayload(other, true);
    return *this;
}

void Value::takePayload(Value const &other, bool steal) {
    functions_ = other.functions_;
    if (!other.payload_) {
        payload_ = nullptr;
    } else if (other.isInline()) {
        if (steal) {
            Value &source = const_cast<Value &>(other);
            functions_->moveInto(inline_, source.payload_);
            source.payload_ = nullptr;
        } else {
            functions_->copyInto(inline_, other.payload_);
        }
        payload_ = inline_;
    } else if (steal) {
        payload_ = std::exchange(const_cast<Value &>(other).payload_, nullptr);
    } else {
        payload_ = functions_ && functions_->cloner ? functions_->cloner(other.payload_) : other.payload_;
    }
}

void Value::freePayload() noexcept {
    if (payload_ && functions_) {
        if (isInline()) {
            if (functions_->destroyInPlace)
                functions_->destroyInPlace(payload_);
        } else if (functions_->deleter) {
            functions_->deleter(payload_);
        }
    }
    payload_ = nullptr;
}

void Value::raiseIncompatible() const { raise<messages::CannotCastIncompatibleTypes>(qualifiedName(type_)); }

// --- Factories -------------------------------------------------------------------------------

Value Value::createEmptyValue(meta::Class const &cls) { return Value(cls, ModelElement()); }

Value Value::createEmptyValue(meta::Property const &property) {
    if (property->getUpper() > 1u)
        raise<messages::CannotCastIncompatibleTypes>(qualifiedName(property->getType()));
    return createEmptyValue(property->getType(), property->getLower() == 1);
}

Value Value::createEmptyValue(meta::Type const &type, bool required) {
    if (auto *cls = dynamic_cast<meta::Class::Impl *>(type.get()))
        return createEmptyValue(meta::Class::fromImpl(cls));
    auto const &serializers = meta::PropertySerializerRegistry::getInstance();
    if (auto *dataType = dynamic_cast<meta::DataType::Impl *>(type.get())) {
        meta::DataType const dataTypeHandle = meta::DataType::fromImpl(dataType);
        if (meta::DatatypeSerializer const *serializer = serializers.getDatatypeSerializer(dataTypeHandle))
            return required ? serializer->createDefaultValue() : serializer->createEmptyOptionalValue();
        // A data type of the metamodel's own model without its serializer is a fault of
        // that metamodel; one of a model loaded at run time has records instead.
        bool inRegistry;
        {
            auto const locked = meta::MetaRegistry::getInstance()->getFrozenMetaRegistryModel();
            inRegistry = dataType->getModelImpl() == locked.get().get();
        }
        if (inRegistry)
            raise<messages::InvalidValue>();
        return createReflectiveDataTypeValue(dataTypeHandle, required);
    }
    meta::PropertySerializer const *serializer = serializers.getPropertySerializer(type, "");
    if (!serializer)
        raise<messages::InvalidValue>();
    return required ? serializer->createDefaultValue(type) : serializer->createEmptyOptionalValue(type);
}

Value Value::createEmptyUnmanagedCollectionValue(meta::Property const &property) {
    if (auto value = meta::MetaRegistry::getInstance()->instantiateUnmanagedCollection(property))
        return std::move(*value);
    raise<messages::InvalidValue>();
}

Value Value::adoptUnmanagedCollection(meta::Property const &property, void *container,
                                      PayloadFunctions const *functions) noexcept {
    ValueMeta meta(property);
    meta.setUnmanaged();
    return Value(meta, container, functions);
}

Value Value::createEnumValue(meta::EnumLiteral const &literal) {
    auto const number = static_cast<std::uint64_t>(static_cast<std::int64_t>(literal->getValue()));
    return Value(literal->getParentEnum(), number);
}

Value Value::createReflectiveDataTypeValue(meta::DataType const &type, bool required) {
    if (!required) {
        Value empty(type, boost::none);
        empty.setReflective();
        return empty;
    }
    return createReflectiveDataTypeValue(ReflectiveDataType(type));
}

Value Value::createReflectiveDataTypeValue(ReflectiveDataType const &record) {
    return createReflectiveDataTypeValue(ReflectiveDataType(record));
}

Value Value::createReflectiveDataTypeValue(ReflectiveDataType &&record) {
    ValueMeta meta(record.getMetaType(), ValueFlags::Single);
    meta.setReflective();
    return Value(meta, new ReflectiveDataType(std::move(record)), &recordFunctions);
}

ReflectiveDataType Value::toReflectiveDataType() const {
    if (!isDataType(type_))
        raise<messages::CannotCastIncompatibleTypes>(meta::DataType::metaClass()->getQualifiedName());
    meta::DataType const dataType = meta::DataType::fromImpl(static_cast<meta::DataType::Impl *>(type_.get()));
    if (reflective_) {
        if (flags_ == ValueFlags::Optional || !payload_)
            raise<messages::InvalidValue>();
        return *static_cast<ReflectiveDataType const *>(payload_);
    }
    meta::DatatypeSerializer const *serializer = meta::PropertySerializerRegistry::getInstance().getDatatypeSerializer(dataType);
    if (!serializer)
        raise<messages::CannotCastIncompatibleTypes>(meta::DataType::metaClass()->getQualifiedName());
    ReflectiveDataType record(dataType);
    for (meta::Property const &property : dataType->getOwnedAttributes())
        if (property->getType() && !property->getIsDerived() && !isClass(property->getType()))
            record.setPropertyValue(property, serializer->getPropertyValue(*this, property));
    return record;
}

// --- Reads -----------------------------------------------------------------------------------

template <ScalarPayload T> T const &Value::get() const {
    if (!payload_) {
        detail::checkScalarType<T>(type_); // a `T` that is absent, or no `T` at all
        raise<messages::InvalidValue>();
    }
    if (functions_ != &detail::ScalarPayload<T>::functions)
        raiseIncompatible();
    return *static_cast<T const *>(payload_);
}

ModelElement Value::getElement() const {
    if (functions_ != &elementFunctions)
        raiseIncompatible();
    return payload_ ? *static_cast<ModelElement const *>(payload_) : ModelElement();
}

std::vector<Value> Value::extractEntryValues() const {
    if (flags_ == ValueFlags::Optional)
        return {};
    if (flags_ == ValueFlags::Single)
        return {*this};
    if (!managed_ && functions_ && functions_->entries)
        return functions_->entries(*this);
    // A collection that an element owns is read through the collection itself.
    if (managed_ && payload_ && isClass(type_)) {
        std::vector<Value> entries;
        for (ModelElement const &element : static_cast<ReferenceCollection const *>(payload_)->getAllValues())
            entries.emplace_back(type_, element);
        return entries;
    }
    if (managed_ && payload_)
        return static_cast<AbstractPrimitiveCollection const *>(payload_)->getAllValues();
    raise<messages::CannotCastIncompatibleTypes>(qualifiedName(type_));
}

void Value::checkCompatibleWithProperty(meta::Property const &property) const {
    if (!property || !property->getType())
        raise<messages::InvalidValue>();
    meta::Type const declared = property->getType();
    if (isClass(declared) && isClass(type_)) {
        if (!type_->isA(declared))
            raise<messages::CannotCastIncompatibleTypes>(qualifiedName(declared));
    } else if (declared != type_) {
        raise<messages::CannotCastIncompatibleTypes>(qualifiedName(declared));
    }
    ValueFlags const shape = doGetFlags(property);
    if (!(shape == ValueFlags::Optional && flags_ == ValueFlags::Single) && shape != flags_)
        raise<messages::InvalidValue>();
    // A collection inside a data type is always free-standing.
    if (property->getUpper() > 1u && managed_ &&
        dynamic_cast<meta::DataType::Impl *>(property->getOwningType().get()) != nullptr)
        raise<messages::InvalidValue>();
}

bool Value::isCompatibleWithProperty(meta::Property const &property) const noexcept {
    try {
        checkCompatibleWithProperty(property);
        return true;
    } catch (...) {
        return false;
    }
}

// --- Comparison ------------------------------------------------------------------------------

bool Value::operator==(Value const &other) const {
    if (type_ != other.type_ || flags_ != other.flags_)
        return false;
    // Payloads of two kinds must not meet in one equality function: one data type in its
    // generated form and as a record compares as records; anything else differs.
    if (functions_ != other.functions_ && payload_ && other.payload_) {
        if (reflective_ != other.reflective_ && isDataType(type_))
            return toReflectiveDataType() == other.toReflectiveDataType();
        return false;
    }
    if (functions_ && functions_->equals)
        return functions_->equals(payload_, other.payload_);
    return payload_ == other.payload_;
}

Value::ComparisonResult Value::compareWithOtherValue(Value const &other) const {
    if (type_ != other.type_)
        return ComparisonResult::Incomparable;
    if (!payload_)
        return other.payload_ ? ComparisonResult::Less : ComparisonResult::Equal;
    if (!other.payload_)
        return ComparisonResult::Greater;
    if (!functions_ || !functions_->less)
        return ComparisonResult::Incomparable;
    if (functions_->less(payload_, other.payload_))
        return ComparisonResult::Less;
    if (functions_->less(other.payload_, payload_))
        return ComparisonResult::Greater;
    return ComparisonResult::Equal;
}

std::uint64_t Value::hashValues() const {
    return functions_ && functions_->hash && payload_ ? functions_->hash(payload_) : 0;
}

namespace detail {
} // namespace detail

namespace internal {
bool isEnumType(meta::Type const &type) { return dynamic_cast<meta::Enum::Impl const *>(type.get()) != nullptr; }
} // namespace internal

// One instantiation of each scalar form for every native type of the standard types.
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    template Value::Value(meta::Type const &, Native const &, bool);                                                 \
    template Value::Value(meta::Type const &, boost::optional<Native> const &, bool);                                \
    template Value::Value(Native const &);                                                                           \
    template Native const &Value::get<Native>() const;
#include <kivra/meta/PrimitiveTypes.def>

} // namespace kivra
