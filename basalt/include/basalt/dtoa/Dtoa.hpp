#pragma once
/// \file
/// Exact text forms of doubles in UTF-16.
///
/// `to_ustring` writes the shortest text that reads back to the same double, and
/// `to_double` reads it back bit for bit, for every finite double, subnormals included.
/// Special values: NaN is written "NaN", the infinities "inf" and "-inf", negative zero
/// "-0"; `to_double` reads these four words back (NaN as a quiet NaN).

#include <basalt/ustring.hpp>

#include <string_view>

namespace basalt::dtoa {

/// The shortest text that reads back to `value`, in plain or exponent notation,
/// whichever is shorter, plain on a tie ("0.1", "123456", "1e+22", "1e-07", "5e-324").
/// An exponent always has a sign and at least two digits.
ustring to_ustring(double value);

/// Reads a whole text as a double: optional sign, digits with an optional '.', an
/// optional exponent, or one of the special words. Leading or trailing blanks and
/// anything else make it fail with `std::invalid_argument`; a finite text whose value
/// lies beyond the largest double raises `std::out_of_range`. A value too small for
/// the smallest subnormal rounds to zero of its sign.
///
/// Precisely, the accepted texts are, in ASCII only:
///   [+-]? ( digits ( '.' digits? )? | '.' digits ) ( [eE] [+-]? digits )?
/// so "1.", ".5", "+2" and "1E+05" are numbers, while ".", "1e", "0x10", "1,5" and
/// "1_000" are not; and exactly the words "NaN", "inf" and "-inf" (not "nan", "+inf",
/// "infinity" or any other case). Any code unit beyond U+007F, such as a non-ASCII
/// digit, makes the text invalid. Decimals between two doubles round to the nearest,
/// ties to the even one; there is no limit on the number of digits.
double to_double(std::u16string_view text);

} // namespace basalt::dtoa
