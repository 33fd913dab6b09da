#include <kivra/ElementMap.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/Argument.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/Extension.hpp>
#include <kivra/meta/MetaPackageMeta.hpp>
#include <kivra/meta/Operation.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/VersionInfo.hpp>

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/LibraryPackage.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace kivra::meta {
namespace {

MetaRegistry &registry() { return *MetaRegistry::getInstance(); }

std::string narrow(basalt::ustring const &text) { return std::string(text.begin(), text.end()); }

std::vector<std::string> names(std::vector<Property> const &properties) {
    std::vector<std::string> result;
    for (Property const &property : properties)
        result.push_back(narrow(property->getName()));
    return result;
}

// Every metaclass of kivra's metamodel with its fixed identity.
struct Row {
    char16_t const *name;
    char const *uuid;
};
constexpr Row metaclasses[] = {
    {u"NamedElement", "20d093d1-df86-300b-8537-a7f62cbd2706"},   {u"TypedElement", "9b001de4-cf53-34ef-bb15-5ff37dd7cf79"},
    {u"Parameterized", "b54098f9-326e-3ec8-8d2c-c2139f6b4d76"},  {u"Argument", "0ac604e1-8fe9-35a8-bf88-6aec0ae37690"},
    {u"Operation", "7d3a6aa7-6514-3d45-add1-a86ab6e8922e"},      {u"Endpoint", "140b8137-47a8-3e66-a904-807fad216310"},
    {u"Property", "831bd3d5-f65b-307d-a9a8-5788c0f91692"},       {u"Extension", "6f615d73-2a99-3432-885c-022136c188c9"},
    {u"Type", "430b3cfc-a0e5-3526-a67c-3249711fc291"},           {u"StructuredType", "4f24d802-42e9-34f1-ac25-33c2ef335414"},
    {u"Class", "b18e5add-a952-3131-9850-b3c0b47a8a41"},          {u"DataType", "bc247589-5688-3c4e-8ce5-71abab16821d"},
    {u"PrimitiveType", "ac18b87c-dcc8-3ba6-a3d2-48b1517bc1b2"},  {u"Enum", "6a0e699c-b935-307d-87c2-c93afdfa20a0"},
    {u"EnumLiteral", "58363972-fef9-3d9c-a5bd-8b8ad8c51991"},    {u"Package", "37242744-9be0-3eb9-b2d1-57cb3a6cbfa3"},
    {u"DynamicExtensions", "9335db1e-8108-391b-8464-fa5e3f615aee"}, {u"Attribute", "74bd5abb-d06d-32b3-9089-e799543dc77c"},
    {u"AttributeMap", "83e57a44-bf12-3fa3-8d20-d87241daf556"},   {u"AttributeMapAttribute", "a6c03b25-1d7d-32f4-8cf0-484d9bd6e41b"},
    {u"BooleanAttribute", "c95caece-a302-3001-816a-44da6cb64b04"}, {u"DateTimeAttribute", "2afc5a31-d113-3d44-b4ce-b4da50c343e1"},
    {u"IntegerAttribute", "82a2f120-d8fa-3e30-ac48-069beeaa0f85"}, {u"RealAttribute", "a1265474-52d3-35e0-acce-7e1887e4756c"},
    {u"StringAttribute", "63042dc4-ca2b-349d-8c1e-076f46353a0f"}, {u"UUIDAttribute", "ac93d064-fe68-3635-8bc6-e6f1be2cfffe"},
};

TEST(SelfDescription, ClassIsAnInstanceOfItself) {
    Class const &cls = Class::metaClass();
    ASSERT_TRUE(cls);
    EXPECT_EQ(cls->getMetaClass(), cls);
    EXPECT_EQ(cls->getQualifiedName(), u"kivra.meta.Class");
    EXPECT_EQ(cls->getVantorName(), "kivra.meta.Class");
    // Its properties are elements of class Property, owned by the classes that declare them.
    Property const superclass = cls->getPropertyByName(u"superclass");
    ASSERT_TRUE(superclass);
    EXPECT_EQ(superclass->getMetaClass(), Property::metaClass());
    EXPECT_EQ(superclass, Class::Impl::superclassProperty());
    EXPECT_EQ(superclass->getOwningType(), cls);
    EXPECT_EQ(superclass->getType(), cls);
}

TEST(SelfDescription, EveryMetaclassIsFoundByNameAndUuidUnderThePackageTree) {
    Model const model = registry().getFrozenMetaRegistryModel().get();
    Package const meta = MetaPackageMeta::getInstance().getPackage();
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->getUri(), MetaRegistry::composeUri(u"19700101", u"meta") + u"/kivra.meta");
    // The qualified names of the classes below spell out the packages' names.
    Package const kivra = meta->getParentPackage();
    ASSERT_TRUE(kivra);
    Package const root = kivra->getParentPackage();
    ASSERT_TRUE(root);
    EXPECT_EQ(root->getUuid(), parseUuidLiteral("83420365-c799-3b21-8efd-43817abf0909"));
    EXPECT_EQ(registry().getRootPackage(root->getUri()), root);
    EXPECT_EQ(registry().getPackageForFamily(u"meta"), root);

    for (Row const &row : metaclasses) {
        SCOPED_TRACE(narrow(row.name));
        Class const cls = registry().getClass(basalt::ustring(u"kivra.meta.") + row.name);
        ASSERT_TRUE(cls);
        EXPECT_EQ(cls->getUuid(), parseUuidLiteral(row.uuid));
        EXPECT_EQ(model->findElement(cls->getUuid()), cls);
        EXPECT_EQ(cls->getOwningPackage(), meta);
        EXPECT_EQ(meta->getOwnedTypes().at(row.name), cls);
    }
    EXPECT_TRUE(registry().getClass(u"kivra.meta.Attribute")->getIsAbstract());
    EXPECT_TRUE(registry().getClass(u"kivra.meta.Parameterized")->getIsAbstract());
    EXPECT_FALSE(Class::metaClass()->getIsAbstract());

    // Models, constellations and elements have their classes in `kivra`, with KivraModel.
    EXPECT_EQ(Model::metaClass()->getUuid(), parseUuidLiteral("a559b870-6892-3eec-8508-6ce5485e9784"));
    EXPECT_EQ(ModelElement::metaClass()->getUuid(), parseUuidLiteral("42663bf5-8b3d-3c82-938a-ed709e37a269"));
    for (Class const *core : {&Model::metaClass(), &ModelConstellation::metaClass(), &ModelElement::metaClass()}) {
        EXPECT_EQ((*core)->getOwningPackage(), kivra);
        EXPECT_EQ(registry().getType((*core)->getQualifiedName()), *core);
    }
    EXPECT_EQ(ModelElement::metaClass()->getQualifiedName(), u"kivra.ModelElement");
    EXPECT_EQ(registry().getClass(u"kivra.meta.NamedElement")->getSuperclass(), ModelElement::metaClass());
    Type const kivraModel = registry().getType(u"kivra.KivraModel");
    ASSERT_TRUE(kivraModel);
    EXPECT_EQ(kivraModel->getUuid(), parseUuidLiteral("760b0b3b-ea5e-39c8-84d2-2d07e7c6e756"));
    EXPECT_EQ(kivraModel->getMetaClass(), PrimitiveType::metaClass());
}

TEST(SelfDescription, PropertiesCarryTheirIndicesShapesAndOpposites) {
    // The number of indexed properties along the chain, and each index used once.
    struct Count {
        char16_t const *name;
        std::int32_t count;
    };
    for (Count const row : {Count{u"Property", 26}, Count{u"Extension", 27}, Count{u"Class", 12}, Count{u"Package", 9},
                            Count{u"Attribute", 2}, Count{u"NamedElement", 1}, Count{u"AttributeMap", 1}}) {
        SCOPED_TRACE(narrow(row.name));
        Class const cls = registry().getClass(basalt::ustring(u"kivra.meta.") + row.name);
        std::set<std::int32_t> indices;
        for (Property const &property : cls->getAllProperties()) {
            if (property->getIsDerived()) {
                EXPECT_EQ(property->getPropertyIndex(), 0);
                continue;
            }
            EXPECT_TRUE(indices.insert(property->getPropertyIndex()).second) << narrow(property->getName());
        }
        EXPECT_EQ(indices.size(), std::size_t(row.count));
        EXPECT_EQ(*indices.rbegin(), row.count);
    }

    Property const ownedAttributes = StructuredType::Impl::ownedAttributesProperty();
    EXPECT_TRUE(ownedAttributes->getIsComposite());
    EXPECT_TRUE(ownedAttributes->getIsSparse());
    EXPECT_EQ(ownedAttributes->getLower(), 0u);
    EXPECT_EQ(ownedAttributes->getUpper(), std::uint32_t(-1));
    EXPECT_EQ(ownedAttributes->getQualifiedBy(), NamedElement::Impl::nameProperty());
    EXPECT_TRUE(ownedAttributes->getIsQualificationUnique());
    EXPECT_FALSE(StructuredType::Impl::ownedOperationsProperty()->getIsQualificationUnique());
    EXPECT_EQ(Property::Impl::propertyIndexProperty()->getPropertyIndex(), 15);
    EXPECT_FALSE(Property::Impl::propertyIndexProperty()->getIsPublicMutator());
    EXPECT_EQ(Property::Impl::isQualificationUniqueProperty()->getDefaultValue().value_or(u""), u"true");
    Property const allProperties = Class::metaClass()->getPropertyByName(u"allProperties");
    ASSERT_TRUE(allProperties);
    EXPECT_TRUE(allProperties->getIsDerived() && allProperties->getIsReadOnly());
    EXPECT_FALSE(allProperties->getIsUnique());

    // Opposites point at each other across the whole metamodel.
    std::size_t opposites = 0;
    for (Type const &type : MetaPackageMeta::getInstance().getPackage()->getOwnedTypes())
        if (auto *structured = dynamic_cast<StructuredType::Impl *>(type.get()))
            for (Property const &property : structured->getOwnedAttributes())
                if (Property const opposite = property->getOpposite()) {
                    EXPECT_EQ(opposite->getOpposite(), property) << narrow(property->getName());
                    ++opposites;
                }
    EXPECT_EQ(opposites, 20u);
}

TEST(SelfDescription, PropertyListsWalkUpTheChainOwnFirstInNameOrder) {
    Class const extension = Extension::metaClass();
    std::vector<std::string> const all = names(extension->getAllProperties());
    ASSERT_GE(all.size(), 3u);
    EXPECT_EQ(all[0], "extendedMetaclass");
    EXPECT_EQ(all[1], "owner");
    EXPECT_EQ(all.back(), "name");
    EXPECT_EQ(all.size(), 28u); // 27 indexed and the derived extendedMetaclass
    EXPECT_EQ(extension->getPropertyByName(u"name"), NamedElement::Impl::nameProperty());
    EXPECT_FALSE(extension->getPropertyByName(u"nonesuch"));
    EXPECT_TRUE(extension->isATypeOf(NamedElement::Impl::nameProperty()));
    EXPECT_FALSE(extension->isATypeOf(Class::Impl::superclassProperty()));
    EXPECT_FALSE(extension->isATypeOf(Property()));

    // The class and primitive lists split the whole by the property's type.
    std::vector<std::string> const ofClass = names(extension->getAllClassProperties());
    std::vector<std::string> const primitive = names(extension->getAllPrimitiveProperties());
    EXPECT_EQ(ofClass.size() + primitive.size(), all.size());
    EXPECT_NE(std::find(ofClass.begin(), ofClass.end(), "owningType"), ofClass.end());
    EXPECT_NE(std::find(primitive.begin(), primitive.end(), "name"), primitive.end());

    // Operations are described with their arguments, and inherited by name.
    std::vector<Operation> const isA = Class::metaClass()->getOperationsByName(u"isA");
    ASSERT_EQ(isA.size(), 1u);
    EXPECT_EQ(isA[0]->getOwningType(), Type::metaClass());
    EXPECT_EQ(isA[0]->getType(), registry().getType(u"Boolean"));
    ASSERT_EQ(isA[0]->getArguments().size(), 1u);
    EXPECT_EQ(isA[0]->getArguments()[0]->getName(), u"anotherType");
    EXPECT_EQ(isA[0]->getArguments()[0]->getType(), Type::metaClass());
    std::vector<Operation> const doRecurse = registry().getClass(u"kivra.meta.AttributeMap")->getOperationsByName(u"doRecurse");
    ASSERT_EQ(doRecurse.size(), 1u);
    EXPECT_FALSE(doRecurse[0]->getIsPublic());
    EXPECT_EQ(doRecurse[0]->getArguments().size(), 3u);
    EXPECT_TRUE(registry().getClass(u"kivra.meta.Attribute")->getOperationsByName(u"getType")[0]->getIsAbstract());
}

TEST(SelfDescription, EnumerationsAndDataTypesAreDescribed) {
    Enum const language = metaEnum(Language::CPlusPlus);
    ASSERT_TRUE(language);
    EXPECT_EQ(language->getQualifiedName(), u"kivra.meta.Language");
    EXPECT_EQ(language->getUuid(), parseUuidLiteral("910e0124-66b7-3596-81e5-3b831f0811c6"));
    EXPECT_EQ(language->getLiterals().size(), 3u);
    EXPECT_EQ(language->findLiteralByValue(2)->getName(), u"JavaScript");
    EXPECT_FALSE(language->findLiteralByValue(7));
    EXPECT_FALSE(language->findLiteralByPublicIdentifier(u"Unknown")); // none has one
    EXPECT_EQ(language->getUnderlyingType(), registry().getType(u"Integer"));

    auto const dataType = [](char16_t const *name) {
        Type const type = registry().getType(name);
        return DataType::fromImpl(dynamic_cast<DataType::Impl *>(type.get()));
    };
    DataType const versionInfo = dataType(u"kivra.meta.VersionInfo");
    ASSERT_TRUE(versionInfo);
    EXPECT_EQ(versionInfo->getOwnedAttributes().size(), 2u);
    EXPECT_EQ(versionInfo->getPropertyByName(u"family")->getPropertyIndex(), 1);
    DataType const origin = dataType(u"kivra.meta.TransactionOrigin");
    ASSERT_TRUE(origin);
    Property const language_ = origin->getPropertyByName(u"language");
    ASSERT_TRUE(language_);
    EXPECT_EQ(language_->getDefaultValue().value_or(u""), u"Unknown");
    EXPECT_EQ(language_->getType(), language);
}

TEST(SelfDescription, AGeneratedPackageIsDescribedWithOwnersAndTypes) {
    using namespace test::library;
    Class const book = Book::metaClass();
    ASSERT_TRUE(book);
    EXPECT_EQ(book->getOwningPackage(), LibraryPackage::getInstance().getPackage());
    EXPECT_EQ(book->getQualifiedName(), u"library.Book");
    EXPECT_EQ(Book::Impl::titleProperty()->getOwningType(), book);
    EXPECT_EQ(book->getSuperclass(), ModelElement::metaClass());
    EXPECT_EQ(Novel::metaClass()->getSuperclass(), book);
    EXPECT_TRUE(Novel::metaClass()->isATypeOf(Book::Impl::titleProperty()));
    EXPECT_FALSE(Author::metaClass()->isATypeOf(Book::Impl::titleProperty()));
    // An abstract class has no builder to instantiate through.
    EXPECT_FALSE(registry().getClass(u"kivra.meta.Attribute")->instantiate(Model::createTransientModel()));
}

// "random" and "now" are made for each element, directly and through a builder; any
// other default text is not dynamic, whatever it says.
TEST(SelfDescription, DynamicDefaultsAreMadeForEachElement) {
    using namespace test::library;
    Model model = Model::createTransientModel();
    boost::posix_time::ptime const before = boost::posix_time::microsec_clock::local_time();
    Shelf const first = Shelf::create(model);
    Shelf const second = Shelf::Builder(model).createShelf();
    boost::posix_time::ptime const after = boost::posix_time::microsec_clock::local_time();
    EXPECT_FALSE(first->getStamp().is_nil());
    EXPECT_FALSE(second->getStamp().is_nil());
    EXPECT_NE(first->getStamp(), second->getStamp());
    for (Shelf const &shelf : {first, second}) {
        EXPECT_LE(before, shelf->getOpened());
        EXPECT_LE(shelf->getOpened(), after);
    }
    EXPECT_TRUE(Shelf::Impl::stampProperty()->isDynamicDefault());
    EXPECT_TRUE(Shelf::Impl::openedProperty()->isDynamicDefault());
    EXPECT_FALSE(Book::Impl::pagesProperty()->isDynamicDefault());
    EXPECT_FALSE(Book::Impl::titleProperty()->isDynamicDefault());
}

TEST(SelfDescription, ARepeatedInitializationLeavesOneRootPackage) {
    Class const before = Class::metaClass();
    ASSERT_TRUE(VersionInfo::dataType()); // found, and kept, before the description is made again
    MetaPackageMeta::getInstance().initialize();
    Model const model = registry().getFrozenMetaRegistryModel().get();
    ModelElement const root = model->findElement(parseUuidLiteral("83420365-c799-3b21-8efd-43817abf0909"));
    ASSERT_TRUE(root);
    EXPECT_EQ(registry().getRootPackage(MetaRegistry::composeUri(u"19700101", u"meta")), root);
    EXPECT_FALSE(before->isValid());
    Class const after = Class::metaClass();
    EXPECT_TRUE(after->isValid());
    EXPECT_EQ(after->getMetaClass(), after);
    EXPECT_EQ(registry().getClass(u"kivra.meta.Class"), after);
    EXPECT_EQ(registry().getClass(u"kivra.ModelElement"), ModelElement::metaClass());
    EXPECT_TRUE(ModelElement::metaClass()->isValid());
    EXPECT_EQ(after->getPropertyByName(u"superclass"), Class::Impl::superclassProperty());

    // The serializers of the enums and data types are replaced, not registered twice.
    auto const &serializers = PropertySerializerRegistry::getInstance();
    MetaPackageMeta::Elements const &e = MetaPackageMeta::getInstance().elements();
    PropertySerializer const *byNumber = serializers.getPropertySerializer(e.e_Language, "ID");
    ASSERT_NE(byNumber, nullptr);
    EXPECT_EQ(byNumber->parseValue(u"1", e.e_Language).getType(), e.e_Language);
    DatatypeSerializer const *versions = serializers.getDatatypeSerializer(e.d_VersionInfo);
    ASSERT_NE(versions, nullptr);
    Value const info = versions->setPropertyValue(versions->createDefaultValue(), e.p_VersionInfo_minVersion,
                                                  Value(basalt::ustring(u"2")));
    EXPECT_EQ(versions->getPropertyValue(info, e.p_VersionInfo_minVersion), Value(basalt::ustring(u"2")));
    // The data type's own conversion finds the new description too.
    EXPECT_EQ(VersionInfo(u"core", u"2").toValue().getType(), e.d_VersionInfo);
}

} // namespace
} // namespace kivra::meta
