#include <kivra/Messages.hpp>
#include <kivra/ModelId.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <gtest/gtest.h>

#include <string>
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
        ustring text, format, type, location, full, noFormat;
    };
    Row const rows[] = {
        {u"memory://7", u"", u"memory", u"//7", u"@memory://7", u"memory://7"},
        {u"registry@registry://metaRegistry/model", u"registry", u"registry", u"//metaRegistry/model",
         u"registry@registry://metaRegistry/model", u"registry://metaRegistry/model"},
        {u"a@b:c/d", u"a", u"b", u"c/d", u"a@b:c/d", u"b:c/d"},
        {u"@t:x", u"", u"t", u"x", u"@t:x", u"t:x"},
        {u"f@t:", u"f", u"t", u"", u"f@t:", u"t:"},
        // Only the first "@" ends the format, which may then hold a ":".
        {u"a:b@c:d", u"a:b", u"c", u"d", u"a:b@c:d", u"c:d"},
        {u"x@y@t:z", u"x", u"y@t", u"z", u"x@y@t:z", u"y@t:z"},
        // A drive prefix keeps its ":"; backslashes are stored as slashes.
        {u"t:c:/dir/file", u"", u"t", u"c:/dir/file", u"@t:c:/dir/file", u"t:c:/dir/file"},
        {u"t:C:\\dir\\file", u"", u"t", u"C:/dir/file", u"@t:C:/dir/file", u"t:C:/dir/file"},
        {u"t:my\\ file", u"", u"t", u"my/ file", u"@t:my/ file", u"t:my/ file"},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.text));
        ModelId const id = ModelId::parse(row.text);
        EXPECT_EQ(id.getFormat(), row.format);
        EXPECT_EQ(id.getModelIdType(), row.type);
        EXPECT_EQ(id.getLocation(), row.location);
        EXPECT_EQ(id.toString(), row.full);
        EXPECT_EQ(id.toStringNoFormat(), row.noFormat);
        EXPECT_EQ(ModelId::parse(id.toString()), id);
    }
}

TEST(ModelId, ParseRejectsMissingTypeAndBadLocations) {
    // No ":" behind the "@" (or anywhere) is no model id at all.
    for (ustring const text : {u"abc", u"x@abc", u"a:b@c", u""}) {
        SCOPED_TRACE(utf8(text));
        EXPECT_THROW(ModelId::parse(text), Error<messages::InvalidValue>);
    }
    EXPECT_EQ(rejectedLocation([] { ModelId::parse(u"t:dir:name"); }), u"dir:name");
    EXPECT_EQ(rejectedLocation([] { ModelId::parse(u"f@t:a\\b/c"); }), u"a\\b/c");
    EXPECT_EQ(rejectedLocation([] { ModelId(u"", u"t", u"a\\b/c"); }), u"a\\b/c");
    EXPECT_EQ(ModelId(u"", u"t", u"a\\b").getLocation(), u"a/b");
    EXPECT_NE(ModelId(u"", u"t", u"a"), ModelId(u"f", u"t", u"a"));
}

TEST(ModelId, ValidLocations) {
    struct Row {
        ustring location;
        bool valid;
    };
    Row const rows[] = {
        {u"", true},
        {u"a/b", true},
        {u"a\\b", true},
        {u"\\\\server\\share", true},
        {u"\u00e4/\u00f6\u4e2d", true},
        {u"a\\b/c", false},     // mixed separators
        {u"a\\ b/c", true},     // the escaped blank hides its backslash
        {u"a\\ b\\ c", true},   // ... and escaped blanks do not mix with "\\"
        {u"a\\ b\\c/d", false}, // an unescaped one still mixes
        {u"c:/dir", true},
        {u"Z:\\dir", true},
        {u"c:", false}, // a drive without its separator is not a prefix
        {u"c:x", false},
        {u"1:/x", false},
        {u"\u00e4:/x", false},
        {u"dir/c:/x", false}, // the prefix is allowed at the start only
        {u"|c:/x", false},    // ... not one character in
        {u"c:/d:/x", false},  // ... and only once
        {u"a?b", false},
        {u"a*b", false},
        {u"a<b", false},
        {u"a>b", false},
        {u"a|b", false},
        {u"a\"b", false},
        {u"a:b", false},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.location));
        EXPECT_EQ(ModelId::isValidLocation(row.location), row.valid);
    }
}

TEST(ModelId, GenericAndNativeForms) {
    EXPECT_EQ(ModelId::toGenericLocation(u"a\\b\\c"), u"a/b/c");
    EXPECT_EQ(ModelId::toGenericLocation(u"a/b"), u"a/b");

    struct Row {
        ustring location, native;
    };
    Row const rows[] = {
        {u"", u""},
        {u"a/b", u"a\\b"},
        {u"a\\b", u"a\\b"},
        {u"a/./b/../c", u"a\\c"},
        {u"/dir//file", u"\\dir\\file"},
        {u"c:/a/../b", u"c:\\b"},
        {u"a/..", u"."},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(utf8(row.location));
        EXPECT_EQ(ModelId::toNativeLocation(row.location), row.native);
    }

    ModelId const id(u"f", u"file", u"dir\\.\\x");
    EXPECT_EQ(id.getLocation(), u"dir/./x");
    EXPECT_EQ(id.getNativeLocation(), u"dir\\x");
    EXPECT_EQ(id.toOSString(), u"f@file:dir\\x");
    EXPECT_EQ(ModelId(u"", u"m", u"").toOSString(), u"@m:");
}

} // namespace
} // namespace kivra
