#include <kivra/reflection/ReflectiveDataType.hpp>

#include "core/UuidHash.hpp"
#include "reflection/ClassLayout.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <boost/optional/optional.hpp>

#include <exception>
#include <functional>

namespace kivra::reflection {

namespace {

basalt::ustring qualifiedNameOf(meta::Type const &type) { return type ? type->getQualifiedName() : basalt::ustring(); }

bool isClass(meta::Type const &type) { return dynamic_cast<meta::Class::Impl const *>(type.get()) != nullptr; }

bool isDataType(meta::Type const &type) { return dynamic_cast<meta::DataType::Impl const *>(type.get()) != nullptr; }

// The properties that take part in equality and order, in the type's own order.
bool isCompared(meta::Property const &property) { return property->getType() && !property->getIsDerived(); }

// One step of the 64-bit hash_combine: `value` mixed into `hash`.
void combine(std::uint64_t &hash, std::uint64_t value) { hash = kivra::detail::hashCombine(hash, value); }

std::uint64_t hashUuid(boost::uuids::uuid const &uuid) {
    std::uint64_t s = 0;
    for (std::uint8_t const byte : uuid)
        s ^= byte + 0x9e3779b9ull + (s << 6) + (s >> 2);
    return s;
}

} // namespace

std::size_t ReflectiveDataType::PropertyHash::operator()(meta::Property const &property) const noexcept {
    return std::hash<ModelElement>()(property);
}

ReflectiveDataType::ReflectiveDataType(meta::DataType const &type) : metaType_(type), entries_(8) {
    if (!type)
        raise<messages::NoSuchType>(basalt::ustring());
    entries_.max_load_factor(1.0f);
}

ReflectiveDataType::~ReflectiveDataType() = default;

bool ReflectiveDataType::isField(meta::Property const &property) const {
    if (!property || property->getIsDerived())
        return false;
    meta::Type const &type = property->getType();
    return type && !isClass(type) && property->getOwningType() == metaType_;
}

Value ReflectiveDataType::getDefaultValue(meta::Property const &property) const {
    // `upper` is unbounded at all ones, so it compares as unsigned.
    if (property->getUpper() >= 2u)
        return Value::createEmptyUnmanagedCollectionValue(property);
    meta::Type const &type = property->getType();
    if (isDataType(type))
        return Value::createReflectiveDataTypeValue(meta::DataType::fromImpl(static_cast<meta::DataType::Impl *>(type.get())),
                                                    property->getLower() != 0);
    try {
        bool dynamic = false;
        if (boost::optional<Value> parsed = detail::readDefaultValue(property, dynamic))
            return std::move(*parsed);
    } catch (...) {
        // A default text that does not read is no default.
    }
    return Value::createEmptyValue(property);
}

Value ReflectiveDataType::getPropertyValue(meta::Property const &property) const {
    // An entry exists only for a property that passed the checks below when it was made,
    // so a stored field is read without asking the metamodel again.
    if (auto const found = entries_.find(property); found != entries_.end()) [[likely]]
        return found->second;
    if (!property || property->getOwningType() != metaType_)
        raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(), metaType_->getQualifiedName());
    meta::Type const &type = property->getType();
    if (!type)
        raise<messages::CannotUsePropertyWithoutType>(property->getName());
    if (property->getIsDerived() || isClass(type))
        raise<messages::CannotCastIncompatibleTypes>(qualifiedNameOf(type));
    return entries_.emplace(property, getDefaultValue(property)).first->second;
}

void ReflectiveDataType::setPropertyValue(meta::Property const &property, Value const &value) {
    if (!isField(property))
        raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(), metaType_->getQualifiedName());
    value.checkCompatibleWithProperty(property);
    if (auto const found = entries_.find(property); found != entries_.end())
        found->second = value;
    else
        entries_.emplace(property, value);
}

bool ReflectiveDataType::operator==(ReflectiveDataType const &other) const {
    if (this == &other)
        return true;
    if (metaType_ != other.metaType_)
        return false;
    for (meta::Property const &property : metaType_->getOwnedAttributes()) {
        if (!isCompared(property))
            continue;
        auto const mine = entries_.find(property);
        auto const theirs = other.entries_.find(property);
        bool const here = mine != entries_.end(), there = theirs != other.entries_.end();
        if (here && there) {
            if (mine->second != theirs->second)
                return false;
        } else if (here || there) {
            // An unset field has its default.
            if ((here ? mine->second : theirs->second) != getDefaultValue(property))
                return false;
        }
    }
    return true;
}

int ReflectiveDataType::compareWith(ReflectiveDataType const &other) const {
    if (this == &other)
        return 0;
    if (metaType_ != other.metaType_)
        raise<messages::CannotCastIncompatibleTypes>(other.metaType_->getMetaClass()->getQualifiedName());
    for (meta::Property const &property : metaType_->getOwnedAttributes()) {
        if (!isCompared(property))
            continue;
        Value const a = getPropertyValue(property), b = other.getPropertyValue(property);
        bool const aEmpty = a.getFlags() == ValueFlags::Optional, bEmpty = b.getFlags() == ValueFlags::Optional;
        if (aEmpty || bEmpty) {
            if (aEmpty != bEmpty)
                return aEmpty ? -1 : 1;
            continue;
        }
        meta::Type const &type = property->getType();
        if (isDataType(type)) {
            if (int const nested = a.toReflectiveDataType().compareWith(b.toReflectiveDataType()))
                return nested;
            continue;
        }
        if (a == b)
            continue;
        // Types without an order (enumerations, elements, anything outside the comparator
        // table) are not given one here: a record that holds such a field and differs in
        // it has no place in the order, which the caller learns rather than a made-up rank.
        query::ValueComparator const *less =
            query::ValueComparatorRegistry::getInstance()->getComparator(query::ValueMatchRelation::less, type, true);
        if (!less)
            raise<query::RelationAndTypeNotSupported>(basalt::ustring(u"less"), qualifiedNameOf(type));
        return (*less)(a, b) ? -1 : 1;
    }
    return 0;
}

std::uint64_t ReflectiveDataType::hash() const {
    std::uint64_t hash = 0;
    for (auto const &[property, value] : entries_) {
        combine(hash, hashUuid(property->getUuid()));
        combine(hash, value.hashValues());
    }
    return hash;
}

boost::optional<Value> ReflectiveDataType::toNonReflectiveDataTypeValue() const {
    meta::DatatypeSerializer const *serializer =
        meta::PropertySerializerRegistry::getInstance().getDatatypeSerializer(metaType_);
    if (!serializer)
        return boost::none;
    Value value = serializer->createDefaultValue();
    for (auto const &[property, entry] : entries_)
        value = serializer->setPropertyValue(value, property, entry);
    return value;
}

} // namespace kivra::reflection
