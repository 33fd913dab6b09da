#pragma once
/// \file
/// The process-wide catalogue of types and the model that holds the metamodel.

#include <kivra/Model.hpp>
#include <kivra/meta/CollectionInstantiator.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/services/Hashers.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kivra::meta {

/// The registry of the metamodel: the registry model that holds every metamodel element,
/// the types by qualified name, and the native names of types. Built on first use; lives
/// until the process ends. Every operation takes one recursive mutex, so it may be used
/// from any thread.
///
/// Example:
/// \code
///   meta::PrimitiveType integer = meta::MetaRegistry::getInstance()->getPrimitiveType(u"Integer");
/// \endcode
class MetaRegistry {
public:
    /// The registry, built on the first call.
    static MetaRegistry *getInstance();

    /// The registry model, held with the registry's lock for as long as this lives.
    class LockedModel {
    public:
        explicit LockedModel(MetaRegistry &registry);
        Model const &get() const noexcept { return model_; }
        Model::Impl *operator->() const noexcept { return model_.get(); }

    private:
        std::unique_lock<std::recursive_mutex> lock_;
        Model model_;
    };

    /// The registry model, locked; its URI is "registry@registry://metaRegistry/model".
    LockedModel getMetaRegistryModel();

    /// The prefix of every package URI: the schema base followed by "kivra/".
    static basalt::ustring const &uriPrefix();
    /// prefix, family, "/", version.
    static basalt::ustring composeUri(basalt::ustring const &version, basalt::ustring const &family);
    /// (version, family) of a package URI; two empty texts for a URI without the prefix.
    static std::pair<basalt::ustring, basalt::ustring> parseUri(basalt::ustring const &uri);
    /// True when both parts of `parseUri` are not empty.
    static bool isValidUri(basalt::ustring const &uri);

    /// The type of a qualified name, such as "kivra.meta.Class" or "Integer"; empty when
    /// unknown. Lookups never raise.
    Type getType(basalt::ustring const &name);
    /// As `getType`, and never asks a metamodel loader.
    Type getTypeNoLoad(basalt::ustring const &name);
    Type fetchType(basalt::ustring const &name, bool load);
    /// The class of that name; empty when unknown or not a class.
    Class getClass(basalt::ustring const &name);
    /// The primitive type of that name; empty when unknown or not primitive.
    PrimitiveType getPrimitiveType(basalt::ustring const &name);

    /// Enters a type under its qualified name, with the maker of its collections, if any.
    /// Raises `DuplicateTypeInRegistry` when the name is taken.
    void registerType(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator = nullptr);
    /// Adds a maker of collections to a registered type, for a metamodel that serves a
    /// type another one owns.
    void updateCollectionInstantiator(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator);
    /// How proxies of a class are made: the generated classes of a package enter theirs.
    using ProxyFactory = std::function<ModelElement(Model const &, ProxyId const &)>;
    void registerProxyFactory(Class const &cls, ProxyFactory factory);
    /// A proxy of `cls` made by its factory; an empty handle when the class has none.
    ModelElement instantiateProxy(Class const &cls, Model const &model, ProxyId const &proxyId);

    /// A free-standing empty collection value for `property`, made by the instantiators of
    /// its type; none when they cannot make it.
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property);
    /// Removes the record of `name` when it holds this very type.
    void unregisterType(Type const &type, basalt::ustring const &name);

    /// Records the native and host names of a type, and the run-time type name of its
    /// payload. Raises `DuplicateTypeInRegistry` when the type has names already.
    void registerTypeNames(Type const &type, std::string const &cppName, std::string const &vantorName,
                           std::string const &typeidName);
    boost::optional<std::string> getCppNameForType(Type const &type);
    boost::optional<std::string> getVantorNameForType(Type const &type);
    /// Adds one more run-time type name for a primitive type.
    void updateTypeidName(std::string const &typeidName, PrimitiveType const &type);
    /// True when `typeidName` stands for `type` (compared by qualified name).
    bool isCorrectTypeForTypeId(PrimitiveType const &type, std::string const &typeidName);

private:
    MetaRegistry();
    void initialize();

    template <class V> using NameMap = std::unordered_map<basalt::ustring, V, services::hashers::KivraHasher<basalt::ustring>>;
    struct TypeHash {
        std::size_t operator()(Type const &type) const noexcept;
    };

    struct TypeRecord {
        Type type;
        std::vector<std::unique_ptr<detail::CollectionInstantiator>> instantiators;
        ProxyFactory proxyFactory;
    };

    Model model_;
    NameMap<TypeRecord> types_;
    std::unordered_map<Type, std::pair<std::string, std::string>, TypeHash> typeNames_;
    std::unordered_multimap<std::string, PrimitiveType> typeidNames_;
    std::recursive_mutex mutex_;
    bool initialized_ = false;
};

namespace internal {
/// The registry's primitive type of that name: what `Value`, the serializers and the
/// standard types keep in their function-local statics.
PrimitiveType getPrimitiveTypeFromMetaRegistry(basalt::ustring const &name);
} // namespace internal

} // namespace kivra::meta
