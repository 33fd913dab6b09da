#pragma once
/// \file
/// The base of the classes that describe a metamodel in the registry.

#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/meta/MetaRegistry.hpp>

#include <basalt/ustring.hpp>

#include <optional>
#include <string>

namespace kivra::meta {

/// The base of generated metamodel packages: each enters its packages, classes and
/// properties into the registry model once, under the registry's lock, and keeps their
/// handles for the generated code, which compares properties with them by identity.
class AbstractMetaPackage {
public:
    virtual ~AbstractMetaPackage() = default;
    AbstractMetaPackage(AbstractMetaPackage const &) = delete;
    AbstractMetaPackage &operator=(AbstractMetaPackage const &) = delete;

protected:
    /// Takes the registry's lock and opens a transaction on its model for the whole
    /// description; the derived constructor describes, `finish` commits and lets go.
    AbstractMetaPackage();
    /// Commits the description.
    void finish();

    Model const &model() const noexcept { return model_; }
    MetaRegistry &registry() const noexcept { return *registry_; }

    Package createPackage(basalt::ustring const &name, basalt::ustring const &uri);
    Class createClass(basalt::ustring const &name, std::string const &vantorName, bool isAbstract, char const *uuid);
    /// A property with `lower`, `upper`, `isOrdered`, `isHashed` and `isUnique` from the
    /// shape, as a table of properties writes them.
    Property createProperty(basalt::ustring const &name, ValueFlags shape, bool isComposite, char const *uuid);
    void setPropertyIndex(Property const &property, int index);

private:
    MetaRegistry *registry_;
    std::optional<MetaRegistry::LockedModel> locked_;
    Model model_;
    Transaction transaction_;
};

} // namespace kivra::meta
