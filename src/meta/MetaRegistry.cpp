#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/MetaPackageMeta.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataModelUsageProvider.hpp>
#include <kivra/meta/Endpoint.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/services/Hashers.hpp>
#include <kivra/services/MetamodelLoader.hpp>

#include <absl/container/flat_hash_map.h>

#include <atomic>
#include <map>
#include <mutex>
#include <unordered_map>

namespace kivra::meta {

namespace {

using Lock = std::unique_lock<std::recursive_mutex>;

struct TypeHash {
    std::size_t operator()(Type const &type) const noexcept { return std::hash<ModelElement>()(type); }
};

template <class V>
using NameMap = std::unordered_map<basalt::ustring, V, services::hashers::KivraHasher<basalt::ustring>, std::equal_to<>>;
template <class V> using TypeMap = std::unordered_map<Type, V, TypeHash>;

struct TypeRecord {
    /// Empty for a name whose load brought nothing: the name stays reserved.
    Type type;
    std::unique_ptr<detail::CompositeCollectionInstantiator> instantiator;
    MetaRegistry::BuilderFactory builderFactory;
    MetaRegistry::ProxyFactory proxyFactory;
};

basalt::ustring qualifiedNameOf(Endpoint const &endpoint) {
    Package const owner = endpoint->getOwningPackage();
    basalt::ustring const prefix = owner ? owner->getQualifiedName() : basalt::ustring();
    return prefix.empty() ? endpoint->getName() : prefix + u'.' + endpoint->getName();
}

} // namespace

struct MetaRegistry::Tables {
    NameMap<TypeRecord> types;
    /// The records that hold their type, by the type's object: the registry's own
    /// questions about a type skip its qualified name. Map nodes stay where they are.
    absl::flat_hash_map<Type::Impl const *, TypeRecord *> recordOfType;
    std::map<basalt::ustring, Package, std::less<>> rootPackages;
    std::map<basalt::ustring, Package> familyPackages;
    /// Shared, so that a converter can be called with the lock released.
    TypeMap<std::shared_ptr<ValueOwnershipConverter>> ownershipConverters;
    /// Whether any converter is registered: most processes have none, and then a value
    /// is owned as it is without taking the lock.
    std::atomic<bool> anyOwnershipConverter{false};
    TypeMap<std::pair<std::string, std::string>> typeNames;
    std::unordered_multimap<std::string, PrimitiveType, services::hashers::KivraHasher<std::string>> typeidNames;
    NameMap<Endpoint> endpoints;
    UnregisterDestroyedTypes *unregisterDestroyedTypes = nullptr;

    TypeRecord const *recordOf(Type const &type) const {
        auto const found = recordOfType.find(type.get());
        return found == recordOfType.end() ? nullptr : found->second;
    }
};

/// Takes the records of types out of the registry when their elements are destroyed. A
/// destroyed element can no longer tell its qualified name, so the name is kept from the
/// type's registration, or from its creation.
class MetaRegistry::UnregisterDestroyedTypes final : public Listener {
public:
    explicit UnregisterDestroyedTypes(MetaRegistry &registry) : registry_(registry) {}

    /// Under the registry's lock, as everything here.
    void remember(Type const &type, basalt::ustring const &name) { names_.insert_or_assign(type, name); }
    void forget(Type const &type) { names_.erase(type); }

    void transactionCommitted(std::shared_ptr<ReportData> const &report) {
        if (Class const &typeClass = Type::metaClass(); typeClass && !report->containsElementChanges(typeClass))
            return;
        Lock lock(registry_.mutex_);
        for (ModelElement const &element : report->getCreated())
            if (auto *type = dynamic_cast<Type::Impl *>(element.get()))
                names_.try_emplace(Type::fromImpl(type), type->getQualifiedName());
        for (ModelElement const &element : report->getDestroyed())
            unregister(element);
        for (ModelElement const &element : report->getCreatedAndDestroyed())
            unregister(element);
    }

    /// A roll-back takes back the types created in it: the records that they made go too,
    /// so that a package whose description fails part way leaves nothing registered.
    void transactionCanceled(bool, std::shared_ptr<ReportData> const &) {
        Lock lock(registry_.mutex_);
        for (auto entry = names_.begin(); entry != names_.end();) {
            if (entry->first) {
                ++entry;
                continue;
            }
            registry_.dropRecord(entry->first, entry->second);
            entry = names_.erase(entry);
        }
    }

private:
    void unregister(ModelElement const &element) {
        auto *type = dynamic_cast<Type::Impl *>(element.get());
        if (!type)
            return;
        if (auto const found = names_.find(Type::fromImpl(type)); found != names_.end()) {
            registry_.dropRecord(found->first, found->second);
            names_.erase(found);
        }
    }

    MetaRegistry &registry_;
    TypeMap<basalt::ustring> names_;
};

// --- Start-up --------------------------------------------------------------------------

std::atomic<MetaRegistry *> detail::describedRegistry{nullptr};

namespace {
// The thread that builds the registry meets it again while it describes the metamodel.
thread_local MetaRegistry *registryInConstruction = nullptr;
std::once_flag registryOnce;
} // namespace

MetaRegistry *MetaRegistry::getInstance() {
    if (MetaRegistry *registry = detail::describedRegistry.load(std::memory_order_acquire)) [[likely]]
        return registry;
    if (registryInConstruction)
        return registryInConstruction;
    std::call_once(registryOnce, [] {
        // Never destroyed: the metamodel outlives every model that names its types. Known
        // to this thread before construction, which already asks for handles.
        void *memory = ::operator new(sizeof(MetaRegistry));
        auto *registry = static_cast<MetaRegistry *>(memory);
        registryInConstruction = registry;
        try {
            new (memory) MetaRegistry();
            registry->start();
        } catch (...) {
            registryInConstruction = nullptr;
            throw;
        }
        registryInConstruction = nullptr;
        detail::describedRegistry.store(registry, std::memory_order_release);
    });
    return detail::describedRegistry.load(std::memory_order_acquire);
}

MetaRegistry::MetaRegistry()
    : model_(Model::createRegistryModel(u"registry@registry://metaRegistry/model", ModelSpec().setModelReified())),
      tables_(std::make_unique<Tables>()), freezer_(model_) {
    model_->setUsageProvider(std::make_unique<MetaRegistryUsageProvider>(*this));
}

void MetaRegistry::start() {
    {
        LockedModel locked(*this);
        Transaction transaction = model_->beginTransaction();
        initialize();
        transaction.commit();
    }
    new MetaPackageMeta(); // lives as long as the registry
}

MetaRegistry::~MetaRegistry() = default;

void MetaRegistry::initialize() {
    LockedModel locked(*this);
    StandardTypes::initializeTypes(*this);
    Model::initializeType(*this);
    ModelElement::initializeType(*this);
    ModelConstellation::initializeType(*this);
    if (!tables_->unregisterDestroyedTypes) {
        auto listener = std::make_unique<UnregisterDestroyedTypes>(*this);
        tables_->unregisterDestroyedTypes = listener.get();
        // The standard types made so far were registered before the listener existed.
        for (auto const &[name, record] : tables_->types)
            if (record.type)
                listener->remember(record.type, name);
        addOwnedListener<ListenerRole::Observer | ListenerRole::Shallow>(model_, std::move(listener));
    }
    initialized_ = true;
}

MetaRegistry::LockedConstModel::LockedConstModel(MetaRegistry const &registry)
    : lock_(registry.mutex_), model_(registry.model_) {}

MetaRegistry::LockedModel::LockedModel(MetaRegistry &registry)
    : lock_(registry.mutex_), model_(registry.model_), thawer_(&registry.freezer_) {}

MetaRegistry::LockedModel MetaRegistry::getMetaRegistryModel() { return LockedModel(*this); }
MetaRegistry::LockedConstModel MetaRegistry::getMetaRegistryModel() const { return LockedConstModel(*this); }
MetaRegistry::LockedConstModel MetaRegistry::getFrozenMetaRegistryModel() const { return LockedConstModel(*this); }

// --- URIs --------------------------------------------------------------------------------

basalt::ustring const &MetaRegistry::uriPrefix() {
    static basalt::ustring const prefix = u"http://schema.kivra.org/kivra/";
    return prefix;
}

basalt::ustring MetaRegistry::composeUri(basalt::ustring const &version, basalt::ustring const &family) {
    return uriPrefix() + family + u'/' + version;
}

namespace {
std::pair<basalt::ustring, basalt::ustring> splitUri(basalt::ustring const &uri) {
    std::pair<basalt::ustring, basalt::ustring> result;
    basalt::ustring const &prefix = MetaRegistry::uriPrefix();
    if (!uri.starts_with(prefix))
        return result;
    auto const familyEnd = uri.find(u'/', prefix.size());
    if (familyEnd == basalt::ustring::npos)
        return result;
    auto const versionEnd = uri.find(u'/', familyEnd + 1);
    result.second = uri.substr(prefix.size(), familyEnd - prefix.size());
    result.first = uri.substr(familyEnd + 1,
                              versionEnd == basalt::ustring::npos ? basalt::ustring::npos : versionEnd - familyEnd - 1);
    return result;
}
} // namespace

std::pair<basalt::ustring, basalt::ustring> const &MetaRegistry::parseUri(basalt::ustring const &uri) {
    // Every document asks this of its package URIs: remember the answers, per thread so
    // that no lock is taken. Entries are never removed, so a returned answer stays put.
    thread_local NameMap<std::pair<basalt::ustring, basalt::ustring>> cache;
    if (auto const found = cache.find(uri); found != cache.end())
        return found->second;
    return cache.emplace(uri, splitUri(uri)).first->second;
}

bool MetaRegistry::isValidUri(basalt::ustring const &uri) {
    auto const &[version, family] = parseUri(uri);
    return !version.empty() && !family.empty();
}

// --- Types -------------------------------------------------------------------------------

Type MetaRegistry::fetchType(std::u16string_view name, bool load) {
    Lock lock(mutex_);
    if (auto const found = tables_->types.find(name); found != tables_->types.end())
        return found->second.type;
    if (name == u"meta.Model")
        return Model::metaClass();
    if (name == u"meta.ModelElement")
        return ModelElement::metaClass();
    if (!load)
        return {};
    // The loader starts bundles, which take locks of their own and register through us.
    lock.unlock();
    basalt::ustring const text(name);
    services::MetamodelLoader::loadType(text);
    lock.lock();
    // Whatever the load brought, or an empty record, so that the load is not tried again.
    return tables_->types.try_emplace(text).first->second.type;
}

Type MetaRegistry::getType(std::u16string_view name) { return fetchType(name, true); }
Type MetaRegistry::getTypeNoLoad(std::u16string_view name) { return fetchType(name, false); }

Class MetaRegistry::getClass(std::u16string_view name) {
    Type const type = getType(name);
    return Class::fromImpl(dynamic_cast<Class::Impl *>(type.get()));
}

PrimitiveType MetaRegistry::getPrimitiveType(std::u16string_view name) {
    Type const type = getType(name);
    return PrimitiveType::fromImpl(dynamic_cast<PrimitiveType::Impl *>(type.get()));
}

void MetaRegistry::registerType(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator,
                                BuilderFactory factory) {
    if (!type)
        raise<messages::NoSuchType>(basalt::ustring());
    registerType(type, type->getQualifiedName(), std::move(instantiator), std::move(factory));
}

void MetaRegistry::registerType(Type const &type, BuilderFactory factory) {
    registerType(type, nullptr, std::move(factory));
}

void MetaRegistry::registerType(Type const &type, basalt::ustring const &name,
                                std::unique_ptr<detail::CollectionInstantiator> instantiator, BuilderFactory factory) {
    Lock lock(mutex_);
    auto const [entry, inserted] = tables_->types.try_emplace(name);
    if (!inserted)
        raise<messages::DuplicateTypeInRegistry>(name);
    TypeRecord &record = entry->second;
    record.type = type;
    if (instantiator)
        record.instantiator = std::make_unique<detail::CompositeCollectionInstantiator>(std::move(instantiator));
    record.builderFactory = std::move(factory);
    tables_->recordOfType[type.get()] = &record;
    if (tables_->unregisterDestroyedTypes)
        tables_->unregisterDestroyedTypes->remember(type, name);
}

void MetaRegistry::dropRecord(Type const &type, basalt::ustring const &name) {
    auto const found = tables_->types.find(name);
    if (found == tables_->types.end() || found->second.type != type)
        return;
    tables_->recordOfType.erase(type.get());
    tables_->types.erase(found);
}

void MetaRegistry::unregisterType(Type const &type, basalt::ustring const &name) {
    Lock lock(mutex_);
    dropRecord(type, name);
    if (tables_->unregisterDestroyedTypes)
        tables_->unregisterDestroyedTypes->forget(type);
}

void MetaRegistry::registerTypeNames(Type const &type, std::string const &cppName, std::string const &vantorName,
                                     std::string const &typeidName) {
    if (!type)
        raise<messages::NoSuchType>(basalt::ustring());
    Lock lock(mutex_);
    if (!tables_->typeNames.try_emplace(type, cppName, vantorName).second)
        raise<messages::DuplicateTypeInRegistry>(type->getQualifiedName());
    if (!typeidName.empty())
        if (auto *primitive = dynamic_cast<PrimitiveType::Impl *>(type.get()))
            tables_->typeidNames.emplace(typeidName, PrimitiveType::fromImpl(primitive));
}

boost::optional<std::string> MetaRegistry::getCppNameForType(Type const &type) const {
    Lock lock(mutex_);
    auto const found = tables_->typeNames.find(type);
    return found == tables_->typeNames.end() ? boost::none : boost::make_optional(found->second.first);
}

boost::optional<std::string> MetaRegistry::getVantorNameForType(Type const &type) const {
    Lock lock(mutex_);
    auto const found = tables_->typeNames.find(type);
    return found == tables_->typeNames.end() ? boost::none : boost::make_optional(found->second.second);
}

void MetaRegistry::updateTypeidName(std::string const &typeidName, PrimitiveType const &type) {
    Lock lock(mutex_);
    tables_->typeidNames.emplace(typeidName, type);
}

bool MetaRegistry::isCorrectTypeForTypeId(PrimitiveType const &type, std::string const &typeidName) const {
    if (!type)
        return false;
    Lock lock(mutex_);
    auto const [first, last] = tables_->typeidNames.equal_range(typeidName);
    if (first == last)
        return false;
    basalt::ustring const name = type->getQualifiedName();
    for (auto entry = first; entry != last; ++entry)
        if (entry->second->getQualifiedName() == name)
            return true;
    return false;
}

void MetaRegistry::updateCollectionInstantiator(Type const &type,
                                                std::unique_ptr<detail::CollectionInstantiator> instantiator) {
    if (!type)
        return;
    Lock lock(mutex_);
    auto const found = tables_->types.find(type->getQualifiedName());
    if (found == tables_->types.end() || !instantiator)
        return;
    auto &composite = found->second.instantiator;
    if (composite)
        composite->add(std::move(instantiator));
    else
        composite = std::make_unique<detail::CompositeCollectionInstantiator>(std::move(instantiator));
}

void MetaRegistry::unregisterCollectionInstantiator(Type const &type,
                                                    detail::CollectionInstantiator const *instantiator) {
    if (!type)
        return;
    Lock lock(mutex_);
    auto const found = tables_->types.find(type->getQualifiedName());
    if (found != tables_->types.end() && found->second.instantiator)
        found->second.instantiator->remove(instantiator);
}

void MetaRegistry::registerProxyFactory(Class const &cls, ProxyFactory factory) {
    Lock lock(mutex_);
    if (auto const found = tables_->recordOfType.find(cls.get()); found != tables_->recordOfType.end())
        found->second->proxyFactory = std::move(factory);
}

ModelElement MetaRegistry::instantiateProxy(Class const &cls, Model const &model, ProxyId const &proxyId) {
    ProxyFactory factory;
    {
        Lock lock(mutex_);
        if (TypeRecord const *record = tables_->recordOf(cls))
            factory = record->proxyFactory;
    }
    return factory ? factory(model, proxyId) : ModelElement();
}

std::unique_ptr<ModelElement::Builder> MetaRegistry::instantiateBuilder(Class const &cls, Model const &model) {
    BuilderFactory factory;
    {
        Lock lock(mutex_);
        if (!cls)
            return nullptr;
        if (TypeRecord const *record = tables_->recordOf(cls))
            factory = record->builderFactory;
    }
    // Called with the lock released: a factory is the metamodel's own code.
    return factory ? factory(model) : nullptr;
}

AbstractOwnedCollection *MetaRegistry::instantiateDynamicCollection(ModelElement const &owner,
                                                                    Property const &property) const {
    Lock lock(mutex_);
    Type const &type = property->getType();
    TypeRecord const *record = type ? tables_->recordOf(type) : nullptr;
    return record && record->instantiator ? record->instantiator->instantiateDynamicCollection(owner, property)
                                          : nullptr;
}

boost::optional<Value> MetaRegistry::instantiateUnmanagedCollection(Property const &property) const {
    Lock lock(mutex_);
    Type const &type = property->getType();
    TypeRecord const *record = type ? tables_->recordOf(type) : nullptr;
    if (!record || !record->instantiator)
        return boost::none;
    return record->instantiator->instantiateUnmanagedCollection(property);
}

// --- Packages ----------------------------------------------------------------------------

Package MetaRegistry::getRootPackage(std::u16string_view uri) const {
    Lock lock(mutex_);
    auto const found = tables_->rootPackages.find(uri);
    return found == tables_->rootPackages.end() ? Package() : found->second;
}

Package MetaRegistry::getRootPackage(basalt::ustring const &uri, bool load) {
    if (Package found = getRootPackage(uri); found || !load)
        return found;
    basalt::ustring const &family = parseUri(uri).second;
    if (family.empty())
        return {};
    services::MetamodelLoader::loadFamily(family);
    return getRootPackage(uri);
}

Package MetaRegistry::getPackageForFamily(basalt::ustring const &family) {
    auto const find = [&]() -> Package {
        Lock lock(mutex_);
        auto const found = tables_->familyPackages.find(family);
        return found == tables_->familyPackages.end() ? Package() : found->second;
    };
    if (Package found = find())
        return found;
    services::MetamodelLoader::loadFamily(family);
    return find();
}

bool MetaRegistry::isVersionCurrentForFamily(basalt::ustring const &uri) {
    auto const &[version, family] = parseUri(uri);
    if (family.empty())
        return false;
    Package const package = getPackageForFamily(family);
    if (!package)
        return false;
    auto const &current = parseUri(package->getUri());
    return !current.second.empty() && current.first == version;
}

void MetaRegistry::registerRootPackage(Package const &package) {
    if (!package)
        raise<messages::InvalidValue>();
    Lock lock(mutex_);
    basalt::ustring const &uri = package->getUri();
    tables_->rootPackages.try_emplace(uri, package);
    if (basalt::ustring const &family = parseUri(uri).second; !family.empty())
        tables_->familyPackages.try_emplace(family, package);
}

void MetaRegistry::unregisterRootPackage(basalt::ustring const &uri) {
    Lock lock(mutex_);
    tables_->rootPackages.erase(uri);
    if (basalt::ustring const &family = parseUri(uri).second; !family.empty())
        tables_->familyPackages.erase(family);
}

// --- Ownership converters ------------------------------------------------------------------

void MetaRegistry::registerOwnershipConverter(Type const &type, std::unique_ptr<ValueOwnershipConverter> converter) {
    Lock lock(mutex_);
    tables_->ownershipConverters.insert_or_assign(type, std::shared_ptr<ValueOwnershipConverter>(std::move(converter)));
    tables_->anyOwnershipConverter.store(true, std::memory_order_release);
}

void MetaRegistry::unregisterOwnershipConverter(Type const &type) {
    Lock lock(mutex_);
    tables_->ownershipConverters.erase(type);
    tables_->anyOwnershipConverter.store(!tables_->ownershipConverters.empty(), std::memory_order_release);
}

namespace {
template <class Tables>
std::shared_ptr<ValueOwnershipConverter> converterOf(std::recursive_mutex &mutex, Tables const &tables,
                                                     Type const &type) {
    Lock lock(mutex);
    auto const found = tables.ownershipConverters.find(type);
    return found == tables.ownershipConverters.end() ? nullptr : found->second;
}
} // namespace

Value MetaRegistry::convertValueForOwnership(Value const &value) {
    // Converters are called with the lock released; the shared pointer keeps one alive
    // against a concurrent unregistering.
    if (!tables_->anyOwnershipConverter.load(std::memory_order_acquire))
        return value;
    if (auto const converter = converterOf(mutex_, *tables_, value.getType()))
        return converter->convertValueForOwnership(value);
    return value;
}

void MetaRegistry::releaseOwnedValue(Value const &value) {
    if (!tables_->anyOwnershipConverter.load(std::memory_order_acquire))
        return;
    if (auto const converter = converterOf(mutex_, *tables_, value.getType()))
        converter->releaseOwnedValue(value);
}

// --- Endpoints -------------------------------------------------------------------------------

void MetaRegistry::registerEndpoint(Endpoint const &endpoint) {
    if (!endpoint)
        raise<messages::InvalidValue>();
    Lock lock(mutex_);
    basalt::ustring name = qualifiedNameOf(endpoint);
    if (!tables_->endpoints.try_emplace(name, endpoint).second)
        raise<messages::DuplicateTypeInRegistry>(name);
}

void MetaRegistry::unregisterEndpoint(Endpoint const &endpoint) {
    if (!endpoint)
        return;
    Lock lock(mutex_);
    if (auto const found = tables_->endpoints.find(qualifiedNameOf(endpoint));
        found != tables_->endpoints.end() && found->second == endpoint)
        tables_->endpoints.erase(found);
}

Endpoint MetaRegistry::getEndpoint(std::u16string_view name) const {
    Lock lock(mutex_);
    auto const found = tables_->endpoints.find(name);
    return found == tables_->endpoints.end() ? Endpoint() : found->second;
}

namespace internal {
PrimitiveType getPrimitiveTypeFromMetaRegistry(basalt::ustring const &name) {
    return MetaRegistry::getInstance()->getPrimitiveType(name);
}
} // namespace internal

} // namespace kivra::meta
