#include <basalt/except/Exception.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

namespace {

using basalt::BaseMsgID;
using basalt::ustring;
using basalt::except::Exception;
using basalt::except::IException;
using basalt::except::IMsgIDException;
using basalt::except::IUserException;
using basalt::except::MessageCatalogues;

struct Greeting : BaseMsgID {
    Greeting(ustring const &who, std::string const &where) : BaseMsgID("test:greetings", "Hello", {who, where}) {}
};
struct Farewell : BaseMsgID {
    Farewell() : BaseMsgID("test:greetings", "Bye") {}
};

std::u16string_view greetings(std::string_view id) {
    if (id == "Hello")
        return u"Hello {0} from {1}, {0}! {{0}} {7}";
    return {};
}

class ExceptionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { MessageCatalogues::registerCatalogue("test:greetings", &greetings); }
};

TEST_F(ExceptionTest, FormatsPlaceholdersFromBothArgumentForms) {
    Exception<Greeting> const error(Greeting(u"Zoë", "Genève"));
    // Repeated placeholders, an escaped brace, and a placeholder without argument.
    EXPECT_EQ(error.GetUnicodeMessageTxt(), u"Hello Zoë from Genève, Zoë! {0} {7}");
    EXPECT_STREQ(error.what(), "Hello Zo\xC3\xAB from Gen\xC3\xA8ve, Zo\xC3\xAB! {0} {7}");
    EXPECT_EQ(error.get_error_id(), "test:greetings:Hello");
    EXPECT_EQ(error.ToUstringImpl(), u"test:greetings:Hello: Hello Zoë from Genève, Zoë! {0} {7}");
}

TEST_F(ExceptionTest, MissingTextStillNamesIdentityAndArguments) {
    EXPECT_EQ(Exception<Farewell>(Farewell()).GetUnicodeMessageTxt(), u"test:greetings:Bye");
    BaseMsgID const unknown("test:nowhere", "Lost", {std::string("a"), ustring(u"b")});
    EXPECT_EQ(unknown.formatMessage(), u"test:nowhere:Lost(a, b)");
}

TEST_F(ExceptionTest, IdentityComparesWithoutArguments) {
    Greeting const a(u"x", "y");
    Greeting const b(u"z", "w");
    EXPECT_TRUE(a.sameIdentity(b));
    EXPECT_NE(a.getArguments(), b.getArguments());
    EXPECT_FALSE(a.sameIdentity(Farewell()));
}

TEST_F(ExceptionTest, CloneAndRethrowKeepClassAndArguments) {
    std::unique_ptr<IException> copy;
    try {
        throw Exception<Greeting>(Greeting(u"Ann", "Oslo"));
    } catch (IUserException const &error) {
        copy.reset(error.clone());
    }
    ASSERT_TRUE(copy);
    try {
        copy->rethrow();
        FAIL() << "rethrow returned";
    } catch (Exception<Greeting> const &error) {
        EXPECT_EQ(error.getRecord().getArguments(), (std::vector<basalt::MessageArgument>{u"Ann", std::string("Oslo")}));
        EXPECT_EQ(dynamic_cast<IMsgIDException const &>(error).getMsgID().getId(), "Hello");
    }
}

static_assert(std::is_base_of_v<std::exception, Exception<Farewell>> && std::is_base_of_v<IUserException, Exception<Farewell>> &&
              std::is_base_of_v<IMsgIDException, Exception<Farewell>>);
// Interrupts are deliberately outside the family.
static_assert(std::is_base_of_v<std::exception, basalt::InterruptException> &&
              !std::is_base_of_v<IException, basalt::InterruptException>);

} // namespace
