#include <kivra/meta/AbstractMetaPackage.hpp>

#include <kivra/ElementMap.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Argument.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Endpoint.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/Operation.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>

#include <algorithm>

namespace kivra::meta {

namespace {

boost::uuids::uuid uuidOf(char const *text) { return text ? parseUuidLiteral(text) : boost::uuids::uuid{}; }

constexpr std::uint32_t unbounded = std::uint32_t(-1);

// Readers of the frozen registry model take no lock, and a collection is made on first
// reading: make them all while the description still holds the lock.
void settle(Package const &package) {
    for (Type const &type : package->getOwnedTypes()) {
        if (auto *structured = dynamic_cast<StructuredType::Impl *>(type.get())) {
            structured->getOwnedAttributes();
            for (Operation const &operation : structured->getOwnedOperations())
                operation->getArguments();
        }
        if (auto *cls = dynamic_cast<Class::Impl *>(type.get()))
            cls->getExtensions();
        if (auto *enumeration = dynamic_cast<Enum::Impl *>(type.get()))
            enumeration->getLiterals();
    }
    package->getOwnedEndpoints();
    for (Package const &nested : package->getNestedPackages())
        settle(nested);
}

} // namespace

AbstractMetaPackage::AbstractMetaPackage() : registry_(MetaRegistry::getInstance()) {}

AbstractMetaPackage::~AbstractMetaPackage() {
    abandon();
    unregisterSerializers();
}

void AbstractMetaPackage::unregisterSerializers() noexcept {
    if (serializedTypes_.empty())
        return;
    auto &serializers = PropertySerializerRegistry::getInstance();
    for (Type const &type : serializedTypes_)
        serializers.unregisterSerializers(type);
    serializedTypes_.clear();
}

// Revertible, so that a description that fails part way leaves no element behind, and
// with the elements the types that it registered.
void AbstractMetaPackage::begin() {
    serializedTypes_.clear();
    locked_.emplace(registry_->getMetaRegistryModel());
    model_ = locked_->get();
    transaction_ = model_->beginRevertibleTransaction();
}

void AbstractMetaPackage::finish() {
    transaction_.commit();
    transaction_ = Transaction();
    for (Package const &package : packages_)
        if (!package->getParentPackage())
            settle(package);
    for (Package const &package : packages_)
        if (!package->getParentPackage())
            registry_->registerRootPackage(package);
    packages_.clear();
    locked_.reset();
}

void AbstractMetaPackage::abandon() noexcept {
    if (transaction_) // unfinished: what it registered goes with its elements
        unregisterSerializers();
    transaction_ = Transaction(); // the last handle of an open transaction rolls it back
    packages_.clear();
    locked_.reset();
}

Package AbstractMetaPackage::createPackage(basalt::ustring const &name, basalt::ustring const &uri, char const *uuid) {
    Package::Builder builder(model());
    builder.setName(name).setUri(uri);
    Package package = builder.createPackage(uuidOf(uuid));
    packages_.push_back(package);
    return package;
}

Class AbstractMetaPackage::createClass(basalt::ustring const &name, std::string const &vantorName, bool isAbstract,
                                       char const *uuid) {
    Class::Builder builder(model());
    builder.setName(name).setVantorName(vantorName).setIsAbstract(isAbstract);
    return builder.createClass(uuidOf(uuid));
}

DataType AbstractMetaPackage::createDataType(basalt::ustring const &name, std::string const &vantorName,
                                             char const *uuid) {
    DataType::Builder builder(model());
    builder.setName(name).setVantorName(vantorName);
    return builder.createDataType(uuidOf(uuid));
}

Enum AbstractMetaPackage::createEnum(basalt::ustring const &name, char const *uuid) {
    Enum::Builder builder(model());
    builder.setName(name);
    return builder.createEnum(uuidOf(uuid));
}

EnumLiteral AbstractMetaPackage::createEnumLiteral(basalt::ustring const &name, int value, char const *uuid) {
    EnumLiteral::Builder builder(model());
    builder.setName(name).setValue(value);
    return builder.createEnumLiteral(uuidOf(uuid));
}

Property AbstractMetaPackage::createProperty(basalt::ustring const &name, ValueFlags shape, bool isComposite,
                                             char const *uuid) {
    bool const single = shape == ValueFlags::Optional || shape == ValueFlags::Single;
    Property::Builder builder(model());
    builder.setName(name)
        .setLower(shape == ValueFlags::Single ? 1 : 0)
        .setUpper(single ? 1 : unbounded)
        .setIsOrdered(single || shape == ValueFlags::Sequence)
        .setIsHashed(shape == ValueFlags::HashSet || shape == ValueFlags::HashMap || shape == ValueFlags::HashMultimap)
        .setIsUnique(single || shape == ValueFlags::Sequence || shape == ValueFlags::Map ||
                     shape == ValueFlags::Multimap)
        .setIsQualificationUnique(shape != ValueFlags::Multimap && shape != ValueFlags::HashMultimap)
        .setIsComposite(isComposite);
    return builder.createProperty(uuidOf(uuid));
}

Operation AbstractMetaPackage::createOperation(basalt::ustring const &name, char const *uuid, bool returns, bool many) {
    Operation::Builder builder(model());
    builder.setName(name).setLower(0).setUpper(!returns ? 0 : many ? unbounded : 1).setIsOrdered(returns && !many);
    return builder.createOperation(uuidOf(uuid));
}

Argument AbstractMetaPackage::createArgument(basalt::ustring const &name, char const *uuid, bool isOrdered, bool many) {
    Argument::Builder builder(model());
    builder.setName(name).setLower(many ? 0 : 1).setUpper(many ? unbounded : 1).setIsOrdered(isOrdered || !many);
    return builder.createArgument(uuidOf(uuid));
}

Endpoint AbstractMetaPackage::createEndpoint(basalt::ustring const &name, char const *uuid) {
    Endpoint::Builder builder(model());
    builder.setName(name);
    return builder.createEndpoint(uuidOf(uuid));
}

void AbstractMetaPackage::claimSerializedType(PropertySerializerRegistry &serializers, Type const &type) {
    if (std::find(serializedTypes_.begin(), serializedTypes_.end(), type) != serializedTypes_.end())
        return;
    serializers.unregisterSerializers(type); // left by an earlier description of this type
    serializedTypes_.push_back(type);
}

void AbstractMetaPackage::registerPropertySerializer(PropertySerializerRegistry &serializers, Type const &type,
                                                     std::unique_ptr<PropertySerializer> serializer,
                                                     std::string_view flavour) {
    claimSerializedType(serializers, type);
    serializers.registerPropertySerializer(type, std::move(serializer), flavour);
}

void AbstractMetaPackage::registerDatatypeSerializer(PropertySerializerRegistry &serializers, DataType const &type,
                                                     std::unique_ptr<DatatypeSerializer> serializer) {
    claimSerializedType(serializers, type);
    serializers.registerDatatypeSerializer(type, std::move(serializer));
}

void AbstractMetaPackage::setPropertyIndex(Property const &property, int index) { property->setPropertyIndex(index); }

void AbstractMetaPackage::setDefaultVantorCategory(Package const &package, std::string const &category) {
    package->setDefaultVantorCategory(category);
}

void AbstractMetaPackage::setVantorClassName(StructuredType const &type, std::string const &name) {
    type->setVantorName(name);
}

void AbstractMetaPackage::setVantorCompactDisplay(StructuredType const &type, bool compact) {
    type->setVantorCompactDisplay(compact);
}

void AbstractMetaPackage::setVantorDispCategory(Property const &property, std::string const &category) {
    property->setVantorDispCategory(category);
}

void AbstractMetaPackage::setVantorDispSkipEmpty(Property const &property, bool skip) {
    property->setVantorDispSkipEmpty(skip);
}

} // namespace kivra::meta
