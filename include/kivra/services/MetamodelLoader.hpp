#pragma once
/// \file
/// Metamodels that arrive in bundles, loaded when one of their names is first asked for.

#include <basalt/ustring.hpp>

namespace kivra::services {

/// The service of a bundle that holds a metamodel, and the operations through which the
/// registry finds and starts such bundles. A bundle declares its family and its type names
/// in its manifest; the registry asks for them with its own lock released, and looks again
/// afterwards.
class MetamodelLoader {
public:
    virtual ~MetamodelLoader() = default;
    /// Registers the bundle's packages with `meta::MetaRegistry`. May be called again, by
    /// another thread or a later lookup, and must then do no harm.
    virtual void loadMetamodel() = 0;

    /// Starts every bundle of `family`; nothing when none declares it.
    static void loadFamily(basalt::ustring const &family);
    /// Starts the first bundle that declares the type `fullyQualifiedName`; nothing when
    /// none declares it.
    static void loadType(basalt::ustring const &fullyQualifiedName);
};

} // namespace kivra::services
