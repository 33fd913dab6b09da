#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <gtest/gtest.h>

#include <typeinfo>

namespace kivra::meta {
namespace {

MetaRegistry &registry() { return *MetaRegistry::getInstance(); }

TEST(StandardTypes, EveryPrimitiveIsRegisteredUnderItsBareName) {
    struct Case {
        char16_t const *name;
        PrimitiveType const *member;
    };
    Case const cases[] = {
        {u"String", &StandardTypes::stringMeta},   {u"Integer", &StandardTypes::integerMeta},
        {u"Boolean", &StandardTypes::booleanMeta}, {u"UnlimitedNatural", &StandardTypes::unlimitedNaturalMeta},
        {u"UUID", &StandardTypes::uuidMeta},       {u"StdString", &StandardTypes::stdstringMeta},
    };
    for (auto const &c : cases) {
        PrimitiveType const type = registry().getPrimitiveType(c.name);
        ASSERT_TRUE(type);
        EXPECT_EQ(type, *c.member);
        EXPECT_EQ(type->getQualifiedName(), c.name);
    }
    EXPECT_TRUE(registry().getPrimitiveType(u"VantorArray"));
    EXPECT_EQ(registry().getCppNameForType(StandardTypes::uuidMeta).value_or(""), "ElementImpl::UUID");
    EXPECT_EQ(registry().getVantorNameForType(StandardTypes::booleanMeta).value_or(""), "logical");
}

TEST(StandardTypes, IntegralTypesByWidth) {
    EXPECT_EQ(StandardTypes::getIntegralType(false, 32), StandardTypes::unlimitedNaturalMeta);
    EXPECT_EQ(StandardTypes::getIntegralType(true, 64), StandardTypes::integer64Meta);
    EXPECT_FALSE(StandardTypes::getIntegralType(true, 24).get());
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(StandardTypes::uinteger16Meta), 16);
    EXPECT_EQ(StandardTypes::getSizeOfIntegralTypeInBits(StandardTypes::realMeta), 0);
}

TEST(StandardTypes, RunTimeTypeNamesFindTheirTypes) {
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::integerMeta, typeid(int).name()));
    EXPECT_TRUE(registry().isCorrectTypeForTypeId(StandardTypes::unlimitedNaturalMeta, typeid(unsigned).name()));
    EXPECT_FALSE(registry().isCorrectTypeForTypeId(StandardTypes::integerMeta, typeid(double).name()));
}

TEST(MetaRegistry, LookupsOfUnknownNamesGiveEmptyHandles) {
    EXPECT_FALSE(registry().getTypeNoLoad(u"nowhere.Nothing").get());
    EXPECT_FALSE(registry().getType(u"nowhere.Nothing").get());
    EXPECT_FALSE(registry().getType(u"nowhere.Nothing").get()); // the miss is remembered
    // A primitive asked for as a class is no class.
    EXPECT_FALSE(registry().getClass(u"Integer").get());
}

TEST(MetaRegistry, SecondRegistrationOfANameIsRefused) {
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    PrimitiveType twin = PrimitiveType::create(locked.get());
    twin->setName(u"Integer");
    try {
        registry().registerType(twin);
        ADD_FAILURE() << "registered twice";
    } catch (Error<messages::DuplicateTypeInRegistry> const &error) {
        EXPECT_EQ(std::get<basalt::ustring>(error.getRecord().getArguments().at(0)), u"Integer");
    }
    twin->destroy();
    transaction.commit();
    EXPECT_EQ(registry().getType(u"Integer"), StandardTypes::integerMeta);
}

TEST(MetaRegistry, PackageUrisSplitIntoVersionAndFamily) {
    auto const &prefix = MetaRegistry::uriPrefix();
    EXPECT_EQ(MetaRegistry::parseUri(prefix + u"meta/19700101"), std::make_pair(basalt::ustring(u"19700101"), basalt::ustring(u"meta")));
    EXPECT_EQ(MetaRegistry::parseUri(prefix + u"meta/19700101/kivra.meta").first, u"19700101");
    EXPECT_EQ(MetaRegistry::composeUri(u"2", u"lib"), prefix + u"lib/2");
    EXPECT_EQ(MetaRegistry::parseUri(u"http://elsewhere/meta/1"), std::make_pair(basalt::ustring(), basalt::ustring()));
    EXPECT_FALSE(MetaRegistry::isValidUri(u"http://elsewhere/meta/1"));
    EXPECT_FALSE(MetaRegistry::isValidUri(prefix + u"meta"));
    EXPECT_TRUE(MetaRegistry::isValidUri(prefix + u"meta/1"));
}

} // namespace
} // namespace kivra::meta
