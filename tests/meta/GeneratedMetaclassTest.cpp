#include <library/LibraryPackage.hpp>
#include <library/Novel.hpp>

#include <kivra/PrimitiveCollection.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataModelUsageProvider.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/VersionInfo.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <type_traits>

namespace kivra::meta {
namespace {

static_assert(std::is_convertible_v<Class, Type> && std::is_convertible_v<Class, ModelElement>,
              "metaclass handles convert up their class chain");
static_assert(!std::is_convertible_v<Type, Class> && !std::is_convertible_v<Property, Type>,
              "and never down or across");
static_assert(Property::Impl::propertyCount == 26 && Class::Impl::propertyCount == 12 &&
                  Package::Impl::propertyCount == 9,
              "indices continue along the class chain");

// The descriptive closure of a model takes in the packages that its packages import, by
// family, as far as the registry knows them.
TEST(GeneratedMetaclass, ThePackageClosureFollowsImports) {
    struct Uses : DataModelUsageProvider {
        std::vector<Package> used;
        std::vector<Package> getUsedPackages() const override { return used; }
        ModelContent getModelContent() const override { return ModelContent::DeclaredReified; }
    };
    Model descriptions = Model::createTransientModel();
    Package const importer = Package::create(descriptions);
    importer->setUri(u"urn:importer");
    Package::Builder builder(descriptions);
    Package const plain = builder.setUri(u"urn:plain").addImportedPackages(VersionInfo(u"unknown-family", u"1")).createPackage();
    importer->getImportedPackagesMutable().add(VersionInfo(u"library", u"1"));
    basalt::ustring const library = kivra::test::library::LibraryPackage::getInstance().getPackage()->getUri();
    ASSERT_EQ(MetaRegistry::getInstance()->getPackageForFamily(u"library")->getUri(), library);

    Model model = Model::createTransientModel();
    auto uses = std::make_unique<Uses>();
    uses->used = {importer, plain, importer};
    model->setUsageProvider(std::move(uses));
    EXPECT_EQ(model->getDescriptivePackageURIClosure(),
              (std::set<std::u16string>{u"urn:importer", u"urn:plain", std::u16string(library)}));
}

// A model uses the packages along the classes of its live elements, each package once, and
// no longer one whose elements are all gone.
TEST(GeneratedMetaclass, AModelUsesThePackagesOfItsLiveElements) {
    using test::library::Novel;
    Model model = Model::createTransientModel();
    auto const uris = [&] {
        std::multiset<std::u16string> found;
        for (Package const &package : model->getUsedPackages())
            found.insert(std::u16string(package->getUri()));
        return found;
    };
    std::u16string const library(test::library::LibraryPackage::getInstance().getPackage()->getUri());
    Novel const first = Novel::create(model);
    Novel const second = Novel::create(model);
    Package const described = Package::create(model);
    std::u16string const meta(described->getMetaClass()->getOwningPackage()->getUri());
    ASSERT_NE(meta, library);
    EXPECT_EQ(uris(), (std::multiset<std::u16string>{library, meta}));
    first->destroy();
    EXPECT_EQ(uris(), (std::multiset<std::u16string>{library, meta}));
    second->destroy();
    EXPECT_EQ(uris(), (std::multiset<std::u16string>{meta}));
}

} // namespace
} // namespace kivra::meta
