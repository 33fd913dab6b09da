#pragma once
/// \file
/// The dynamic value: what every reflective read and write of a property carries.

#include <kivra/Handles.hpp>
#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/none.hpp>
#include <boost/optional/optional_fwd.hpp>
#include <boost/uuid/uuid.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace boost::posix_time {
class ptime;
} // namespace boost::posix_time

namespace kivra {

namespace reflection {
class ReflectiveDataType;
} // namespace reflection

/// The shape of a `Value`, and the multiplicity class of a property. Shapes from
/// `Sequence` on are collections.
enum class ValueFlags : std::uint32_t {
    Optional = 0,     ///< an optional slot; as a value: no content
    Single = 1,       ///< exactly one entry: a scalar, an element handle, a data type object
    Sequence = 2,     ///< ordered collection
    SortedSet = 3,    ///< unordered, not hashed, entries not elements
    HashSet = 4,      ///< unordered, hashed or element-typed
    Map = 5,          ///< qualified by a property, keys unique, not hashed
    HashMap = 6,      ///< qualified, keys unique, hashed
    Multimap = 7,     ///< qualified, keys not unique, not hashed
    HashMultimap = 8, ///< qualified, keys not unique, hashed
};

/// True for the collection shapes.
constexpr bool isCollection(ValueFlags flags) noexcept { return static_cast<std::uint32_t>(flags) >= 2; }

namespace detail {

/// The type a value names: a counted handle, or, for one of the standard types, which live
/// as long as the program, the same handle without a count, so that a scalar value takes
/// no atomic operation on a type that every thread shares.
class ValueType : public meta::Type {
public:
    struct Immortal {};
    ValueType() noexcept = default;
    ValueType(meta::Type const &type) noexcept : meta::Type(type) {}
    ValueType(meta::Type const &type, Immortal) noexcept;
    ValueType(ValueType const &other) noexcept;
    ValueType(ValueType &&other) noexcept;
    ValueType &operator=(ValueType other) noexcept;
    ValueType &operator=(meta::Type const &type) noexcept { return *this = ValueType(type); }
    ~ValueType() {
        if (!counted_)
            (void)release();
    }

private:
    bool counted_ = true;
};

} // namespace detail

/// What a `Value` holds: a metamodel type, a shape, and whether the payload is the
/// reflective form or a collection owned by an element. Reads are plain field reads.
class ValueMeta {
public:
    /// The given type and shape, no qualifier, not reflective, managed.
    ValueMeta(meta::Type const &type, ValueFlags flags);
    /// The type and shape of a property, with its qualifier when it has one.
    explicit ValueMeta(meta::Property const &property);

    meta::Type const &getType() const noexcept { return type_; }
    /// The type of the keys of a map shape; empty otherwise.
    meta::Type const &getQualifiedBy() const noexcept { return qualifiedBy_; }
    /// The property that qualifies a map shape; empty otherwise.
    meta::Property const &getQualifiedByProperty() const noexcept { return qualifiedByProperty_; }
    ValueFlags getFlags() const noexcept { return flags_; }
    /// False for a free-standing collection that the value owns.
    bool isManaged() const noexcept { return managed_; }
    /// True when the payload has the reflective form.
    bool isReflective() const noexcept { return reflective_; }
    void setQualifiedBy(meta::Type const &type) { qualifiedBy_ = type; }
    /// The description of one entry: the same type, `Single`, no qualifier.
    ValueMeta getEntryType() const;

protected:
    friend class Value;
    ValueMeta(meta::Type const &type, ValueFlags flags, detail::ValueType::Immortal immortal) noexcept
        : type_(type, immortal), flags_(flags) {}
    /// The shape of a property from its bounds, order, hashing and qualifier.
    static ValueFlags doGetFlags(meta::Property const &property);
    /// Marks the payload reflective; an element value is then typed at the root class.
    void setReflective();
    void setUnmanaged() noexcept { managed_ = false; }

    detail::ValueType type_;
    meta::Type qualifiedBy_;
    meta::Property qualifiedByProperty_;
    ValueFlags flags_;
    bool reflective_ = false;
    bool managed_ = true;
};

class Value;
class AbstractPrimitiveCollection;
class ReferenceCollection;

namespace detail {
template <class T> inline constexpr bool isScalarPayload = false;
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    template <> inline constexpr bool isScalarPayload<Native> = true;
#include <kivra/meta/PrimitiveTypes.def>
} // namespace detail

/// The native types that travel in a `Value` as scalars: those of the standard primitive
/// types (`std::uint64_t` also carries enum literals).
template <class T>
concept ScalarPayload = detail::isScalarPayload<T>;

/// The operations a `Value` needs on its type-erased payload. Each native type has one
/// static table; a null entry has the meaning given beside it.
struct PayloadFunctions {
    void (*deleter)(void *payload);                        ///< null: the payload is not owned
    void *(*cloner)(void const *payload);                  ///< null: copies share the pointer
    bool (*equals)(void const *a, void const *b);          ///< null: pointer identity
    bool (*less)(void const *a, void const *b);            ///< null: values have no order
    std::uint64_t (*hash)(void const *payload);            ///< null: no hash
    std::vector<Value> (*entries)(Value const &);         ///< set for unmanaged collections
    /// Set for payloads small enough to live inside the value: copies one into raw storage,
    /// moves one there (leaving the source ended), and ends one in place (null: nothing to end).
    void (*copyInto)(void *to, void const *from) = nullptr;
    void (*moveInto)(void *to, void *from) = nullptr;
    void (*destroyInPlace)(void *payload) = nullptr;
};

/// The one dynamic value of the library: a `ValueMeta` and a type-erased payload that
/// copies, compares, orders, hashes and frees itself through its `PayloadFunctions`.
///
/// Scalars of the standard primitive types travel as their native types (`bool`, the
/// integers, `double`, `basalt::ustring`, `std::string`, `boost::uuids::uuid`,
/// `boost::posix_time::ptime`), enum literals as `std::uint64_t`, element references as
/// `ModelElement`. Scalars and element references live inside the value: making or
/// copying one allocates nothing beyond what the native type itself allocates (a text
/// longer than its small-string buffer).
///
/// Example:
/// \code
///   Value title(meta::StandardTypes::stringMeta, basalt::ustring(u"Dune"));
///   basalt::ustring const &text = title.get<basalt::ustring>();
/// \endcode
class Value : public ValueMeta {
public:
    enum class ComparisonResult { Equal = 0, Less = 1, Greater = 2, Incomparable = 3 };

    /// The empty optional of `type`: no payload.
    Value(meta::Type const &type, boost::none_t);
    /// A scalar: `type` must be the standard primitive type of `T`, or an enum for
    /// `std::uint64_t`; otherwise `CannotCastIncompatibleTypes` with the type's qualified
    /// name. `required` plays no part for a present value.
    template <ScalarPayload T> Value(meta::Type const &type, T const &native, bool required = true);
    /// A scalar typed by the standard primitive type of `T`, with no type check.
    template <ScalarPayload T> explicit Value(T const &native);
    /// A scalar that may be absent: without `required`, an absent value gives the empty
    /// optional; with it, an absent enum value raises `InvalidValue`.
    template <ScalarPayload T> Value(meta::Type const &type, boost::optional<T> const &native, bool required);
    /// An element reference, typed by the element's metaclass, or by `declared` when the
    /// handle is empty.
    Value(meta::Type const &declared, ModelElement const &element);

    /// A view of the primitive collection that an element owns for `property`: the value
    /// points at it, copies share it, and it must not outlive the element.
    Value(AbstractPrimitiveCollection &collection, meta::Property const &property);
    /// A view of the element collection that an element owns for `property`.
    Value(ReferenceCollection &collection, meta::Property const &property);
    static Value createPrimitiveCollectionValue(meta::Property const &property, AbstractPrimitiveCollection &collection);
    static Value createElementCollectionValue(meta::Property const &property, ReferenceCollection &collection);
    /// As `createElementCollectionValue`, marked reflective.
    static Value createReflectiveReferenceCollection(meta::Property const &property, ReferenceCollection &collection);

    Value(Value const &other);
    Value(Value &&other) noexcept;
    Value &operator=(Value const &other);
    Value &operator=(Value &&other) noexcept;
    ~Value() {
        // A number or an enum literal inside the value has nothing to end: a reflective
        // read of one costs no call here.
        if (payload_ && functions_ && (isInline() ? functions_->destroyInPlace : functions_->deleter))
            freePayload();
    }

    /// An empty element reference of `cls`.
    static Value createEmptyValue(meta::Class const &cls);
    /// The empty or default value of a single-valued property: default when `lower` is 1.
    /// Raises `CannotCastIncompatibleTypes` for a collection property.
    static Value createEmptyValue(meta::Property const &property);
    /// The default (`required`) or empty value of a type. Raises `InvalidValue` for a type
    /// that has no way to make one.
    static Value createEmptyValue(meta::Type const &type, bool required);
    /// An empty free-standing collection of the property's shape. Raises `InvalidValue`
    /// when none can be made for its type.
    static Value createEmptyUnmanagedCollectionValue(meta::Property const &property);
    /// The value of an enum literal: its enum as type, its number sign-extended to 64 bits.
    static Value createEnumValue(meta::EnumLiteral const &literal);
    /// A reflective value of `type`: a record with every field at its default when
    /// `required`, else the empty optional.
    static Value createReflectiveDataTypeValue(meta::DataType const &type, bool required);
    /// A reflective value that holds a copy of `record` (or takes it, moved).
    static Value createReflectiveDataTypeValue(reflection::ReflectiveDataType const &record);
    static Value createReflectiveDataTypeValue(reflection::ReflectiveDataType &&record);

    /// The native payload. Raises `CannotCastIncompatibleTypes` when the value does not
    /// hold a `T`, and `InvalidValue` when it holds nothing.
    template <ScalarPayload T> T const &get() const;
    /// The referenced element; raises `CannotCastIncompatibleTypes` for other values.
    ModelElement getElement() const;
    /// True when the value carries a payload (an empty optional does not).
    bool hasPayload() const noexcept { return payload_ != nullptr; }

    /// The record this data type value holds, or one read field by field from the
    /// generated form through the type's serializer. Raises `CannotCastIncompatibleTypes`
    /// for a value that is no data type or whose type has no serializer, and
    /// `InvalidValue` for an empty reflective value.
    reflection::ReflectiveDataType toReflectiveDataType() const;

    /// The entries as single values: none for an empty optional, itself for a single one.
    std::vector<Value> extractEntryValues() const;
    /// Raises `InvalidValue` or `CannotCastIncompatibleTypes` when this value cannot be
    /// stored in `property`.
    void checkCompatibleWithProperty(meta::Property const &property) const;
    bool isCompatibleWithProperty(meta::Property const &property) const noexcept;

    /// Same type, same shape, and equal payloads (or the same pointer without an equality).
    bool operator==(Value const &other) const;
    bool operator!=(Value const &other) const { return !(*this == other); }
    /// The order of two values of one type; an empty payload comes first.
    ComparisonResult compareWithOtherValue(Value const &other) const;
    /// The payload's hash; 0 for a value whose payload has none.
    std::uint64_t hashValues() const;

    PayloadFunctions const *getPayloadFunctions() const noexcept { return functions_; }
    void const *getPayload() const noexcept { return payload_; }

    /// A value of `meta` that takes ownership of `payload`, freed through `functions`:
    /// the way serializers and collections make values of their own payload types.
    Value(ValueMeta const &meta, void *payload, PayloadFunctions const *functions) noexcept
        : ValueMeta(meta), payload_(payload), functions_(functions) {}
    /// A free-standing collection of the property's shape that takes ownership of
    /// `container`, read and freed through `functions`.
    static Value adoptUnmanagedCollection(meta::Property const &property, void *container,
                                          PayloadFunctions const *functions) noexcept;

private:
    /// Room for the largest native scalar (a text object), so that scalars need no heap.
    static constexpr std::size_t inlineSize = 32;

    void freePayload() noexcept;
    /// Takes `other`'s payload: copied (`steal` false) or moved.
    void takePayload(Value const &other, bool steal);
    void *inlineStorage() noexcept { return inline_; }
    bool isInline() const noexcept { return payload_ == static_cast<void const *>(inline_); }
    [[noreturn]] void raiseIncompatible() const;

    void *payload_ = nullptr;
    PayloadFunctions const *functions_ = nullptr;
    alignas(8) unsigned char inline_[inlineSize];
};

namespace internal {
/// True for a non-empty type whose metaclass is `meta::Enum` or derives from it.
bool isEnumType(meta::Type const &type);
} // namespace internal

} // namespace kivra
