#pragma once
/// \file
/// Values of data types for which no code was generated.

#include <kivra/Handles.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/optional/optional_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace kivra::reflection {

/// A record of one data type known only from its description: the value of each field
/// (each non-derived, non-element property that the type itself owns) by property. It has
/// no identity: it is copied with the `Value` that holds it and compares by content. A
/// field has an entry only once it was written or read; until then it has its default.
///
/// Example:
/// \code
///   reflection::ReflectiveDataType edition(editionType);
///   edition.setPropertyValue(number, Value(std::int32_t(2)));
///   Value const held = Value::createReflectiveDataTypeValue(std::move(edition));
/// \endcode
class ReflectiveDataType {
public:
    /// A record with every field at its default. Raises `NoSuchType` with an empty name
    /// for an empty handle.
    explicit ReflectiveDataType(meta::DataType const &type);
    ReflectiveDataType(ReflectiveDataType const &) = default;
    ReflectiveDataType(ReflectiveDataType &&) noexcept = default;
    ReflectiveDataType &operator=(ReflectiveDataType const &) = default;
    ReflectiveDataType &operator=(ReflectiveDataType &&) noexcept = default;
    ~ReflectiveDataType();

    meta::DataType const &getMetaType() const noexcept { return metaType_; }

    /// The field's value, its default when it was never set; a read of an unset field
    /// stores the default, so that a shared record needs the caller's exclusion even for
    /// reads. Raises `NoSuchProperty` for a property the type does not own,
    /// `CannotUsePropertyWithoutType` for one without type, and
    /// `CannotCastIncompatibleTypes` for a derived or element-typed one.
    Value getPropertyValue(meta::Property const &property) const;
    /// Writes a field. Raises `NoSuchProperty` for anything but a field of this type, and
    /// what `Value::checkCompatibleWithProperty` raises; a failure changes nothing.
    void setPropertyValue(meta::Property const &property, Value const &value);
    /// What a field holds before it is written: an empty free-standing collection for a
    /// multi-valued field, a default record (required) or nothing (optional) for a nested
    /// data type, else the property's default text read by its type, or the empty value
    /// when it has none or it does not read.
    Value getDefaultValue(meta::Property const &property) const;

    /// Equal type and equal fields; an unset field equals one written with its default.
    bool operator==(ReflectiveDataType const &other) const;
    bool operator!=(ReflectiveDataType const &other) const { return !(*this == other); }
    bool operator<(ReflectiveDataType const &other) const { return compareWith(other) < 0; }
    /// -1, 0 or 1: the first field, in the type's order, that differs decides; an empty
    /// value stands below any other. Raises `CannotCastIncompatibleTypes` for a record of
    /// another type and `query::RelationAndTypeNotSupported` for differing values of a
    /// type that has no order (an enumeration, for one). Reads fill both records.
    int compareWith(ReflectiveDataType const &other) const;
    /// The hash of the stored entries in their table order: it changes when a read stores
    /// a default, and a record with no entries hashes to 0.
    std::uint64_t hash() const;

    /// The same value in the generated form of the type, made through its serializer;
    /// none when the type has no serializer.
    boost::optional<Value> toNonReflectiveDataTypeValue() const;

private:
    struct PropertyHash {
        std::size_t operator()(meta::Property const &property) const noexcept;
    };
    using Entries = std::unordered_map<meta::Property, Value, PropertyHash>;

    /// True for a property that may hold a value in records of this type.
    bool isField(meta::Property const &property) const;

    meta::DataType metaType_;
    /// Reads of unset fields store their defaults.
    mutable Entries entries_;
};

} // namespace kivra::reflection
