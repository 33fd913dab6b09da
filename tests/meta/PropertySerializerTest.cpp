#include "RegistryFixtures.hpp"

#include <library/Handles.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/EnumPropertySerializers.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace kivra::meta {
namespace {

using basalt::ustring;
using S = StandardTypes;

PropertySerializerRegistry &serializers() { return PropertySerializerRegistry::getInstance(); }

std::string narrow(ustring const &text) { return basalt::i18n::ustring_to_utf8(text); }

PropertySerializer const &serializerOf(Type const &type, char const *flavour = "") {
    PropertySerializer const *serializer = serializers().getPropertySerializer(type, flavour);
    if (!serializer)
        throw std::logic_error("no serializer for " + narrow(type->getQualifiedName()) + " '" + flavour + "'");
    return *serializer;
}

/// The text that `text` reads back as: parse, then write.
ustring reread(Type const &type, char const *flavour, ustring const &text) {
    PropertySerializer const &serializer = serializerOf(type, flavour);
    return serializer.serializeValue(serializer.parseValue(text, type));
}

struct RoundTrip {
    PrimitiveType const &type;
    char const *flavour;
    char16_t const *text;
    char16_t const *written = nullptr; ///< what it writes back, when not `text` itself
};

// Texts that come back unchanged, at the ends of every range and in the forms that are
// easy to get wrong: 17 significant digits, subnormals, negative zero, the special words.
TEST(PropertySerializer, HardCasesRoundTripThroughTheirText) {
    RoundTrip const cases[] = {
        {S::integerMeta, "", u"-2147483648"},
        {S::integerMeta, "", u"2147483647"},
        {S::integer8Meta, "", u"-128"},
        {S::integer8Meta, "", u"127"},
        {S::integer16Meta, "", u"-32768"},
        {S::integer16Meta, "", u"32767"},
        {S::integer64Meta, "", u"-9223372036854775808"},
        {S::integer64Meta, "", u"9223372036854775807"},
        {S::uinteger8Meta, "", u"0"},
        {S::uinteger8Meta, "", u"255"},
        {S::uinteger16Meta, "", u"65535"},
        {S::unlimitedNaturalMeta, "", u"4294967295"},
        {S::uinteger64Meta, "", u"18446744073709551615"},
        {S::realMeta, "", u"0.30000000000000004"},
        {S::realMeta, "", u"1.7976931348623157e+308"},
        {S::realMeta, "", u"2.2250738585072014e-308"},
        {S::realMeta, "", u"2.225073858507201e-308"},
        {S::realMeta, "", u"5e-324"},
        {S::realMeta, "", u"-0"},
        {S::realMeta, "", u"inf"},
        {S::realMeta, "", u"-inf"},
        {S::realMeta, "", u"NaN"},
        {S::realMeta, "", u"0.1"},
        {S::realMeta, "commaDecimalBackwardsCompatible", u"1,5", u"1.5"},
        {S::realMeta, "commaDecimalBackwardsCompatible", u"-2.5e-300"},
        {S::booleanMeta, "", u"true"},
        {S::booleanMeta, "", u"false"},
        {S::booleanMeta, "numeric", u"1"},
        {S::booleanMeta, "numeric", u"0"},
        {S::stringMeta, "", u""},
        {S::stringMeta, "", u" \u00e4 \U0001D11E "},
        {S::stdstringMeta, "", u"na\u00efve \U0001D11E"},
        {S::uuidMeta, "", u"00000000-0000-0000-0000-000000000000"},
        {S::uuidMeta, "", u"27118326-006d-3829-a67a-400ad23d5d98"},
        {S::uuidMeta, "", u"27118326-006D-3829-A67A-400AD23D5D98", u"27118326-006d-3829-a67a-400ad23d5d98"},
        {S::uuidMeta, "", u"{27118326-006d-3829-a67a-400ad23d5d98}", u"27118326-006d-3829-a67a-400ad23d5d98"},
        {S::uuidMeta, "", u"27118326006d3829a67a400ad23d5d98", u"27118326-006d-3829-a67a-400ad23d5d98"},
        {S::uuidMeta, "", u"ffffffff-ffff-ffff-ffff-ffffffffffff"},
        {S::dateTimeMeta, "", u"1400-01-01T00:00:00"},
        {S::dateTimeMeta, "", u"9999-12-31T23:59:59.999999"},
        {S::dateTimeMeta, "", u"2020-02-29T12:00:00.500000"},
        {S::dateTimeMeta, "", u"2020-03-04T05:06:07.000001"},
        {S::dateTimeMeta, "", u"not-a-date-time"},
        {S::dateTimeMeta, "", u"-infinity"},
        {S::dateTimeMeta, "", u"+infinity"},
        {S::dateTimeMeta, "", u"2020-03-04 05:06:07.5", u"2020-03-04T05:06:07.500000"},
        {S::dateTimeMeta, "", u"2020-03-04T05:06:07Z", u"2020-03-04T05:06:07"},
        {S::dateTimeMeta, "", u"20200304T050607", u"2020-03-04T05:06:07"},
        {S::dateTimeMeta, "Rel8", u"14000101T000000"},
        {S::dateTimeMeta, "Rel8", u"99991231T235959.999999"},
        {S::dateTimeMeta, "Rel8", u"20200304T050607.500000"},
    };
    for (RoundTrip const &c : cases) {
        SCOPED_TRACE(narrow(c.type->getQualifiedName()) + " '" + c.flavour + "' " + narrow(c.text));
        ustring const written = c.written ? c.written : c.text;
        ASSERT_EQ(reread(c.type, c.flavour, c.text), written);
        EXPECT_EQ(reread(c.type, c.flavour, written), written);
    }
}

// The text is right only if the value behind it is: spot checks of what was read.
TEST(PropertySerializer, ReadsTheValuesTheTextsStandFor) {
    auto parse = [](Type const &type, ustring const &text, char const *flavour = "") {
        return serializerOf(type, flavour).parseValue(text, type);
    };
    EXPECT_EQ(parse(S::uinteger8Meta, u"200").get<std::uint8_t>(), 200);
    EXPECT_EQ(parse(S::integer8Meta, u"-128").get<std::int8_t>(), -128);
    EXPECT_EQ(parse(S::uinteger64Meta, u"18446744073709551615").get<std::uint64_t>(), ~std::uint64_t(0));
    EXPECT_TRUE(std::signbit(parse(S::realMeta, u"-0").get<double>()));
    EXPECT_EQ(parse(S::realMeta, u"5e-324").get<double>(), std::numeric_limits<double>::denorm_min());
    EXPECT_EQ(parse(S::realMeta, u"1,5", "commaDecimalBackwardsCompatible").get<double>(), 1.5);
    EXPECT_EQ(parse(S::realMeta, u"1.5", "commaDecimalBackwardsCompatible").get<double>(), 1.5);
    EXPECT_TRUE(parse(S::booleanMeta, u"1", "numeric").get<bool>());
    EXPECT_EQ(parse(S::stdstringMeta, u"\u00e4").get<std::string>(), "\xc3\xa4");
    EXPECT_EQ(serializerOf(S::uinteger8Meta).serializeValue(Value(std::uint8_t(65))), u"65");
    EXPECT_EQ(serializerOf(S::integer8Meta).serializeValue(Value(std::int8_t(-3))), u"-3");

    using namespace boost::posix_time;
    EXPECT_EQ(parse(S::dateTimeMeta, u"9999-12-31T23:59:59.999999").get<ptime>(),
              ptime(boost::gregorian::date(9999, 12, 31), hours(24) - microseconds(1)));
    EXPECT_TRUE(parse(S::dateTimeMeta, u"-infinity").get<ptime>().is_neg_infinity());
    // An empty optional writes as the type's zero value.
    EXPECT_EQ(serializerOf(S::integerMeta).serializeValue(Value(S::integerMeta, boost::none)), u"0");
}

template <class E> struct Raises {
    static bool check(std::exception const &error) { return dynamic_cast<E const *>(&error) != nullptr; }
};

// Bad text fails with the exceptions the parse layer turns into its own error; the
// lexical casts keep theirs, the date and UUID parsers theirs.
TEST(PropertySerializer, MalformedTextRaisesTheParsersOwnExceptions) {
    struct Case {
        PrimitiveType const &type;
        char const *flavour;
        char16_t const *text;
        bool (*expected)(std::exception const &);
    };
    auto const lexical = &Raises<boost::bad_lexical_cast>::check;
    auto const badCast = &Raises<std::bad_cast>::check;
    auto const runtime = &Raises<std::runtime_error>::check;
    auto const dateError = &Raises<std::out_of_range>::check;
    Case const cases[] = {
        {S::integerMeta, "", u"2147483648", lexical},
        {S::integerMeta, "", u"12a", lexical},
        {S::integerMeta, "", u"", lexical},
        {S::integerMeta, "", u"\u0661", lexical}, // a digit, but not an ASCII one
        {S::integer8Meta, "", u"128", lexical},
        {S::integer8Meta, "", u"-129", lexical},
        {S::uinteger8Meta, "", u"256", lexical},
        {S::integer16Meta, "", u"32768", lexical},
        {S::integer64Meta, "", u"9223372036854775808", lexical},
        {S::realMeta, "", u"1,5", lexical},
        {S::realMeta, "", u"1e400", lexical},
        {S::realMeta, "", u"nan", lexical},
        {S::realMeta, "commaDecimalBackwardsCompatible", u"1,5,6", lexical},
        {S::booleanMeta, "", u"1", badCast},
        {S::booleanMeta, "", u"True", badCast},
        {S::booleanMeta, "numeric", u"true", lexical},
        {S::uuidMeta, "", u"27118326-006d-3829-a67a-400ad23d5d9", runtime},
        {S::uuidMeta, "", u"27118326-006d-3829-a67a-400ad23d5d9\u0101", runtime},
        {S::dateTimeMeta, "", u"2020-13-01T00:00:00", lexical},
        {S::dateTimeMeta, "", u"20200230T000000", dateError},
        {S::dateTimeMeta, "Rel8", u"2020-03-04T05:06:07", badCast},
    };
    for (Case const &c : cases) {
        SCOPED_TRACE(narrow(c.type->getQualifiedName()) + " '" + c.flavour + "' " + narrow(c.text));
        try {
            serializerOf(c.type, c.flavour).parseValue(c.text, c.type);
            ADD_FAILURE() << "parsed";
        } catch (std::exception const &error) {
            EXPECT_TRUE(c.expected(error)) << typeid(error).name() << ": " << error.what();
        }
    }
}

TEST(PropertySerializer, DefaultsAndEmptyValuesOfEveryStandardType) {
    using boost::posix_time::ptime;
    EXPECT_EQ(Value::createEmptyValue(S::integerMeta, true).get<std::int32_t>(), 0);
    EXPECT_EQ(Value::createEmptyValue(S::stringMeta, true).get<ustring>(), u"");
    EXPECT_EQ(Value::createEmptyValue(S::uuidMeta, true).get<boost::uuids::uuid>(), boost::uuids::uuid());
    // A required date-time starts at the epoch; the second form keeps not-a-date-time.
    EXPECT_EQ(Value::createEmptyValue(S::dateTimeMeta, true).get<ptime>(), boost::posix_time::from_time_t(0));
    EXPECT_TRUE(serializerOf(S::dateTimeMeta, "Rel8").createDefaultValue(S::dateTimeMeta).get<ptime>().is_not_a_date_time());
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    {                                                                                                                  \
        SCOPED_TRACE(#Name);                                                                                           \
        Value const empty = Value::createEmptyValue(S::member, false);                                                 \
        EXPECT_FALSE(empty.hasPayload());                                                                              \
        EXPECT_EQ(empty.getFlags(), ValueFlags::Optional);                                                             \
        EXPECT_EQ(empty.getType(), S::member.get());                                                                   \
        EXPECT_TRUE(Value::createEmptyValue(S::member, true).hasPayload());                                            \
    }
#include <kivra/meta/PrimitiveTypes.def>
    // Opaque types have no text form and so no default.
    EXPECT_THROW(Value::createEmptyValue(S::vantorArrayMeta, true), Error<messages::InvalidValue>);
}

TEST(PropertySerializer, DefaultTextsAreReadInWhicheverFlavourTakesThem) {
    auto const half = serializers().parseDefaultValue(S::realMeta, u"1,5");
    ASSERT_TRUE(half);
    EXPECT_EQ(half->get<double>(), 1.5);
    auto const yes = serializers().parseDefaultValue(S::booleanMeta, u"1");
    ASSERT_TRUE(yes);
    EXPECT_TRUE(yes->get<bool>());
    EXPECT_FALSE(serializers().parseDefaultValue(S::integerMeta, u"one"));
    EXPECT_FALSE(serializers().parseDefaultValue(S::vantorArrayMeta, u""));
}

// --- The registry --------------------------------------------------------------------------------

/// Counts its instances, so that a test sees that the registry destroys what it owns.
class CountingSerializer final : public DefaultPropertySerializer<std::int32_t> {
public:
    static inline int alive = 0;
    CountingSerializer() { ++alive; }
    ~CountingSerializer() override { --alive; }
    ustring toText(std::int32_t const &) const override { return u"counted"; }
    std::int32_t fromText(ustring const &) const override { return 7; }
};

TEST(PropertySerializerRegistry, OwnsItsSerializersAndRefusesASecondOfOneFlavour) {
    Type const integer = S::integerMeta.get();
    serializers().registerPropertySerializer(integer, std::make_unique<CountingSerializer>(), "counting");
    EXPECT_EQ(CountingSerializer::alive, 1);
    PropertySerializer const *counting = serializers().getPropertySerializer(integer, "counting");
    ASSERT_TRUE(counting);
    EXPECT_EQ(counting->serializeValue(Value(1)), u"counted");
    EXPECT_NE(serializers().getPropertySerializer(integer, ""), counting);

    EXPECT_THROW(serializers().registerPropertySerializer(integer, std::make_unique<CountingSerializer>(), "counting"),
                 Error<messages::DuplicateTypeInRegistry>);
    EXPECT_EQ(CountingSerializer::alive, 1);
    EXPECT_EQ(serializers().getPropertySerializer(integer, "counting"), counting);

    serializers().unregisterPropertySerializer(integer, "counting");
    EXPECT_EQ(CountingSerializer::alive, 0);
    EXPECT_FALSE(serializers().getPropertySerializer(integer, "counting"));
    EXPECT_TRUE(serializers().getPropertySerializer(integer, ""));
    serializers().unregisterPropertySerializer(integer, "counting"); // nothing there: no effect
}

// A model that carries its own copy of a standard type meets the standard serializers,
// and gets values of its own copy.
TEST(PropertySerializerRegistry, APrimitiveTypeCopiedIntoAModelMeetsTheStandardSerializer) {
    Model model = Model::createTransientModel();
    PrimitiveType const copy = PrimitiveType::create(model);
    copy->setName(u"Integer");
    EXPECT_FALSE(serializers().getPropertySerializerForTypeOnly(copy, ""));
    PropertySerializer const *serializer = serializers().getPropertySerializer(copy, "");
    ASSERT_EQ(serializer, serializers().getPropertySerializer(S::integerMeta, ""));
    Value const parsed = serializer->parseValue(u"42", copy);
    EXPECT_EQ(parsed.getType(), copy);
    EXPECT_EQ(parsed.get<std::int32_t>(), 42);
    EXPECT_EQ(serializer->serializeValue(parsed), u"42");
    EXPECT_EQ(Value::createEmptyValue(copy, true).get<std::int32_t>(), 0);
    EXPECT_EQ(serializers().parseDefaultValue(copy, u"5")->get<std::int32_t>(), 5);

    PrimitiveType const stranger = PrimitiveType::create(model);
    stranger->setName(test::uniqueName(u"Stranger"));
    EXPECT_FALSE(serializers().getPropertySerializer(stranger, ""));
    EXPECT_THROW(Value::createEmptyValue(stranger, true), Error<messages::InvalidValue>);
}

TEST(PropertySerializer, CombinesEntriesIntoFreeStandingCollections) {
    PropertySerializer const &integer = serializerOf(S::integerMeta);
    std::vector<Value> const entries{Value(3), Value(1), Value(S::integerMeta, boost::none), Value(3)};

    Value const sequence = integer.combineAsUnmanagedSequenceValue(S::integerMeta, entries);
    EXPECT_EQ(sequence.getFlags(), ValueFlags::Sequence);
    EXPECT_FALSE(sequence.isManaged());
    std::vector<std::int32_t> seen;
    for (Value const &entry : sequence.extractEntryValues())
        seen.push_back(entry.get<std::int32_t>());
    EXPECT_EQ(seen, (std::vector<std::int32_t>{3, 1, 0, 3}));

    Value const set = integer.combineAsUnmanagedSetValue(S::integerMeta, entries);
    EXPECT_EQ(set.getFlags(), ValueFlags::SortedSet);
    seen.clear();
    for (Value const &entry : set.extractEntryValues())
        seen.push_back(entry.get<std::int32_t>());
    EXPECT_EQ(seen, (std::vector<std::int32_t>{0, 1, 3}));

    Value const none = integer.combineAsUnmanagedSequenceValue(S::integerMeta, {});
    EXPECT_TRUE(none.hasPayload());
    EXPECT_FALSE(none.isManaged());
    EXPECT_TRUE(none.extractEntryValues().empty());

    EXPECT_THROW(integer.combineAsUnmanagedSequenceValue(S::integerMeta, {Value(1.5)}),
                 Error<messages::CannotCastIncompatibleTypes>);
    EXPECT_THROW(integer.combineAsUnmanagedSetValue(S::integerMeta, {Value(S::realMeta, boost::none)}),
                 Error<messages::CannotCastIncompatibleTypes>);
}

// --- Enums ---------------------------------------------------------------------------------------

// Generated enums and one described at run time read and write their literals by name, by
// number and by public identifier, where a literal without one goes by its name.
TEST(EnumSerializer, WritesAndReadsByNameNumberAndPublicIdentifier) {
    test::Colours colours;
    Type const colour = colours.colour;
    Type const language = metaEnum(Language::Unknown);
    Type const binding = metaEnum(::kivra::test::library::Binding::Hardcover);
    struct Case {
        Type type;
        char const *flavour;
        char16_t const *text;
        std::int64_t number = 0;
    };
    Case const cases[] = {
        {language, "", u"CPlusPlus", std::int64_t(Language::CPlusPlus)},
        {language, "ID", u"2", std::int64_t(Language::JavaScript)},
        {language, "PublicID", u"JavaScript", std::int64_t(Language::JavaScript)},
        {binding, "", u"Paperback", 1}, {binding, "PublicID", u"HC", 0},    {binding, "PublicID", u"Leather", 2},
        {colour, "", u"red", -1},       {colour, "", u"green", 2},          {colour, "ID", u"-1", -1},
        {colour, "ID", u"7", 7},        {colour, "PublicID", u"R", -1},     {colour, "PublicID", u"B", 7},
        {colour, "PublicID", u"green", 2},
    };
    for (Case const &c : cases) {
        SCOPED_TRACE(narrow(c.type->getName()) + " '" + c.flavour + "' " + narrow(c.text));
        PropertySerializer const &serializer = serializerOf(c.type, c.flavour);
        Value const value = serializer.parseValue(c.text, c.type);
        EXPECT_EQ(value.getType(), c.type);
        EXPECT_EQ(static_cast<std::int64_t>(value.get<std::uint64_t>()), c.number);
        EXPECT_EQ(serializer.serializeValue(value), c.text);
    }
    // Texts that name no literal in that flavour.
    Case const unknown[] = {{language, "", u"cplusplus"}, {language, "ID", u"3"}, {binding, "", u"PB"},
                            {binding, "PublicID", u"Paperback"}, {colour, "", u"Red"}, {colour, "ID", u"3"},
                            {colour, "PublicID", u"red"}};
    for (Case const &c : unknown)
        EXPECT_THROW(serializerOf(c.type, c.flavour).parseValue(c.text, c.type), std::bad_cast)
            << narrow(c.type->getName()) << " '" << c.flavour << "' " << narrow(c.text);
    EXPECT_THROW(serializerOf(language, "ID").parseValue(u"one", language), boost::bad_lexical_cast);
    // A number that is no literal writes as nothing by name and as itself by number.
    EXPECT_EQ(serializerOf(language).serializeValue(Value(language, std::uint64_t(9))), u"");
    EXPECT_EQ(serializerOf(language, "ID").serializeValue(Value(language, std::uint64_t(9))), u"9");
    EXPECT_EQ(serializerOf(colour).serializeValue(Value(colour, std::uint64_t(5))), u"");
    EXPECT_NE(dynamic_cast<GeneratedEnumPropertySerializer const *>(&serializerOf(language, "PublicID")), nullptr);

    // A generated enum starts at its zero literal; a described one at its first literal by
    // name, and its empty values are integers without payload.
    EXPECT_EQ(Value::createEmptyValue(language, true).get<std::uint64_t>(), 0u);
    EXPECT_EQ(serializers().parseDefaultValue(binding, u"HC")->get<std::uint64_t>(), 0u);
    EXPECT_EQ(static_cast<std::int64_t>(Value::createEmptyValue(colour, true).get<std::uint64_t>()), 7);
    Value const empty = Value::createEmptyValue(colour, false);
    EXPECT_FALSE(empty.hasPayload());
    EXPECT_EQ(empty.getType(), S::integerMeta.get());
    EXPECT_THROW(serializerOf(colour).combineAsUnmanagedSequenceValue(colour, {}), Error<messages::InvalidValue>);
    EXPECT_EQ(serializers().parseDefaultValue(colour, u"B")->get<std::uint64_t>(), 7u);

    Model model = Model::createTransientModel();
    Enum const bare = Enum::create(model);
    EXPECT_THROW(Value::createEmptyValue(bare, true), std::bad_cast);
}

} // namespace
} // namespace kivra::meta
