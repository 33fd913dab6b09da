#include <kivra/meta/AbstractMetaPackage.hpp>

#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>

namespace kivra::meta {

// Revertible, so that a description that fails part way leaves no element behind, and
// with the elements the types that it registered.
AbstractMetaPackage::AbstractMetaPackage()
    : registry_(MetaRegistry::getInstance()), locked_(registry_->getMetaRegistryModel()), model_(locked_->get()),
      transaction_(model_->beginRevertibleTransaction()) {}

void AbstractMetaPackage::finish() {
    transaction_.commit();
    transaction_ = Transaction();
    for (Package const &package : packages_)
        if (!package->getParentPackage())
            registry_->registerRootPackage(package);
    packages_.clear();
    locked_.reset();
}

Package AbstractMetaPackage::createPackage(basalt::ustring const &name, basalt::ustring const &uri) {
    Package package = Package::create(model());
    package->setName(name);
    package->setUri(uri);
    packages_.push_back(package);
    return package;
}

Class AbstractMetaPackage::createClass(basalt::ustring const &name, std::string const &vantorName, bool isAbstract,
                                       char const *uuid) {
    Class cls = Class::create(model(), parseUuidLiteral(uuid));
    cls->setName(name);
    cls->setVantorName(vantorName);
    cls->setIsAbstract(isAbstract);
    return cls;
}

Property AbstractMetaPackage::createProperty(basalt::ustring const &name, ValueFlags shape, bool isComposite,
                                             char const *uuid) {
    Property property = Property::create(model(), parseUuidLiteral(uuid));
    property->setName(name);
    bool const single = shape == ValueFlags::Optional || shape == ValueFlags::Single;
    property->setLower(shape == ValueFlags::Single ? 1 : 0);
    property->setUpper(single ? 1 : std::uint32_t(-1));
    property->setIsOrdered(single || shape == ValueFlags::Sequence);
    property->setIsHashed(shape == ValueFlags::HashSet || shape == ValueFlags::HashMap ||
                          shape == ValueFlags::HashMultimap);
    property->setIsUnique(single || shape == ValueFlags::Sequence || shape == ValueFlags::Map ||
                          shape == ValueFlags::Multimap);
    property->setIsQualificationUnique(shape != ValueFlags::Multimap && shape != ValueFlags::HashMultimap);
    property->setIsComposite(isComposite);
    return property;
}

void AbstractMetaPackage::setPropertyIndex(Property const &property, int index) { property->setPropertyIndex(index); }

} // namespace kivra::meta
