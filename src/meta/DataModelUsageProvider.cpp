#include <kivra/meta/DataModelUsageProvider.hpp>

#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>

#include <algorithm>

namespace kivra::meta {

std::vector<std::u16string> DataModelUsageProvider::getUsedPackageUris() const {
    std::vector<std::u16string> uris;
    for (Package const &package : getUsedPackages())
        uris.push_back(package->getUri());
    return uris;
}

std::vector<Package> MetaRegistryUsageProvider::getUsedPackages() const {
    Package const root = registry_.getRootPackage(MetaRegistry::composeUri(u"19700101", u"meta"));
    return root ? std::vector<Package>{root} : std::vector<Package>{};
}

std::vector<Package> DefaultModelUsageProvider::getUsedPackages() const {
    std::vector<Package> used;
    Class const &root = ModelElement::metaClass();
    for (auto const &[metaClass, live] : counts_) {
        if (live == 0)
            continue;
        for (Class cls = metaClass; cls.get() && cls != root; cls = cls->getSuperclass())
            if (Package const package = cls->getOwningPackage();
                package.get() && std::find(used.begin(), used.end(), package) == used.end())
                used.push_back(package);
    }
    return used;
}

void DefaultModelUsageProvider::count(ModelElement::Impl const *element, int delta) {
    // One counter per class, found by the class's address in the common run of one class:
    // creating an element costs an addition, and the packages are walked only when asked.
    Class const &metaClass = element->getMetaClass();
    if (metaClass.get() != lastClass_ || !lastClass_) [[unlikely]] {
        lastCounter_ = &counts_[metaClass];
        lastClass_ = metaClass.get();
    }
    *lastCounter_ += delta;
}

void DefaultModelUsageProvider::elementDestroying(ModelElement::Impl *element) { count(element, -1); }

void DefaultModelUsageProvider::elementCreated(ModelElement::Impl *element) {
    count(element, +1);
    bool const reflective = element->isReflective();
    if (content_ == ModelContent::Undetermined) {
        auto const inferred = reflective ? ModelContent::InferredReflective : ModelContent::InferredReified;
        if (auto *constellation = element->getModelImpl()->constellationImpl(); constellation && constellation->isValid())
            constellation->debug_validateModelContent(inferred);
        content_ = inferred;
    }
    bool const reflectiveModel = content_ == ModelContent::InferredReflective || content_ == ModelContent::DeclaredReflective;
    if (reflective && !reflectiveModel)
        raise<messages::InvalidReflectiveModelContent>();
    if (!reflective && reflectiveModel)
        raise<messages::InvalidReifiedModelContent>();
}

void DefaultModelUsageProvider::allElementsDestroyed() {
    lastClass_ = nullptr;
    lastCounter_ = nullptr;
    counts_.clear();
    if (content_ != ModelContent::DeclaredReified && content_ != ModelContent::DeclaredReflective)
        content_ = ModelContent::Undetermined;
}

} // namespace kivra::meta
