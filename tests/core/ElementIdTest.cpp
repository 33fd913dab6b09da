#include <kivra/ElementId.hpp>
#include <kivra/io/ElementId.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kivra {
namespace {

using basalt::ustring;

std::string utf8(ustring const &text) { return basalt::i18n::ustring_to_utf8(text); }

TEST(ElementId, OrdersByTypeThenIdentifierInCodeUnits) {
    // Each id is less than the next.
    ElementId const ascending[] = {
        {u"", u"z"},     {u"id", u""},           {u"id", u"B"},
        {u"id", u"a"},   {u"id", u"\U0001F600"}, {u"id", u"\uffff"}, // code units, not code points
        {u"uuid", u"a"},
    };
    for (std::size_t i = 0; i < std::size(ascending); ++i) {
        for (std::size_t j = 0; j < std::size(ascending); ++j) {
            SCOPED_TRACE(std::to_string(i) + " vs " + std::to_string(j));
            int const expected = (i > j) - (i < j);
            int const order = ascending[i].compare(ascending[j]);
            EXPECT_EQ((order > 0) - (order < 0), expected);
            EXPECT_EQ(ascending[i] < ascending[j], i < j);
            EXPECT_EQ(ascending[i] == ascending[j], i == j);
        }
    }
    EXPECT_EQ(ElementId(u"id", u"a"), ElementId(u"id", u"a"));
}

TEST(ProxyId, EqualityTellsNoModelFromAnEmptyOne) {
    boost::optional<ustring> const none;
    struct Row {
        ProxyId left, right;
        bool equal, less, greater;
    };
    Row const rows[] = {
        {{u"id", u"a", none}, {u"id", u"a", none}, true, false, false},
        {{u"id", u"a", ustring(u"m:1")}, {u"id", u"a", ustring(u"m:1")}, true, false, false},
        {{u"id", u"a", none}, {u"id", u"a", ustring(u"m:1")}, false, true, false},
        {{u"id", u"a", ustring(u"m:1")}, {u"id", u"a", ustring(u"m:2")}, false, true, false},
        {{u"id", u"a", none}, {u"id", u"a", ustring()}, false, false, false}, // unequal, yet unordered
        {{u"id", u"a", ustring(u"m:2")}, {u"id", u"b", ustring(u"m:1")}, false, true, false},
        {{u"uuid", u"a", none}, {u"id", u"b", ustring(u"m:1")}, false, false, true},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        Row const &row = rows[i];
        EXPECT_EQ(row.left == row.right, row.equal);
        EXPECT_EQ(row.right == row.left, row.equal);
        EXPECT_EQ(row.left < row.right, row.less);
        EXPECT_EQ(row.right < row.left, row.greater);
    }
}

TEST(ElementId, IoIdReadsOnlyCanonicalUuidText) {
    ustring const canonical = u"0f8fad5b-d9cb-469f-a165-70867728950e";
    boost::optional<boost::uuids::uuid> const uuid = io::ElementId(u"uuid", canonical).getUuid();
    ASSERT_TRUE(uuid);
    EXPECT_EQ(boost::uuids::to_string(*uuid), utf8(canonical));

    ustring const others[] = {
        u"0F8FAD5B-D9CB-469F-A165-70867728950E",  u"{0f8fad5b-d9cb-469f-a165-70867728950e}",
        u"0f8fad5bd9cb469fa16570867728950e",      u"0f8fad5b-d9cb-469f-a165-70867728950",
        u"0f8fad5b-d9cb-469f-a165-70867728950e0", u"0f8fad5b-d9cb-469f-a165-70867728950\u00e9",
        u"0f8fad5b-d9cb-469f-a16570867728950e",   u"",
    };
    for (ustring const &text : others) {
        SCOPED_TRACE(utf8(text));
        EXPECT_FALSE(io::ElementId(io::ElementId::DEFAULT_IDENTIFIER_TYPE, text).getUuid());
    }
    EXPECT_FALSE(io::ElementId(u"id", canonical).getUuid());
    EXPECT_FALSE(io::ElementId(u"UUID", canonical).getUuid());
    EXPECT_EQ(io::ElementId(), io::ElementId(u"", u""));
    EXPECT_EQ(io::ElementId(ElementId(u"id", u"7")), io::ElementId(u"id", u"7"));
}

} // namespace
} // namespace kivra
