#include <kivra/Messages.hpp>
#include <kivra/ModelId.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <variant>

namespace kivra {
namespace {

using basalt::ustring;

std::string utf8(ustring const &text) { return basalt::i18n::ustring_to_utf8(text); }

// The location an InvalidFileLocation error carries, or "(no error)".
template <class Call> ustring rejectedLocation(Call call) {
    try {
        call();
    } catch (Error<messages::InvalidFileLocation> const &error) {
        return std::get<ustring>(error.getRecord().getArguments().at(0));
    }
    return u"(no error)";
}

TEST(ModelId, ParseSplitsAndPrintsBack) {
    struct Row {
        ustring text, format, type, location, printed;
    };
    Row const rows[] = {
        {u"memory://7", u"", u"memory", u"//7", u"@memory://7"},
        {u"registry@registry://metaRegistry/model", u"registry", u"registry", u"//metaRegistry/model",
         u"registry@registry://metaRegistry/model"},
        {u"a@b:c/d", u"a", u"b", u"c/d", u"a@b:c/d"},
        {u"f@t:", u"f", u"t", u"", u"f@t:"},
        {u"a:b@c:d", u"a:b", u"c", u"d", u"a:b@c:d"}, // only the first "@" ends the format
        {u"t:c:/dir/file", u"", u"t", u"c:/dir/file", u"@t:c:/dir/file"},
        {u"t:C:\\dir\\file", u"", u"t", u"C:/dir/file", u"@t:C:/dir/file"},
        {u"t:my\\ file", u"", u"t", u"my/ file", u"@t:my/ file"}, // escaping only matters to validity
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.text));
        ModelId const id = ModelId::parse(row.text);
        EXPECT_EQ(id.getFormat(), row.format);
        EXPECT_EQ(id.getModelIdType(), row.type);
        EXPECT_EQ(id.getLocation(), row.location);
        EXPECT_EQ(id.toString(), row.printed);
        EXPECT_EQ(ModelId::parse(id.toString()), id);
    }
    EXPECT_EQ(ModelId::parse(u"memory://7").toStringNoFormat(), u"memory://7");
}

TEST(ModelId, ParseRejectsMissingTypeAndBadLocations) {
    for (ustring const text : {u"abc", u"x@abc", u"a:b@c", u""}) {
        SCOPED_TRACE(utf8(text));
        EXPECT_THROW(ModelId::parse(text), Error<messages::InvalidValue>);
    }
    EXPECT_EQ(rejectedLocation([] { ModelId::parse(u"t:dir:name"); }), u"dir:name");
    EXPECT_EQ(rejectedLocation([] { ModelId::parse(u"f@t:a\\b/c"); }), u"a\\b/c");
    EXPECT_EQ(rejectedLocation([] { ModelId(u"", u"t", u"a\\b/c"); }), u"a\\b/c");
    EXPECT_EQ(ModelId(u"", u"t", u"a\\b").getLocation(), u"a/b");
}

TEST(ModelId, ValidLocations) {
    ustring const valid[] = {u"",          u"a/b",    u"a\\b",   u"\\\\server\\share", u"\u00e4/\u4e2d", u"a\\ b/c",
                             u"a\\ b\\ c", u"c:/dir", u"Z:\\dir"};
    ustring const invalid[] = {
        u"a\\b/c",   u"a\\ b\\c/d",                           // mixed separators, also beside an escaped blank
        u"c:",       u"c:x",        u"1:/x",    u"\u00e4:/x", // no drive prefix
        u"dir/c:/x", u"|c:/x",      u"c:/d:/x",               // a prefix counts at the very start only, once
    };
    for (ustring const &location : valid) {
        SCOPED_TRACE(utf8(location));
        EXPECT_TRUE(ModelId::isValidLocation(location));
    }
    for (ustring const &location : invalid) {
        SCOPED_TRACE(utf8(location));
        EXPECT_FALSE(ModelId::isValidLocation(location));
    }
    for (char16_t const forbidden : std::u16string_view(u"?*<>:|\"")) {
        SCOPED_TRACE(utf8(ustring(1, forbidden)));
        EXPECT_FALSE(ModelId::isValidLocation(ustring(u"c:/a") + forbidden));
    }
}

TEST(ModelId, GenericAndNativeForms) {
    EXPECT_EQ(ModelId::toGenericLocation(u"a\\b\\c"), u"a/b/c");
    EXPECT_EQ(ModelId::toGenericLocation(u"a/b"), u"a/b");

    std::pair<ustring, ustring> const natives[] = {
        {u"", u""},
        {u"a/b", u"a\\b"},
        {u"a/./b/../c", u"a\\c"},
        {u"/dir//file", u"\\dir\\file"},
        {u"c:/a/../b", u"c:\\b"},
        {u"a/..", u"."},
    };
    for (auto const &[location, native] : natives) {
        SCOPED_TRACE(utf8(location));
        EXPECT_EQ(ModelId::toNativeLocation(location), native);
    }

    ModelId const id(u"f", u"file", u"dir\\.\\x");
    EXPECT_EQ(id.getNativeLocation(), u"dir\\x");
    EXPECT_EQ(id.toOSString(), u"f@file:dir\\x");
}

} // namespace
} // namespace kivra
