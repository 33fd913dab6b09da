// Constraints and sorts read the members that generated elements show in place; whatever
// they read, they must answer as they do on the element's `Value`.

#include "QueryFixtures.hpp"
#include "query/Constraints.hpp"
#include "query/QuerySorting.hpp"

#include <kivra/meta/Enum.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace kivra::query {
namespace {

using namespace kivra::test::library;
using meta::StandardTypes;
using R = ValueMatchRelation;

struct InPlace : ::testing::Test {
    Model model = Model::createTransientModel();

    // For each pair of `values` as the element's value and the constant, each relation the
    // registry has, set or optional: the element that shows `natives[i]` in place answers
    // as the one that shows nothing.
    void compareEveryPair(meta::Type const &type, std::vector<Value> const &values,
                          std::vector<Value> const &natives) {
        std::vector<ModelElement> plain, shown;
        for (std::size_t i = 0; i < values.size(); ++i) {
            plain.push_back(test::Reading::create(model, values[i]));
            shown.push_back(test::Reading::create(model, values[i], natives[i]));
        }
        for (std::uint32_t lower : {0u, 1u}) {
            meta::Property const property = test::makeProperty(model, type, lower);
            for (R relation : {R::equal, R::notEqual, R::greater, R::greaterOrEqual, R::less, R::lessOrEqual}) {
                ValueComparator const *const comparator =
                    ValueComparatorRegistry::getInstance()->getComparator(relation, type, lower > 0);
                if (!comparator)
                    continue;
                for (Value const &constant : values) {
                    PropertyRelationValueConstraint const constraint(property, relation, constant, comparator, 0);
                    for (std::size_t i = 0; i < values.size(); ++i)
                        EXPECT_EQ(constraint.test(*shown[i].get()), constraint.test(*plain[i].get()))
                            << ValueMatchRelationName(relation) << " lower " << lower << " element " << i;
                }
            }
        }
    }

    // The original positions of `set`'s rows after sorting by a property of `type`.
    static std::vector<int> sorted(ResultSet set, std::vector<ModelElement> const &original,
                                   meta::Property const &property, SortDirection direction) {
        ByPropertySorting(0, direction, property).sort(set);
        std::vector<int> positions;
        for (std::size_t row = 0; row < set.rowCount(); ++row) {
            ModelElement const &element = set.at(row, 0);
            auto const at = std::find(original.begin(), original.end(), element);
            positions.push_back(element ? static_cast<int>(at - original.begin()) : -1);
        }
        return positions;
    }
};

TEST_F(InPlace, ConstraintsOnMembersAnswerAsOnValues) {
    auto const same = [](std::vector<Value> const &values) { return values; };
    meta::Type const integer = StandardTypes::integerMeta.get();
    std::vector<Value> const integers{Value(integer, std::int32_t(-7)), Value(integer, std::int32_t(0)),
                                      Value(integer, std::int32_t(7))};
    compareEveryPair(integer, integers, same(integers));

    // NaN relates to nothing, and is unequal even to itself.
    meta::Type const real = StandardTypes::realMeta.get();
    std::vector<Value> const reals{Value(real, -std::numeric_limits<double>::infinity()), Value(real, -0.0),
                                   Value(real, 0.0), Value(real, 2.5),
                                   Value(real, std::numeric_limits<double>::quiet_NaN())};
    compareEveryPair(real, reals, same(reals));

    // Beyond the range of the signed integers.
    meta::Type const natural = StandardTypes::uinteger64Meta.get();
    std::vector<Value> const naturals{Value(natural, std::uint64_t(0)), Value(natural, std::uint64_t(1) << 63),
                                      Value(natural, ~std::uint64_t(0))};
    compareEveryPair(natural, naturals, same(naturals));

    meta::Type const string = StandardTypes::stringMeta.get();
    std::vector<Value> const texts{Value(string, basalt::ustring(u"")), Value(string, basalt::ustring(u"B")),
                                   Value(string, basalt::ustring(u"a")), Value(string, basalt::ustring(u"\u00e9")),
                                   Value(string, basalt::ustring(u"ab"))};
    compareEveryPair(string, texts, same(texts));

    // An enum literal travels as a 64-bit number and lives in its element as 32 bits.
    meta::Type const binding = meta::Enum::create(model);
    std::vector<Value> literals, members;
    for (std::int32_t literal : {0, 1, 2}) {
        literals.push_back(Value(binding, std::uint64_t(literal)));
        members.push_back(Value(integer, literal));
    }
    compareEveryPair(binding, literals, members);
}

TEST_F(InPlace, SortsMixingMembersValuesEmptiesAndMissingRows) {
    meta::Type const string = StandardTypes::stringMeta.get();
    std::vector<std::optional<basalt::ustring>> const keys{u"b", u"B", std::nullopt, u"\u00e9", u"a", u"b", u""};
    std::vector<ModelElement> plain, mixed;
    ResultSet plainRows, mixedRows;
    plainRows.instanceIds = mixedRows.instanceIds = {0};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        Value const value = keys[i] ? Value(string, *keys[i]) : Value(string, boost::none);
        plain.push_back(test::Reading::create(model, value));
        // Every other element shows its member; an empty value never does.
        mixed.push_back(i % 2 == 0 && keys[i] ? test::Reading::create(model, value, value)
                                              : test::Reading::create(model, value));
        plainRows.addRow({plain.back()});
        mixedRows.addRow({mixed.back()});
        if (i == 3) {
            plainRows.addRow({ModelElement()});
            mixedRows.addRow({ModelElement()});
        }
    }
    meta::Property const optional = test::makeProperty(model, string, 0);
    // The plain order itself is the sorting tests' concern.
    for (SortDirection direction : {SortDirection::Ascending, SortDirection::Descending})
        EXPECT_EQ(sorted(mixedRows, mixed, optional, direction), sorted(plainRows, plain, optional, direction));
}

TEST_F(InPlace, GeneratedElementsShowTheirOwnAndInheritedPlainMembers) {
    Novel novel = Novel::create(model);
    novel->setPages(321);
    novel->setSubtitle(basalt::ustring(u"set, yet optional"));
    Novel::Impl const &impl = *novel.get();
    auto const *const pages = static_cast<std::int32_t const *>(impl.nativeValueAddress(*Book::Impl::pagesProperty().get()));
    ASSERT_NE(pages, nullptr);
    EXPECT_EQ(*pages, 321);
    novel->setPages(654);
    EXPECT_EQ(*pages, 654);
    EXPECT_EQ(impl.nativeValueAddress(*Book::Impl::titleProperty().get()), &impl.getTitle());
    // Optional values, collections and references are read as values.
    EXPECT_EQ(impl.nativeValueAddress(*Book::Impl::subtitleProperty().get()), nullptr);
    EXPECT_EQ(impl.nativeValueAddress(*Novel::Impl::genreProperty().get()), nullptr);
    EXPECT_EQ(impl.nativeValueAddress(*Book::Impl::tagsProperty().get()), nullptr);
    EXPECT_EQ(impl.nativeValueAddress(*Book::Impl::writerProperty().get()), nullptr);
    // Another class's property at the same index is not this element's.
    ASSERT_EQ(Author::Impl::nameProperty()->getPropertyIndex(), Book::Impl::titleProperty()->getPropertyIndex());
    EXPECT_EQ(impl.nativeValueAddress(*Author::Impl::nameProperty().get()), nullptr);
}

} // namespace
} // namespace kivra::query
