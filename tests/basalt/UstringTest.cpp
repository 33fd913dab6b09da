#include <basalt/ustring.hpp>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>

using basalt::ustring;

namespace {

static_assert(std::is_nothrow_move_constructible_v<ustring> && std::is_nothrow_move_assignable_v<ustring>);

// Lengths around the end of the inline form, and texts whose units are not all ASCII.
constexpr std::size_t lengths[] = {0, 1, 10, 11, 12, 13, 23, 40};

std::u16string sample(std::size_t length, char16_t first = u'a') {
    std::u16string text;
    for (std::size_t i = 0; i < length; ++i)
        text.push_back(i % 5 == 4 ? char16_t(0xD7FF - i) : char16_t(first + i % 26));
    return text;
}

// The text, its terminator, and whether it is kept in the object.
void expectHolds(ustring const &text, std::u16string const &expected) {
    ASSERT_EQ(text.size(), expected.size());
    EXPECT_EQ(std::u16string_view(text), expected);
    EXPECT_EQ(text.c_str()[text.size()], u'\0');
    EXPECT_EQ(text.capacity() == ustring::inline_capacity, expected.size() <= ustring::inline_capacity)
        << "a text of " << expected.size() << " units";
}

} // namespace

TEST(Ustring, KeepsShortTextsInlineAndLongerOnesWhole) {
    for (std::size_t length : lengths) {
        SCOPED_TRACE(length);
        std::u16string const expected = sample(length);
        expectHolds(ustring(expected), expected);
        ustring grown;
        for (char16_t unit : expected)
            grown.push_back(unit);
        EXPECT_EQ(std::u16string_view(grown), expected);
        EXPECT_EQ(grown.c_str()[length], u'\0');
    }
}

TEST(Ustring, CopiesAndMovesAcrossTheInlineBoundary) {
    for (std::size_t from : lengths) {
        for (std::size_t to : lengths) {
            SCOPED_TRACE(std::to_string(from) + " onto " + std::to_string(to));
            std::u16string const source = sample(from), target = sample(to, u'A');
            ustring const original(source);

            ustring copied(target);
            copied = original; // keeps the target's block, as the standard string does
            EXPECT_EQ(std::u16string_view(copied), source);
            ustring const &self = copied;
            copied = self;
            EXPECT_EQ(std::u16string_view(copied), source);
            expectHolds(ustring(copied), source);
            expectHolds(original, source);

            ustring moved(target);
            ustring donor(source);
            moved = std::move(donor);
            EXPECT_EQ(std::u16string_view(moved), source);
            EXPECT_TRUE(donor.empty());
            donor = target; // a moved-from text takes a new value
            EXPECT_EQ(std::u16string_view(donor), target);

            ustring constructed(std::move(moved));
            EXPECT_EQ(std::u16string_view(constructed), source);
            swap(constructed, copied = ustring(target));
            EXPECT_EQ(std::u16string_view(constructed), target);
            EXPECT_EQ(std::u16string_view(copied), source);
        }
    }
}

TEST(Ustring, EditsThatCrossTheBoundaryKeepTheText) {
    for (std::size_t length : lengths) {
        SCOPED_TRACE(length);
        std::u16string expected = sample(length);
        ustring text(expected);
        // Appending a text to itself reads from memory that growing gives up.
        text.append(text);
        expected += expected;
        EXPECT_EQ(std::u16string_view(text), expected);
        text.replace(1 % (expected.size() + 1), 3, std::u16string_view(text).substr(0, 5));
        expected.replace(1 % (expected.size() + 1), 3, std::u16string_view(expected).substr(0, 5));
        EXPECT_EQ(std::u16string_view(text), expected);
        text.erase(length / 2);
        expected.erase(length / 2);
        text.shrink_to_fit();
        expectHolds(text, expected);
        text.resize(length + 3, u'z');
        expected.resize(length + 3, u'z');
        EXPECT_EQ(std::u16string_view(text), expected);
        text.assign(std::u16string_view(text).substr(2));
        expected.assign(std::u16string_view(expected).substr(2));
        EXPECT_EQ(std::u16string_view(text), expected);
        // Ranges of its own iterators, contiguous or not, as the standard string takes them.
        text.append(text.begin(), text.end());
        expected.append(expected.begin(), expected.end());
        EXPECT_EQ(std::u16string_view(text), expected);
        text.append(text.rbegin(), text.rend());
        expected.append(expected.rbegin(), expected.rend());
        EXPECT_EQ(std::u16string_view(text), expected);
        text.assign(text.begin() + 1, text.end());
        expected.assign(expected.begin() + 1, expected.end());
        EXPECT_EQ(std::u16string_view(text), expected);
        text.assign(text.rbegin(), text.rend());
        expected.assign(expected.rbegin(), expected.rend());
        expectHolds(text, expected);
    }
}

TEST(Ustring, OrdersAndHashesAsTheStandardString) {
    // Code-unit order: a unit above 0x7FFF sorts after ASCII, as char16_t is unsigned.
    std::u16string const texts[] = {u"", u"a", u"ab", u"b", sample(11), sample(12), u"\xE9", u"\xFFFF"};
    std::unordered_set<ustring> set;
    for (auto const &a : texts) {
        set.insert(ustring(a));
        for (auto const &b : texts)
            EXPECT_EQ(ustring(a) <=> ustring(b), a <=> b);
    }
    for (auto const &a : texts) {
        EXPECT_EQ(std::hash<ustring>()(ustring(a)), std::hash<std::u16string>()(a));
        EXPECT_TRUE(set.contains(ustring(a)));
    }
    EXPECT_EQ(ustring(u"ab") + u"c" + ustring(sample(11)), u"abc" + sample(11));
}
