#pragma once
/// \file
/// The serializers of data types whose values hold a native object, one class per data
/// type, as the generated packages register them.

#include <kivra/Value.hpp>
#include <kivra/meta/PropertySerializer.hpp>

#include <concepts>
#include <cstdint>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace kivra::meta {

namespace detail {

/// The payload table of values that hold a native object `T`: one table per type, so
/// that telling what a value holds is a pointer comparison. Values of `T` are ordered
/// when `T` has `<`, and hashed when `hashValue(T const &)` is found for it.
template <class T> struct DatatypePayload {
    using Compare = bool (*)(void const *, void const *);
    using Hash = std::uint64_t (*)(void const *);

    static constexpr bool ordered = requires(T const &x) {
        { x < x } -> std::convertible_to<bool>;
    };

    static constexpr Compare orderOrNull() {
        if constexpr (ordered)
            return [](void const *a, void const *b) -> bool {
                return a && b && *static_cast<T const *>(a) < *static_cast<T const *>(b);
            };
        else
            return nullptr;
    }
    static constexpr Hash hashOrNull() {
        if constexpr (requires(T const &x) { { hashValue(x) } -> std::convertible_to<std::uint64_t>; })
            return [](void const *payload) -> std::uint64_t { return hashValue(*static_cast<T const *>(payload)); };
        else
            return nullptr;
    }

    static constexpr PayloadFunctions functions{
        [](void *payload) { delete static_cast<T *>(payload); },
        [](void const *payload) -> void * { return new T(*static_cast<T const *>(payload)); },
        [](void const *a, void const *b) -> bool {
            return a && b ? *static_cast<T const *>(a) == *static_cast<T const *>(b) : a == b;
        },
        orderOrNull(),
        hashOrNull(),
        nullptr};
};

/// The payload table of a free-standing collection `C` of native objects.
template <class C> struct DatatypeCollectionPayload {
    using T = typename C::value_type;
    static constexpr PayloadFunctions functions{
        [](void *payload) { delete static_cast<C *>(payload); },
        [](void const *payload) -> void * { return new C(*static_cast<C const *>(payload)); },
        [](void const *a, void const *b) -> bool {
            return a && b ? *static_cast<C const *>(a) == *static_cast<C const *>(b) : a == b;
        },
        nullptr,
        nullptr,
        [](Value const &value) {
            std::vector<Value> result;
            ValueMeta const entry = value.getEntryType();
            for (T const &item : *static_cast<C const *>(value.getPayload()))
                result.emplace_back(entry, new T(item), &DatatypePayload<T>::functions);
            return result;
        }};
};

} // namespace detail

/// What the serializers of data types with native objects share: the checks that a value
/// holds the data type, the errors, and the making of values. The type-specific part is
/// `DatatypeSerializerOf<T>`.
class NativeDatatypeSerializer : public DatatypeSerializer {
public:
    ~NativeDatatypeSerializer() override;

    /// An optional value of the data type without payload.
    Value createEmptyOptionalValue() const override;
    /// The data type whose values this serializer reads and writes.
    DataType const &getDataType() const noexcept { return type_; }

protected:
    NativeDatatypeSerializer(DataType type, PayloadFunctions const &functions);

    /// The object that `value` holds; null for a value without payload, which stands for
    /// a default-built object. Raises `CannotCastIncompatibleTypes` for a value of another
    /// type, shape or payload.
    void const *objectOf(Value const &value) const;
    /// The generated form of a reflective value of the data type (a record read field by
    /// field). Raises `CannotCastIncompatibleTypes` for a value of another type or shape.
    Value nativeForm(Value const &value) const;
    /// A single value of the data type that owns `object`.
    Value adopt(void *object) const;
    /// A free-standing collection of `shape` that owns `container`.
    static Value adoptCollection(Type const &type, ValueFlags shape, void *container, PayloadFunctions const &functions);
    /// Raises `NoSuchProperty` with the property's name and the data type's qualified name.
    [[noreturn]] void raiseNoSuchProperty(Property const &property) const;
    /// Raises `InvalidValue`: the native objects have no order to make a set with.
    [[noreturn]] static void raiseUnordered();

private:
    DataType type_;
    PayloadFunctions const *functions_;
};

/// The serializer of a data type whose values hold a `T`: subclasses read and write one
/// field, by comparing the property with the handles of the data type's properties.
/// `setPropertyValue` changes a copy: a value, once made, never changes. Values that hold
/// a record of the data type instead of the object are read and written in the object's form.
template <class T> class DatatypeSerializerOf : public NativeDatatypeSerializer {
public:
    Value getPropertyValue(Value const &value, Property const &property) const final {
        if (value.isReflective()) [[unlikely]]
            return getPropertyValue(nativeForm(value), property);
        T const *object = static_cast<T const *>(objectOf(value));
        return object ? doGetPropertyValue(*object, property) : doGetPropertyValue(T(), property);
    }
    Value setPropertyValue(Value const &value, Property const &property, Value const &newValue) const final {
        if (value.isReflective()) [[unlikely]]
            return setPropertyValue(nativeForm(value), property, newValue);
        T const *object = static_cast<T const *>(objectOf(value));
        auto copy = object ? std::make_unique<T>(*object) : std::make_unique<T>();
        doSetPropertyValue(*copy, property, newValue);
        return adopt(copy.release());
    }
    Value createDefaultValue() const final { return adopt(new T()); }
    Value combineAsUnmanagedSequenceValue(Type const &type, std::vector<Value> const &entries) const final {
        auto container = std::make_unique<std::vector<T>>();
        container->reserve(entries.size());
        for (Value const &entry : entries)
            container->push_back(fromValue(entry));
        return adoptCollection(type, ValueFlags::Sequence, container.release(),
                               detail::DatatypeCollectionPayload<std::vector<T>>::functions);
    }
    Value combineAsUnmanagedSetValue(Type const &type, std::vector<Value> const &entries) const final {
        if constexpr (detail::DatatypePayload<T>::ordered) {
            auto container = std::make_unique<std::set<T>>();
            for (Value const &entry : entries)
                container->insert(fromValue(entry));
            return adoptCollection(type, ValueFlags::SortedSet, container.release(),
                                   detail::DatatypeCollectionPayload<std::set<T>>::functions);
        } else {
            raiseUnordered();
        }
    }

    /// `object` as a single value of the data type.
    Value toValue(T object) const { return adopt(new T(std::move(object))); }
    /// The object a value of the data type holds; a default-built one when it holds none.
    T fromValue(Value const &value) const {
        if (value.isReflective()) [[unlikely]]
            return fromValue(nativeForm(value));
        T const *object = static_cast<T const *>(objectOf(value));
        return object ? *object : T();
    }

    /// The field of `object` that `property` describes; `NoSuchProperty` for another property.
    virtual Value doGetPropertyValue(T const &object, Property const &property) const = 0;
    /// Writes that field; a value without payload writes the field's default.
    virtual void doSetPropertyValue(T &object, Property const &property, Value const &newValue) const = 0;

protected:
    explicit DatatypeSerializerOf(DataType type)
        : NativeDatatypeSerializer(std::move(type), detail::DatatypePayload<T>::functions) {}
};

} // namespace kivra::meta
