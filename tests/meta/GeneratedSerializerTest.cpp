#include "RegistryFixtures.hpp"

#include <library/Edition.hpp>
#include <library/LibraryPackage.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/DatatypeSerializers.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/EnumPropertySerializers.hpp>
#include <kivra/meta/ExtensionPrototype.hpp>
#include <kivra/meta/MetaPackageMeta.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/meta/TransactionOrigin.hpp>
#include <kivra/meta/VersionInfo.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivra::meta {
namespace {

using basalt::ustring;
using S = StandardTypes;
using ::kivra::test::library::Binding;
using ::kivra::test::library::Edition;
using ::kivra::test::library::LibraryPackage;

PropertySerializerRegistry &serializers() { return PropertySerializerRegistry::getInstance(); }
MetaPackageMeta::Elements const &meta() { return MetaPackageMeta::getInstance().elements(); }
LibraryPackage::Elements const &library() { return LibraryPackage::getInstance().elements(); }

template <class T> DatatypeSerializerOf<T> const &serializerOf(DataType const &type) {
    auto const *serializer = dynamic_cast<DatatypeSerializerOf<T> const *>(serializers().getDatatypeSerializer(type));
    if (!serializer)
        throw std::logic_error("no native serializer for " + basalt::i18n::ustring_to_utf8(type->getQualifiedName()));
    return *serializer;
}

boost::uuids::uuid uuidOf(unsigned char seed) {
    boost::uuids::uuid id{};
    for (unsigned char &byte : id.data)
        byte = seed++;
    return id;
}

/// Writes each sample into its field, one after another, and reads every one back: each
/// write makes a new value and leaves the one it started from as it was.
template <class T> T writeAll(DataType const &type, std::vector<std::pair<Property, Value>> const &samples) {
    DatatypeSerializerOf<T> const &serializer = serializerOf<T>(type);
    Value value = serializer.createDefaultValue();
    EXPECT_EQ(value, Value::createEmptyValue(type, true));
    for (auto const &[property, sample] : samples) {
        SCOPED_TRACE(basalt::i18n::ustring_to_utf8(property->getName()));
        Value const before = value;
        Value const after = serializer.setPropertyValue(value, property, sample);
        EXPECT_EQ(value, before);
        EXPECT_NE(after, before);
        EXPECT_EQ(after.getType(), type);
        EXPECT_EQ(after.getFlags(), ValueFlags::Single);
        value = after;
    }
    for (auto const &[property, sample] : samples)
        EXPECT_EQ(serializer.getPropertyValue(value, property), sample) << basalt::i18n::ustring_to_utf8(property->getName());
    return serializer.fromValue(value);
}

TEST(DatatypeSerializer, EveryFieldOfKivrasDataTypesRoundTrips) {
    auto const &e = meta();
    VersionInfo const info = writeAll<VersionInfo>(e.d_VersionInfo, {{e.p_VersionInfo_family, Value(ustring(u"core"))},
                                                                     {e.p_VersionInfo_minVersion, Value(ustring(u"2.1"))}});
    EXPECT_EQ(info, VersionInfo(u"core", u"2.1"));

    ExtensionPrototype const prototype = writeAll<ExtensionPrototype>(
        e.d_ExtensionPrototype, {{e.p_ExtensionPrototype_lower, Value(std::uint32_t(2))},
                                 {e.p_ExtensionPrototype_upper, Value(ExtensionPrototype::unlimited)},
                                 {e.p_ExtensionPrototype_isOrdered, Value(true)},
                                 {e.p_ExtensionPrototype_isUnique, Value(false)},
                                 {e.p_ExtensionPrototype_name, Value(ustring(u"tags"))},
                                 {e.p_ExtensionPrototype_typeName, Value(ustring(u"kivra.meta.String"))}});
    EXPECT_EQ(prototype, ExtensionPrototype()
                             .setLower(2)
                             .setUpper(ExtensionPrototype::unlimited)
                             .setIsOrdered(true)
                             .setIsUnique(false)
                             .setName(u"tags")
                             .setTypeName(u"kivra.meta.String"));

    TransactionOrigin const origin = writeAll<TransactionOrigin>(
        e.d_TransactionOrigin,
        {{e.p_TransactionOrigin_model, Value(uuidOf(1))},
         {e.p_TransactionOrigin_language, Value::createEnumValue(e.l_Language_JavaScript)},
         {e.p_TransactionOrigin_transactionId, Value(uuidOf(2))},
         {e.p_TransactionOrigin_synchronizer, Value(uuidOf(3))},
         {e.p_TransactionOrigin_transactionOrdinal, Value(std::int32_t(-7))},
         {e.p_TransactionOrigin_transactionFactory, Value(uuidOf(4))}});
    TransactionOrigin expected;
    expected.setModel(uuidOf(1));
    expected.setLanguage(Language::JavaScript);
    expected.setTransactionId(uuidOf(2));
    expected.setSynchronizer(uuidOf(3));
    expected.setTransactionOrdinal(-7);
    expected.setTransactionFactory(uuidOf(4));
    EXPECT_TRUE(origin == expected); // each sample landed in its own field

    // The values are the ones the data types' own conversions read.
    EXPECT_EQ(VersionInfo::fromValue(serializerOf<VersionInfo>(e.d_VersionInfo).toValue(info)), info);
    EXPECT_EQ(serializerOf<VersionInfo>(e.d_VersionInfo).fromValue(info.toValue()), info);
}

TEST(DatatypeSerializer, AValueWithoutPayloadWritesTheFieldsDefault) {
    auto const &e = meta();
    auto const &prototypes = serializerOf<ExtensionPrototype>(e.d_ExtensionPrototype);
    Value const changed = prototypes.toValue(ExtensionPrototype().setUpper(9).setIsUnique(false).setName(u"x"));
    Value value = prototypes.setPropertyValue(changed, e.p_ExtensionPrototype_upper, Value(S::unlimitedNaturalMeta, boost::none));
    value = prototypes.setPropertyValue(value, e.p_ExtensionPrototype_isUnique, Value(S::booleanMeta, boost::none));
    EXPECT_EQ(prototypes.fromValue(value), ExtensionPrototype().setName(u"x")); // upper 1, unique

    auto const &origins = serializerOf<TransactionOrigin>(e.d_TransactionOrigin);
    TransactionOrigin synchronized;
    synchronized.setSynchronizer(uuidOf(5));
    synchronized.setLanguage(Language::CPlusPlus);
    value = origins.setPropertyValue(origins.toValue(synchronized), e.p_TransactionOrigin_synchronizer,
                                     Value(S::uuidMeta, boost::none));
    value = origins.setPropertyValue(value, e.p_TransactionOrigin_language, Value(e.e_Language, boost::none));
    EXPECT_FALSE(origins.fromValue(value).hasSynchronizer());
    EXPECT_EQ(origins.fromValue(value).getLanguage(), Language::Unknown);
    EXPECT_FALSE(origins.getPropertyValue(value, e.p_TransactionOrigin_synchronizer).hasPayload());

    // An empty optional of the data type reads as a default-built object.
    Value const empty = Value::createEmptyValue(e.d_ExtensionPrototype, false);
    EXPECT_FALSE(empty.hasPayload());
    EXPECT_EQ(empty.getFlags(), ValueFlags::Optional);
    EXPECT_EQ(prototypes.getPropertyValue(empty, e.p_ExtensionPrototype_upper), Value(std::uint32_t(1)));
}

TEST(DatatypeSerializer, RefusesPropertiesOfOtherTypesAndValuesOfOtherTypes) {
    auto const &e = meta();
    DatatypeSerializer const &versions = serializerOf<VersionInfo>(e.d_VersionInfo);
    Value const info = VersionInfo(u"core", u"1").toValue();
    auto expectNoSuchProperty = [&](Property const &property, ustring const &name) {
        for (int write = 0; write < 2; ++write) {
            try {
                write ? (void)versions.setPropertyValue(info, property, Value(ustring(u"x")))
                      : (void)versions.getPropertyValue(info, property);
                ADD_FAILURE() << "no error for " << basalt::i18n::ustring_to_utf8(name);
            } catch (Error<messages::NoSuchProperty> const &error) {
                auto const &arguments = error.getRecord().getArguments();
                EXPECT_EQ(std::get<ustring>(arguments[0]), name);
                EXPECT_EQ(std::get<ustring>(arguments[1]), u"kivra.meta.VersionInfo");
            }
        }
    };
    expectNoSuchProperty(e.p_ExtensionPrototype_name, u"name");
    expectNoSuchProperty(e.p_NamedElement_name, u"name");
    expectNoSuchProperty(Property(), u"");

    using Incompatible = Error<messages::CannotCastIncompatibleTypes>;
    Value const prototype = serializerOf<ExtensionPrototype>(e.d_ExtensionPrototype).createDefaultValue();
    EXPECT_THROW(versions.getPropertyValue(prototype, e.p_VersionInfo_family), Incompatible);
    EXPECT_THROW(versions.setPropertyValue(prototype, e.p_VersionInfo_family, Value(ustring(u"x"))), Incompatible);
    EXPECT_THROW(versions.getPropertyValue(Value(ustring(u"core")), e.p_VersionInfo_family), Incompatible);
    // Without a payload only the type tells: an empty prototype is no empty version.
    EXPECT_THROW(versions.getPropertyValue(Value(e.d_ExtensionPrototype, boost::none), e.p_VersionInfo_family), Incompatible);
    EXPECT_THROW(versions.setPropertyValue(Value(S::stringMeta, boost::none), e.p_VersionInfo_family, Value(ustring(u"x"))),
                 Incompatible);
    EXPECT_THROW(versions.setPropertyValue(info, e.p_VersionInfo_family, Value(std::int32_t(3))), Incompatible);
    Value const sequence = versions.combineAsUnmanagedSequenceValue(e.d_VersionInfo, {info});
    EXPECT_THROW(versions.getPropertyValue(sequence, e.p_VersionInfo_family), Incompatible);
}

TEST(DatatypeSerializer, CombinesObjectsIntoFreeStandingCollections) {
    auto const &e = meta();
    DatatypeSerializer const &versions = serializerOf<VersionInfo>(e.d_VersionInfo);
    VersionInfo const b(u"b", u"1"), a(u"a", u"2");
    std::vector<Value> const entries = {b.toValue(), a.toValue(), b.toValue(), Value(e.d_VersionInfo, boost::none)};

    Value const sequence = versions.combineAsUnmanagedSequenceValue(e.d_VersionInfo, entries);
    EXPECT_FALSE(sequence.isManaged());
    EXPECT_EQ(sequence.getFlags(), ValueFlags::Sequence);
    std::vector<VersionInfo> read;
    for (Value const &entry : sequence.extractEntryValues())
        read.push_back(VersionInfo::fromValue(entry));
    EXPECT_EQ(read, (std::vector<VersionInfo>{b, a, b, VersionInfo()}));

    Value const set = versions.combineAsUnmanagedSetValue(e.d_VersionInfo, entries);
    EXPECT_EQ(set.getFlags(), ValueFlags::SortedSet);
    read.clear();
    for (Value const &entry : set.extractEntryValues())
        read.push_back(VersionInfo::fromValue(entry));
    EXPECT_EQ(read, (std::vector<VersionInfo>{VersionInfo(), a, b}));

    EXPECT_TRUE(versions.combineAsUnmanagedSequenceValue(e.d_VersionInfo, {}).extractEntryValues().empty());
    EXPECT_THROW(versions.combineAsUnmanagedSequenceValue(e.d_VersionInfo, {Value(ustring(u"a"))}),
                 Error<messages::CannotCastIncompatibleTypes>);
    // Origins have no order to sort a set by.
    EXPECT_THROW(serializerOf<TransactionOrigin>(e.d_TransactionOrigin).combineAsUnmanagedSetValue(e.d_TransactionOrigin, {}),
                 Error<messages::InvalidValue>);
}

// A model handle lives only in memory: it writes as nothing and reads back as no model.
TEST(GeneratedEnumSerializer, AModelTypedValueIsNeverWritten) {
    PrimitiveType const &kivraModel = MetaPackageMeta::getInstance().getKivraModelType();
    PropertySerializer const *serializer = PropertySerializerRegistry::getInstance().getPropertySerializer(kivraModel, "");
    ASSERT_NE(serializer, nullptr);
    Value const read = serializer->parseValue(u"any text at all", kivraModel);
    EXPECT_EQ(read.getType(), kivraModel);
    ASSERT_TRUE(read.hasPayload());
    EXPECT_FALSE(*static_cast<Model const *>(read.getPayload()));
    EXPECT_EQ(serializer->serializeValue(read), u"");
    EXPECT_FALSE(serializer->createEmptyOptionalValue(kivraModel).hasPayload());
}

TEST(DatatypeSerializer, AUserDataTypeStartsFromTheDefaultsOfItsTables) {
    auto const &e = library();
    auto const &editions = serializerOf<Edition>(e.d_Edition);
    Value const fresh = Value::createEmptyValue(e.d_Edition, true);
    EXPECT_EQ(editions.getPropertyValue(fresh, e.p_Edition_number), Value(std::int32_t(1)));
    EXPECT_EQ(editions.getPropertyValue(fresh, e.p_Edition_binding), Value::createEnumValue(e.l_Binding_Paperback));
    EXPECT_FALSE(editions.getPropertyValue(fresh, e.p_Edition_isbn).hasPayload());

    Edition const edition = writeAll<Edition>(e.d_Edition, {{e.p_Edition_number, Value(std::int32_t(3))},
                                                            {e.p_Edition_publisher, Value(ustring(u"Gollancz"))},
                                                            {e.p_Edition_binding, Value::createEnumValue(e.l_Binding_Leather)},
                                                            {e.p_Edition_isbn, Value(std::string("0-575"))}});
    EXPECT_EQ(edition.getBinding(), Binding::Leather);
    EXPECT_TRUE(edition.getIsbn() == std::string("0-575"));
    Value const cleared = editions.setPropertyValue(editions.toValue(edition), e.p_Edition_isbn,
                                                    Value(S::stdstringMeta, boost::none));
    EXPECT_FALSE(editions.fromValue(cleared).getIsbn());
    EXPECT_THROW(editions.getPropertyValue(fresh, e.p_Shelf_label), Error<messages::NoSuchProperty>);
}

/// A description of one enum whose serializers come and go with it.
class PassingPackage : public AbstractMetaPackage {
public:
    explicit PassingPackage(bool fail) {
        begin();
        createPackage(test::uniqueName(u"passing"), test::uniqueName(u"http://passing/"));
        colour = createEnum(u"Colour", test::uniqueUuidText().c_str());
        registerPropertySerializer(serializers(), colour,
                                   std::make_unique<EnumPropertySerializerAsName<Language>>(literals), "");
        registerPropertySerializer(serializers(), colour,
                                   std::make_unique<EnumPropertySerializerAsValue<Language>>(literals), "ID");
        if (fail) {
            abandon();
            return;
        }
        finish();
    }
    static constexpr EnumLiteralEntry literals[] = {{u"red", 0, u""}};
    Enum colour;
};

TEST(GeneratedEnumSerializer, APackagesSerializersLiveAsLongAsItDoes) {
    Enum colour;
    {
        PassingPackage const package(false);
        colour = package.colour;
        EXPECT_NE(serializers().getPropertySerializerForTypeOnly(colour, ""), nullptr);
        EXPECT_NE(serializers().getPropertySerializerForTypeOnly(colour, "ID"), nullptr);
    }
    EXPECT_EQ(serializers().getPropertySerializerForTypeOnly(colour, ""), nullptr);
    EXPECT_EQ(serializers().getPropertySerializerForTypeOnly(colour, "ID"), nullptr);

    // A description that fails takes its serializers back with its elements; a type of the
    // same UUID made later finds none.
    PassingPackage const abandoned(true);
    Model const elsewhere = Model::createTransientModel();
    Enum const namesake = Enum::create(elsewhere, abandoned.colour->getUuid());
    ASSERT_TRUE(namesake);
    EXPECT_EQ(serializers().getPropertySerializerForTypeOnly(namesake, ""), nullptr);

}

} // namespace
} // namespace kivra::meta
