#include <basalt/regex/Regex.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using basalt::ustring;
using namespace basalt::regex;

TEST(Regex, MatchesWholeTextOrSearches) {
    struct Case {
        char const *what;
        ustring text, pattern;
        unsigned syntax;
        bool whole, search;
    };
    Case const cases[] = {
        {"letters over Cyrillic", u"\u041F\u0440\u0438\u0432\u0435\u0442", u"\\p{L}+", 0, true, true},
        {"letters then punctuation", u"\u041F\u0440\u0438\u0432\u0435\u0442!", u"\\p{L}+", 0, false, true},
        {"no letters at all", u"12 34", u"\\p{L}+", 0, false, false},
        {"umlauts without case folding", u"\u00E4\u00F6\u00FC", u"\u00C4\u00D6\u00DC", 0, false, false},
        {"umlauts with case folding", u"\u00E4\u00F6\u00FC", u"\u00C4\u00D6\u00DC", icase, true, true},
        {"dot takes a whole code point", u"\U0001F600", u".", 0, true, true},
        {"line anchors", u"first\nsecond", u"^second$", 0, false, false},
        {"line anchors, multiline", u"first\nsecond", u"^second$", multiline, false, true},
        {"dot and line ends", u"a\nb", u"a.b", 0, false, false},
        {"dot and line ends, dotall", u"a\nb", u"a.b", dotall, true, true},
        {"literal dot", u"axb", u"a.b", literal, false, false},
        {"literal text", u"(a.b)", u"(a.b)", literal, true, true},
        {"literal with case folding", u"x A.B", u"a.b", literal | icase, false, true},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(regex_search(c.text, c.pattern, true, c.syntax), c.whole);
        EXPECT_EQ(regex_search(c.text, c.pattern, false, c.syntax), c.search);
    }
}

TEST(Regex, ReportsSyntaxErrorsWithOffset) {
    struct Case {
        ustring pattern;
        char const *message;
    };
    Case const cases[] = {
        {u"ab(c", "U_REGEX_MISMATCHED_PAREN at offset 4 in regular expression \"ab(c\""},
        {u"[\u00E4bc", "U_REGEX_MISSING_CLOSE_BRACKET at offset 4 in regular expression \"[\xC3\xA4" "bc\""},
        {u"x\ny(", "U_REGEX_MISMATCHED_PAREN at line 2, offset 2"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.message);
        try {
            regex_search(u"abc", c.pattern, false);
            ADD_FAILURE() << "no regex_error";
        } catch (regex_error const &error) {
            EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
        }
    }
    // The same text is fine as a literal.
    EXPECT_TRUE(regex_search(u"ab(c", u"ab(c", true, literal));
}

TEST(Regex, RejectsUnknownSyntaxFlags) {
    EXPECT_THROW(regex_search(u"a", u"a", false, 16), std::invalid_argument);
}
