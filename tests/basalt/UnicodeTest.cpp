#include <basalt/i18n/Unicode.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using basalt::ustring;
using namespace basalt::i18n;

namespace {

// Readable failure output for UTF-16 text.
std::vector<unsigned> units(std::u16string_view text) { return {text.begin(), text.end()}; }

int sign(int value) { return (value > 0) - (value < 0); }

} // namespace

TEST(UnicodeUtf, RoundTripsBmpAndSupplementaryText) {
    struct Case {
        std::u16string_view utf16;
        std::string_view utf8;
    };
    Case const cases[] = {
        {u"", ""},
        {u"plain ASCII", "plain ASCII"},
        {u"Stra\u00DFe \u0416\u0443\u043A \u65E5\u672C",
         "Stra\xC3\x9F" "e \xD0\x96\xD1\x83\xD0\xBA \xE6\x97\xA5\xE6\x9C\xAC"},
        {u"\U0001F600", "\xF0\x9F\x98\x80"},
        {u"a\U0010FFFFb\uFFFF", "a\xF4\x8F\xBF\xBF" "b\xEF\xBF\xBF"},
        {std::u16string_view(u"nul\0inside", 10), std::string_view("nul\0inside", 10)},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(std::string(c.utf8));
        EXPECT_EQ(ustring_to_utf8(c.utf16), c.utf8);
        EXPECT_EQ(units(utf8_to_ustring(c.utf8)), units(c.utf16));
    }
}

TEST(UnicodeUtf, ReplacesEachMaximalIllFormedUtf8Subpart) {
    struct Case {
        char const *what;
        std::string_view utf8;
        std::u16string_view utf16;
    };
    Case const cases[] = {
        {"overlong two bytes", "\xC0\xAF", u"\uFFFD\uFFFD"},
        {"overlong three bytes", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
        {"encoded surrogate", "a\xED\xA0\x80z", u"a\uFFFD\uFFFD\uFFFDz"},
        {"above U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"invalid lead F5", "\xF5\x80", u"\uFFFD\uFFFD"},
        {"truncated, then more text", "\xF0\x9F\x98" "A", u"\uFFFD" "A"},
        {"truncated at the end", "x\xE2\x82", u"x\uFFFD"},
        {"two truncated in a row", "\xE2\x82\xE2\x82", u"\uFFFD\uFFFD"},
        {"stray continuations", "a\x80\xBF" "b", u"a\uFFFD\uFFFD" "b"},
        {"valid after invalid", "\xFF\xC3\xA9", u"\uFFFD\u00E9"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(units(utf8_to_ustring(c.utf8)), units(c.utf16));
    }
}

TEST(UnicodeUtf, ReplacesLoneSurrogates) {
    struct Case {
        char const *what;
        std::u16string utf16;
        std::string_view utf8;
    };
    Case const cases[] = {
        {"lone high", {u'a', char16_t(0xD83D), u'b'}, "a\xEF\xBF\xBD" "b"},
        {"high at the end", {u'a', char16_t(0xD83D)}, "a\xEF\xBF\xBD"},
        {"lone low", {char16_t(0xDE00), u'b'}, "\xEF\xBF\xBD" "b"},
        {"reversed pair", {char16_t(0xDE00), char16_t(0xD83D)}, "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"two highs, then low", {char16_t(0xD83D), char16_t(0xD83D), char16_t(0xDE00)}, "\xEF\xBF\xBD\xF0\x9F\x98\x80"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ustring_to_utf8(c.utf16), c.utf8);
    }
}

TEST(UnicodeConverter, EncodesAndDecodesLatin1) {
    converter latin1("latin1");
    EXPECT_EQ(latin1.codeset(), "ISO-8859-1");
    EXPECT_EQ(latin1.from_ustring(u"caf\u00E9 \u00FF"), "caf\xE9 \xFF");
    EXPECT_EQ(units(latin1.to_ustring("caf\xE9 \xFF")), units(u"caf\u00E9 \u00FF"));
    // Characters outside the code set become its substitution byte, one per character.
    EXPECT_EQ(latin1.from_ustring(u"\u20AC\U0001F600!"), "\x1A\x1A!");

    // The converter stays usable after being moved.
    converter moved(std::move(latin1));
    EXPECT_EQ(moved.from_ustring(u"\u00E9"), "\xE9");
}

TEST(UnicodeConverter, RoundTripsMultiByteCodeSets) {
    converter sjis("Shift_JIS");
    EXPECT_EQ(sjis.from_ustring(u"\u65E5\u672C a"), "\x93\xFA\x96\x7B a");
    EXPECT_EQ(units(sjis.to_ustring("\x93\xFA\x96\x7B a")), units(u"\u65E5\u672C a"));
}

TEST(UnicodeConverter, RejectsUnknownCodeSets) {
    EXPECT_THROW(converter("no-such-codeset-xyz"), std::invalid_argument);
    EXPECT_THROW(converter(""), std::invalid_argument);
}

namespace {

struct Facet : codecvt_ustring_to_string {}; // public destructor for a stack instance

} // namespace

TEST(UnicodeCodecvt, LeavesCutUtf8SequencesForTheNextBufferButReplacesIllFormedOnes) {
    Facet facet;
    std::mbstate_t state{};
    std::string const input = "a\xF0\x9F\x98\x80z";
    char16_t out[8] = {};
    char const *fromNext = nullptr;
    char16_t *toNext = nullptr;

    // Every cut inside the emoji converts "a" and leaves the whole sequence.
    for (std::size_t cut = 2; cut <= 4; ++cut) {
        SCOPED_TRACE(cut);
        EXPECT_EQ(facet.in(state, input.data(), input.data() + cut, fromNext, out, out + 8, toNext), Facet::partial);
        EXPECT_EQ(fromNext - input.data(), 1);
        EXPECT_EQ(toNext - out, 1);
    }

    EXPECT_EQ(facet.in(state, input.data() + 1, input.data() + input.size(), fromNext, out, out + 8, toNext),
              Facet::ok);
    EXPECT_EQ(units(std::u16string_view(out, toNext - out)), units(u"\U0001F600z"));

    // No room for both units of a pair: nothing of it is written.
    EXPECT_EQ(facet.in(state, input.data() + 1, input.data() + input.size(), fromNext, out, out + 1, toNext),
              Facet::partial);
    EXPECT_EQ(fromNext, input.data() + 1);
    EXPECT_EQ(toNext, out);

    // ED A0 can never become well-formed, so more input would not help: it is replaced.
    std::string const illFormed = "\xC0" "a\xED\xA0";
    EXPECT_EQ(facet.in(state, illFormed.data(), illFormed.data() + illFormed.size(), fromNext, out, out + 8, toNext),
              Facet::ok);
    EXPECT_EQ(units(std::u16string_view(out, toNext - out)), units(u"\uFFFD" "a\uFFFD\uFFFD"));
}

TEST(UnicodeCodecvt, LeavesCutSurrogatePairsForTheNextBuffer) {
    Facet facet;
    std::mbstate_t state{};
    std::u16string const input = u"a\U0001F600";
    char out[8] = {};
    char16_t const *fromNext = nullptr;
    char *toNext = nullptr;

    EXPECT_EQ(facet.out(state, input.data(), input.data() + 2, fromNext, out, out + 8, toNext), Facet::partial);
    EXPECT_EQ(fromNext, input.data() + 1);
    EXPECT_EQ(std::string(out, toNext), "a");

    EXPECT_EQ(facet.out(state, input.data() + 1, input.data() + 3, fromNext, out, out + 8, toNext), Facet::ok);
    EXPECT_EQ(std::string(out, toNext), "\xF0\x9F\x98\x80");

    // Three bytes of room are not enough for the four of the pair.
    EXPECT_EQ(facet.out(state, input.data() + 1, input.data() + 3, fromNext, out, out + 3, toNext), Facet::partial);
    EXPECT_EQ(fromNext, input.data() + 1);
    EXPECT_EQ(toNext, out);

    std::u16string const lone = {char16_t(0xDE00), u'b', char16_t(0xD83D), u'c'};
    EXPECT_EQ(facet.out(state, lone.data(), lone.data() + lone.size(), fromNext, out, out + 8, toNext), Facet::ok);
    EXPECT_EQ(std::string(out, toNext), "\xEF\xBF\xBD" "b\xEF\xBF\xBD" "c");
}

TEST(UnicodeCodecvt, LengthCountsUtf16UnitsOfCompleteCharacters) {
    Facet facet;
    std::mbstate_t state{};
    std::string const input = "a\xF0\x9F\x98\x80\xC3\xA9\xFF\xE2\x82";
    char const *const begin = input.data();
    char const *const end = begin + input.size();
    struct Case {
        std::size_t max;
        int bytes;
    };
    // a=1 unit, emoji=2, e-acute=1, FF=1 (replaced), E2 82 incomplete.
    Case const cases[] = {{0, 0}, {1, 1}, {2, 1}, {3, 5}, {4, 7}, {5, 8}, {100, 8}};
    for (auto const &c : cases) {
        SCOPED_TRACE(c.max);
        EXPECT_EQ(facet.length(state, begin, end, c.max), c.bytes);
    }
}

TEST(UnicodeCompare, FoldsCaseFullyWhenAsked) {
    struct Case {
        std::u16string_view left, right;
        int insensitive, sensitive;
    };
    Case const cases[] = {
        {u"STRASSE", u"stra\u00DFe", 0, -1},
        {u"\u03A3\u0391\u03A3", u"\u03C3\u03B1\u03C2", 0, -1}, // capital, small and final sigma
        {u"\u00C4\u00D6\u00DC", u"\u00E4\u00F6\u00FC", 0, -1},
        {u"same", u"same", 0, 0},
        {u"apple", u"Banana", -1, 1},
        {u"abc", u"ABCD", -1, 1},
        {u"", u"a", -1, -1},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(basalt::i18n::ustring_to_utf8(c.left) + " vs " + basalt::i18n::ustring_to_utf8(c.right));
        EXPECT_EQ(sign(compare(c.left, c.right, case_insensitive)), c.insensitive);
        EXPECT_EQ(sign(compare(c.right, c.left, case_insensitive)), -c.insensitive);
        EXPECT_EQ(sign(compare(c.left, c.right)), c.sensitive);
        EXPECT_EQ(sign(compare(c.right, c.left)), -c.sensitive);
    }
}

TEST(UnicodeCompare, OrdersByCodePointNotCodeUnit) {
    // UTF-16 unit order would put every supplementary character before U+E000..U+FFFF.
    struct Case {
        std::u16string_view left, right;
    };
    Case const cases[] = {
        {u"\uFF5E", u"\U0001F600"},
        {u"x\uE000", u"x\U00010000"},
        {u"xy\uFFFF tail", u"xy\U0010FFFF"},
        {u"\U0001F600", u"\U0001F601"}, // differ in the low surrogate
        {u"\U0001F600", u"\U0001F600!"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(basalt::i18n::ustring_to_utf8(c.left) + " vs " + basalt::i18n::ustring_to_utf8(c.right));
        for (auto options : {case_sensitive, case_insensitive}) {
            EXPECT_LT(compare(c.left, c.right, options), 0);
            EXPECT_GT(compare(c.right, c.left, options), 0);
        }
    }
}
