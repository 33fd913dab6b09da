#pragma once
/// \file
/// The primitive types: the leaves of every metamodel.

#include <kivra/meta/Handles.hpp>

namespace kivra::meta {

class MetaRegistry;

/// The standard primitive types, made in the registry model before anything else of the
/// metamodel, with no owning package: their qualified name is their bare name.
class StandardTypes {
public:
    /// Makes and registers every standard type; called once by the registry.
    static void initializeTypes(MetaRegistry &registry);

    /// `Integer8` to `Integer64` when signed, `UInteger8`, `UInteger16`, `UnlimitedNatural`,
    /// `UInteger64` when not, for 8, 16, 32 and 64 bits; empty for any other width.
    static PrimitiveType getIntegralType(bool isSigned, int bits);
    /// 8, 16, 32 or 64 for the eight integral types; 0 for any other type.
    static int getSizeOfIntegralTypeInBits(PrimitiveType const &type);

    /// One handle per standard type; empty until the registry is built
    /// (`MetaRegistry::getInstance()`).
    static PrimitiveType stringMeta, integerMeta, integer8Meta, integer16Meta, integer64Meta, realMeta, booleanMeta,
        unlimitedNaturalMeta, uinteger8Meta, uinteger16Meta, uinteger64Meta, uuidMeta, dateTimeMeta, stdstringMeta;
};

} // namespace kivra::meta
