#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include "meta/StandardSerializers.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/Type.hpp>
#include <kivra/services/Hashers.hpp>

#include <absl/container/flat_hash_map.h>

#include <boost/optional/optional.hpp>

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace kivra::meta {

namespace {

using UuidHasher = services::hashers::KivraHasher<boost::uuids::uuid>;

struct Flavoured {
    std::string flavour;
    std::unique_ptr<PropertySerializer> serializer;
};

/// The key of a type's entries: the same type met through two handles is one key.
boost::uuids::uuid const &typeToUuid(Type const &type) { return type->getUuid(); }

basalt::ustring qualifiedName(Type const &type) { return type ? type->getQualifiedName() : basalt::ustring(); }

bool isPrimitive(Type const &type) { return dynamic_cast<PrimitiveType::Impl *>(type.get()) != nullptr; }

/// The registry's type of the same qualified name, when it is another handle than `type`.
Type registeredNamesake(Type const &type) {
    Type const registered = MetaRegistry::getInstance()->getType(type->getQualifiedName());
    return registered && registered != type ? registered : Type();
}

/// True for an enum that lives outside the registry model: one of a model loaded at run
/// time, with no generated serializers of its own.
bool isReflectiveEnum(Type const &type) {
    if (!kivra::internal::isEnumType(type))
        return false;
    // The registry's lock is held only for the comparison and released before the
    // serializers' lock is taken.
    auto const locked = MetaRegistry::getInstance()->getFrozenMetaRegistryModel();
    return type->getModelImpl() != locked.get().get();
}

} // namespace

struct PropertySerializerRegistry::Tables {
    mutable std::shared_mutex lock;
    absl::flat_hash_map<boost::uuids::uuid, std::vector<Flavoured>, UuidHasher> propertySerializers;
    absl::flat_hash_map<boost::uuids::uuid, std::unique_ptr<DatatypeSerializer>, UuidHasher> datatypeSerializers;
    std::map<std::string, std::unique_ptr<PropertySerializer>, std::less<>> reflectiveEnumSerializers;

    /// Under the lock.
    PropertySerializer const *find(Type const &type, std::string_view flavour) const {
        auto const entries = propertySerializers.find(typeToUuid(type));
        if (entries == propertySerializers.end())
            return nullptr;
        for (Flavoured const &entry : entries->second)
            if (entry.flavour == flavour)
                return entry.serializer.get();
        return nullptr;
    }
};

PropertySerializerRegistry &PropertySerializerRegistry::getInstance() {
    // The metamodel's description registers serializers while it is built, and this
    // registry names the standard types: the metamodel comes first, outside this static.
    detail::ensureDescribed();
    // Never destroyed: values and models that outlive static destruction still format.
    static PropertySerializerRegistry *const instance = new PropertySerializerRegistry();
    return *instance;
}

PropertySerializerRegistry::PropertySerializerRegistry() : tables_(std::make_unique<Tables>()) { initialize(); }

PropertySerializerRegistry::~PropertySerializerRegistry() = default;

void PropertySerializerRegistry::initialize() {
    // The standard types are asked for before the lock is taken: building them takes the
    // `MetaRegistry` mutex, which never comes after this registry's lock.
    std::vector<detail::StandardSerializer> rows = detail::makeStandardSerializers();
    for (detail::StandardSerializer &row : rows)
        registerPropertySerializer(row.type, std::move(row.serializer), row.flavour);
    auto reflective = detail::makeReflectiveEnumSerializers();
    std::unique_lock const lock(tables_->lock);
    for (auto &[flavour, serializer] : reflective)
        tables_->reflectiveEnumSerializers.emplace(flavour, std::move(serializer));
}

void PropertySerializerRegistry::registerPropertySerializer(Type const &type,
                                                            std::unique_ptr<PropertySerializer> serializer,
                                                            std::string_view flavour) {
    if (!type)
        raise<messages::InvalidValue>();
    {
        std::unique_lock const lock(tables_->lock);
        if (!tables_->find(type, flavour)) {
            tables_->propertySerializers[typeToUuid(type)].push_back({std::string(flavour), std::move(serializer)});
            return;
        }
    }
    // The name is read outside the lock: naming a type may ask the `MetaRegistry`.
    serializer.reset();
    raise<messages::DuplicateTypeInRegistry>(qualifiedName(type));
}

void PropertySerializerRegistry::registerDatatypeSerializer(DataType const &type,
                                                            std::unique_ptr<DatatypeSerializer> serializer) {
    if (!type)
        raise<messages::InvalidValue>();
    {
        std::unique_lock const lock(tables_->lock);
        auto [slot, inserted] = tables_->datatypeSerializers.try_emplace(typeToUuid(type));
        if (inserted) {
            slot->second = std::move(serializer);
            return;
        }
    }
    serializer.reset();
    raise<messages::DuplicateTypeInRegistry>(qualifiedName(type));
}

void PropertySerializerRegistry::unregisterPropertySerializer(Type const &type, std::string_view flavour) {
    if (!type)
        return;
    std::unique_ptr<PropertySerializer> removed; // destroyed after the lock is given up
    std::unique_lock const lock(tables_->lock);
    auto const entries = tables_->propertySerializers.find(typeToUuid(type));
    if (entries == tables_->propertySerializers.end())
        return;
    auto &list = entries->second;
    for (auto entry = list.begin(); entry != list.end(); ++entry) {
        if (entry->flavour == flavour) {
            removed = std::move(entry->serializer);
            list.erase(entry);
            break;
        }
    }
    if (list.empty())
        tables_->propertySerializers.erase(entries);
}

void PropertySerializerRegistry::unregisterSerializers(Type const &type) {
    if (!type)
        return;
    std::unique_lock const lock(tables_->lock);
    tables_->propertySerializers.erase(typeToUuid(type));
    tables_->datatypeSerializers.erase(typeToUuid(type));
}

PropertySerializer const *PropertySerializerRegistry::getPropertySerializerForTypeOnly(Type const &type,
                                                                                      std::string_view flavour) const {
    if (!type)
        return nullptr;
    std::shared_lock const lock(tables_->lock);
    return tables_->find(type, flavour);
}

PropertySerializer const *PropertySerializerRegistry::getPropertySerializer(Type const &type,
                                                                           std::string_view flavour) const {
    if (!type)
        return nullptr;
    if (isReflectiveEnum(type)) {
        std::shared_lock const lock(tables_->lock);
        auto const hit = tables_->reflectiveEnumSerializers.find(flavour);
        if (hit != tables_->reflectiveEnumSerializers.end())
            return hit->second.get();
    }
    if (PropertySerializer const *serializer = getPropertySerializerForTypeOnly(type, flavour))
        return serializer;
    // A model's own copy of a primitive type meets the serializers of the registry's type.
    if (isPrimitive(type))
        if (Type const namesake = registeredNamesake(type))
            return getPropertySerializerForTypeOnly(namesake, flavour);
    return nullptr;
}

DatatypeSerializer const *PropertySerializerRegistry::getDatatypeSerializer(DataType const &type) const {
    if (!type)
        return nullptr;
    std::shared_lock const lock(tables_->lock);
    auto const hit = tables_->datatypeSerializers.find(typeToUuid(type));
    return hit == tables_->datatypeSerializers.end() ? nullptr : hit->second.get();
}

void PropertySerializerRegistry::visitPropertySerializers(Type const &type, Visitor const &visitor) const {
    if (!type)
        return;
    bool const reflectiveEnum = isReflectiveEnum(type);
    std::vector<PropertySerializer const *> serializers;
    {
        std::shared_lock const lock(tables_->lock);
        if (reflectiveEnum) {
            for (auto const &[flavour, serializer] : tables_->reflectiveEnumSerializers)
                serializers.push_back(serializer.get());
        } else if (auto const entries = tables_->propertySerializers.find(typeToUuid(type));
                   entries != tables_->propertySerializers.end()) {
            for (Flavoured const &entry : entries->second)
                serializers.push_back(entry.serializer.get());
        }
    }
    for (PropertySerializer const *serializer : serializers)
        if (!visitor(*serializer))
            return;
    if (Type const namesake = registeredNamesake(type))
        visitPropertySerializers(namesake, visitor);
}

boost::optional<Value> PropertySerializerRegistry::parseDefaultValue(Type const &type, basalt::ustring const &text) const {
    boost::optional<Value> result;
    visitPropertySerializers(type, [&](PropertySerializer const &serializer) {
        try {
            result = serializer.parseValue(text, type);
            return false;
        } catch (std::exception const &) {
            return true; // written in another flavour, perhaps
        }
    });
    return result;
}

} // namespace kivra::meta
