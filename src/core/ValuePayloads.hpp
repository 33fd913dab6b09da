#pragma once
// Not API: the payload tables of scalars and free-standing collections of native types.

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Type.hpp>
#include <kivra/services/Hashers.hpp>

#include <atomic>
#include <new>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/optional/optional.hpp>

#include <set>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

namespace kivra::detail {

/// The hash of a scalar: integers and texts hash their bytes with FNV-1a, the rest with
/// the standard library's (or the library's own for UUIDs and times).
template <class T> std::uint64_t hashScalar(T const &value) {
    if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>)
        return services::hashers::fnv1a(&value, sizeof value);
    else if constexpr (std::is_same_v<T, basalt::ustring> || std::is_same_v<T, std::string>)
        return services::hashers::KivraHasher<T>()(value);
    else if constexpr (std::is_same_v<T, boost::uuids::uuid> || std::is_same_v<T, boost::posix_time::ptime>)
        return services::hashers::KivraHasher<T>()(value);
    else
        return std::hash<T>()(value);
}

/// The payload table of the scalar type `T`: one static table per type, so that telling
/// what a value holds is a pointer comparison.
template <class T> struct ScalarPayload {
    static void destroy(void *payload) { delete static_cast<T *>(payload); }
    static void *clone(void const *payload) { return new T(*static_cast<T const *>(payload)); }
    static bool equals(void const *a, void const *b) {
        if (!a || !b)
            return a == b;
        return *static_cast<T const *>(a) == *static_cast<T const *>(b);
    }
    static bool less(void const *a, void const *b) {
        return a && b && *static_cast<T const *>(a) < *static_cast<T const *>(b);
    }
    static std::uint64_t hash(void const *payload) { return hashScalar(*static_cast<T const *>(payload)); }
    static void copyInto(void *to, void const *from) { new (to) T(*static_cast<T const *>(from)); }
    static void moveInto(void *to, void *from) {
        new (to) T(std::move(*static_cast<T *>(from)));
        static_cast<T *>(from)->~T();
    }
    static void destroyInPlace(void *payload) { static_cast<T *>(payload)->~T(); }

    static_assert(sizeof(T) <= 32 && alignof(T) <= 8, "a scalar must fit inside a Value");
    // Payloads made on the heap (by collections) and inside values share the table, so
    // that telling what a value holds stays one pointer comparison.
    static constexpr PayloadFunctions functions{&destroy,
                                                &clone,
                                                &equals,
                                                &less,
                                                &hash,
                                                nullptr,
                                                &copyInto,
                                                &moveInto,
                                                std::is_trivially_destructible_v<T> ? nullptr : &destroyInPlace};
};

/// The name of the standard type whose payload is `T`.
template <class T> constexpr char16_t const *primitiveTypeName();
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    template <> constexpr char16_t const *primitiveTypeName<Native>() { return u"" #Name; }
#include <kivra/meta/PrimitiveTypes.def>

template <class T> [[gnu::noinline]] meta::PrimitiveType const &lookUpPrimitiveType(std::atomic<meta::PrimitiveType const *> &cache) {
    static meta::PrimitiveType const type = meta::internal::getPrimitiveTypeFromMetaRegistry(primitiveTypeName<T>());
    cache.store(&type, std::memory_order_release);
    return type;
}

/// The standard type of `T`, asked of the registry once and then kept. Every scalar value
/// asks: after the first time, the answer is one load, with no guard and no frame.
template <class T> meta::PrimitiveType const &primitiveTypeOf() {
    static std::atomic<meta::PrimitiveType const *> cache{nullptr};
    if (meta::PrimitiveType const *type = cache.load(std::memory_order_acquire)) [[likely]]
        return *type;
    return lookUpPrimitiveType<T>(cache);
}

/// Raises `CannotCastIncompatibleTypes` unless `type` is the standard type of `T`, or an
/// enum for the 64-bit unsigned payload of enum literals.
template <class T> void checkScalarType(meta::Type const &type) {
    if (type == primitiveTypeOf<T>())
        return;
    if constexpr (std::is_same_v<T, std::uint64_t>)
        if (internal::isEnumType(type))
            return;
    raise<messages::CannotCastIncompatibleTypes>(type.get() ? type->getQualifiedName() : basalt::ustring());
}

/// The payload table of a free-standing collection `C` of scalars.
template <class C> struct CollectionPayload {
    using Entry = typename C::value_type;

    static void destroy(void *payload) { delete static_cast<C *>(payload); }
    static void *clone(void const *payload) { return new C(*static_cast<C const *>(payload)); }
    static bool equals(void const *a, void const *b) {
        if (!a || !b)
            return a == b;
        return *static_cast<C const *>(a) == *static_cast<C const *>(b);
    }
    static std::uint64_t hash(void const *payload) {
        std::uint64_t result = 0;
        for (auto const &entry : *static_cast<C const *>(payload)) {
            if constexpr (std::is_same_v<C, std::vector<Entry>>)
                result ^= hashScalar(entry) + 0x9e3779b9 + (result << 6) + (result >> 2); // order counts
            else
                result += hashScalar(entry); // the hashed set has no order
        }
        return result;
    }
    static std::vector<Value> entries(Value const &value) {
        std::vector<Value> result;
        ValueMeta const entry = value.getEntryType();
        for (auto const &item : *static_cast<C const *>(value.getPayload()))
            result.emplace_back(entry, new Entry(item), &ScalarPayload<Entry>::functions);
        return result;
    }

    static constexpr PayloadFunctions functions{&destroy, &clone, &equals, nullptr, &hash, &entries, nullptr, nullptr, nullptr};
};

template <class T> using HashedSet = std::unordered_set<T, services::hashers::KivraHasher<T>>;

} // namespace kivra::detail
