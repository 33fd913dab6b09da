#include "meta/StandardSerializers.hpp"

#include <kivra/meta/MetaPackageMeta.hpp>

#include <kivra/ElementMap.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include <array>

namespace kivra::meta {

namespace {

char const *const rootUuid = "83420365-c799-3b21-8efd-43817abf0909";
char const *const kivraModelUuid = "760b0b3b-ea5e-39c8-84d2-2d07e7c6e756";

basalt::ustring const &rootUri() {
    static basalt::ustring const uri = MetaRegistry::composeUri(u"19700101", u"meta");
    return uri;
}

MetaPackageMeta *instance = nullptr;

// The classes of models, constellations and elements are made before this description,
// each by its own `initializeType`, under their bare names; here they join `kivra`.
std::array<Class const *, 3> coreClasses() {
    return {&Model::metaClass(), &ModelConstellation::metaClass(), &ModelElement::metaClass()};
}

} // namespace

MetaPackageMeta &MetaPackageMeta::getInstance() {
    MetaRegistry::getInstance(); // builds this description on its first call
    return *instance;
}

MetaPackageMeta::MetaPackageMeta() {
    instance = this;
    initialize();
    // Readers find these collections made, as they find those of every described class.
    for (Class const *cls : coreClasses())
        (*cls)->getOwnedAttributes();
}

MetaPackageMeta::~MetaPackageMeta() {
    for (auto &cleanup : cleanups_)
        cleanup();
    auto &serializers = PropertySerializerRegistry::getInstance();
    for (Package const &package : {package_, kivra_})
        if (package && package->isValid())
            for (Type const &type : package->getOwnedTypes()) {
                serializers.unregisterSerializers(type);
                registry().unregisterType(type, type->getQualifiedName());
            }
    if (instance == this)
        instance = nullptr;
}

void MetaPackageMeta::addCleanup(std::function<void()> cleanup) { cleanups_.push_back(std::move(cleanup)); }

void MetaPackageMeta::initialize() {
    MetaRegistry *const registry = &this->registry();
    PropertySerializerRegistry *const serializers = &PropertySerializerRegistry::getInstance();
    MetaRegistry::LockedModel locked = registry->getMetaRegistryModel();
    // Initialization is repeatable: what an earlier run made goes first, as one change.
    if (ModelElement const old = locked->findElement(parseUuidLiteral(rootUuid)); old.get()) {
        Transaction transaction = locked->beginTransaction();
        registry->unregisterRootPackage(Package::fromImpl(static_cast<Package::Impl *>(old.get()))->getUri());
        old->destroy();
        transaction.commit();
    }
    begin();
    try {
        root_ = createPackage(u"", rootUri(), rootUuid);
        instantiate_kivra(registry);
        instantiate_kivra_meta(registry);
        weave_kivra(registry, serializers);
        weave_kivra_meta(registry, serializers);
        finish();
    } catch (...) {
        abandon();
        throw;
    }
}

void MetaPackageMeta::instantiate_kivra(MetaRegistry *registry) {
    kivra_ = createPackage(u"kivra", rootUri() + u"/kivra");
    PrimitiveType::Builder builder(model());
    builder.setName(u"KivraModel");
    kivraModel_ = builder.createPrimitiveType(parseUuidLiteral(kivraModelUuid));
    // After a repeated initialization these were destroyed with the old package tree.
    Model::initializeType(*registry);
    ModelConstellation::initializeType(*registry);
    ModelElement::initializeType(*registry);
}

void MetaPackageMeta::weave_kivra(MetaRegistry *registry, PropertySerializerRegistry *serializers) {
    kivra_->setParentPackage(root_);
    for (Class const *cls : coreClasses()) {
        basalt::ustring const bareName = (*cls)->getName();
        (*cls)->setOwningPackage(kivra_);
        registry->unregisterType(*cls, bareName);
        registry->registerType(*cls);
    }
    kivraModel_->setOwningPackage(kivra_);
    registry->registerType(kivraModel_);
    registerPropertySerializer(*serializers, kivraModel_, detail::makeTransientOnlyModelSerializer(), "");
}

namespace detail {

Class const &initializeCoreClass(MetaRegistry &registry, Class &slot, char const *uuid, basalt::ustring const &name,
                                 std::string const &vantorName) {
    boost::uuids::uuid const id = parseUuidLiteral(uuid);
    MetaRegistry::LockedModel locked = registry.getMetaRegistryModel();
    if (slot && slot->isValid())
        return slot;
    Transaction transaction = locked->beginTransaction();
    Class::Builder builder(locked.get());
    builder.setName(name).setVantorName(vantorName);
    slot = builder.createClass(id);
    registry.registerType(slot);
    transaction.commit();
    return slot;
}

} // namespace detail

} // namespace kivra::meta
