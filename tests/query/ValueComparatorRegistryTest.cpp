#include "QueryFixtures.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <library/Book.hpp>

#include <basalt/i18n/Unicode.hpp>
#include <basalt/regex/Regex.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/uuid/string_generator.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <regex>
#include <string>
#include <tuple>

namespace kivra::query {
namespace {

using R = ValueMatchRelation;
using meta::StandardTypes;

constexpr std::array ordering = {R::equal, R::notEqual, R::greater, R::greaterOrEqual, R::less, R::lessOrEqual};
constexpr std::array textual = {R::equalStringNocase, R::regexpMatch, R::regexpSearch};

bool compare(R relation, meta::Type const &type, bool required, Value const &left, Value const &right) {
    ValueComparator const *comparator = ValueComparatorRegistry::getInstance()->getComparator(relation, type, required);
    if (!comparator)
        throw std::logic_error("no comparator");
    return (*comparator)(left, right);
}

TEST(ValueMatchRelation, Names) {
    constexpr std::array names = {"equal", "equalStringNocase", "notEqual", "greater", "greaterOrEqual",
                                  "less",  "lessOrEqual",       "like",     "regexpMatch", "regexpSearch"};
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(ValueMatchRelationName(static_cast<R>(i)), names[i]);
    EXPECT_EQ(ValueMatchRelationName(static_cast<R>(10)), "");
    EXPECT_EQ(ValueMatchRelationName(static_cast<R>(-1)), "");
}

TEST(ValueComparatorRegistry, HoldsExactlyTheListedTypesAndRelations) {
    auto const *registry = ValueComparatorRegistry::getInstance();
    EXPECT_EQ(registry, ValueComparatorRegistry::getInstance());
    auto const has = [&](R relation, meta::Type const &type, bool required) {
        return registry->getComparator(relation, type, required) != nullptr;
    };
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    for (bool required : {true, false}) {                                                                              \
        SCOPED_TRACE(#Name);                                                                                           \
        meta::Type const type = StandardTypes::member.get();                                                           \
        for (R relation : ordering)                                                                                    \
            EXPECT_TRUE(has(relation, type, required)) << ValueMatchRelationName(relation);                            \
        bool const text = type == StandardTypes::stringMeta.get() || type == StandardTypes::stdstringMeta.get();       \
        for (R relation : textual)                                                                                     \
            EXPECT_EQ(has(relation, type, required), text) << ValueMatchRelationName(relation);                        \
        EXPECT_FALSE(has(R::like, type, required));                                                                    \
    }
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                       \
    EXPECT_FALSE(has(R::equal, StandardTypes::member.get(), true)) << #Name;
#include <kivra/meta/PrimitiveTypes.def>

    // Classes and enums compare by identity only: their comparators are checked where they
    // are used, below and by the queries that refuse to order elements and literals.
    EXPECT_FALSE(has(R::equal, meta::Type(), true));
    EXPECT_FALSE(has(static_cast<R>(10), StandardTypes::integerMeta.get(), true));
}

// The six orderings on a required value of each type, with `low` below `high`.
template <class T> void checkOrdering(meta::Type const &type, T const &low, T const &high) {
    Value const a(type, low), b(type, high);
    struct Case {
        R relation;
        bool lowHigh, highLow, lowLow;
    };
    constexpr std::array cases = {
        Case{R::equal, false, false, true},         Case{R::notEqual, true, true, false},
        Case{R::greater, false, true, false},       Case{R::greaterOrEqual, false, true, true},
        Case{R::less, true, false, false},          Case{R::lessOrEqual, true, false, true},
    };
    for (Case const &c : cases) {
        SCOPED_TRACE(ValueMatchRelationName(c.relation));
        EXPECT_EQ(compare(c.relation, type, true, a, b), c.lowHigh);
        EXPECT_EQ(compare(c.relation, type, true, b, a), c.highLow);
        EXPECT_EQ(compare(c.relation, type, true, a, a), c.lowLow);
    }
}

TEST(ValueComparatorRegistry, RequiredValuesCompareAsTheirNativeType) {
    checkOrdering(StandardTypes::stringMeta.get(), basalt::ustring(u"Zebra"), basalt::ustring(u"apple"));
    checkOrdering(StandardTypes::integerMeta.get(), std::int32_t(-5), std::int32_t(3));
    checkOrdering(StandardTypes::integer8Meta.get(), std::int8_t(-128), std::int8_t(127));
    checkOrdering(StandardTypes::integer16Meta.get(), std::int16_t(-300), std::int16_t(300));
    checkOrdering(StandardTypes::integer64Meta.get(), std::int64_t(-1) << 40, std::int64_t(1) << 40);
    checkOrdering(StandardTypes::realMeta.get(), -0.5, 2.25);
    checkOrdering(StandardTypes::booleanMeta.get(), false, true);
    checkOrdering(StandardTypes::uinteger8Meta.get(), std::uint8_t(1), std::uint8_t(255));
    checkOrdering(StandardTypes::uinteger16Meta.get(), std::uint16_t(1), std::uint16_t(65535));
    checkOrdering(StandardTypes::unlimitedNaturalMeta.get(), std::uint32_t(7), std::uint32_t(0x80000000));
    checkOrdering(StandardTypes::uinteger64Meta.get(), std::uint64_t(1), ~std::uint64_t(0));
    boost::uuids::string_generator uuid;
    checkOrdering(StandardTypes::uuidMeta.get(), uuid("00000000-0000-0000-0000-0000000000ff"),
                  uuid("01000000-0000-0000-0000-000000000000"));
    checkOrdering(StandardTypes::dateTimeMeta.get(), boost::posix_time::time_from_string("2001-01-01 00:00:00"),
                  boost::posix_time::time_from_string("2001-01-01 00:00:01"));
    checkOrdering(StandardTypes::stdstringMeta.get(), std::string("B"), std::string("a"));

    // A value of another type is refused, not reinterpreted.
    EXPECT_THROW(compare(R::less, StandardTypes::integerMeta.get(), true, Value(std::int32_t(1)), Value(std::int64_t(2))),
                 Error<messages::CannotCastIncompatibleTypes>);
    // No number is equal to NaN, not even NaN.
    double const nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(compare(R::equal, StandardTypes::realMeta.get(), true, Value(nan), Value(nan)));
    EXPECT_FALSE(compare(R::less, StandardTypes::realMeta.get(), true, Value(nan), Value(1.0)));
}

TEST(ValueComparatorRegistry, AnEmptyOptionalStandsBelowEveryValue) {
    meta::Type const type = StandardTypes::stringMeta.get();
    Value const empty(type, boost::none), low(type, basalt::ustring(u"a")), high(type, basalt::ustring(u"b"));
    struct Case {
        R relation;
        bool emptyEmpty, emptySet, setEmpty, lowHigh;
    };
    constexpr std::array cases = {
        Case{R::equal, true, false, false, false},         Case{R::notEqual, false, true, true, true},
        Case{R::greater, false, false, true, false},       Case{R::greaterOrEqual, true, false, true, false},
        Case{R::less, false, true, false, true},           Case{R::lessOrEqual, true, true, false, true},
    };
    for (Case const &c : cases) {
        SCOPED_TRACE(ValueMatchRelationName(c.relation));
        EXPECT_EQ(compare(c.relation, type, false, empty, empty), c.emptyEmpty);
        EXPECT_EQ(compare(c.relation, type, false, empty, low), c.emptySet);
        EXPECT_EQ(compare(c.relation, type, false, low, empty), c.setEmpty);
        EXPECT_EQ(compare(c.relation, type, false, low, high), c.lowHigh);
    }
}

TEST(ValueComparatorRegistry, TextsWithoutCaseAndByRegularExpression) {
    meta::Type const string = StandardTypes::stringMeta.get();
    meta::Type const stdstring = StandardTypes::stdstringMeta.get();
    auto const text = [&](char16_t const *t) { return Value(string, basalt::ustring(t)); };
    auto const bytes = [&](char const *t) { return Value(stdstring, std::string(t)); };

    // Full case folding: one letter may fold to two.
    EXPECT_TRUE(compare(R::equalStringNocase, string, true, text(u"Stra\u00dfe"), text(u"STRASSE")));
    EXPECT_TRUE(compare(R::equalStringNocase, string, true, text(u"\u0391\u03b2"), text(u"\u03b1\u0392")));
    EXPECT_FALSE(compare(R::equalStringNocase, string, true, text(u"abc"), text(u"abd")));
    EXPECT_TRUE(compare(R::equalStringNocase, stdstring, true, bytes("AbC"), bytes("aBc")));
    EXPECT_FALSE(compare(R::equalStringNocase, stdstring, true, bytes("abc"), bytes("abcd")));

    for (meta::Type const &type : {string, stdstring}) {
        auto const make = [&](char const *t) {
            return type == string ? text(basalt::i18n::utf8_to_ustring(t).c_str()) : bytes(t);
        };
        SCOPED_TRACE(type->getName() == u"String" ? "String" : "StdString");
        EXPECT_TRUE(compare(R::regexpSearch, type, true, make("abc"), make("b")));
        EXPECT_FALSE(compare(R::regexpMatch, type, true, make("abc"), make("b")));
        EXPECT_TRUE(compare(R::regexpMatch, type, true, make("abc"), make("a.c")));
        // Without `required`, an empty side matches nothing, not even another empty one.
        Value const empty(type, boost::none);
        for (R relation : textual) {
            EXPECT_FALSE(compare(relation, type, false, empty, empty));
            EXPECT_FALSE(compare(relation, type, false, make("x"), empty));
        }
        EXPECT_TRUE(compare(R::equalStringNocase, type, false, make("X"), make("x")));
    }
    EXPECT_THROW(compare(R::regexpSearch, string, true, text(u"abc"), text(u"(")), basalt::regex::regex_error);
    EXPECT_THROW(compare(R::regexpSearch, stdstring, true, bytes("abc"), bytes("(")), std::regex_error);
}

TEST(ValueComparatorRegistry, ElementsAndEnumsCompareByIdentity) {
    Model model = Model::createTransientModel();
    using test::library::Book;
    Book first = Book::create(model), second = Book::create(model);
    meta::Class const &type = Book::metaClass();
    Value const a(type, first), b(type, second), none(type, ModelElement());
    EXPECT_TRUE(compare(R::equal, type, false, a, Value(type, first)));
    EXPECT_FALSE(compare(R::equal, type, false, a, b));
    EXPECT_TRUE(compare(R::notEqual, type, true, a, b));
    EXPECT_TRUE(compare(R::equal, type, true, none, Value(type, ModelElement())));
    EXPECT_TRUE(compare(R::notEqual, type, true, a, none));

    meta::Enum colour = meta::Enum::create(model);
    Value const red(colour, std::uint64_t(1)), green(colour, std::uint64_t(2)), unset(colour, boost::none);
    EXPECT_TRUE(compare(R::equal, colour, true, red, Value(colour, std::uint64_t(1))));
    EXPECT_TRUE(compare(R::notEqual, colour, true, red, green));
    EXPECT_TRUE(compare(R::equal, colour, false, unset, Value(colour, boost::none)));
    EXPECT_FALSE(compare(R::equal, colour, false, unset, red));
    EXPECT_TRUE(compare(R::notEqual, colour, false, red, unset));
}

} // namespace
} // namespace kivra::query
