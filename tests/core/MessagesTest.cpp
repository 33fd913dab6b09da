#include <kivra/Messages.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

struct CatalogueLine {
    char const *catalogue;
    char const *id;
    std::size_t argumentCount;
    // Builds the record with arguments "<0>", "<1>", ... and throws it.
    void (*raise)();
};

#define KIVRA_MESSAGE_0(catalogue, Id, text) {"kivra:" #catalogue, #Id, 0, [] { kivra::raise<kivra::catalogue::Id>(); }},
#define KIVRA_MESSAGE_1(catalogue, Id, a0, text)                                                                   \
    {"kivra:" #catalogue, #Id, 1, [] { kivra::raise<kivra::catalogue::Id>(u"<0>"); }},
#define KIVRA_MESSAGE_2(catalogue, Id, a0, a1, text)                                                               \
    {"kivra:" #catalogue, #Id, 2, [] { kivra::raise<kivra::catalogue::Id>(u"<0>", u"<1>"); }},
constexpr CatalogueLine catalogueLines[] = {
#include <kivra/Messages.def>
};
#undef KIVRA_MESSAGE_0
#undef KIVRA_MESSAGE_1
#undef KIVRA_MESSAGE_2

std::set<std::size_t> placeholdersIn(std::u16string_view text) {
    std::set<std::size_t> found;
    for (std::size_t i = 0; i + 2 < text.size(); ++i)
        if (text[i] == u'{' && text[i + 1] >= u'0' && text[i + 1] <= u'9' && text[i + 2] == u'}')
            found.insert(text[i + 1] - u'0');
    return found;
}

TEST(Messages, EveryIdHasATextUsingEachArgumentOnce) {
    for (auto const &line : catalogueLines) {
        SCOPED_TRACE(std::string(line.catalogue) + ":" + line.id);
        try {
            line.raise();
            ADD_FAILURE() << "nothing raised";
        } catch (basalt::except::IMsgIDException const &error) {
            EXPECT_EQ(error.get_error_id(), std::string(line.catalogue) + ":" + line.id);
            EXPECT_EQ(error.getMsgID().getArguments().size(), line.argumentCount);

            auto const pattern = basalt::except::MessageCatalogues::find(line.catalogue, line.id);
            ASSERT_FALSE(pattern.empty());
            std::set<std::size_t> expected;
            for (std::size_t i = 0; i < line.argumentCount; ++i)
                expected.insert(i);
            EXPECT_EQ(placeholdersIn(pattern), expected);

            // The rendered text carries each argument and no placeholder is left.
            auto const text = error.GetUnicodeMessageTxt();
            for (std::size_t i = 0; i < line.argumentCount; ++i)
                EXPECT_NE(text.find(u"<" + std::u16string(1, char16_t(u'0' + i)) + u">"), std::u16string::npos);
            EXPECT_TRUE(placeholdersIn(text).empty());
        }
    }
}

TEST(Messages, AbsentArgumentIsAnEmptyText) {
    try {
        kivra::raise<kivra::messages::NoSuchProperty>(u"", u"library::Book");
    } catch (kivra::Error<kivra::messages::NoSuchProperty> const &error) {
        auto const &arguments = error.getRecord().getArguments();
        ASSERT_EQ(arguments.size(), 2u);
        EXPECT_EQ(std::get<basalt::ustring>(arguments[0]), u"");
        EXPECT_EQ(error.GetUnicodeMessageTxt(), u"The class \"library::Book\" has no property \"\".");
    }
}

} // namespace
