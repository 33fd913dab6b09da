#include "RegistryFixtures.hpp"

#include <kivra/Messages.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Endpoint.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <typeinfo>
#include <vector>

namespace kivra::meta {
namespace {

using test::registry;
using test::SamplePackage;
using test::uniqueName;
using test::makeProperty;

// --- Standard types ----------------------------------------------------------------------

TEST(StandardTypes, EveryRowIsRegisteredWithItsNamesAndUuid) {
    struct Row {
        char16_t const *name;
        PrimitiveType const &member;
        char const *uuid, *cppName, *vantorName;
    };
    Row const rows[] = {
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    {u"" #Name, StandardTypes::member, uuid, cppName, vantorName},
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                       \
    {u"" #Name, StandardTypes::member, uuid, cppName, vantorName},
#include <kivra/meta/PrimitiveTypes.def>
    };
    std::set<PrimitiveType::Impl *> distinct;
    for (Row const &row : rows) {
        SCOPED_TRACE(std::string(row.cppName));
        PrimitiveType const type = registry().getPrimitiveType(row.name);
        ASSERT_TRUE(type);
        EXPECT_EQ(type, row.member);
        EXPECT_EQ(type->getQualifiedName(), row.name);
        EXPECT_EQ(type->getUuid(), parseUuidLiteral(row.uuid));
        EXPECT_EQ(registry().getCppNameForType(type).value_or("?"), row.cppName);
        EXPECT_EQ(registry().getVantorNameForType(type).value_or("?"), row.vantorName);
        distinct.insert(type.get());
    }
    EXPECT_EQ(distinct.size(), std::size(rows));
}

TEST(StandardTypes, IntegralTypesByWidth) {
    EXPECT_EQ(StandardTypes::getIntegralType(false, 32), StandardTypes::unlimitedNaturalMeta);
    EXPECT_FALSE(registry().getTypeNoLoad(u"UInteger32"));
    EXPECT_EQ(StandardTypes::getIntegralType(true, 64), StandardTypes::integer64Meta);
    EXPECT_EQ(StandardTypes::getIntegralType(false, 8), StandardTypes::uinteger8Meta);
    EXPECT_FALSE(StandardTypes::getIntegralType(true, 24));
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(StandardTypes::uinteger16Meta), 16);
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(StandardTypes::integerMeta), 32);
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(StandardTypes::realMeta), 0);
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(PrimitiveType()), 0);
}

TEST(StandardTypes, RunTimeTypeNamesFindTheirTypes) {
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::integerMeta, typeid(int).name()));
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::unlimitedNaturalMeta, typeid(unsigned).name()));
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::vantorArrayMeta, typeid(VantorArray *).name()));
    EXPECT_FALSE(registry().isCorrectTypeForTypeId(StandardTypes::integerMeta, typeid(double).name()));
    EXPECT_FALSE(registry().isCorrectTypeForTypeId(StandardTypes::stringToStringMapMeta, ""));

    // A second run-time name for a type, as a platform with two names for one integer has.
    std::string const alias = uniqueName(std::string_view("alias"));
    EXPECT_FALSE(registry().isCorrectTypeForTypeId(StandardTypes::integer64Meta, alias));
    registry().updateTypeidName(alias, StandardTypes::integer64Meta);
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::integer64Meta, alias));
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::integer64Meta, typeid(std::int64_t).name()));
}

// --- Lookups -------------------------------------------------------------------------------

TEST(MetaRegistry, AMissIsEmptyAndOnlyALoadingMissReservesTheName) {
    basalt::ustring const unloaded = uniqueName(u"nowhere.Unloaded");
    basalt::ustring const loaded = uniqueName(u"nowhere.Loaded");
    EXPECT_FALSE(registry().getTypeNoLoad(unloaded));
    EXPECT_FALSE(registry().getType(loaded));
    EXPECT_FALSE(registry().getType(loaded));
    // A lookup of one kind finds nothing of another.
    EXPECT_FALSE(registry().getClass(u"Integer"));
    EXPECT_FALSE(registry().getPrimitiveType(u"kivra.meta.Class"));

    // The load found nothing: the name stays empty, and a later registration under it is
    // a duplicate. A lookup that did not load leaves its name free.
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    PrimitiveType const late = PrimitiveType::create(locked.get());
    late->setName(loaded);
    EXPECT_THROW(registry().registerType(late), Error<messages::DuplicateTypeInRegistry>);
    PrimitiveType const spare = PrimitiveType::create(locked.get());
    spare->setName(unloaded);
    EXPECT_NO_THROW(registry().registerType(spare));
    transaction.commit();
    EXPECT_EQ(registry().getTypeNoLoad(unloaded), spare);
    EXPECT_FALSE(registry().getType(loaded));
}

TEST(MetaRegistry, RootPackagesAreFoundByUriAndFamily) {
    basalt::ustring const family = uniqueName(u"family");
    SamplePackage const first(family, {u"A"}, {.version = u"2"});
    SamplePackage const second(family, {u"B"}, {.version = u"3"});
    basalt::ustring const firstUri = MetaRegistry::composeUri(u"2", family);

    EXPECT_EQ(registry().getRootPackage(firstUri), first.package);
    EXPECT_EQ(registry().getRootPackage(MetaRegistry::composeUri(u"3", family)), second.package);
    EXPECT_FALSE(registry().getRootPackage(MetaRegistry::composeUri(u"4", family)));
    EXPECT_FALSE(registry().getRootPackage(MetaRegistry::composeUri(u"4", family), /*load=*/true));
    // The family keeps the package that came first.
    EXPECT_EQ(registry().getPackageForFamily(family), first.package);
    EXPECT_TRUE(registry().isVersionCurrentForFamily(firstUri + u"/deeper/path"));
    EXPECT_FALSE(registry().isVersionCurrentForFamily(MetaRegistry::composeUri(u"3", family)));
    EXPECT_FALSE(registry().isVersionCurrentForFamily(MetaRegistry::composeUri(u"2", uniqueName(u"other"))));
    EXPECT_FALSE(registry().isVersionCurrentForFamily(u"file:///not/a/package"));

    // A second registration under a taken URI keeps the first.
    registry().registerRootPackage(second.package);
    EXPECT_EQ(registry().getRootPackage(MetaRegistry::composeUri(u"3", family)), second.package);
    registry().unregisterRootPackage(firstUri);
    EXPECT_FALSE(registry().getRootPackage(firstUri));
    EXPECT_FALSE(registry().getPackageForFamily(family));
}

TEST(MetaRegistry, PackageUrisSplitIntoFamilyVersionAndPath) {
    basalt::ustring const &prefix = MetaRegistry::uriPrefix();
    EXPECT_TRUE(prefix.starts_with(u"http") && prefix.ends_with(u"/kivra/"));
    EXPECT_EQ(MetaRegistry::composeUri(u"19700101", u"meta"), prefix + u"meta/19700101");

    struct Case {
        basalt::ustring uri;
        char16_t const *version, *family;
    };
    std::vector<Case> const cases = {
        {prefix + u"meta/19700101", u"19700101", u"meta"},
        {prefix + u"meta/19700101/kivra.meta", u"19700101", u"meta"},
        {prefix + u"lib/2/a/b", u"2", u"lib"},
        {prefix + u"lib/", u"", u"lib"},
        {prefix + u"meta", u"", u""},
        {prefix, u"", u""},
        {u"http://elsewhere/kivra/meta/1", u"", u""},
        {u"", u"", u""},
    };
    // Each answer twice on this thread (computed, then kept) and once on a thread of its
    // own: all three must agree with the split.
    auto check = [&](char const *when) {
        for (Case const &c : cases) {
            SCOPED_TRACE(when);
            auto const &[version, family] = MetaRegistry::parseUri(c.uri);
            EXPECT_EQ(version, c.version);
            EXPECT_EQ(family, c.family);
            EXPECT_EQ(MetaRegistry::isValidUri(c.uri), !version.empty() && !family.empty());
        }
    };
    check("first");
    check("again");
    std::thread([&] { check("fresh thread"); }).join();
    EXPECT_EQ(&MetaRegistry::parseUri(cases[0].uri), &MetaRegistry::parseUri(cases[0].uri));
}

// --- Registration --------------------------------------------------------------------------

TEST(MetaRegistry, ARefusedPackageRegistersNothing) {
    basalt::ustring const family = uniqueName(u"refused");
    basalt::ustring const uri = MetaRegistry::composeUri(u"1", family);
    // A class without a package is named by its bare name, and "Integer" is taken.
    std::vector<boost::uuids::uuid> made;
    try {
        SamplePackage const refused(family, {u"Fine", u"AlsoFine"}, {.strayClass = u"Integer", .made = &made});
        ADD_FAILURE() << "a duplicate name was registered";
    } catch (Error<messages::DuplicateTypeInRegistry> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments().at(0)), u"Integer");
    }
    ASSERT_EQ(made.size(), 4u);
    EXPECT_FALSE(registry().getTypeNoLoad(SamplePackage::nameOf(family, u"Fine")));
    EXPECT_FALSE(registry().getTypeNoLoad(SamplePackage::nameOf(family, u"AlsoFine")));
    EXPECT_FALSE(registry().getRootPackage(uri));
    EXPECT_EQ(registry().getType(u"Integer"), StandardTypes::integerMeta);
    for (auto const &uuid : made)
        EXPECT_FALSE(registry().getFrozenMetaRegistryModel()->findElement(uuid));

    // The names are free again.
    SamplePackage const accepted(family, {u"Fine", u"AlsoFine"});
    EXPECT_EQ(registry().getType(SamplePackage::nameOf(family, u"Fine")), accepted.classes.at(0));
}

TEST(MetaRegistry, TheModelIsFrozenOutsideARegistryOperation) {
    PrimitiveType const integer = StandardTypes::integerMeta;
    EXPECT_THROW(integer->setIsVantorHidden(true), Error<messages::ModelFrozen>);
    EXPECT_FALSE(integer->getIsVantorHidden());
    {
        MetaRegistry const &reader = registry();
        auto const frozen = reader.getMetaRegistryModel(); // the const form stays frozen
        Model model = frozen.get();
        Transaction transaction = model->beginTransaction();
        EXPECT_THROW(PrimitiveType::create(model), Error<messages::ModelFrozen>);
    }
    {
        auto outer = registry().getMetaRegistryModel();
        {
            auto inner = registry().getMetaRegistryModel();
            EXPECT_FALSE(inner->isFrozen());
        }
        EXPECT_FALSE(outer->isFrozen()) << "an inner registry operation ended the outer one's thaw";
        Transaction transaction = outer->beginTransaction();
        PrimitiveType const scratch = PrimitiveType::create(outer.get());
        scratch->destroy();
        transaction.commit();
    }
    EXPECT_TRUE(registry().getFrozenMetaRegistryModel()->isFrozen());
    // The registry model holds reified metamodel elements whatever comes into it.
    EXPECT_EQ(registry().getFrozenMetaRegistryModel()->getModelContent(), ModelContent::DeclaredReified);
}

TEST(MetaRegistry, DestroyingATypeUnregistersIt) {
    SamplePackage const sample(uniqueName(u"doomed"), {u"Gone", u"Stays"});
    Class const gone = sample.classes.at(0);
    basalt::ustring const name = gone->getQualifiedName();
    {
        auto locked = registry().getMetaRegistryModel();
        Transaction transaction = locked->beginTransaction();
        gone->destroy();
        transaction.commit();
    }
    EXPECT_FALSE(registry().getTypeNoLoad(name));
    EXPECT_EQ(registry().getTypeNoLoad(sample.classes.at(1)->getQualifiedName()), sample.classes.at(1));

    // A type registered and destroyed in one transaction goes too; its name is free.
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    PrimitiveType const brief = PrimitiveType::create(locked.get());
    brief->setName(name);
    registry().registerType(brief);
    EXPECT_EQ(registry().getTypeNoLoad(name), brief);
    brief->destroy();
    transaction.commit();
    EXPECT_FALSE(registry().getTypeNoLoad(name));
}

TEST(MetaRegistry, UnregisteringTakesOnlyThatVeryType) {
    SamplePackage const sample(uniqueName(u"unregister"), {u"Kept"});
    Class const kept = sample.classes.at(0);
    registry().unregisterType(StandardTypes::integerMeta, kept->getQualifiedName());
    EXPECT_EQ(registry().getTypeNoLoad(kept->getQualifiedName()), kept);
    registry().unregisterType(kept, kept->getQualifiedName());
    EXPECT_FALSE(registry().getTypeNoLoad(kept->getQualifiedName()));
}

// An empty handle is a caller's slip: the entries refuse it, the ways out pass it by.
TEST(MetaRegistry, EmptyHandlesAreRefusedOrPassedOver) {
    EXPECT_THROW(registry().registerType(Type()), Error<messages::NoSuchType>);
    EXPECT_THROW(registry().registerType(Type(), nullptr, {}), Error<messages::NoSuchType>);
    EXPECT_THROW(registry().registerTypeNames(Type(), "", "", ""), Error<messages::NoSuchType>);
    EXPECT_THROW(registry().registerRootPackage(Package()), Error<messages::InvalidValue>);
    EXPECT_THROW(registry().registerEndpoint(Endpoint()), Error<messages::InvalidValue>);
    registry().updateCollectionInstantiator(Type(), nullptr);
    registry().unregisterCollectionInstantiator(Type(), nullptr);
    registry().unregisterEndpoint(Endpoint());
    EXPECT_FALSE(registry().getTypeNoLoad(u""));
}

// --- Instantiation -------------------------------------------------------------------------

struct RecordingBuilder : ModelElement::Builder {
    explicit RecordingBuilder(Model const &model) : Builder(model, 1), model(model) {}
    meta::Class const &getMetaClass() const override { return ModelElement::metaClass(); }
    ModelElement doCreate(bool, boost::uuids::uuid const &) override { return {}; }
    Model model;
};

TEST(MetaRegistry, BuildersComeFromTheFactoryOfThatVeryClass) {
    std::atomic<int> calls = 0;
    std::thread other;
    std::atomic<bool> otherGotIn = false;
    auto factory = [&](Model const &model) -> std::unique_ptr<ModelElement::Builder> {
        ++calls;
        // The factory runs with the registry's lock released: another thread gets in.
        other = std::thread([&] {
            registry().getTypeNoLoad(u"Integer");
            otherGotIn = true;
        });
        for (int i = 0; i < 2000 && !otherGotIn; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return std::make_unique<RecordingBuilder>(model);
    };
    SamplePackage const sample(uniqueName(u"builders"), {u"Built", u"Plain"}, {.factory = factory});
    Model const model = Model::createTransientModel();

    auto builder = registry().instantiateBuilder(sample.classes.at(0), model);
    other.join();
    ASSERT_TRUE(builder);
    EXPECT_EQ(static_cast<RecordingBuilder &>(*builder).model, model);
    EXPECT_TRUE(otherGotIn);
    EXPECT_EQ(calls, 1);

    EXPECT_FALSE(registry().instantiateBuilder(sample.classes.at(1), model)) << "a class without a factory";
    EXPECT_FALSE(registry().instantiateBuilder(Class(), model));
    // A class of the same name that is not the registered one.
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    Class const twin = Class::create(locked.get());
    twin->setName(sample.classes.at(0)->getName());
    EXPECT_FALSE(registry().instantiateBuilder(twin, model));
    twin->destroy();
    transaction.commit();
    EXPECT_EQ(calls, 1);
}

/// Makes nothing but counts, and makes a sorted set when told to.
struct CountingInstantiator : detail::CollectionInstantiator {
    explicit CountingInstantiator(int &calls, bool makes) : calls(calls), makes(makes) {}
    AbstractOwnedCollection *instantiateDynamicCollection(ModelElement const &, Property const &) override {
        ++calls;
        return nullptr;
    }
    boost::optional<Value> instantiateUnmanagedCollection(Property const &property) override {
        ++calls;
        return makes ? detail::CollectionInstantiatorImpl<std::int32_t, 7, 7>().instantiateUnmanagedCollection(property)
                     : boost::none;
    }
    int &calls;
    bool makes;
};

TEST(MetaRegistry, CollectionsComeFromTheInstantiatorsOfTheType) {
    Property const numbers = makeProperty(u"numbers", StandardTypes::integerMeta, /*ordered=*/true);
    Property const texts = makeProperty(u"texts", StandardTypes::stringMeta, /*ordered=*/false);
    Property const maps = makeProperty(u"maps", StandardTypes::stringToStringMapMeta, false);
    Property const untyped = makeProperty(u"untyped", PrimitiveType(), false);

    auto const ordered = registry().instantiateUnmanagedCollection(numbers);
    ASSERT_TRUE(ordered);
    EXPECT_EQ(ordered->getFlags(), ValueFlags::Sequence);
    EXPECT_EQ(ordered->getType(), StandardTypes::integerMeta);
    auto const sorted = registry().instantiateUnmanagedCollection(texts);
    ASSERT_TRUE(sorted);
    EXPECT_EQ(sorted->getFlags(), ValueFlags::SortedSet);
    EXPECT_FALSE(registry().instantiateUnmanagedCollection(maps)) << "a type without instantiator";
    EXPECT_FALSE(registry().instantiateUnmanagedCollection(untyped));

    // A metamodel adds its own instantiators to a type that another one owns; they are
    // asked in the order they came, and the first that makes something wins.
    PrimitiveType shared;
    {
        auto locked = registry().getMetaRegistryModel();
        Transaction transaction = locked->beginTransaction();
        shared = PrimitiveType::create(locked.get());
        shared->setName(uniqueName(u"Shared"));
        registry().registerType(shared);
        transaction.commit();
    }
    Property const values = makeProperty(u"values", shared, false);
    int declining = 0, making = 0;
    auto decliner = std::make_unique<CountingInstantiator>(declining, false);
    auto const *declinerAddress = decliner.get();
    registry().updateCollectionInstantiator(shared, std::move(decliner));
    registry().updateCollectionInstantiator(shared, std::make_unique<CountingInstantiator>(making, true));
    EXPECT_TRUE(registry().instantiateUnmanagedCollection(values));
    Model const model = Model::createTransientModel();
    EXPECT_EQ(registry().instantiateDynamicCollection(Class::create(model), values), nullptr);
    EXPECT_EQ(declining, 2);
    EXPECT_EQ(making, 2);
    registry().unregisterCollectionInstantiator(shared, declinerAddress);
    EXPECT_TRUE(registry().instantiateUnmanagedCollection(values));
    EXPECT_EQ(declining, 2);
    EXPECT_EQ(making, 3);
}

// --- Endpoints and owned values ------------------------------------------------------------

TEST(MetaRegistry, EndpointsAreFoundByQualifiedName) {
    basalt::ustring const name = uniqueName(u"endpoint");
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    Endpoint const endpoint = Endpoint::create(locked.get());
    endpoint->setName(name);
    Endpoint const twin = Endpoint::create(locked.get());
    twin->setName(name);
    transaction.commit();

    EXPECT_FALSE(registry().getEndpoint(name));
    registry().registerEndpoint(endpoint);
    EXPECT_EQ(registry().getEndpoint(name), endpoint);
    EXPECT_THROW(registry().registerEndpoint(twin), Error<messages::DuplicateTypeInRegistry>);
    registry().unregisterEndpoint(twin);
    EXPECT_EQ(registry().getEndpoint(name), endpoint);
    registry().unregisterEndpoint(endpoint);
    EXPECT_FALSE(registry().getEndpoint(name));
}

struct Doubling : ValueOwnershipConverter {
    explicit Doubling(int &released) : released(released) {}
    Value convertValueForOwnership(Value const &value) override {
        return Value(value.getType(), 2 * value.get<std::int32_t>());
    }
    void releaseOwnedValue(Value const &) override { ++released; }
    int &released;
};

TEST(MetaRegistry, OwnedValuesGoThroughTheConverterOfTheirType) {
    int released = 0;
    Value const number(StandardTypes::integerMeta, 21);
    Value const text(StandardTypes::stringMeta, basalt::ustring(u"kept as it is"));
    registry().registerOwnershipConverter(StandardTypes::integerMeta, std::make_unique<Doubling>(released));
    EXPECT_EQ(registry().convertValueForOwnership(number).get<std::int32_t>(), 42);
    EXPECT_EQ(registry().convertValueForOwnership(text), text);
    registry().releaseOwnedValue(number);
    registry().releaseOwnedValue(text);
    EXPECT_EQ(released, 1);
    registry().unregisterOwnershipConverter(StandardTypes::integerMeta);
    EXPECT_EQ(registry().convertValueForOwnership(number).get<std::int32_t>(), 21);
    registry().releaseOwnedValue(number);
    EXPECT_EQ(released, 1);
}

} // namespace
} // namespace kivra::meta
