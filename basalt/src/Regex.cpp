#include <basalt/i18n/Unicode.hpp>
#include <basalt/regex/Regex.hpp>

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace basalt::regex {

namespace {

// ICU indexes text with int32_t; a longer text cannot be aliased.
icu::UnicodeString alias(ustring const &text, char const *what) {
    if (text.size() > INT32_MAX)
        throw std::length_error(std::string("basalt::regex::regex_search: ") + what + " too long");
    // Read-only alias: neither the pattern nor the text is copied.
    return icu::UnicodeString(false, text.data(), static_cast<int32_t>(text.size()));
}

uint32_t icuFlags(unsigned syntax) {
    constexpr unsigned known = icase | multiline | dotall | literal;
    if ((syntax & ~known) != 0)
        throw std::invalid_argument("basalt::regex::regex_search: unknown syntax flags " + std::to_string(syntax));
    uint32_t flags = 0;
    if (syntax & icase)
        flags |= UREGEX_CASE_INSENSITIVE;
    if (syntax & multiline)
        flags |= UREGEX_MULTILINE;
    if (syntax & dotall)
        flags |= UREGEX_DOTALL;
    if (syntax & literal)
        flags |= UREGEX_LITERAL;
    return flags;
}

[[noreturn]] void throwCompileError(ustring const &pattern, UErrorCode status, UParseError const &where) {
    // ICU counts the offset within the pattern's line; say which line only when it matters.
    std::string message = std::string(u_errorName(status)) + " at ";
    if (where.line > 1)
        message += "line " + std::to_string(where.line) + ", ";
    message += "offset " + std::to_string(where.offset) + " in regular expression \"" +
               i18n::ustring_to_utf8(pattern) + '"';
    throw regex_error(message);
}

} // namespace

bool regex_search(ustring const &text, ustring const &pattern, bool wholeMatch, unsigned syntax) {
    uint32_t const flags = icuFlags(syntax);
    icu::UnicodeString const patternString = alias(pattern, "pattern");
    icu::UnicodeString const input = alias(text, "text");

    UParseError where{};
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexPattern> const compiled(icu::RegexPattern::compile(patternString, flags, where, status));
    if (U_FAILURE(status))
        throwCompileError(pattern, status, where);

    std::unique_ptr<icu::RegexMatcher> const matcher(compiled->matcher(input, status));
    if (U_FAILURE(status))
        throw regex_error(std::string("cannot match regular expression: ") + u_errorName(status));

    bool const found = wholeMatch ? matcher->matches(status) : matcher->find(status);
    // Matching itself fails only when backtracking exceeds ICU's limits.
    if (U_FAILURE(status))
        throw regex_error(std::string("matching regular expression \"") + i18n::ustring_to_utf8(pattern) +
                          "\" failed: " + u_errorName(status));
    return found;
}

} // namespace basalt::regex
