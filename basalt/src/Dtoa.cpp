#include <basalt/dtoa/Dtoa.hpp>
#include <basalt/i18n/Unicode.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

namespace basalt::dtoa {

namespace {

constexpr std::u16string_view nanWord = u"NaN";
constexpr std::u16string_view infWord = u"inf";
constexpr std::u16string_view negInfWord = u"-inf";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// What the grammar check learned about a numeric text, kept for telling overflow
/// from underflow when the standard parser reports only "out of range".
struct NumberShape {
    std::size_t unsignedStart = 0; ///< first character after the sign
    bool plusSign = false;
    bool negative = false;
    // Decimal exponent of the first significant digit in scientific notation; only
    // its sign matters, so it saturates instead of overflowing on absurd exponents.
    long long scientificExponent = 0;
    bool hasNonZeroDigit = false;
};

[[noreturn]] void invalid(std::string_view text) {
    throw std::invalid_argument("not a number: \"" + std::string(text) + "\"");
}

/// Checks the whole text against: sign? (digits ('.' digits?)? | '.' digits)
/// ([eE] sign? digits)?. The standard parser is more lenient in several ways we do
/// not want in stored text (its own "inf"/"nan"/"infinity" words, a prefix match),
/// and refuses one form we accept (a leading '+'), so it only runs on checked text.
NumberShape checkGrammar(std::string_view text) {
    NumberShape shape;
    std::size_t i = 0;
    std::size_t const n = text.size();
    if (i < n && (text[i] == '+' || text[i] == '-')) {
        shape.plusSign = text[i] == '+';
        shape.negative = text[i] == '-';
        ++i;
    }
    shape.unsignedStart = i;

    // Position of the first significant digit relative to the decimal point: digits
    // before the point count up, zeros after it count down.
    long long leadingFractionZeros = 0;
    long long significantIntegerDigits = 0;
    std::size_t mantissaDigits = 0;
    for (; i < n && isDigit(text[i]); ++i, ++mantissaDigits) {
        if (text[i] != '0')
            shape.hasNonZeroDigit = true;
        if (shape.hasNonZeroDigit)
            ++significantIntegerDigits;
    }
    if (i < n && text[i] == '.') {
        ++i;
        for (; i < n && isDigit(text[i]); ++i, ++mantissaDigits) {
            if (!shape.hasNonZeroDigit) {
                if (text[i] == '0')
                    ++leadingFractionZeros;
                else
                    shape.hasNonZeroDigit = true;
            }
        }
    }
    if (mantissaDigits == 0)
        invalid(text);

    long long exponent = 0;
    if (i < n && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool negativeExponent = false;
        if (i < n && (text[i] == '+' || text[i] == '-')) {
            negativeExponent = text[i] == '-';
            ++i;
        }
        std::size_t const exponentStart = i;
        // Far beyond any exponent a double can need, and far from overflowing when
        // the digit counts above are added to it.
        constexpr long long saturation = 1'000'000'000'000'000LL;
        for (; i < n && isDigit(text[i]); ++i)
            exponent = std::min(saturation, exponent * 10 + (text[i] - '0'));
        if (i == exponentStart)
            invalid(text);
        if (negativeExponent)
            exponent = -exponent;
    }
    if (i != n)
        invalid(text);

    shape.scientificExponent = significantIntegerDigits > 0
                                   ? exponent + significantIntegerDigits - 1
                                   : exponent - leadingFractionZeros - 1;
    return shape;
}

} // namespace

ustring to_ustring(double value) {
    if (std::isnan(value))
        return ustring(nanWord);
    if (std::isinf(value))
        return ustring(value < 0 ? negInfWord : infWord);

    // Without a format argument to_chars picks the shortest digits that read back
    // exactly and then the shorter of plain and exponent notation; "-0" comes out
    // as such, so no zero special case is needed.
    // The longest shortest form is 24 characters ("-2.2250738585072014e-308").
    std::array<char, 32> buffer{};
    auto const result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    ustring out;
    out.reserve(static_cast<std::size_t>(result.ptr - buffer.data()));
    for (char const *p = buffer.data(); p != result.ptr; ++p)
        out.push_back(static_cast<char16_t>(*p));
    return out;
}

double to_double(std::u16string_view text) {
    if (text == nanWord)
        return std::numeric_limits<double>::quiet_NaN();
    if (text == infWord)
        return std::numeric_limits<double>::infinity();
    if (text == negInfWord)
        return -std::numeric_limits<double>::infinity();

    // Only ASCII can be part of a number; the text is refused before it is read.
    i18n::AsciiNarrowing const narrowing(text);
    std::string_view const narrow = narrowing.bytes();
    if (!narrowing.ascii())
        invalid(narrow);

    NumberShape const shape = checkGrammar(narrow);
    // from_chars takes '-' but not '+', so a plus sign is skipped rather than passed.
    char const *first = narrow.data() + (shape.plusSign ? shape.unsignedStart : 0);
    char const *last = narrow.data() + narrow.size();

    double value = 0.0;
    auto const result = std::from_chars(first, last, value, std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range) {
        // from_chars reports both ends of the range alike and leaves the value
        // unchanged. A double overflows only at a decimal exponent of 308 or more and
        // underflows below 1e-324, so the sign of the exponent tells which happened.
        if (shape.hasNonZeroDigit && shape.scientificExponent >= 0)
            throw std::out_of_range("number too large for a double: \"" + std::string(narrow) + "\"");
        return shape.negative ? -0.0 : 0.0;
    }
    if (result.ec != std::errc() || result.ptr != last)
        invalid(narrow); // the grammar check should have caught this already
    return value;
}

} // namespace basalt::dtoa
