#pragma once
/// \file
/// The primitive types: the leaves of every metamodel.

#include <kivra/meta/Handles.hpp>

namespace kivra {
/// The host language's array: a `VantorArray` value points at one, and this library
/// stores and passes it without looking inside.
struct VantorArray;
/// A JSON value: a `JsonValue` value points at one, and only the JSON dehydration service
/// looks inside.
class json;
} // namespace kivra

namespace kivra::meta {

class MetaRegistry;

/// The rows of the table of standard types, in the order of their creation.
enum class StandardTypeRow : unsigned {
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) Name,
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) Name,
#include <kivra/meta/PrimitiveTypes.def>
};

namespace detail {
/// The standard type of `row`; the first call builds the registry.
PrimitiveType const &standardType(StandardTypeRow row);
} // namespace detail

/// The name parameters of the standard types: `StringMetaNameParameter` and so on, each
/// with the type's `name` and its `row` in the table.
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    struct Name##MetaNameParameter {                                                                                   \
        static constexpr char16_t const *name = u"" #Name;                                                             \
        static constexpr StandardTypeRow row = StandardTypeRow::Name;                                                  \
    };
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                       \
    KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)
#include <kivra/meta/PrimitiveTypes.def>

/// One standard type, named by the parameter `P`: converts to the type's handle, so that
/// generated code can name the type before anything has built the registry.
template <class P> class StandardTypeWrapper {
public:
    /// The type; the first use builds the registry.
    PrimitiveType const &get() const { return detail::standardType(P::row); }
    operator PrimitiveType const &() const { return get(); }
    PrimitiveType::Impl *operator->() const { return get().get(); }
    static constexpr char16_t const *name() noexcept { return P::name; }
};

/// The standard primitive types, made in the registry model before anything else of the
/// metamodel, with no owning package: their qualified name is their bare name.
///
/// Example:
/// \code
///   meta::PrimitiveType const &integer = meta::StandardTypes::integerMeta;
///   int bits = meta::StandardTypes::getSizeOfIntegralTypeInBits(integer); // 32
/// \endcode
class StandardTypes {
public:
    /// Makes and registers every standard type; called once by the registry. Raises
    /// `DuplicateTypeInRegistry` when one of them has names already.
    static void initializeTypes(MetaRegistry &registry);

    /// `Integer8` to `Integer64` when signed, `UInteger8`, `UInteger16`, `UnlimitedNatural`,
    /// `UInteger64` when not, for 8, 16, 32 and 64 bits; empty for any other width.
    static PrimitiveType getIntegralType(bool isSigned, int bits);
    /// 8, 16, 32 or 64 for the eight integral types; 0 for any other type.
    static int getSizeOfIntegralTypeInBits(PrimitiveType const &type);

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    static constexpr StandardTypeWrapper<Name##MetaNameParameter> member{};
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                       \
    KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)
#include <kivra/meta/PrimitiveTypes.def>
};

} // namespace kivra::meta
