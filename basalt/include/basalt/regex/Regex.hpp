#pragma once
/// \file
/// Regular expressions over UTF-16 text, with the grammar of ICU regular expressions
/// (Perl-like; `\p{L}`, `\w` and case folding follow Unicode).

#include <basalt/ustring.hpp>

#include <stdexcept>

namespace basalt::regex {

/// Flags of the `syntax` argument of `regex_search`; 0 is the default grammar.
enum syntax_options : unsigned {
    default_syntax = 0,
    icase = 1,     ///< case-insensitive matching
    multiline = 2, ///< "^" and "$" also match at line ends
    dotall = 4,    ///< "." also matches line ends
    literal = 8,   ///< the pattern is plain text
};

/// Raised for a pattern that does not compile; `what()` names the error and the offset.
class regex_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Whether `pattern` matches `text` as a whole (`wholeMatch`) or somewhere in it.
/// `syntax` is a combination of `syntax_options`. The pattern is compiled at each call.
/// Raises `regex_error` when the pattern does not compile or matching exceeds ICU's
/// backtracking limits, `std::invalid_argument` for an unknown `syntax` flag, and
/// `std::length_error` for a text or pattern of 2^31 units or more.
bool regex_search(ustring const &text, ustring const &pattern, bool wholeMatch, unsigned syntax = default_syntax);

} // namespace basalt::regex
