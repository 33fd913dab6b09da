#include <kivra/meta/PropertySerializer.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Type.hpp>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/uuid/uuid.hpp>

#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

namespace kivra::meta {

namespace {

/// The meta of a free-standing collection of one type, which a serializer makes without
/// a property to take the shape from.
class UnmanagedMeta : public ValueMeta {
public:
    UnmanagedMeta(Type const &type, ValueFlags flags) : ValueMeta(type, flags) { setUnmanaged(); }
};

/// A single value of `type` holding `native`. The standard type itself keeps the payload
/// inside the value; a copy of it in another model, which the registry serves with the
/// same serializers, takes a heap payload, since the typed constructor only knows the
/// standard one.
template <class T> Value makeSingle(Type const &type, T native) {
    if (type == kivra::detail::primitiveTypeOf<T>() || (std::is_same_v<T, std::uint64_t> && kivra::internal::isEnumType(type)))
        return Value(type, std::move(native));
    if (!type)
        raise<messages::InvalidValue>();
    return Value(ValueMeta(type, ValueFlags::Single), new T(std::move(native)), &kivra::detail::ScalarPayload<T>::functions);
}

/// The native entry of `entry`: an empty one counts as `T{}`, one of another type raises.
template <class T> T entryOf(Type const &type, Value const &entry) {
    if (entry.hasPayload())
        return entry.get<T>();
    if (entry.getType() != type && entry.getType() != kivra::detail::primitiveTypeOf<T>())
        raise<messages::CannotCastIncompatibleTypes>(entry.getType() ? entry.getType()->getQualifiedName()
                                                                     : basalt::ustring());
    return T{};
}

} // namespace

// --- PropertySerializer ---------------------------------------------------------------------

PropertySerializer::~PropertySerializer() = default;

boost::optional<basalt::ustring> PropertySerializer::serializeOptionalValue(Value const &) const { return boost::none; }

Value PropertySerializer::toOptionalValue(Value const &value) const { return value; }

Value PropertySerializer::parseOptionalValue(basalt::ustring const &text, Type const &type) const {
    return parseValue(text, type);
}

void PropertySerializer::releaseValue(Value &&, Type const &) const {}

Value PropertySerializer::combineAsUnmanagedSequenceValue(Type const &, std::vector<Value> const &) const {
    raise<messages::InvalidValue>();
}

Value PropertySerializer::combineAsUnmanagedSetValue(Type const &, std::vector<Value> const &) const {
    raise<messages::InvalidValue>();
}

// --- DefaultPropertySerializer ----------------------------------------------------------------

template <class T> basalt::ustring DefaultPropertySerializer<T>::serializeValue(Value const &value) const {
    if (!value.hasPayload())
        return toText(T{});
    return toText(value.get<T>());
}

template <class T> Value DefaultPropertySerializer<T>::parseValue(basalt::ustring const &text, Type const &type) const {
    return makeSingle<T>(type, fromText(text));
}

template <class T>
Value DefaultPropertySerializer<T>::parseOptionalValue(basalt::ustring const &text, Type const &type) const {
    // A present optional is a single value; only its absence has a shape of its own.
    return makeSingle<T>(type, fromText(text));
}

template <class T> Value DefaultPropertySerializer<T>::createEmptyOptionalValue(Type const &type) const {
    return Value(type, boost::none);
}

template <class T> Value DefaultPropertySerializer<T>::createDefaultValue(Type const &type) const {
    return makeSingle<T>(type, T{});
}

template <class T>
Value DefaultPropertySerializer<T>::combineAsUnmanagedSequenceValue(Type const &type,
                                                                    std::vector<Value> const &entries) const {
    auto container = std::make_unique<std::vector<T>>();
    container->reserve(entries.size());
    for (Value const &entry : entries)
        container->push_back(entryOf<T>(type, entry));
    return Value(UnmanagedMeta(type, ValueFlags::Sequence), container.release(),
                 &kivra::detail::CollectionPayload<std::vector<T>>::functions);
}

template <class T>
Value DefaultPropertySerializer<T>::combineAsUnmanagedSetValue(Type const &type, std::vector<Value> const &entries) const {
    auto container = std::make_unique<std::set<T>>();
    for (Value const &entry : entries)
        container->insert(entryOf<T>(type, entry));
    return Value(UnmanagedMeta(type, ValueFlags::SortedSet), container.release(),
                 &kivra::detail::CollectionPayload<std::set<T>>::functions);
}

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) template class DefaultPropertySerializer<Native>;
#include <kivra/meta/PrimitiveTypes.def>

// --- DatatypeSerializer -----------------------------------------------------------------------

DatatypeSerializer::~DatatypeSerializer() = default;

boost::optional<Value> DatatypeSerializer::fromOptionalValue(Value const &) const { return boost::none; }

Value DatatypeSerializer::toOptionalValue(Value const &value) const { return value; }

} // namespace kivra::meta
