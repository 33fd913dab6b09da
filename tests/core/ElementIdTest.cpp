#include <kivra/ElementId.hpp>
#include <kivra/io/ElementId.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kivra {
namespace {

using basalt::ustring;

std::string utf8(ustring const &text) { return basalt::i18n::ustring_to_utf8(text); }

TEST(ElementId, OrdersByTypeThenIdentifierInCodeUnits) {
    struct Row {
        ElementId left, right;
        int order; // sign of left.compare(right)
    };
    Row const rows[] = {
        {{u"id", u"b"}, {u"id", u"b"}, 0},
        {{u"id", u"a"}, {u"id", u"b"}, -1},
        {{u"id", u"z"}, {u"uuid", u"a"}, -1}, // the type decides first
        {{u"id", u""}, {u"id", u"a"}, -1},
        {{u"", u"z"}, {u"id", u""}, -1},
        {{u"id", u"B"}, {u"id", u"a"}, -1},           // case counts
        {{u"id", u"\uffff"}, {u"id", u"\U0001F600"}, 1}, // code units, not code points
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.left.getIdentifierType() + u"/" + row.left.getIdentifier()));
        EXPECT_EQ(row.left.compare(row.right), row.order);
        EXPECT_EQ(row.right.compare(row.left), -row.order);
        EXPECT_EQ(row.left == row.right, row.order == 0);
        EXPECT_EQ(row.left < row.right, row.order < 0);
        EXPECT_EQ(row.right < row.left, row.order > 0);
    }
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
        // Unequal, yet neither is less: no model id orders as the empty one.
        {{u"id", u"a", none}, {u"id", u"a", ustring()}, false, false, false},
        // The element id orders before the model id.
        {{u"id", u"a", ustring(u"m:2")}, {u"id", u"b", ustring(u"m:1")}, false, true, false},
        {{u"id", u"b", none}, {u"uuid", u"a", ustring(u"m:1")}, false, true, false},
        {{u"uuid", u"a", none}, {u"id", u"a", none}, false, false, true},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        Row const &row = rows[i];
        EXPECT_EQ(row.left == row.right, row.equal);
        EXPECT_EQ(row.right == row.left, row.equal);
        EXPECT_EQ(row.left < row.right, row.less);
        EXPECT_EQ(row.right < row.left, row.greater);
        EXPECT_TRUE(row.left.getElementId() == row.right.getElementId() || !row.equal);
    }
}

TEST(ProxyId, InStdSet) {
    std::set<ProxyId> ids{{u"id", u"b", boost::none},
                          {u"id", u"a", ustring(u"m:1")},
                          {u"id", u"a", boost::none},
                          {u"id", u"a", ustring(u"m:1")}};
    ASSERT_EQ(ids.size(), 3u);
    auto it = ids.begin();
    EXPECT_EQ(*it++, ProxyId(u"id", u"a", boost::none));
    EXPECT_EQ(*it++, ProxyId(u"id", u"a", ustring(u"m:1")));
    EXPECT_EQ(*it++, ProxyId(u"id", u"b", boost::none));

    // An ordered set cannot tell no model id from an empty one: the first one stays.
    EXPECT_FALSE(ids.insert(ProxyId(u"id", u"a", ustring())).second);
    EXPECT_FALSE(ids.find(ProxyId(u"id", u"a", ustring()))->getModelId().has_value());
}

TEST(ElementId, IoIdReadsOnlyCanonicalUuidText) {
    ustring const canonical = u"0f8fad5b-d9cb-469f-a165-70867728950e";
    struct Row {
        ustring type, identifier;
        bool isUuid;
    };
    Row const rows[] = {
        {u"uuid", canonical, true},
        {u"uuid", u"00000000-0000-0000-0000-000000000000", true},
        {u"uuid", u"0F8FAD5B-D9CB-469F-A165-70867728950E", false},
        {u"uuid", u"{0f8fad5b-d9cb-469f-a165-70867728950e}", false},
        {u"uuid", u"0f8fad5bd9cb469fa16570867728950e", false},
        {u"uuid", u"0f8fad5b-d9cb-469f-a165-70867728950", false},
        {u"uuid", u"0f8fad5b-d9cb-469f-a165-70867728950e0", false},
        {u"uuid", u"0f8fad5b-d9cb-469f-a165-70867728950\u00e9", false},
        {u"uuid", u"not a uuid", false},
        {u"uuid", u"", false},
        {u"id", canonical, false},
        {u"UUID", canonical, false},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.type + u"/" + row.identifier));
        boost::optional<boost::uuids::uuid> const uuid = io::ElementId(row.type, row.identifier).getUuid();
        ASSERT_EQ(uuid.has_value(), row.isUuid);
        if (uuid) {
            EXPECT_EQ(basalt::i18n::utf8_to_ustring(boost::uuids::to_string(*uuid)), row.identifier);
        }
    }

    EXPECT_EQ(io::ElementId::DEFAULT_IDENTIFIER_TYPE, u"uuid");
    EXPECT_EQ(io::ElementId::INTRINSIC_IDENTIFIER_TYPE, u"id");
    io::ElementId const empty;
    EXPECT_EQ(empty, io::ElementId(u"", u""));
    EXPECT_LT(empty, io::ElementId(io::ElementId::INTRINSIC_IDENTIFIER_TYPE, u"1"));
    EXPECT_EQ(io::ElementId(ElementId(u"id", u"7")), io::ElementId(u"id", u"7"));
}

} // namespace
} // namespace kivra
