#include <basalt/filesystem/Path.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace {

namespace fs = std::filesystem;
using basalt::ustring;
using basalt::filesystem::create_directories;
using basalt::filesystem::FileExistsError;
using basalt::filesystem::detail::make_generic_form;
using basalt::filesystem::detail::make_native_form;
using basalt::filesystem::detail::remove_filename;
using basalt::i18n::ustring_to_utf8;
using basalt::i18n::utf8_to_ustring;

/// Expected results are written with "/" and turned into the system's separator here.
ustring native(ustring path) {
    std::replace(path.begin(), path.end(), u'/', static_cast<char16_t>(fs::path::preferred_separator));
    return path;
}

struct FormCase {
    char16_t const *path;
    char16_t const *expected;
};

TEST(PathForms, NativeFormOnlyChangesSeparators) {
    FormCase const cases[] = {
        {u"", u""},
        {u"a\\b/c", u"a/b/c"},
        {u"a/./b/../c", u"a/./b/../c"},
        {u"a\\\\b\\", u"a//b/"},
        {u"c:\\x", u"c:/x"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(ustring_to_utf8(c.path));
        EXPECT_EQ(make_native_form(c.path, false), native(c.expected));
    }
}

TEST(PathForms, NativeFormNormalizes) {
    FormCase const cases[] = {
        {u"", u""},
        {u".", u"."},
        {u"a/./b", u"a/b"},
        {u"./a/", u"a/"},
        {u"a\\..\\b", u"b"},
        {u"a//b\\\\c", u"a/b/c"},
        {u"a/b\\", u"a/b/"},
        {u"a/b/.", u"a/b/"},
        {u"a/b/..", u"a/"},
        {u"a/..", u"."},
        {u"a/../..", u".."},
        {u"../a", u"../a"},
        {u"/../a", u"/a"},
        {u"\\a\\.\\b", u"/a/b"},
        {u"\u00e4/./\u00f6\\..\\\u6587", u"\u00e4/\u6587"},
        // A drive stays in front and is never cancelled by "..".
        {u"c:", u"c:"},
        {u"c:\\a\\..\\b", u"c:/b"},
        {u"C:/..", u"C:/"},
        {u"c:a/..", u"c:"},
        {u"c:../x", u"c:../x"},
        // Only at the very start is "x:" a drive.
        {u"a/c:/..", u"a/"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(ustring_to_utf8(c.path));
        EXPECT_EQ(make_native_form(c.path, true), native(c.expected));
    }
}

TEST(PathForms, GenericFormUsesSlashes) {
    EXPECT_EQ(make_generic_form(u"a\\b/c\\"), u"a/b/c/");
    EXPECT_EQ(make_generic_form(u"\\\\server\\share"), u"//server/share");
    EXPECT_EQ(make_generic_form(u"a/./../b"), u"a/./../b");
    EXPECT_EQ(make_generic_form(u""), u"");
}

TEST(PathForms, RemoveFilenameKeepsTheLastSeparator) {
    FormCase const cases[] = {
        {u"a/b/c.txt", u"a/b/"}, {u"c.txt", u""},   {u"a\\b", u"a\\"}, {u"a/b\\c", u"a/b\\"},
        {u"a/b/", u"a/b/"},      {u"/", u"/"},      {u"", u""},        {u"c:x", u""},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(ustring_to_utf8(c.path));
        EXPECT_EQ(remove_filename(c.path), c.expected);
    }
}

class CreateDirectories : public ::testing::Test {
protected:
    void SetUp() override {
        std::random_device seed;
        root_ = fs::temp_directory_path() / ("basalt-path-test-" + std::to_string(seed()) + std::to_string(seed()));
        ASSERT_TRUE(fs::create_directory(root_));
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    /// `relative` below the test's own directory, as UTF-16 text.
    ustring below(ustring const &relative) const { return utf8_to_ustring(root_.string()) + u"/" + relative; }

    fs::path root_;
};

TEST_F(CreateDirectories, CreatesMissingParentsWithEitherSeparatorAndRefusesExistingOnes) {
    EXPECT_NO_THROW(create_directories(u""));
    create_directories(below(u"a/b\\c"));
    EXPECT_TRUE(fs::is_directory(root_ / "a" / "b" / "c"));
    create_directories(below(u"\u00fc-dir/"));
    EXPECT_TRUE(fs::is_directory(root_ / fs::path(u8"\u00fc-dir")));

    EXPECT_THROW(create_directories(below(u"a/b/c")), FileExistsError);
    EXPECT_THROW(create_directories(below(u"a\\b\\")), FileExistsError);
    EXPECT_THROW(create_directories(below(u"a")), FileExistsError);
}

// A file where a directory should be is a failure to create, not "already exists".
TEST_F(CreateDirectories, FileInTheWayRaisesFilesystemError) {
    std::ofstream(root_ / "f") << "content";
    EXPECT_THROW(create_directories(below(u"f")), fs::filesystem_error);
    EXPECT_THROW(create_directories(below(u"f/g")), fs::filesystem_error);
    EXPECT_TRUE(fs::is_regular_file(root_ / "f"));
}

} // namespace
