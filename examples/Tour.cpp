// A tour of kivra: each section shows one part of the library at work.
#include <kivra/Messages.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <iostream>

namespace {

void errors() {
    std::cout << "== Errors\n";
    // Every error of the library is one family: catch IUserException, read the identity
    // and the text looked up from the catalogue.
    try {
        kivra::raise<kivra::messages::NoSuchProperty>(u"title", u"library::Book");
    } catch (basalt::except::IUserException const &error) {
        auto const &message = dynamic_cast<basalt::except::IMsgIDException const &>(error);
        std::cout << message.get_error_id() << "\n  "
                  << basalt::i18n::ustring_to_utf8(message.GetUnicodeMessageTxt()) << '\n';
    }
}

} // namespace

int main() {
    errors();
    return 0;
}
