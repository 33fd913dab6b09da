// Records of data types described at run time: defaults, equality and hash, order, their
// values, the generated form, and records held by reflective elements.

#include <library/LibraryPackage.hpp>

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/DatatypeSerializers.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <boost/optional/optional.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace kivra::test {
namespace {

using reflection::ReflectiveDataType;
using Tag = ModelElement::Impl::ReflectionPrivateTag;

constexpr std::uint32_t many = std::uint32_t(-1);

// Two data types of a model loaded at run time, with no generated code: an imprint with a
// nested press. The type orders its fields by name: binding, city, press, printer, tags,
// year, and the odd ones.
struct Imprints {
    Imprints() {
        imprint = make(u"Imprint");
        press = make(u"Press");
        auto const type = [](char16_t const *name) { return meta::MetaRegistry::getInstance()->getType(name); };
        pressName = field(press, u"name", type(u"String"), 1, 1);
        binding = field(imprint, u"binding", library::LibraryPackage::getInstance().elements().e_Binding, 1, 1);
        binding->setDefaultValue(basalt::ustring(u"Paperback"));
        city = field(imprint, u"city", type(u"String"), 0, 1);
        publisher = field(imprint, u"press", press, 1, 1);
        printer = field(imprint, u"printer", press, 0, 1);
        tags = field(imprint, u"tags", type(u"String"), 0, many);
        tags->setIsOrdered(true);
        year = field(imprint, u"year", type(u"Integer"), 1, 1);
        year->setDefaultValue(basalt::ustring(u"1999"));
        garbled = field(imprint, u"zgarbled", type(u"Integer"), 0, 1);
        garbled->setDefaultValue(basalt::ustring(u"not a number"));
        derived = field(imprint, u"zderived", type(u"Integer"), 1, 1);
        derived->setIsDerived(true);
        untyped = field(imprint, u"zuntyped", meta::Type(), 1, 1);
    }
    meta::DataType make(char16_t const *name) {
        meta::DataType type = meta::DataType::create(model);
        type->setName(basalt::ustring(name));
        return type;
    }
    meta::Property field(meta::DataType const &owner, char16_t const *name, meta::Type const &type, std::uint32_t lower,
                         std::uint32_t upper) {
        meta::Property property = meta::Property::create(model);
        property->setName(basalt::ustring(name));
        property->setType(type);
        property->setLower(lower);
        property->setUpper(upper);
        property->setOwningType(owner);
        return property;
    }
    ReflectiveDataType pressOf(char16_t const *name) const {
        ReflectiveDataType record(press);
        record.setPropertyValue(pressName, Value(basalt::ustring(name)));
        return record;
    }

    Model model = Model::createTransientModel();
    meta::DataType imprint, press;
    meta::Property pressName, binding, city, publisher, printer, tags, year, garbled, derived, untyped;
};

Value text(char16_t const *value) { return Value(basalt::ustring(value)); }
Value number(std::int32_t value) { return Value(value); }

TEST(ReflectiveDataType, FieldsStartAtTheDefaultOfTheirKindAndAReadStoresIt) {
    Imprints const t;
    ReflectiveDataType const fresh(t.imprint);
    EXPECT_EQ(Value::createEmptyValue(t.imprint, true).toReflectiveDataType(), fresh);

    Value const publisher = fresh.getPropertyValue(t.publisher);
    ASSERT_TRUE(publisher.isReflective());
    EXPECT_EQ(publisher.getFlags(), ValueFlags::Single);
    EXPECT_EQ(publisher.toReflectiveDataType(), ReflectiveDataType(t.press));
    EXPECT_TRUE(publisher.toReflectiveDataType().getPropertyValue(t.pressName).get<basalt::ustring>().empty());

    Value const printer = fresh.getPropertyValue(t.printer);
    EXPECT_EQ(printer.getFlags(), ValueFlags::Optional);
    EXPECT_TRUE(printer.isReflective());
    EXPECT_THROW(printer.toReflectiveDataType(), Error<messages::InvalidValue>);

    Value const tags = fresh.getPropertyValue(t.tags);
    EXPECT_EQ(tags.getFlags(), ValueFlags::Sequence);
    EXPECT_FALSE(tags.isManaged());
    EXPECT_TRUE(tags.extractEntryValues().empty());

    EXPECT_EQ(fresh.getPropertyValue(t.year), number(1999));
    EXPECT_EQ(fresh.getPropertyValue(t.binding).get<std::uint64_t>(), 1u); // Paperback
    EXPECT_FALSE(fresh.getPropertyValue(t.garbled).hasPayload());
    EXPECT_FALSE(fresh.getPropertyValue(t.city).hasPayload());

    // Each read left its default behind: the record is still equal to an untouched one,
    // but no longer hashes as one with no entries.
    ReflectiveDataType const untouched(t.imprint);
    EXPECT_EQ(untouched.hash(), 0u);
    EXPECT_NE(fresh.hash(), 0u);
    EXPECT_EQ(fresh, untouched);
    EXPECT_EQ(untouched, fresh);
}

TEST(ReflectiveDataType, UnsetFieldsEqualTheirDefaultsAndTheHashCoversOnlyEntries) {
    Imprints const t;
    ReflectiveDataType written(t.imprint);
    written.setPropertyValue(t.year, number(1999));
    written.setPropertyValue(t.publisher, Value::createReflectiveDataTypeValue(t.press, true));
    written.setPropertyValue(t.city, Value(meta::Type(meta::StandardTypes::stringMeta), boost::none));
    EXPECT_EQ(written, ReflectiveDataType(t.imprint));
    EXPECT_EQ(ReflectiveDataType(t.imprint), written);

    written.setPropertyValue(t.year, number(2001));
    EXPECT_NE(written, ReflectiveDataType(t.imprint));
    ReflectiveDataType nested(t.imprint);
    nested.setPropertyValue(t.publisher, Value::createReflectiveDataTypeValue(t.pressOf(u"Ace")));
    EXPECT_NE(nested, ReflectiveDataType(t.imprint));
    EXPECT_NE(ReflectiveDataType(t.imprint), nested);

    // A value hashes as its record; another entry hashes apart.
    ReflectiveDataType one(t.imprint), other(t.imprint);
    one.setPropertyValue(t.year, number(7));
    other.setPropertyValue(t.year, number(8));
    EXPECT_NE(one.hash(), other.hash());
    EXPECT_EQ(Value::createReflectiveDataTypeValue(one).hashValues(), one.hash());

    // Values hold independent copies.
    Value const held = Value::createReflectiveDataTypeValue(one);
    Value copy = held;
    one.setPropertyValue(t.year, number(8));
    EXPECT_EQ(copy, held);
    EXPECT_EQ(held.toReflectiveDataType().getPropertyValue(t.year), number(7));
    EXPECT_NE(Value::createReflectiveDataTypeValue(one), held);
}

TEST(ReflectiveDataType, TheFirstDifferingFieldDecidesTheOrderWithEmptyBelowSet) {
    Imprints const t;
    auto const imprint = [&](char16_t const *city, std::int32_t year, char16_t const *press) {
        ReflectiveDataType record(t.imprint);
        if (city)
            record.setPropertyValue(t.city, text(city));
        record.setPropertyValue(t.year, number(year));
        if (press)
            record.setPropertyValue(t.publisher, Value::createReflectiveDataTypeValue(t.pressOf(press)));
        return record;
    };
    struct Case {
        char const *what;
        ReflectiveDataType a, b;
        int order;
    };
    Case const cases[] = {
        {"empty city below any city, whatever follows", imprint(nullptr, 3000, u"Z"), imprint(u"A", 1, u"A"), -1},
        {"set city above the empty one", imprint(u"A", 1, u"A"), imprint(nullptr, 3000, u"Z"), 1},
        {"cities in their order", imprint(u"Bergen", 3000, nullptr), imprint(u"Oslo", 1, nullptr), -1},
        {"the nested record decides when it differs", imprint(u"Oslo", 1, u"Tor"), imprint(u"Oslo", 0, u"Ace"), 1},
        {"an equal nested record passes on to the year", imprint(u"Oslo", 1, u"Ace"), imprint(u"Oslo", 2, u"Ace"), -1},
        {"all equal", imprint(u"Oslo", 2, u"Ace"), imprint(u"Oslo", 2, u"Ace"), 0},
    };
    for (Case const &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.a.compareWith(c.b), c.order);
        EXPECT_EQ(c.b.compareWith(c.a), -c.order);
        EXPECT_EQ(c.a < c.b, c.order < 0);
    }

    // A field of a type without order stops the comparison where it differs.
    ReflectiveDataType hardcover(t.imprint), leather(t.imprint);
    hardcover.setPropertyValue(t.binding, Value::createEnumValue(library::LibraryPackage::getInstance().elements().l_Binding_Hardcover));
    leather.setPropertyValue(t.binding, Value::createEnumValue(library::LibraryPackage::getInstance().elements().l_Binding_Leather));
    EXPECT_THROW(hardcover.compareWith(leather), Error<query::RelationAndTypeNotSupported>);
    EXPECT_EQ(hardcover.compareWith(hardcover), 0);
}

TEST(ReflectiveDataType, OnlyItsOwnTypedValuedFieldsAreReadAndWritten) {
    Imprints const t;
    ReflectiveDataType record(t.imprint);
    EXPECT_THROW(ReflectiveDataType(meta::DataType()), Error<messages::NoSuchType>);

    // A property of another type, even the nested one's, is no field here.
    EXPECT_THROW(record.getPropertyValue(t.pressName), Error<messages::NoSuchProperty>);
    EXPECT_THROW(record.setPropertyValue(t.pressName, text(u"Ace")), Error<messages::NoSuchProperty>);
    EXPECT_THROW(record.getPropertyValue(meta::Property()), Error<messages::NoSuchProperty>);
    EXPECT_THROW(record.getPropertyValue(t.derived), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(record.setPropertyValue(t.derived, number(1)), Error<messages::NoSuchProperty>);
    EXPECT_THROW(record.getPropertyValue(t.untyped), Error<messages::CannotUsePropertyWithoutType>);
    EXPECT_THROW(record.setPropertyValue(t.untyped, number(1)), Error<messages::NoSuchProperty>);

    // A value that does not fit changes nothing.
    EXPECT_THROW(record.setPropertyValue(t.year, text(u"1999")), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(record.setPropertyValue(t.publisher, Value::createReflectiveDataTypeValue(t.press, false)),
                 Error<messages::InvalidValue>);
    EXPECT_EQ(record.hash(), 0u);

    // Records of two types are unequal and have no order between them.
    ReflectiveDataType const press(t.press);
    EXPECT_NE(record, press);
    EXPECT_THROW(record.compareWith(press), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_NE(Value::createReflectiveDataTypeValue(record), Value::createReflectiveDataTypeValue(press));
    EXPECT_THROW(text(u"x").toReflectiveDataType(), Error<messages::CannotCastIncompatibleTypes>);
    // A type without code has no generated form to turn into.
    EXPECT_FALSE(record.toNonReflectiveDataTypeValue());
}

TEST(ReflectiveDataType, AGeneratedDataTypeGoesToARecordAndBack) {
    auto const &e = library::LibraryPackage::getInstance().elements();
    meta::DatatypeSerializer const &editions = *meta::PropertySerializerRegistry::getInstance().getDatatypeSerializer(e.d_Edition);
    Value generated = editions.createDefaultValue();
    generated = editions.setPropertyValue(generated, e.p_Edition_number, number(3));
    generated = editions.setPropertyValue(generated, e.p_Edition_publisher, text(u"Gollancz"));
    generated = editions.setPropertyValue(generated, e.p_Edition_binding, Value::createEnumValue(e.l_Binding_Leather));

    ReflectiveDataType const record = generated.toReflectiveDataType();
    EXPECT_EQ(record.getPropertyValue(e.p_Edition_number), number(3));
    EXPECT_EQ(record.getPropertyValue(e.p_Edition_publisher), text(u"Gollancz"));
    EXPECT_FALSE(record.getPropertyValue(e.p_Edition_isbn).hasPayload());

    boost::optional<Value> const back = record.toNonReflectiveDataTypeValue();
    ASSERT_TRUE(back);
    EXPECT_FALSE(back->isReflective());
    EXPECT_EQ(*back, generated);

    // The two forms of one value are equal values.
    Value const reflective = Value::createReflectiveDataTypeValue(record);
    EXPECT_EQ(reflective, generated);
    EXPECT_EQ(generated, reflective);
    EXPECT_NE(Value::createReflectiveDataTypeValue(e.d_Edition, true), generated);

    // The serializer reads and writes the record form of its own type as well.
    EXPECT_EQ(editions.getPropertyValue(reflective, e.p_Edition_publisher), text(u"Gollancz"));
    Value const renumbered = editions.setPropertyValue(reflective, e.p_Edition_number, number(4));
    EXPECT_FALSE(renumbered.isReflective());
    EXPECT_EQ(editions.getPropertyValue(renumbered, e.p_Edition_publisher), text(u"Gollancz"));
    EXPECT_EQ(editions.getPropertyValue(renumbered, e.p_Edition_number), number(4));
}

// A class of the same run-time model whose elements hold an imprint.
struct Catalogue : Imprints {
    Catalogue() {
        book = meta::Class::create(model);
        book->setName(basalt::ustring(u"Book"));
        book->setSuperclass(ModelElement::metaClass());
        held = meta::Property::create(model);
        held->setName(basalt::ustring(u"imprint"));
        held->setType(imprint);
        held->setLower(1);
        held->setUpper(1);
        held->setPropertyIndex(1);
        held->setOwningType(book);
        reprints = meta::Property::create(model);
        reprints->setName(basalt::ustring(u"reprints"));
        reprints->setType(imprint);
        reprints->setUpper(many);
        reprints->setPropertyIndex(2);
        reprints->setOwningType(book);
    }
    meta::Class book;
    meta::Property held, reprints;
};

TEST(ReflectiveDataType, AnElementsRecordIsRecordedAndRolledBack) {
    Catalogue const t;
    Model elements = Model::createTransientModel();
    ModelElement const book = ModelElement::createReflective(elements, t.book, {});
    Value const start = book->getPropertyValue(t.held, Tag::PUBLIC_ACCESS);
    ASSERT_TRUE(start.isReflective());
    EXPECT_EQ(start.toReflectiveDataType(), ReflectiveDataType(t.imprint));

    ReflectiveDataType changed(t.imprint);
    changed.setPropertyValue(t.year, number(2024));
    changed.setPropertyValue(t.publisher, Value::createReflectiveDataTypeValue(t.pressOf(u"Tor")));
    {
        Transaction transaction = elements->beginTransaction(/*revertible=*/true);
        book->setPropertyValue(t.held, Value::createReflectiveDataTypeValue(changed), Tag::PUBLIC_ACCESS);
        EXPECT_EQ(book->getPropertyValue(t.held, Tag::PUBLIC_ACCESS).toReflectiveDataType(), changed);
        transaction.rollBack();
    }
    EXPECT_EQ(book->getPropertyValue(t.held, Tag::PUBLIC_ACCESS), start);

    book->setPropertyValue(t.held, Value::createReflectiveDataTypeValue(changed), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(book->getPropertyValue(t.held, Tag::PUBLIC_ACCESS).toReflectiveDataType(), changed);
    EXPECT_THROW(book->setPropertyValue(t.held, Value::createReflectiveDataTypeValue(t.imprint, false), Tag::PUBLIC_ACCESS),
                 Error<messages::CannotCastIncompatibleTypes>);
}

// Elements and records hold the descriptions they were made of: they outlive the model of
// their metamodel, through a roll-back that brings an element back.
TEST(ReflectiveDataType, RecordsAndElementsOutliveTheModelOfTheirTypes) {
    Model elements = Model::createTransientModel();
    ModelElement book;
    Value record = number(0);
    {
        Catalogue const t;
        book = ModelElement::createReflective(elements, t.book, {});
        ReflectiveDataType changed(t.imprint);
        changed.setPropertyValue(t.year, number(2024));
        book->setPropertyValue(t.held, Value::createReflectiveDataTypeValue(changed), Tag::PUBLIC_ACCESS);
        record = book->getPropertyValue(t.held, Tag::PUBLIC_ACCESS);
    }
    Value const copy = record;
    EXPECT_EQ(copy, record);
    EXPECT_EQ(copy.hashValues(), record.hashValues());
    {
        Transaction transaction = elements->beginTransaction(/*revertible=*/true);
        book->destroy();
        transaction.rollBack();
    }
    EXPECT_TRUE(book);
    EXPECT_EQ(book->getMetaClass()->getName(), u"Book");
    book->destroy();
}

TEST(ReflectiveDataType, AnElementsListOfRecordsKeepsRepeatsAndRollsBack) {
    Catalogue const t;
    Model elements = Model::createTransientModel();
    ModelElement const book = ModelElement::createReflective(elements, t.book, {});
    auto &reprints = *static_cast<AbstractPrimitiveCollection *>(
        const_cast<void *>(book->getPropertyValue(t.reprints, Tag::PUBLIC_ACCESS).getPayload()));
    auto &list = *static_cast<GenericPrimitiveSequenceInterface *>(reprints.getGenericInterface());
    ReflectiveDataType first(t.imprint), second(t.imprint);
    second.setPropertyValue(t.year, number(2024));
    reprints.genericAdd(Value::createReflectiveDataTypeValue(first));
    {
        Transaction transaction = elements->beginTransaction(/*revertible=*/true);
        reprints.genericAdd(Value::createReflectiveDataTypeValue(second));
        reprints.genericAdd(Value::createReflectiveDataTypeValue(second));
        list.genericReplace(Value::createReflectiveDataTypeValue(second), 0);
        EXPECT_EQ(reprints.size(), 3u);
        EXPECT_EQ(list.genericIndexOf(Value::createReflectiveDataTypeValue(first)), -1);
        transaction.rollBack();
    }
    ASSERT_EQ(reprints.size(), 1u);
    EXPECT_EQ(list.genericAt(0).toReflectiveDataType(), first);
    EXPECT_THROW(reprints.genericAdd(Value::createReflectiveDataTypeValue(t.pressOf(u"Ace"))),
                 Error<messages::CannotCastIncompatibleTypes>);
    reprints.genericRemove(Value::createReflectiveDataTypeValue(ReflectiveDataType(t.imprint)));
    EXPECT_TRUE(reprints.empty());
}

} // namespace
} // namespace kivra::test
