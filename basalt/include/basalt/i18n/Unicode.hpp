#pragma once
/// \file
/// Conversions between UTF-16 model text and byte encodings, and comparison of UTF-16
/// text with or without case.
///
/// Ill-formed input never fails a conversion: a lone surrogate in UTF-16, or a byte
/// sequence that is not UTF-8 (overlong forms, surrogates, values above U+10FFFF,
/// truncated sequences), becomes U+FFFD, one per maximal ill-formed subpart.

#include <basalt/ustring.hpp>

#include <codecvt>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace basalt::i18n {

/// UTF-8 form of a UTF-16 text.
std::string ustring_to_utf8(std::u16string_view text);
/// UTF-16 form of a UTF-8 text.
ustring utf8_to_ustring(std::string_view text);

/// Converts between UTF-16 and the bytes of a named code set ("UTF-8", "ISO-8859-1",
/// "windows-1252", "Shift_JIS", ...). Characters the code set cannot hold become its
/// substitution character. One converter belongs to one thread at a time.
class converter {
public:
    /// Raises `std::invalid_argument` when the code set is unknown.
    explicit converter(std::string const &codeset);
    ~converter();
    converter(converter &&) noexcept;
    converter &operator=(converter &&) noexcept;

    /// The code set's canonical name.
    std::string const &codeset() const noexcept;
    /// Encodes UTF-16 text in the code set.
    std::string from_ustring(std::u16string_view text) const;
    /// Decodes bytes of the code set into UTF-16.
    ustring to_ustring(std::string_view bytes) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// A `std::codecvt` facet with UTF-16 inside and UTF-8 outside, for streams and
/// buffers that convert piecewise. A sequence cut at the end of a buffer gives
/// `partial`; ill-formed input is replaced as above.
class codecvt_ustring_to_string : public std::codecvt<char16_t, char, std::mbstate_t> {
public:
    explicit codecvt_ustring_to_string(std::size_t refs = 0) : std::codecvt<char16_t, char, std::mbstate_t>(refs) {}

protected:
    result do_out(state_type &state, intern_type const *from, intern_type const *fromEnd, intern_type const *&fromNext,
                  extern_type *to, extern_type *toEnd, extern_type *&toNext) const override;
    result do_in(state_type &state, extern_type const *from, extern_type const *fromEnd, extern_type const *&fromNext,
                 intern_type *to, intern_type *toEnd, intern_type *&toNext) const override;
    result do_unshift(state_type &, extern_type *to, extern_type *, extern_type *&toNext) const override;
    int do_encoding() const noexcept override { return 0; }
    bool do_always_noconv() const noexcept override { return false; }
    int do_length(state_type &state, extern_type const *from, extern_type const *end, std::size_t max) const override;
    int do_max_length() const noexcept override { return 4; }
};

/// The bytes of a UTF-16 text that should be ASCII, such as a number: a code unit beyond
/// U+007F reads as '?' and clears `ascii()`, so that no character passes as another after
/// truncation. Texts as short as numbers are narrowed on the stack.
class AsciiNarrowing {
public:
    explicit AsciiNarrowing(std::u16string_view text);
    AsciiNarrowing(AsciiNarrowing const &) = delete;
    AsciiNarrowing &operator=(AsciiNarrowing const &) = delete;
    std::string_view bytes() const noexcept { return bytes_; }
    bool ascii() const noexcept { return ascii_; }

private:
    char buffer_[64];
    std::string heap_;
    std::string_view bytes_;
    bool ascii_ = true;
};

/// How `detail::compare` treats case.
enum compare_options { case_sensitive = 0, case_insensitive = 1 };

namespace detail {
/// Compares two UTF-16 texts in code point order, after full Unicode case folding when
/// `options` is `case_insensitive`. Negative, zero or positive, as `std::strcmp`.
/// Raises `std::length_error` when a text of a case-insensitive comparison has 2^31
/// units or more.
int compare(char16_t const *left, std::size_t leftLength, char16_t const *right, std::size_t rightLength,
            compare_options options);
} // namespace detail

/// `detail::compare` over two whole texts.
inline int compare(std::u16string_view left, std::u16string_view right, compare_options options = case_sensitive) {
    return detail::compare(left.data(), left.size(), right.data(), right.size(), options);
}

} // namespace basalt::i18n
