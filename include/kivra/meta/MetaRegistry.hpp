#pragma once
/// \file
/// The process-wide catalogue of types and the model that holds the metamodel.

#include <kivra/Model.hpp>
#include <kivra/meta/CollectionInstantiator.hpp>
#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace kivra::meta {

/// Gives the values of one type the form in which a model may own them, and lets that
/// form go again. Registered per type with `MetaRegistry::registerOwnershipConverter`.
class ValueOwnershipConverter {
public:
    virtual ~ValueOwnershipConverter() = default;
    /// The owned form of `value`.
    virtual Value convertValueForOwnership(Value const &value) = 0;
    /// Gives up what `convertValueForOwnership` made for `value`.
    virtual void releaseOwnedValue(Value const &value) = 0;
};

/// The registry of the metamodel: the registry model that holds every metamodel element,
/// the root packages by URI and by family, the types by qualified name with the makers of
/// their collections and builders, the native names of types, and the endpoints. Built on
/// first use; lives until the process ends.
///
/// Every operation takes one recursive mutex, so the registry may be used from any thread.
/// The registry model stays frozen except while a `LockedModel` holds it thawed under that
/// mutex; frozen, it may be read from many threads without locks. The mutex is never held
/// while a metamodel loader runs, nor while a builder factory or an ownership converter is
/// called. It comes before any lock of the property serializers.
///
/// Example:
/// \code
///   meta::MetaRegistry &registry = *meta::MetaRegistry::getInstance();
///   meta::PrimitiveType integer = registry.getPrimitiveType(u"Integer");
///   meta::Package package = registry.getRootPackage(meta::MetaRegistry::composeUri(u"1", u"library"));
/// \endcode
class MetaRegistry {
public:
    /// Makes an empty builder of one class for a model.
    using BuilderFactory = std::function<std::unique_ptr<ModelElement::Builder>(Model const &)>;
    /// Makes a proxy of one class; the generated classes of a package enter theirs.
    using ProxyFactory = std::function<ModelElement(Model const &, ProxyId const &)>;

    /// The registry, built on the first call.
    static MetaRegistry *getInstance();

    MetaRegistry(MetaRegistry const &) = delete;
    MetaRegistry &operator=(MetaRegistry const &) = delete;

    /// The registry model for reading, with the registry's lock held for as long as this
    /// lives.
    class LockedConstModel {
    public:
        explicit LockedConstModel(MetaRegistry const &registry);
        Model const &get() const noexcept { return model_; }
        Model::Impl const *operator->() const noexcept { return model_.get(); }

    private:
        std::unique_lock<std::recursive_mutex> lock_;
        Model model_;
    };

    /// The registry model for changing: holds the registry's lock and keeps the model
    /// thawed for as long as this lives. Nested ones on one thread are allowed.
    class LockedModel {
    public:
        explicit LockedModel(MetaRegistry &registry);
        Model const &get() const noexcept { return model_; }
        Model::Impl *operator->() const noexcept { return model_.get(); }

    private:
        std::unique_lock<std::recursive_mutex> lock_;
        Model model_;
        Model::Thawer thawer_;
    };

    /// The registry model, locked and thawed; its URI is "registry@registry://metaRegistry/model".
    LockedModel getMetaRegistryModel();
    /// The registry model, locked; it stays frozen.
    LockedConstModel getMetaRegistryModel() const;
    LockedConstModel getFrozenMetaRegistryModel() const;

    // --- Package URIs ------------------------------------------------------------------

    /// The prefix of every package URI: the schema base followed by "kivra/".
    static basalt::ustring const &uriPrefix();
    /// prefix, family, "/", version.
    static basalt::ustring composeUri(basalt::ustring const &version, basalt::ustring const &family);
    /// (version, family) of a package URI, in the order of `composeUri`'s arguments; two
    /// empty texts for a URI without the prefix or without a "/" behind the family. Any
    /// path behind the version is left out. The answers are kept per thread: the result
    /// stays valid until the thread ends.
    static std::pair<basalt::ustring, basalt::ustring> const &parseUri(basalt::ustring const &uri);
    /// True when both parts of `parseUri` are not empty.
    static bool isValidUri(basalt::ustring const &uri);

    // --- Types ---------------------------------------------------------------------------

    /// The type of a qualified name, such as "kivra.meta.Class" or "Integer"; on a miss a
    /// metamodel loader is asked once, and the name stays reserved and empty when it brings
    /// nothing. Lookups never raise: a miss is an empty handle. A hit makes no string.
    Type getType(std::u16string_view name);
    /// As `getType`, and never asks a loader nor reserves the name.
    Type getTypeNoLoad(std::u16string_view name);
    Type fetchType(std::u16string_view name, bool load);
    /// The class of that name; empty when unknown or not a class.
    Class getClass(std::u16string_view name);
    /// The primitive type of that name; empty when unknown or not primitive.
    PrimitiveType getPrimitiveType(std::u16string_view name);

    /// Enters a type under its qualified name, with the maker of its collections and of
    /// its builders (either may be null). Raises `DuplicateTypeInRegistry` when the name
    /// is taken, and then registers nothing; `NoSuchType` with an empty name for an empty
    /// handle.
    void registerType(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator,
                      BuilderFactory factory = {});
    void registerType(Type const &type, BuilderFactory factory = {});
    /// Removes the record of `name` when it holds this very type; otherwise nothing.
    void unregisterType(Type const &type, basalt::ustring const &name);

    /// Records the native and host names of a type, and the run-time type name
    /// (`typeid(T).name()`) of its payload when not empty. Raises `DuplicateTypeInRegistry`
    /// when the type has names already, `NoSuchType` for an empty handle.
    void registerTypeNames(Type const &type, std::string const &cppName, std::string const &vantorName,
                           std::string const &typeidName);
    boost::optional<std::string> getCppNameForType(Type const &type) const;
    boost::optional<std::string> getVantorNameForType(Type const &type) const;
    /// Adds one more run-time type name for a primitive type.
    void updateTypeidName(std::string const &typeidName, PrimitiveType const &type);
    /// True when `typeidName` stands for `type` (compared by qualified name).
    bool isCorrectTypeForTypeId(PrimitiveType const &type, std::string const &typeidName) const;

    /// Adds a maker of collections to a registered type, for a metamodel that serves a
    /// type another one owns; nothing for an unregistered type.
    void updateCollectionInstantiator(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator);
    /// Takes back one maker added for the type; it is destroyed.
    void unregisterCollectionInstantiator(Type const &type, detail::CollectionInstantiator const *instantiator);

    void registerProxyFactory(Class const &cls, ProxyFactory factory);
    /// A proxy of `cls` made by its factory; an empty handle when the class has none.
    ModelElement instantiateProxy(Class const &cls, Model const &model, ProxyId const &proxyId);

    /// A new builder of `cls` for `model`, from the factory registered with this very
    /// class; null for an invalid or unregistered class or one without a factory.
    std::unique_ptr<ModelElement::Builder> instantiateBuilder(Class const &cls, Model const &model);
    /// The collection that `owner` keeps for `property`, made by the instantiators of the
    /// property's type; null when none can make it (the caller raises).
    AbstractOwnedCollection *instantiateDynamicCollection(ModelElement const &owner, Property const &property) const;
    /// A free-standing empty collection value for `property`, made by the instantiators of
    /// its type; none when they cannot make it.
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property) const;

    // --- Packages ------------------------------------------------------------------------

    /// The root package registered under `uri`; empty when none.
    Package getRootPackage(std::u16string_view uri) const;
    /// As above; on a miss with `load`, the loader is asked for the URI's family first.
    Package getRootPackage(basalt::ustring const &uri, bool load);
    /// The package of a family, such as "meta"; on a miss the loader is asked for it.
    Package getPackageForFamily(basalt::ustring const &family);
    /// True when `uri` has the version of the package now registered for its family.
    bool isVersionCurrentForFamily(basalt::ustring const &uri);
    /// Enters a root package under its URI and, when the URI has one, its family. A URI or
    /// family registered already keeps its first package. Raises `InvalidValue` for an
    /// empty handle.
    void registerRootPackage(Package const &package);
    void unregisterRootPackage(basalt::ustring const &uri);

    // --- Values owned by models ---------------------------------------------------------

    /// Sets the converter of the values of `type`, replacing any earlier one.
    void registerOwnershipConverter(Type const &type, std::unique_ptr<ValueOwnershipConverter> converter);
    void unregisterOwnershipConverter(Type const &type);
    /// The owned form of `value` from its type's converter; a copy when it has none.
    Value convertValueForOwnership(Value const &value);
    /// Lets the converter of the value's type give up its owned form; nothing without one.
    void releaseOwnedValue(Value const &value);

    // --- Endpoints -------------------------------------------------------------------------

    /// Enters an endpoint under its qualified name. Raises `DuplicateTypeInRegistry` when
    /// the name is taken, `InvalidValue` for an empty handle.
    void registerEndpoint(Endpoint const &endpoint);
    void unregisterEndpoint(Endpoint const &endpoint);
    /// The endpoint of that qualified name; empty when unknown.
    Endpoint getEndpoint(std::u16string_view name) const;

private:
    struct Tables;
    class UnregisterDestroyedTypes;

    MetaRegistry();
    ~MetaRegistry();
    /// Enters the standard types and the metamodel's own description.
    void start();
    void initialize();
    void registerType(Type const &type, basalt::ustring const &name,
                      std::unique_ptr<detail::CollectionInstantiator> instantiator, BuilderFactory factory);
    /// `unregisterType` without telling the listener that keeps names; under the lock.
    void dropRecord(Type const &type, basalt::ustring const &name);

    Model model_;
    std::unique_ptr<Tables> tables_;
    Model::Freezer freezer_;
    mutable std::recursive_mutex mutex_;
    bool initialized_ = false;
};

namespace internal {
/// The registry's primitive type of that name: what `Value`, the serializers and the
/// standard types keep in their function-local statics.
PrimitiveType getPrimitiveTypeFromMetaRegistry(basalt::ustring const &name);
} // namespace internal

} // namespace kivra::meta
