#pragma once
/// \file
/// The base of the classes that describe a metamodel in the registry.

#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/meta/MetaRegistry.hpp>

#include <basalt/ustring.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

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
    /// Commits the description, then registers the packages made without a parent as
    /// root packages. A description that fails before this rolls back, and the types it
    /// registered go with it.
    void finish();

    Model const &model() const noexcept { return model_; }
    MetaRegistry &registry() const noexcept { return *registry_; }

    Package createPackage(basalt::ustring const &name, basalt::ustring const &uri);
    Class createClass(basalt::ustring const &name, std::string const &vantorName, bool isAbstract, char const *uuid);
    /// A property with `lower`, `upper`, `isOrdered`, `isHashed` and `isUnique` from the
    /// shape, as a table of properties writes them.
    Property createProperty(basalt::ustring const &name, ValueFlags shape, bool isComposite, char const *uuid);
    void setPropertyIndex(Property const &property, int index);

    void registerRootPackage(Package const &package) { registry_->registerRootPackage(package); }
    void unregisterRootPackage(basalt::ustring const &uri) { registry_->unregisterRootPackage(uri); }
    void updateCollectionInstantiator(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator) {
        registry_->updateCollectionInstantiator(type, std::move(instantiator));
    }

private:
    MetaRegistry *registry_;
    std::optional<MetaRegistry::LockedModel> locked_;
    Model model_;
    Transaction transaction_;
    std::vector<Package> packages_;
};

} // namespace kivra::meta
