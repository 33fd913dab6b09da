#include <kivra/meta/MetaRegistry.hpp>

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataModelUsageProvider.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

namespace kivra::meta {

std::size_t MetaRegistry::TypeHash::operator()(Type const &type) const noexcept {
    return std::hash<ModelElement>()(type);
}

MetaRegistry *MetaRegistry::getInstance() {
    // Never destroyed: the metamodel outlives every model that names its types.
    static MetaRegistry *const instance = new MetaRegistry();
    return instance;
}

MetaRegistry::MetaRegistry()
    : model_(Model::createRegistryModel(u"registry@registry://metaRegistry/model", ModelSpec().setModelReified())) {
    Transaction transaction = model_->beginTransaction();
    initialize();
    transaction.commit();
}

void MetaRegistry::initialize() {
    std::lock_guard lock(mutex_);
    StandardTypes::initializeTypes(*this);
    initialized_ = true;
}

MetaRegistry::LockedModel::LockedModel(MetaRegistry &registry) : lock_(registry.mutex_), model_(registry.model_) {}

MetaRegistry::LockedModel MetaRegistry::getMetaRegistryModel() { return LockedModel(*this); }

// --- URIs --------------------------------------------------------------------------------

basalt::ustring const &MetaRegistry::uriPrefix() {
    static basalt::ustring const prefix = u"http://schema.kivra.org/kivra/";
    return prefix;
}

basalt::ustring MetaRegistry::composeUri(basalt::ustring const &version, basalt::ustring const &family) {
    return uriPrefix() + family + u'/' + version;
}

std::pair<basalt::ustring, basalt::ustring> MetaRegistry::parseUri(basalt::ustring const &uri) {
    // Every document asks this of its package URIs: remember the answers, per thread so
    // that no lock is taken.
    thread_local std::unordered_map<basalt::ustring, std::pair<basalt::ustring, basalt::ustring>,
                                    services::hashers::KivraHasher<basalt::ustring>>
        cache;
    if (auto const found = cache.find(uri); found != cache.end())
        return found->second;
    std::pair<basalt::ustring, basalt::ustring> result;
    basalt::ustring const &prefix = uriPrefix();
    if (uri.starts_with(prefix)) {
        auto const familyEnd = uri.find(u'/', prefix.size());
        if (familyEnd != basalt::ustring::npos) {
            auto const versionEnd = uri.find(u'/', familyEnd + 1);
            result.second = uri.substr(prefix.size(), familyEnd - prefix.size());
            result.first = uri.substr(familyEnd + 1, versionEnd == basalt::ustring::npos
                                                         ? basalt::ustring::npos
                                                         : versionEnd - familyEnd - 1);
        }
    }
    cache.emplace(uri, result);
    return result;
}

bool MetaRegistry::isValidUri(basalt::ustring const &uri) {
    auto const [version, family] = parseUri(uri);
    return !version.empty() && !family.empty();
}

// --- Types -------------------------------------------------------------------------------

Type MetaRegistry::fetchType(basalt::ustring const &name, bool load) {
    std::lock_guard lock(mutex_);
    if (auto const found = types_.find(name); found != types_.end())
        return found->second.type;
    if (name == u"meta.Model")
        return Model::metaClass();
    if (name == u"meta.ModelElement")
        return ModelElement::metaClass();
    if (!load)
        return {};
    // No metamodel loader knows more names yet: remember the miss, so that the name is
    // not asked for again.
    return types_.emplace(name, TypeRecord{}).first->second.type;
}

Type MetaRegistry::getType(basalt::ustring const &name) { return fetchType(name, true); }
Type MetaRegistry::getTypeNoLoad(basalt::ustring const &name) { return fetchType(name, false); }

Class MetaRegistry::getClass(basalt::ustring const &name) {
    Type const type = getType(name);
    return Class::fromImpl(dynamic_cast<Class::Impl *>(type.get()));
}

PrimitiveType MetaRegistry::getPrimitiveType(basalt::ustring const &name) {
    Type const type = getType(name);
    return PrimitiveType::fromImpl(dynamic_cast<PrimitiveType::Impl *>(type.get()));
}

void MetaRegistry::registerType(Type const &type, std::unique_ptr<detail::CollectionInstantiator> instantiator) {
    std::lock_guard lock(mutex_);
    basalt::ustring name = type->getQualifiedName();
    TypeRecord record{type, {}, {}};
    if (instantiator)
        record.instantiators.push_back(std::move(instantiator));
    if (!types_.emplace(name, std::move(record)).second)
        raise<messages::DuplicateTypeInRegistry>(name);
}

void MetaRegistry::updateCollectionInstantiator(Type const &type,
                                                std::unique_ptr<detail::CollectionInstantiator> instantiator) {
    std::lock_guard lock(mutex_);
    if (auto const found = types_.find(type->getQualifiedName()); found != types_.end())
        found->second.instantiators.push_back(std::move(instantiator));
}

void MetaRegistry::registerProxyFactory(Class const &cls, ProxyFactory factory) {
    std::lock_guard lock(mutex_);
    if (auto const found = types_.find(cls->getQualifiedName()); found != types_.end() && found->second.type == cls)
        found->second.proxyFactory = std::move(factory);
}

ModelElement MetaRegistry::instantiateProxy(Class const &cls, Model const &model, ProxyId const &proxyId) {
    ProxyFactory factory;
    {
        std::lock_guard lock(mutex_);
        if (auto const found = types_.find(cls->getQualifiedName()); found != types_.end() && found->second.type == cls)
            factory = found->second.proxyFactory;
    }
    return factory ? factory(model, proxyId) : ModelElement();
}

boost::optional<Value> MetaRegistry::instantiateUnmanagedCollection(Property const &property) {
    std::lock_guard lock(mutex_);
    Type const type = property->getType();
    if (!type.get())
        return boost::none;
    auto const found = types_.find(type->getQualifiedName());
    if (found == types_.end() || found->second.type != type)
        return boost::none;
    for (auto const &instantiator : found->second.instantiators)
        if (auto value = instantiator->instantiateUnmanagedCollection(property))
            return value;
    return boost::none;
}

void MetaRegistry::unregisterType(Type const &type, basalt::ustring const &name) {
    std::lock_guard lock(mutex_);
    if (auto const found = types_.find(name); found != types_.end() && found->second.type == type)
        types_.erase(found);
}

void MetaRegistry::registerTypeNames(Type const &type, std::string const &cppName, std::string const &vantorName,
                                     std::string const &typeidName) {
    std::lock_guard lock(mutex_);
    if (!typeNames_.emplace(type, std::make_pair(cppName, vantorName)).second)
        raise<messages::DuplicateTypeInRegistry>(type->getQualifiedName());
    if (!typeidName.empty())
        if (auto *primitive = dynamic_cast<PrimitiveType::Impl *>(type.get()))
            typeidNames_.emplace(typeidName, PrimitiveType::fromImpl(primitive));
}

boost::optional<std::string> MetaRegistry::getCppNameForType(Type const &type) {
    std::lock_guard lock(mutex_);
    auto const found = typeNames_.find(type);
    return found == typeNames_.end() ? boost::none : boost::make_optional(found->second.first);
}

boost::optional<std::string> MetaRegistry::getVantorNameForType(Type const &type) {
    std::lock_guard lock(mutex_);
    auto const found = typeNames_.find(type);
    return found == typeNames_.end() ? boost::none : boost::make_optional(found->second.second);
}

void MetaRegistry::updateTypeidName(std::string const &typeidName, PrimitiveType const &type) {
    std::lock_guard lock(mutex_);
    typeidNames_.emplace(typeidName, type);
}

bool MetaRegistry::isCorrectTypeForTypeId(PrimitiveType const &type, std::string const &typeidName) {
    std::lock_guard lock(mutex_);
    auto const name = type->getQualifiedName();
    auto const [first, last] = typeidNames_.equal_range(typeidName);
    for (auto entry = first; entry != last; ++entry)
        if (entry->second->getQualifiedName() == name)
            return true;
    return false;
}

namespace internal {
PrimitiveType getPrimitiveTypeFromMetaRegistry(basalt::ustring const &name) {
    return MetaRegistry::getInstance()->getPrimitiveType(name);
}
} // namespace internal

} // namespace kivra::meta
