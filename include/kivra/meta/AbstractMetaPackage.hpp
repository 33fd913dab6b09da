#pragma once
/// \file
/// The base of the classes that describe a metamodel in the registry.

#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/meta/MetaRegistry.hpp>

#include <basalt/ustring.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kivra::meta {

class PropertySerializerRegistry;
class PropertySerializer;
class DatatypeSerializer;

/// The base of generated metamodel packages: each enters its packages, classes and
/// properties into the registry model once, under the registry's lock, through the
/// ordinary builders, and keeps their handles for the generated code, which compares
/// properties with them by identity.
class AbstractMetaPackage {
public:
    virtual ~AbstractMetaPackage();
    AbstractMetaPackage(AbstractMetaPackage const &) = delete;
    AbstractMetaPackage &operator=(AbstractMetaPackage const &) = delete;

protected:
    AbstractMetaPackage();
    /// Takes the registry's lock, thaws its model and opens the one revertible transaction
    /// of a description; `finish` commits it and lets go.
    void begin();
    /// Commits the description, makes every collection of its elements exist (the frozen
    /// registry model is read from many threads without a lock), then registers the
    /// packages made without a parent as root packages.
    void finish();
    /// Rolls an unfinished description back, with the types it registered, and lets go.
    void abandon() noexcept;

    Model const &model() const noexcept { return model_; }
    MetaRegistry &registry() const noexcept { return *registry_; }

    /// A package with a fresh UUID, or the one given.
    Package createPackage(basalt::ustring const &name, basalt::ustring const &uri, char const *uuid = nullptr);
    Class createClass(basalt::ustring const &name, std::string const &vantorName, bool isAbstract, char const *uuid);
    DataType createDataType(basalt::ustring const &name, std::string const &vantorName, char const *uuid);
    Enum createEnum(basalt::ustring const &name, char const *uuid);
    EnumLiteral createEnumLiteral(basalt::ustring const &name, int value, char const *uuid);
    /// A property with `lower`, `upper`, `isOrdered`, `isHashed` and `isUnique` from the
    /// shape, as a table of properties writes them.
    Property createProperty(basalt::ustring const &name, ValueFlags shape, bool isComposite, char const *uuid);
    /// An operation giving one value, any number of values (`many`) or none (`!returns`).
    Operation createOperation(basalt::ustring const &name, char const *uuid, bool returns = false, bool many = false);
    Argument createArgument(basalt::ustring const &name, char const *uuid, bool isOrdered = false, bool many = false);
    Endpoint createEndpoint(basalt::ustring const &name, char const *uuid);
    void setPropertyIndex(Property const &property, int index);

    void registerRootPackage(Package const &package) { registry_->registerRootPackage(package); }
    void unregisterRootPackage(basalt::ustring const &uri) { registry_->unregisterRootPackage(uri); }
    void updateCollectionInstantiator(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator) {
        registry_->updateCollectionInstantiator(type, std::move(instantiator));
    }

    /// Display data for the host language's object system, stored and given no meaning.
    void setDefaultVantorCategory(Package const &package, std::string const &category);
    void setVantorClassName(StructuredType const &type, std::string const &name);
    void setVantorCompactDisplay(StructuredType const &type, bool compact);
    void setVantorDispCategory(Property const &property, std::string const &category);
    void setVantorDispSkipEmpty(Property const &property, bool skip);

    /// Gives `serializers` a serializer of one of this description's types. The first
    /// registration of a type in a description drops what an earlier description of the
    /// same type left there, so that describing again raises no `DuplicateTypeInRegistry`;
    /// the destructor takes them out again.
    void registerPropertySerializer(PropertySerializerRegistry &serializers, Type const &type,
                                    std::unique_ptr<PropertySerializer> serializer, std::string_view flavour);
    void registerDatatypeSerializer(PropertySerializerRegistry &serializers, DataType const &type,
                                    std::unique_ptr<DatatypeSerializer> serializer);

private:
    void claimSerializedType(PropertySerializerRegistry &serializers, Type const &type);
    void unregisterSerializers() noexcept;

    MetaRegistry *registry_;
    std::optional<MetaRegistry::LockedModel> locked_;
    Model model_;
    Transaction transaction_;
    std::vector<Package> packages_;
    std::vector<Type> serializedTypes_; ///< the types whose serializers this description gave
};

} // namespace kivra::meta
