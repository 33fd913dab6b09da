#pragma once
/// \file
/// Text forms, defaults and free-standing collections of the values of one type.

#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>

#include <vector>

namespace kivra::meta {

/// Turns values of one primitive or enum type into text and back, and makes the default
/// and the empty value of that type. Owned by `PropertySerializerRegistry`; stateless, so
/// one serializer may be called from many threads at once.
///
/// Text that does not parse raises `std::bad_cast`, `boost::bad_lexical_cast` or the
/// exceptions of the Boost date and UUID parsers; the parse layer turns them into
/// `CannotParseValueAsType`.
class PropertySerializer {
public:
    virtual ~PropertySerializer();

    /// No text; kept as a slot for serializers with an optional form of their own.
    virtual boost::optional<basalt::ustring> serializeOptionalValue(Value const &value) const;
    /// A copy of `value`.
    virtual Value toOptionalValue(Value const &value) const;
    /// The text of `value`; an empty optional writes as the default of its type.
    virtual basalt::ustring serializeValue(Value const &value) const = 0;
    /// The single value of `type` that `text` stands for.
    virtual Value parseValue(basalt::ustring const &text, Type const &type) const = 0;
    /// As `parseValue`, for a slot that may be empty.
    virtual Value parseOptionalValue(basalt::ustring const &text, Type const &type) const;
    /// The empty optional value of `type`.
    virtual Value createEmptyOptionalValue(Type const &type) const = 0;
    /// The value a required slot of `type` holds before anything is set.
    virtual Value createDefaultValue(Type const &type) const = 0;
    /// Gives up what a value of this type holds outside the value; nothing by default.
    virtual void releaseValue(Value &&value, Type const &type) const;
    /// A free-standing sequence of `entries`, in their order. Raises `InvalidValue` for a
    /// serializer without collections, `CannotCastIncompatibleTypes` for an entry of
    /// another type.
    virtual Value combineAsUnmanagedSequenceValue(Type const &type, std::vector<Value> const &entries) const;
    /// A free-standing sorted set of `entries`: repeats fall away. Raises as the sequence.
    virtual Value combineAsUnmanagedSetValue(Type const &type, std::vector<Value> const &entries) const;
};

/// The serializer of values whose payload is the native scalar `T`: subclasses give only
/// the text form, `toText` and `fromText`. An empty payload writes as `T{}`.
template <ScalarPayload T> class DefaultPropertySerializer : public PropertySerializer {
public:
    basalt::ustring serializeValue(Value const &value) const override;
    Value parseValue(basalt::ustring const &text, Type const &type) const override;
    Value parseOptionalValue(basalt::ustring const &text, Type const &type) const override;
    Value createEmptyOptionalValue(Type const &type) const override;
    /// A single value holding `T{}`: 0, false, the empty text, the nil UUID, not-a-date-time.
    Value createDefaultValue(Type const &type) const override;
    Value combineAsUnmanagedSequenceValue(Type const &type, std::vector<Value> const &entries) const override;
    Value combineAsUnmanagedSetValue(Type const &type, std::vector<Value> const &entries) const override;

    /// The text of one native value.
    virtual basalt::ustring toText(T const &native) const = 0;
    /// The native value of `text`; raises when it does not parse.
    virtual T fromText(basalt::ustring const &text) const = 0;
};

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    extern template class DefaultPropertySerializer<Native>;
#include <kivra/meta/PrimitiveTypes.def>

/// The sister of `PropertySerializer` for data types whose values are native objects with
/// fields of their own: reads and writes one field, and makes the default and empty
/// values. Owned by `PropertySerializerRegistry`.
class DatatypeSerializer {
public:
    virtual ~DatatypeSerializer();
    /// No value by default.
    virtual boost::optional<Value> fromOptionalValue(Value const &value) const;
    /// A copy of `value`.
    virtual Value toOptionalValue(Value const &value) const;
    /// The field of `value` that `property` describes. Raises `NoSuchProperty` for a
    /// property of another type.
    virtual Value getPropertyValue(Value const &value, Property const &property) const = 0;
    /// A new value with that field changed; `value` stays as it was. Raises
    /// `CannotCastIncompatibleTypes` when `value` holds another data type.
    virtual Value setPropertyValue(Value const &value, Property const &property, Value const &newValue) const = 0;
    virtual Value createEmptyOptionalValue() const = 0;
    /// A single value of a default-built object.
    virtual Value createDefaultValue() const = 0;
    virtual Value combineAsUnmanagedSequenceValue(Type const &type, std::vector<Value> const &entries) const = 0;
    virtual Value combineAsUnmanagedSetValue(Type const &type, std::vector<Value> const &entries) const = 0;
};

} // namespace kivra::meta
