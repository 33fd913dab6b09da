#pragma once
/// \file
/// The exception family of the platform: message records with a catalogue identity and
/// positional text arguments, and the exception template that carries one.

#include <basalt/ustring.hpp>

#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace basalt {

/// One positional argument of a message: UTF-8 text or UTF-16 text.
using MessageArgument = std::variant<std::string, ustring>;

/// The identity (catalogue and id) and the arguments of one message.
///
/// Concrete records derive from this class, one per message id, and pass their
/// catalogue and id; the text that a user reads is looked up from the identity in a
/// registered catalogue (see `except::MessageCatalogues`) when the exception is made.
/// A record is a copyable value.
class BaseMsgID {
public:
    BaseMsgID(std::string catalogue, std::string id, std::vector<MessageArgument> arguments = {})
        : arguments_(std::move(arguments)), catalogue_(std::move(catalogue)), id_(std::move(id)) {}
    virtual ~BaseMsgID() = default;
    BaseMsgID(BaseMsgID const &) = default;
    BaseMsgID(BaseMsgID &&) noexcept = default;
    BaseMsgID &operator=(BaseMsgID const &) = default;
    BaseMsgID &operator=(BaseMsgID &&) noexcept = default;

    std::vector<MessageArgument> const &getArguments() const noexcept { return arguments_; }
    std::string const &getCatalogue() const noexcept { return catalogue_; }
    std::string const &getId() const noexcept { return id_; }

    /// The identity as one text, catalogue ":" id, such as "kivra:messages:NoSuchProperty".
    std::string get_error_id() const { return catalogue_ + ':' + id_; }

    /// The message text: the catalogue's template with `{0}`, `{1}`, ... replaced by the
    /// arguments. Without a registered text, the identity followed by the arguments.
    ustring formatMessage() const;

    /// True when both records name the same catalogue and id, whatever their arguments.
    bool sameIdentity(BaseMsgID const &other) const noexcept {
        return id_ == other.id_ && catalogue_ == other.catalogue_;
    }

private:
    std::vector<MessageArgument> arguments_;
    std::string catalogue_;
    std::string id_;
};

namespace except {

/// Root of the exception family: every member can be copied to the heap and rethrown
/// with its dynamic type intact.
class IException {
public:
    virtual ~IException() = default;
    /// A heap copy of the exception, owned by the caller.
    virtual IException *clone() const = 0;
    /// Throws a copy of the exception as its most derived class.
    [[noreturn]] virtual void rethrow() const = 0;
};

/// An error meant for the user: this is what code catches to tell the family apart from
/// other `std::exception`s.
class IUserException : public virtual IException {};

/// An exception that carries a message record.
class IMsgIDException : public virtual IException {
public:
    /// The message text in UTF-16.
    virtual ustring GetUnicodeMessageTxt() const = 0;
    /// The identity and text for diagnostics: "catalogue:id: text".
    virtual ustring ToUstringImpl() const = 0;
    /// UTF-8 form of a UTF-16 text, as `what()` gives it.
    virtual std::string convert_str(ustring const &text) const = 0;
    /// catalogue ":" id of the record.
    virtual std::string get_error_id() const = 0;
    /// The record itself.
    virtual BaseMsgID const &getMsgID() const = 0;
};

/// Converts UTF-16 to UTF-8 for exception texts; ill-formed input becomes U+FFFD.
std::string messageToUtf8(ustring const &text);

/// The exception raised for the record `M`: a member of the family (`IUserException`,
/// `IMsgIDException`) and a `std::exception` whose `what()` is the UTF-8 message text.
///
/// The text is rendered once, at construction, so `what()` never allocates.
template <class M, class Base = std::exception, class Extra = void>
class Exception : public IMsgIDException, public IUserException, public Base {
public:
    explicit Exception(M record)
        : record_(std::move(record)), text_(record_.formatMessage()), utf8_(messageToUtf8(text_)) {}

    Exception *clone() const override { return new Exception(*this); }
    [[noreturn]] void rethrow() const override { throw Exception(*this); }
    char const *what() const noexcept override { return utf8_.c_str(); }

    ustring GetUnicodeMessageTxt() const override { return text_; }
    ustring ToUstringImpl() const override {
        std::string const id = get_error_id();
        return ustring(id.begin(), id.end()) + u": " + text_;
    }
    std::string convert_str(ustring const &text) const override { return messageToUtf8(text); }
    std::string get_error_id() const override { return record_.get_error_id(); }
    BaseMsgID const &getMsgID() const override { return record_; }

    /// The record with its concrete type.
    M const &getRecord() const noexcept { return record_; }

private:
    M record_;
    ustring text_;
    std::string utf8_;
};

/// Registered message catalogues. A catalogue maps ids to templates whose placeholders
/// `{0}`, `{1}`, ... stand for the record's arguments in order; `{{` and `}}` write
/// one brace.
///
/// Catalogues are registered explicitly by the code that owns them, before its first
/// message is formatted; lookups and registrations may happen on any thread.
class MessageCatalogues {
public:
    /// Returns the template for an id, or an empty view when the catalogue has none.
    using Lookup = std::u16string_view (*)(std::string_view id);

    /// Registers or replaces the lookup of one catalogue.
    static void registerCatalogue(std::string const &catalogue, Lookup lookup);
    /// The template of `catalogue`/`id`, or an empty view when none is registered.
    static std::u16string_view find(std::string_view catalogue, std::string_view id);
    /// Fills a template's placeholders from `arguments`. A placeholder without an
    /// argument stays as it is written.
    static ustring format(std::u16string_view pattern, std::vector<MessageArgument> const &arguments);
};

} // namespace except

/// Thrown by a host into library code when the user interrupts a run. Not a member of
/// the message family: frames that turn errors into roll-backs or log lines let it pass.
class InterruptException : public std::exception {
public:
    char const *what() const noexcept override { return "interrupted"; }
};

} // namespace basalt
