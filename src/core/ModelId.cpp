#include <kivra/ModelId.hpp>

#include <kivra/Messages.hpp>

#include <basalt/filesystem/Path.hpp>
#include <basalt/i18n/Unicode.hpp>

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <exception>
#include <regex>
#include <string>
#include <string_view>

namespace kivra {

namespace {

// What a file location may not hold on any of the systems a model may travel to. Kept
// at compile time so that no call pays for building it and no static initialiser can
// run before it.
constexpr std::string_view forbiddenLocationCharacters = "?*<>:|\"";

// A drive prefix, the one place where a ":" may stand. Compiled on first use and kept
// for the life of the process: checking locations is frequent, compiling a regex is
// not cheap, and a function-local static is built exactly once even across threads.
std::regex const &drivePrefix() {
    static std::regex const expression("[a-zA-Z]:/", std::regex::ECMAScript);
    return expression;
}

} // namespace

ModelId::ModelId(basalt::ustring const &format, basalt::ustring const &modelIdType, basalt::ustring const &location)
    : format_(format), modelIdType_(modelIdType) {
    if (!isValidLocation(location))
        raise<messages::InvalidFileLocation>(location);
    location_ = toGenericLocation(location);
}

ModelId ModelId::parse(basalt::ustring const &text) {
    basalt::ustring::size_type typeStart = 0;
    basalt::ustring format;
    if (auto const at = text.find(u'@'); at != basalt::ustring::npos) {
        format = text.substr(0, at);
        typeStart = at + 1;
    }
    auto const colon = text.find(u':', typeStart);
    if (colon == basalt::ustring::npos)
        raise<messages::InvalidValue>();
    return ModelId(format, text.substr(typeStart, colon - typeStart), text.substr(colon + 1));
}

basalt::ustring ModelId::getNativeLocation() const { return toNativeLocation(location_); }

basalt::ustring ModelId::toString() const { return format_ + u'@' + toStringNoFormat(); }

basalt::ustring ModelId::toStringNoFormat() const { return modelIdType_ + u':' + location_; }

basalt::ustring ModelId::toOSString() const { return format_ + u'@' + modelIdType_ + u':' + getNativeLocation(); }

bool ModelId::isValidLocation(basalt::ustring const &text) {
    std::string location = basalt::i18n::ustring_to_utf8(text);

    // "\ " is an escaped blank in a name, not a Windows separator in front of a blank.
    boost::algorithm::replace_all(location, "\\ ", " ");
    bool const hasSlash = location.find('/') != std::string::npos;
    bool const hasBackslash = location.find('\\') != std::string::npos;
    if (hasSlash && hasBackslash)
        return false;

    std::replace(location.begin(), location.end(), '\\', '/');
    std::string_view rest = location;
    if (std::regex_search(rest.begin(), rest.end(), drivePrefix(), std::regex_constants::match_continuous))
        rest.remove_prefix(3);
    return rest.find_first_of(forbiddenLocationCharacters) == std::string_view::npos;
}

basalt::ustring ModelId::toGenericLocation(basalt::ustring const &text) {
    basalt::ustring generic = text;
    std::replace(generic.begin(), generic.end(), u'\\', u'/');
    return generic;
}

basalt::ustring ModelId::toNativeLocation(basalt::ustring const &text) {
    if (text.empty())
        return text;
    try {
        namespace path = basalt::filesystem::detail;
        basalt::ustring native = path::make_generic_form(path::make_native_form(text, true));
        // Written with "\\" on every system rather than with the system's own separator,
        // so that the native text of a model id does not depend on where it was made.
        std::replace(native.begin(), native.end(), u'/', u'\\');
        return native;
    } catch (std::exception const &) {
        // A location the file-name layer cannot handle has no native form; callers that
        // only want to show or compare one get the empty text rather than an error.
        // Everything that layer raises derives from std::exception.
        return basalt::ustring();
    }
}

} // namespace kivra
