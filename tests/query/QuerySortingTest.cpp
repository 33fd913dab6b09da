#include "QueryFixtures.hpp"
#include "query/NativeKivraQuery.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <library/Book.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace kivra::query {
namespace {

using meta::StandardTypes;
using test::Reading;
using test::library::Book;

// The title a like pattern `pattern` on a book's title or isbn accepts.
struct Like : ::testing::Test {
    Model model = Model::createTransientModel();
    Book book = Book::create(model);

    bool matches(char16_t const *pattern, char16_t const *title) {
        NativeKivraQuery query;
        std::size_t const id = query.addSearchClass(Book::metaClass(), SearchClassMatchMode::ClassOrSubclass);
        query.addPropertyRelationValue(Book::Impl::titleProperty(), ValueMatchRelation::like,
                                       Value(StandardTypes::stringMeta.get(), basalt::ustring(pattern)), id);
        book->setTitle(title);
        return query.instances[id].constraints.back()->test(*book.get());
    }
};

// Only % and _ are wildcards; the match covers the whole text, and _ is one character,
// not one UTF-16 unit.
TEST_F(Like, WildcardsAndLiteralCharacters) {
    struct Case {
        char16_t const *pattern, *title;
        bool matches;
    };
    Case const cases[] = {
        {u"a.b%", u"a.bxyz", true},  {u"a.b%", u"aXbxyz", false},     {u"[x]%", u"[x]y", true},
        {u"[x]%", u"xy", false},     {u"(a|b)*+?{2}^$", u"(a|b)*+?{2}^$", true},
        {u"(a|b)", u"a", false},     {u"C:\\dir\\%", u"C:\\dir\\file", true},
        {u"\\d", u"7", false},       {u"%", u"", true},                {u"", u"", true},
        {u"", u"a", false},          {u"b", u"abc", false},            {u"%b%", u"abc", true},
        {u"_", u"a", true},          {u"_", u"", false},               {u"_", u"ab", false},
        {u"_", u"\u00e9", true},     {u"_", u"\U0001D11E", true},      {u"M_nchen", u"M\u00fcnchen", true},
        {u"\u00e9t\u00e9%", u"\u00e9t\u00e9 indien", true},          {u"\u00e9t\u00e9%", u"ete indien", false},
        {u"__", u"\U0001D11E\U0001D11E", true},                     {u"___", u"\U0001D11E\U0001D11E", false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(matches(cases[i].pattern, cases[i].title), cases[i].matches) << "case " << i;
}

TEST_F(Like, OnAByteStringPropertyAndItsExpression) {
    NativeKivraQuery query;
    std::size_t const id = query.addSearchClass(Book::metaClass(), SearchClassMatchMode::ClassOrSubclass);
    query.addPropertyRelationValue(Book::Impl::isbnProperty(), ValueMatchRelation::like,
                                   Value(StandardTypes::stdstringMeta.get(), std::string("978-_.%")), id);
    auto const &constraint = static_cast<PropertyRelationValueConstraint const &>(*query.instances[id].constraints.back());
    EXPECT_EQ(constraint.relation, ValueMatchRelation::regexpMatch);
    EXPECT_EQ(constraint.constant.get<std::string>(), "978-.\\..*");
    book->setIsbn(std::string("978-3.14"));
    EXPECT_TRUE(constraint.test(*book.get()));
    book->setIsbn(std::string("978-3x14"));
    EXPECT_FALSE(constraint.test(*book.get()));
    book->setIsbn(boost::none);
    EXPECT_FALSE(constraint.test(*book.get())) << "an unset text matches no pattern";
}

// Sorting: rows of one column, each an element that reads as the given value.
struct Sorting : ::testing::Test {
    Model model = Model::createTransientModel();

    ResultSet rows(std::vector<Value> const &values) {
        ResultSet result;
        result.instanceIds = {0};
        for (Value const &value : values)
            result.addRow({test::Reading::create(model, value)});
        return result;
    }
    // The original positions of the rows, in the sorted order; -1 for a row without element.
    static std::vector<int> order(ResultSet const &sorted, std::vector<ModelElement> const &original) {
        std::vector<int> positions;
        for (std::size_t row = 0; row < sorted.rowCount(); ++row) {
            ModelElement const &element = sorted.at(row, 0);
            auto const at = std::find(original.begin(), original.end(), element);
            positions.push_back(element ? static_cast<int>(at - original.begin()) : -1);
        }
        return positions;
    }
    std::vector<int> sort(ResultSet set, meta::Property const &property, SortDirection direction) {
        std::vector<ModelElement> original;
        for (std::size_t row = 0; row < set.rowCount(); ++row)
            original.push_back(set.at(row, 0));
        ByPropertySorting(0, direction, property).sort(set);
        return order(set, original);
    }
};

TEST_F(Sorting, EveryOrderedTypeAscendingAndDescending) {
    auto const check = [&](meta::Type const &type, auto low, auto mid, auto high) {
        SCOPED_TRACE(std::string(type->getName().begin(), type->getName().end()));
        auto const set = rows({Value(type, mid), Value(type, high), Value(type, low), Value(type, mid)});
        for (std::uint32_t lower : {0u, 1u}) {
            meta::Property const property = test::makeProperty(model, type, lower);
            // Equal keys keep the order they came in, either way.
            EXPECT_EQ(sort(set, property, SortDirection::Ascending), (std::vector<int>{2, 0, 3, 1}));
            EXPECT_EQ(sort(set, property, SortDirection::Descending), (std::vector<int>{1, 0, 3, 2}));
        }
    };
    check(StandardTypes::stringMeta.get(), basalt::ustring(u"B"), basalt::ustring(u"a"), basalt::ustring(u"\u00e9"));
    check(StandardTypes::integerMeta.get(), std::int32_t(-7), std::int32_t(0), std::int32_t(7));
    check(StandardTypes::integer8Meta.get(), std::int8_t(-7), std::int8_t(0), std::int8_t(7));
    check(StandardTypes::integer16Meta.get(), std::int16_t(-7), std::int16_t(0), std::int16_t(7));
    check(StandardTypes::integer64Meta.get(), std::int64_t(-7), std::int64_t(0), std::int64_t(1) << 50);
    check(StandardTypes::realMeta.get(), -std::numeric_limits<double>::infinity(), 0.0, 1e300);
    meta::Type const boolean = StandardTypes::booleanMeta.get();
    auto const flags = rows({Value(boolean, true), Value(boolean, false), Value(boolean, true)});
    EXPECT_EQ(sort(flags, test::makeProperty(model, boolean, 1), SortDirection::Ascending), (std::vector<int>{1, 0, 2}));
    EXPECT_EQ(sort(flags, test::makeProperty(model, boolean, 0), SortDirection::Descending), (std::vector<int>{0, 2, 1}));
    check(StandardTypes::uinteger8Meta.get(), std::uint8_t(0), std::uint8_t(1), std::uint8_t(200));
    check(StandardTypes::uinteger16Meta.get(), std::uint16_t(0), std::uint16_t(1), std::uint16_t(60000));
    check(StandardTypes::unlimitedNaturalMeta.get(), std::uint32_t(0), std::uint32_t(1), std::uint32_t(0xffffffff));
    check(StandardTypes::uinteger64Meta.get(), std::uint64_t(0), std::uint64_t(1), ~std::uint64_t(0));
    check(StandardTypes::stdstringMeta.get(), std::string("A"), std::string("B"), std::string("a"));
}

TEST_F(Sorting, EmptyValuesMissingElementsAndNaNHaveTheirPlaces) {
    meta::Type const real = StandardTypes::realMeta.get();
    double const nan = std::numeric_limits<double>::quiet_NaN();
    ResultSet set = rows({Value(real, 2.0), Value(real, nan), Value(real, boost::none)});
    set.addRow({ModelElement()});
    ResultSet const rest = rows({Value(real, -1.0), Value(real, nan), Value(real, boost::none), Value(real, 2.0)});
    for (std::size_t row = 0; row < rest.rowCount(); ++row)
        set.addRow({rest.at(row, 0)});
    // Positions: 0 is 2.0, 1 NaN, 2 unset, 3 no element, 4 -1.0, 5 NaN, 6 unset, 7 2.0.
    meta::Property const optional = test::makeProperty(model, real, 0);
    auto const ascending = sort(set, optional, SortDirection::Ascending);
    auto const descending = sort(set, optional, SortDirection::Descending);
    std::vector<int> const positions[] = {{-1, 2, 6, 4, 0, 7, 1, 5}, {1, 5, 0, 7, 4, 2, 6, -1}};
    // A missing element holds no position of its own: compare with it shown as -1.
    EXPECT_EQ(ascending, positions[0]);
    EXPECT_EQ(descending, positions[1]);

    // The same places for keys of a type without NaN, which sort by their native values.
    meta::Type const integer = StandardTypes::integerMeta.get();
    ResultSet whole = rows({Value(integer, std::int32_t(2)), Value(integer, boost::none)});
    whole.addRow({ModelElement()});
    ResultSet const more = rows({Value(integer, std::int32_t(-1)), Value(integer, boost::none), Value(integer, std::int32_t(2))});
    for (std::size_t row = 0; row < more.rowCount(); ++row)
        whole.addRow({more.at(row, 0)});
    meta::Property const optionalWhole = test::makeProperty(model, integer, 0);
    EXPECT_EQ(sort(whole, optionalWhole, SortDirection::Ascending), (std::vector<int>{-1, 1, 4, 3, 0, 5}));
    EXPECT_EQ(sort(whole, optionalWhole, SortDirection::Descending), (std::vector<int>{0, 5, 3, 1, 4, -1}));

    // A required property never reads empty; NaN still goes above every number.
    ResultSet numbers = rows({Value(real, nan), Value(real, 1.0), Value(real, nan), Value(real, -0.0)});
    meta::Property const required = test::makeProperty(model, real, 1);
    EXPECT_EQ(sort(numbers, required, SortDirection::Ascending), (std::vector<int>{3, 1, 0, 2}));
    EXPECT_EQ(sort(numbers, required, SortDirection::Descending), (std::vector<int>{0, 2, 1, 3}));
}

// Texts with long shared heads, keys that are heads of others, the lowest and highest code
// units, and many ties: the order of a stable sort by code units, either way.
TEST_F(Sorting, TextsSortByCodeUnitsWhateverHeadTheyShare) {
    meta::Type const string = StandardTypes::stringMeta.get();
    std::mt19937 random(11);
    std::u16string const units = {u'\0', u'a', u'b', u'\u00e9', u'\xD83D', u'\xFFFF'};
    for (std::size_t head : {0, 3, 9, 14}) {
        std::u16string const shared = std::u16string(head, u'B').substr(0, head / 2) + std::u16string(head - head / 2, u'\0');
        std::vector<std::u16string> texts;
        std::vector<Value> values;
        for (int i = 0; i < 300; ++i) {
            std::u16string text = shared;
            // One key in a hundred leaves the head early, as a guess from a few keys would miss.
            if (i % 100 == 42)
                text.resize(random() % (head + 1));
            for (std::size_t n = random() % 13; n > 0; --n)
                text.push_back(units[random() % units.size()]);
            texts.push_back(text);
            values.push_back(i % 50 == 7 ? Value(string, boost::none) : Value(string, basalt::ustring(text)));
        }
        std::vector<int> expected(texts.size());
        std::iota(expected.begin(), expected.end(), 0);
        std::stable_sort(expected.begin(), expected.end(), [&](int a, int b) {
            bool const setA = values[a].hasPayload(), setB = values[b].hasPayload();
            return setA != setB ? setB : setA && texts[a] < texts[b];
        });
        meta::Property const optional = test::makeProperty(model, string, 0);
        ResultSet const set = rows(values);
        EXPECT_EQ(sort(set, optional, SortDirection::Ascending), expected) << "head " << head;
        std::stable_sort(expected.begin(), expected.end(), [&](int a, int b) {
            bool const setA = values[a].hasPayload(), setB = values[b].hasPayload();
            return setA != setB ? setA : setA && texts[b] < texts[a];
        });
        EXPECT_EQ(sort(set, optional, SortDirection::Descending), expected) << "head " << head;
    }
}

TEST_F(Sorting, WhatCannotBeSorted) {
    auto const set = rows({Value(std::int32_t(1)), Value(std::int32_t(2))});
    auto const refuses = [&](QuerySorting const &sorting) {
        ResultSet copy = set;
        EXPECT_THROW(sorting.sort(copy), Error<UnsupportedSorting>);
    };
    refuses(ByPropertySorting(0, SortDirection::Ascending, test::makeProperty(model, Book::metaClass(), 0)));
    refuses(ByPropertySorting(0, SortDirection::Ascending,
                              test::makeProperty(model, StandardTypes::integerMeta.get(), 0, 5)));
    refuses(ByPropertySorting(0, SortDirection::Ascending, meta::Property()));
    Model other = Model::createTransientModel();
    refuses(ByPropertySorting(0, SortDirection::Descending, test::makeProperty(model, meta::Enum::create(other), 1)));
    refuses(IntrinsicSorting(0, SortDirection::Ascending));
    refuses(ByOrdinalSorting(0, SortDirection::Ascending, Book::Impl::chaptersProperty()));
}

} // namespace
} // namespace kivra::query
