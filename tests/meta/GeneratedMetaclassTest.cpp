#include <kivra/Messages.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>

#include <gtest/gtest.h>

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

TEST(GeneratedMetaclass, SettingTheSameValueChangesNothing) {
    // A frozen model refuses every change, so a setter that goes through is seen to have
    // made none.
    Model model = Model::createTransientModel();
    Property property = Property::create(model);
    property->setName(u"title");
    auto freezer = model->freeze();
    EXPECT_NO_THROW(property->setName(u"title"));
    EXPECT_NO_THROW(property->setIsQualificationUnique(true)); // the default
    EXPECT_THROW(property->setName(u"subtitle"), Error<messages::ModelFrozen>);
    EXPECT_EQ(property->getName(), u"title");
}

TEST(GeneratedMetaclass, DefaultsAndOptionals) {
    Model model = Model::createTransientModel();
    Property property = Property::create(model);
    EXPECT_TRUE(property->getIsPublicAccessor());
    EXPECT_FALSE(property->getIsUnique());
    EXPECT_FALSE(property->hasDefaultValue());
    property->setDefaultValue(basalt::ustring(u"42"));
    EXPECT_EQ(property->getDefaultValue().value_or(u""), u"42");
    property->setDefaultValue(boost::none);
    EXPECT_FALSE(property->hasDefaultValue());
    Property other = Property::create(model);
    property->setOpposite(other);
    EXPECT_EQ(property->getOpposite(), other);
}

TEST(GeneratedMetaclass, ClassIsAFollowsSuperclasses) {
    Model model = Model::createTransientModel();
    Class base = Class::create(model);
    Class derived = Class::create(model);
    Class unrelated = Class::create(model);
    derived->setSuperclass(base);
    EXPECT_TRUE(derived->isA(base));
    EXPECT_TRUE(derived->isA(derived));
    EXPECT_FALSE(base->isA(derived));
    EXPECT_FALSE(derived->isA(unrelated));
    EXPECT_FALSE(derived->isA(Type()));
}

TEST(GeneratedMetaclass, TypeWithoutPackageIsQualifiedByItsName) {
    Model model = Model::createTransientModel();
    Class cls = Class::create(model);
    cls->setName(u"Book");
    EXPECT_EQ(cls->getQualifiedName(), u"Book");
    EXPECT_FALSE(cls->getOwningPackage());
}

} // namespace
} // namespace kivra::meta
