#include "RegistryFixtures.hpp"

#include <kivra/ElementMap.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/meta/StructuredType.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace kivra::meta {
namespace {

using test::registry;
using test::SamplePackage;
using test::uniqueName;

struct NoBuilder : ModelElement::Builder {
    NoBuilder() : Builder(Model(), 1) {}
    meta::Class const &getMetaClass() const override { return ModelElement::metaClass(); }
    ModelElement doCreate(bool, boost::uuids::uuid const &) override { return {}; }
};

// Readers look types up, parse package URIs, make collections and builders and read the
// frozen metamodel while one thread describes and registers packages. Run under
// ThreadSanitizer, a lock missing on any of these paths shows as a race.
TEST(MetaRegistryConcurrency, ReadersRunWhileAPackageRegisters) {
    constexpr int readers = 3;
    constexpr int packages = 20;
    Property const numbers = test::makeProperty(u"numbers", StandardTypes::integerMeta, /*ordered=*/true);
    Property const texts = test::makeProperty(u"texts", StandardTypes::stringMeta, /*ordered=*/false);
    SamplePackage const built(uniqueName(u"concurrentBuilt"), {u"Made"},
                              {.factory = [](Model const &) { return std::make_unique<NoBuilder>(); }});
    Class const made = built.classes.at(0);
    basalt::ustring const madeName = made->getQualifiedName();

    basalt::ustring const family = uniqueName(u"concurrent");
    std::vector<basalt::ustring> uris;
    for (int i = 0; i < packages; ++i) {
        std::string const version = std::to_string(i);
        uris.push_back(MetaRegistry::composeUri(basalt::ustring(version.begin(), version.end()), family));
    }

    std::atomic<bool> done = false;
    std::atomic<int> failures = 0;
    auto read = [&](int seed) {
        Model const model = Model::createTransientModel();
        for (int round = 0; !done || round < 50; ++round) {
            basalt::ustring const &uri = uris[(round + seed) % packages];
            auto const &[version, parsedFamily] = MetaRegistry::parseUri(uri);
            if (parsedFamily != family || version.empty() || !MetaRegistry::isValidUri(uri))
                ++failures;
            // Registered or not yet: either a package of the family or nothing.
            if (Package const package = registry().getRootPackage(uri); package && package->getUri() != uri)
                ++failures;
            if (registry().getType(u"Integer") != StandardTypes::integerMeta ||
                registry().getPrimitiveType(u"Boolean") != StandardTypes::booleanMeta ||
                registry().getClass(madeName) != made)
                ++failures;
            registry().getTypeNoLoad(SamplePackage::nameOf(family, u"C") + u"0");
            if (!registry().instantiateUnmanagedCollection(round % 2 ? numbers : texts))
                ++failures;
            if (!registry().instantiateBuilder(made, model))
                ++failures;
            if (!registry().isCorrectTypeForTypeId(StandardTypes::integerMeta, typeid(int).name()))
                ++failures;
            // The metamodel that was there before is read without any lock.
            if (numbers->getType() != StandardTypes::integerMeta || !numbers->getIsOrdered() ||
                made->getQualifiedName() != madeName)
                ++failures;
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < readers; ++i)
        threads.emplace_back(read, i);
    std::vector<std::unique_ptr<SamplePackage>> registered;
    for (int i = 0; i < packages; ++i) {
        std::string const version = std::to_string(i);
        registered.push_back(std::make_unique<SamplePackage>(
            family, std::vector<basalt::ustring>{u"C" + basalt::ustring(version.begin(), version.end())},
            SamplePackage::Options{.version = basalt::ustring(version.begin(), version.end())}));
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();

    EXPECT_EQ(failures, 0);
    for (int i = 0; i < packages; ++i) {
        EXPECT_EQ(registry().getRootPackage(uris[i]), registered[i]->package);
        EXPECT_EQ(registry().getClass(registered[i]->classes.at(0)->getQualifiedName()), registered[i]->classes.at(0));
    }
    EXPECT_EQ(registry().getPackageForFamily(family), registered.front()->package);
}

// Classes described before are read on other threads while the registry is thawed for a
// writer that makes elements: the collections that those readers make on first use must
// come from memory the writer does not carve at the same time.
TEST(MetaRegistryConcurrency, ReadersMakeCollectionsWhileTheWriterMakesElements) {
    constexpr int readers = 3;
    constexpr int classes = 3000;
    std::vector<basalt::ustring> names;
    for (int i = 0; i < classes; ++i) {
        std::string const digits = std::to_string(i);
        names.push_back(u"K" + basalt::ustring(digits.begin(), digits.end()));
    }
    std::atomic<int> failures = 0;
    // A few rounds, each with classes whose collections no one has asked for yet: a
    // collision of the two sides is a matter of timing.
    for (int round = 0; round < 4; ++round) {
        SamplePackage const sample(uniqueName(u"firstUse"), names);
        std::vector<Property> made;
        {
            auto locked = registry().getMetaRegistryModel();
            Transaction transaction = locked->beginTransaction();
            std::latch start(readers + 1);
            std::vector<std::thread> threads;
            for (int t = 0; t < readers; ++t)
                threads.emplace_back([&, t] {
                    start.arrive_and_wait();
                    for (int i = t; i < classes; i += readers)
                        if (!sample.classes.at(i)->getOwnedOperations().empty())
                            ++failures;
                });
            start.arrive_and_wait();
            for (int i = 0; i < 10000; ++i) {
                made.push_back(Property::create(locked.get()));
                made.back()->setName(u"made");
            }
            for (std::thread &thread : threads)
                thread.join();
            transaction.commit();
        }
        for (Property const &property : made)
            if (property->getName() != u"made")
                ++failures;
    }
    EXPECT_EQ(failures, 0);
}

} // namespace
} // namespace kivra::meta
