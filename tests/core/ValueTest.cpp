#include <library/Book.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/services/Hashers.hpp>

#include <gtest/gtest.h>

#include <type_traits>

namespace kivra {
namespace {

using meta::StandardTypes;

static_assert(std::is_nothrow_move_constructible_v<Value> && std::is_nothrow_move_assignable_v<Value>);

// A small metamodel of properties of every shape, made by hand in a model of its own.
class ValueTest : public ::testing::Test {
protected:
    void SetUp() override { meta::MetaRegistry::getInstance(); }

    meta::Property property(meta::Type const &type, std::uint32_t lower, std::uint32_t upper, bool ordered = false,
                            bool hashed = false) {
        meta::Property p = meta::Property::create(model);
        p->setType(type);
        p->setLower(lower);
        p->setUpper(upper);
        p->setIsOrdered(ordered);
        p->setIsHashed(hashed);
        return p;
    }
    meta::Class cls(meta::Class const &superclass = {}) {
        meta::Class c = meta::Class::create(model);
        c->setSuperclass(superclass);
        return c;
    }

    static constexpr std::uint32_t many = std::uint32_t(-1);
    Model model = Model::createTransientModel();
};

TEST_F(ValueTest, ShapeFollowsTheProperty) {
    meta::Class const book = cls();
    meta::Property const key = property(StandardTypes::stringMeta, 1, 1);
    struct Case {
        char const *what;
        meta::Property property;
        ValueFlags flags;
    };
    meta::Property map = property(book, 0, many);
    map->setQualifiedBy(key);
    meta::Property hashMultimap = property(book, 0, many, false, true);
    hashMultimap->setQualifiedBy(key);
    hashMultimap->setIsQualificationUnique(false);
    Case const cases[] = {
        {"optional text", property(StandardTypes::stringMeta, 0, 1), ValueFlags::Optional},
        {"required text", property(StandardTypes::stringMeta, 1, 1), ValueFlags::Single},
        {"optional reference", property(book, 0, 1), ValueFlags::Single},
        {"ordered", property(StandardTypes::integerMeta, 0, many, true), ValueFlags::Sequence},
        {"unordered texts", property(StandardTypes::stringMeta, 0, many), ValueFlags::SortedSet},
        {"hashed texts", property(StandardTypes::stringMeta, 0, many, false, true), ValueFlags::HashSet},
        {"unordered elements", property(book, 0, many), ValueFlags::HashSet},
        {"map", map, ValueFlags::Map},
        {"hash multimap", hashMultimap, ValueFlags::HashMultimap},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.what);
        ValueMeta const meta(c.property);
        EXPECT_EQ(meta.getFlags(), c.flags);
        EXPECT_EQ(meta.getQualifiedByProperty().get() != nullptr, isCollection(c.flags) && c.flags >= ValueFlags::Map);
    }
    EXPECT_EQ(ValueMeta(map).getQualifiedBy(), StandardTypes::stringMeta);
}

TEST_F(ValueTest, CompatibilityWithProperties) {
    meta::Property const optionalText = property(StandardTypes::stringMeta, 0, 1);
    meta::Property const requiredText = property(StandardTypes::stringMeta, 1, 1);
    Value const nothing(StandardTypes::stringMeta, boost::none);
    Value const text(StandardTypes::stringMeta, basalt::ustring(u"x"));

    EXPECT_TRUE(nothing.extractEntryValues().empty());
    EXPECT_TRUE(nothing.isCompatibleWithProperty(optionalText));
    EXPECT_TRUE(text.isCompatibleWithProperty(optionalText));
    EXPECT_TRUE(text.isCompatibleWithProperty(requiredText));
    EXPECT_THROW(nothing.checkCompatibleWithProperty(requiredText), Error<messages::InvalidValue>);
    EXPECT_THROW(Value(StandardTypes::integerMeta, 1).checkCompatibleWithProperty(requiredText),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(text.checkCompatibleWithProperty(meta::Property()), Error<messages::InvalidValue>);

    meta::Class const base = cls();
    meta::Class const derived = cls(base);
    Value const ofBase = Value::createEmptyValue(base);
    Value const ofDerived = Value::createEmptyValue(derived);
    EXPECT_TRUE(ofDerived.isCompatibleWithProperty(property(base, 0, 1)));
    EXPECT_FALSE(ofBase.isCompatibleWithProperty(property(derived, 0, 1)));
}

TEST_F(ValueTest, ScalarsCheckTheirTypeAndReadBack) {
    Value const answer(StandardTypes::integerMeta, 42);
    EXPECT_EQ(answer.get<std::int32_t>(), 42);
    EXPECT_EQ(answer.getFlags(), ValueFlags::Single);
    EXPECT_THROW(answer.get<double>(), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(Value(StandardTypes::realMeta, 42), Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(Value(StandardTypes::integerMeta, boost::none).get<std::int32_t>(), Error<messages::InvalidValue>);

    // Absent and not required: the empty optional of whatever type it names, even one that
    // is not the native type's; required: the type's default.
    Value const absent(StandardTypes::realMeta, boost::optional<std::int32_t>(), false);
    EXPECT_EQ(absent.getFlags(), ValueFlags::Optional);
    EXPECT_FALSE(absent.hasPayload());
    EXPECT_FALSE(Value(StandardTypes::integerMeta, boost::optional<std::int32_t>(), false).hasPayload());
    EXPECT_EQ(Value(StandardTypes::integerMeta, boost::optional<std::int32_t>(), true).get<std::int32_t>(), 0);

    // Enum literals travel as 64-bit numbers of their enum.
    meta::Enum const colour = meta::Enum::create(model);
    Value const red(colour, std::uint64_t(std::int64_t(-1)));
    EXPECT_EQ(red.get<std::uint64_t>(), ~std::uint64_t(0));
    EXPECT_THROW(Value(colour, std::int32_t(1)), Error<messages::CannotCastIncompatibleTypes>);
}

TEST_F(ValueTest, CompareAndEqualityAcrossEmptyPayloadsAndTypes) {
    using R = Value::ComparisonResult;
    Value const none(StandardTypes::integerMeta, boost::none);
    Value const one(StandardTypes::integerMeta, 1);
    Value const two(StandardTypes::integerMeta, 2);
    EXPECT_EQ(none.compareWithOtherValue(one), R::Less);
    EXPECT_EQ(one.compareWithOtherValue(none), R::Greater);
    EXPECT_EQ(none.compareWithOtherValue(Value(StandardTypes::integerMeta, boost::none)), R::Equal);
    EXPECT_EQ(one.compareWithOtherValue(two), R::Less);
    EXPECT_EQ(two.compareWithOtherValue(Value(StandardTypes::integerMeta, 2)), R::Equal);

    // Same number, other type: unequal and incomparable.
    meta::Enum const colour = meta::Enum::create(model);
    Value const asEnum(colour, std::uint64_t(2));
    Value const asNumber(StandardTypes::uinteger64Meta, std::uint64_t(2));
    EXPECT_NE(asEnum, asNumber);
    EXPECT_EQ(asEnum.compareWithOtherValue(asNumber), R::Incomparable);
    EXPECT_EQ(asNumber, Value(StandardTypes::uinteger64Meta, std::uint64_t(2)));

    // Elements of one type are equal only as the same element, and never ordered.
    meta::Class const book = cls();
    Value const a(book, ModelElement::fromImpl(meta::Class::create(model).get()));
    Value const b(book, ModelElement::fromImpl(meta::Class::create(model).get()));
    EXPECT_NE(a, b);
    EXPECT_EQ(a, Value(a));
    EXPECT_EQ(a.compareWithOtherValue(b), R::Equal);
}

TEST_F(ValueTest, HashesAreFnvForIntegersAndTexts) {
    std::int32_t const number = 7;
    EXPECT_EQ(Value(StandardTypes::integerMeta, number).hashValues(), services::hashers::fnv1a(&number, sizeof number));
    EXPECT_EQ(Value(StandardTypes::stdstringMeta, std::string("ab")).hashValues(), services::hashers::fnv1a("ab", 2));
    EXPECT_EQ(Value(StandardTypes::integerMeta, boost::none).hashValues(), 0u);
}

TEST_F(ValueTest, CopiesCloneMovesSteal) {
    // A text too long for its small-string buffer: a move must hand its buffer over.
    Value original(StandardTypes::stringMeta, basalt::ustring(u"a text longer than a small string"));
    Value copy = original;
    EXPECT_NE(copy.getPayload(), original.getPayload());
    EXPECT_EQ(copy, original);
    char16_t const *buffer = original.get<basalt::ustring>().data();
    Value moved = std::move(original);
    EXPECT_EQ(moved.get<basalt::ustring>().data(), buffer);
    EXPECT_FALSE(original.hasPayload());
    copy = moved;
    EXPECT_EQ(copy.get<basalt::ustring>(), u"a text longer than a small string");
    moved = Value(std::int32_t(4));
    EXPECT_EQ(moved.get<std::int32_t>(), 4);
    EXPECT_EQ(moved.getType(), StandardTypes::integerMeta);
    copy = std::move(moved);
    EXPECT_EQ(copy.get<std::int32_t>(), 4);
    EXPECT_FALSE(moved.hasPayload());
}

// Scalars and references live inside the value: the payload moves with it, and nothing
// is allocated but what a long text allocates for itself.
TEST_F(ValueTest, ScalarsAndReferencesNeedNoHeap) {
    Model model = Model::createTransientModel();
    Transaction transaction = model->beginTransaction();
    test::library::Book book = test::library::Book::create(model);
    auto const references = book.get()->referenceCount();
    std::vector<Value> values;
    values.emplace_back(StandardTypes::booleanMeta, true);
    values.emplace_back(StandardTypes::stringMeta, basalt::ustring(u"short"));
    values.emplace_back(book->getMetaClass(), book);
    for (int i = 0; i < 40; ++i) // the vector moves them as it grows
        values.push_back(values[std::size_t(i) % 3]);
    EXPECT_EQ(book.get()->referenceCount(), references + 14u);
    EXPECT_TRUE(values[39].get<bool>());
    EXPECT_EQ(values[40].get<basalt::ustring>(), u"short");
    EXPECT_EQ(values[41].getElement(), book);
    values.clear();
    EXPECT_EQ(book.get()->referenceCount(), references);
    transaction.commit();
}

TEST_F(ValueTest, ScalarsOfStandardTypesLeaveTheTypeCountAlone) {
    // A value made from a native scalar holds its standard type without a count; copies,
    // moves, assignments and a reflective re-typing must neither take nor drop one.
    std::int32_t const pages = 7;
    Value const first(pages);
    meta::Type const &type = first.getType();
    ASSERT_TRUE(type);
    auto const references = type.get()->referenceCount();
    {
        std::vector<Value> values(8, first);
        values.push_back(Value(std::int32_t(3)));
        values[1] = values[8];
        values[2] = std::move(values[3]);
        values[4] = Value(StandardTypes::booleanMeta, true);
        values[4] = values[0];
        Value counted(StandardTypes::integerMeta, std::int32_t(9));
        values[5] = counted;
        values[6] = std::move(counted);
        EXPECT_EQ(values[5].get<std::int32_t>(), 9);
        EXPECT_EQ(values[1].getType(), type);
    }
    EXPECT_EQ(type.get()->referenceCount(), references);
    meta::Type const kept = first.getType();
    EXPECT_EQ(type.get()->referenceCount(), references + 1);
}

TEST_F(ValueTest, EmptyValuesOfPropertiesAndTypes) {
    EXPECT_THROW(Value::createEmptyValue(property(StandardTypes::stringMeta, 0, many)),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_EQ(Value::createEmptyValue(property(StandardTypes::booleanMeta, 1, 1)).get<bool>(), false);
    EXPECT_EQ(Value::createEmptyValue(property(StandardTypes::booleanMeta, 0, 1)).getFlags(), ValueFlags::Optional);
    meta::Class const book = cls();
    Value const reference = Value::createEmptyValue(property(book, 0, 1));
    EXPECT_EQ(reference.getType(), book);
    EXPECT_FALSE(reference.getElement());
}

TEST_F(ValueTest, UnmanagedCollectionsOwnTheirContainer) {
    meta::Property const numbers = property(StandardTypes::integerMeta, 0, many, true);
    Value const collection = Value::createEmptyUnmanagedCollectionValue(numbers);
    EXPECT_FALSE(collection.isManaged());
    EXPECT_EQ(collection.getFlags(), ValueFlags::Sequence);
    EXPECT_TRUE(collection.extractEntryValues().empty());
    Value const copy = collection;
    EXPECT_NE(copy.getPayload(), collection.getPayload());
    EXPECT_EQ(copy, collection);

    // A sequence inside a data type must be free-standing; a free-standing one fits
    // anywhere its shape does.
    EXPECT_TRUE(collection.isCompatibleWithProperty(numbers));
    meta::Property const sorted = property(StandardTypes::integerMeta, 0, many);
    EXPECT_EQ(Value::createEmptyUnmanagedCollectionValue(sorted).getFlags(), ValueFlags::SortedSet);
    EXPECT_THROW(Value::createEmptyUnmanagedCollectionValue(property(cls(), 0, many)), Error<messages::InvalidValue>);
}

TEST_F(ValueTest, ManagedCollectionValuesAreViews) {
    // Only the address matters to the value: it neither reads nor frees the collection.
    alignas(std::max_align_t) unsigned char storage[64];
    auto &collection = *reinterpret_cast<ReferenceCollection *>(storage);
    meta::Class const book = cls();
    meta::Property const books = property(book, 0, many, true);
    Value const view = Value::createElementCollectionValue(books, collection);
    Value const copy = view;
    EXPECT_TRUE(view.isManaged());
    EXPECT_EQ(copy.getPayload(), static_cast<void *>(storage));
    EXPECT_EQ(copy, view);
    EXPECT_EQ(view.getFlags(), ValueFlags::Sequence);
    EXPECT_TRUE(view.isCompatibleWithProperty(books));
    EXPECT_FALSE(view.isCompatibleWithProperty(property(book, 0, many))); // another shape
}

} // namespace
} // namespace kivra
