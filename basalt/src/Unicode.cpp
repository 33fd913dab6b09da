#include <basalt/i18n/Unicode.hpp>

#include <unicode/stringoptions.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <stdexcept>

namespace basalt::i18n {

namespace {

constexpr UChar32 replacementCharacter = 0xFFFD;

// ICU measures strings in int32_t. Longer texts are converted in slices of this many
// input units; a slice never ends inside a character, so slicing cannot change the
// result. The bound leaves room for the worst-case output of a slice (3 bytes per unit).
constexpr std::size_t sliceLength = std::size_t{1} << 28;

[[noreturn]] void throwIcuFailure(char const *operation, UErrorCode status) {
    throw std::runtime_error(std::string(operation) + " failed: " + u_errorName(status));
}

// Where a slice of at most `sliceLength` UTF-8 bytes may end: before a byte that begins
// a sequence. Three trail bytes in a row before `cut` cannot belong to the same sequence
// as the byte at `cut`, so looking back further is never needed.
std::size_t utf8SliceEnd(std::string_view text, std::size_t begin) {
    std::size_t const cut = begin + sliceLength;
    if (cut >= text.size())
        return text.size();
    for (std::size_t back = 0; back < 4; ++back)
        if (!U8_IS_TRAIL(text[cut - back]))
            return cut - back;
    return cut;
}

// Where a slice of at most `sliceLength` UTF-16 units may end: not between the halves
// of a surrogate pair.
std::size_t utf16SliceEnd(std::u16string_view text, std::size_t begin) {
    std::size_t const cut = begin + sliceLength;
    if (cut >= text.size())
        return text.size();
    return U16_IS_LEAD(text[cut - 1]) && U16_IS_TRAIL(text[cut]) ? cut - 1 : cut;
}

} // namespace

std::string ustring_to_utf8(std::u16string_view text) {
    std::string out;
    // Sizing the buffer for the worst case (3 bytes per unit; a pair needs 4 for 2) lets
    // ICU convert in one pass instead of preflighting first.
    std::size_t written = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t const end = utf16SliceEnd(text, begin);
        out.resize(written + 3 * (end - begin));
        int32_t length = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strToUTF8WithSub(out.data() + written, static_cast<int32_t>(out.size() - written), &length,
                           text.data() + begin, static_cast<int32_t>(end - begin), replacementCharacter, nullptr,
                           &status);
        if (U_FAILURE(status))
            throwIcuFailure("UTF-16 to UTF-8 conversion", status);
        written += static_cast<std::size_t>(length);
        begin = end;
    }
    out.resize(written);
    // Mostly-ASCII text leaves two thirds of the buffer unused; do not keep that around.
    if (out.capacity() > 2 * out.size() + 64)
        out.shrink_to_fit();
    return out;
}

ustring utf8_to_ustring(std::string_view text) {
    ustring out;
    // One byte never yields more than one UTF-16 unit (four bytes yield a pair, an
    // ill-formed subpart one U+FFFD), so the input length is a worst case.
    std::size_t written = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t const end = utf8SliceEnd(text, begin);
        out.resize(written + (end - begin));
        int32_t length = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strFromUTF8WithSub(out.data() + written, static_cast<int32_t>(out.size() - written), &length,
                             text.data() + begin, static_cast<int32_t>(end - begin), replacementCharacter, nullptr,
                             &status);
        if (U_FAILURE(status))
            throwIcuFailure("UTF-8 to UTF-16 conversion", status);
        written += static_cast<std::size_t>(length);
        begin = end;
    }
    out.resize(written);
    if (out.capacity() > 2 * out.size() + 64)
        out.shrink_to_fit();
    return out;
}

// --- converter ---------------------------------------------------------------------

struct converter::Impl {
    UConverter *handle = nullptr;
    std::string name;

    explicit Impl(std::string const &codeset) {
        UErrorCode status = U_ZERO_ERROR;
        handle = ucnv_open(codeset.c_str(), &status);
        if (U_FAILURE(status) || handle == nullptr)
            throw std::invalid_argument("unknown code set \"" + codeset + "\" (" + u_errorName(status) + ")");
        name = ucnv_getName(handle, &status);
    }
    ~Impl() { ucnv_close(handle); }
    Impl(Impl const &) = delete;
    Impl &operator=(Impl const &) = delete;
};

converter::converter(std::string const &codeset) : impl_(std::make_unique<Impl>(codeset)) {}
converter::~converter() = default;
converter::converter(converter &&) noexcept = default;
converter &converter::operator=(converter &&) noexcept = default;

std::string const &converter::codeset() const noexcept { return impl_->name; }

// The streaming calls are used rather than ucnv_fromUChars/ucnv_toUChars because they
// take pointers, not int32_t lengths, and let the output grow without converting twice.
std::string converter::from_ustring(std::u16string_view text) const {
    UConverter *const cnv = impl_->handle;
    ucnv_resetFromUnicode(cnv);
    std::string out((text.size() + 10) * static_cast<std::size_t>(ucnv_getMaxCharSize(cnv)), '\0');
    char *target = out.data();
    UChar const *source = text.data();
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        ucnv_fromUnicode(cnv, &target, out.data() + out.size(), &source, text.data() + text.size(), nullptr, true,
                         &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            std::size_t const used = static_cast<std::size_t>(target - out.data());
            out.resize(2 * out.size());
            target = out.data() + used;
            continue;
        }
        if (U_FAILURE(status))
            throwIcuFailure("encoding", status);
        break;
    }
    out.resize(static_cast<std::size_t>(target - out.data()));
    return out;
}

ustring converter::to_ustring(std::string_view bytes) const {
    UConverter *const cnv = impl_->handle;
    ucnv_resetToUnicode(cnv);
    // Exact for single-byte code sets and an overestimate for the others; the rare
    // mappings to several units are caught by the overflow loop.
    ustring out(bytes.size() + 1, u'\0');
    UChar *target = out.data();
    char const *source = bytes.data();
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        ucnv_toUnicode(cnv, &target, out.data() + out.size(), &source, bytes.data() + bytes.size(), nullptr, true,
                       &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            std::size_t const used = static_cast<std::size_t>(target - out.data());
            out.resize(2 * out.size());
            target = out.data() + used;
            continue;
        }
        if (U_FAILURE(status))
            throwIcuFailure("decoding", status);
        break;
    }
    out.resize(static_cast<std::size_t>(target - out.data()));
    return out;
}

// --- codecvt_ustring_to_string -----------------------------------------------------
//
// The facet keeps no state between calls: a character whose units are not all in the
// input is left unconsumed (`partial`), and the caller presents it again with more
// input. Each step decodes one character with ICU's checked macros over a window of at
// most one sequence, which also keeps their int32_t indexes small.

namespace {

enum class Step { done, incomplete };

// Decodes the UTF-8 character at `from`. An ill-formed subpart yields U+FFFD and is
// consumed; a well-formed prefix cut by `end` is `incomplete`.
Step decodeUtf8(char const *from, char const *end, UChar32 &c, std::size_t &consumed) {
    auto const *bytes = reinterpret_cast<uint8_t const *>(from);
    int32_t const window = static_cast<int32_t>(std::min<std::ptrdiff_t>(end - from, 4));
    int32_t i = 0;
    U8_NEXT_OR_FFFD(bytes, i, window, c);
    consumed = static_cast<std::size_t>(i);
    // The macro stops at the first byte that cannot continue the sequence; if it ran
    // out of input instead, more bytes may still complete it.
    int32_t const expected = 1 + U8_COUNT_TRAIL_BYTES(bytes[0]);
    if (i < expected && i == end - from)
        return Step::incomplete;
    return Step::done;
}

// Decodes the UTF-16 character at `from`. A lone surrogate yields U+FFFD; a lead
// surrogate that is the last unit of the input is `incomplete`.
Step decodeUtf16(char16_t const *from, char16_t const *end, UChar32 &c, std::size_t &consumed) {
    if (U16_IS_LEAD(*from) && end - from == 1)
        return Step::incomplete;
    int32_t const window = end - from == 1 ? 1 : 2;
    int32_t i = 0;
    U16_NEXT_OR_FFFD(from, i, window, c);
    consumed = static_cast<std::size_t>(i);
    return Step::done;
}

} // namespace

codecvt_ustring_to_string::result codecvt_ustring_to_string::do_out(state_type &, intern_type const *from,
                                                                    intern_type const *fromEnd,
                                                                    intern_type const *&fromNext, extern_type *to,
                                                                    extern_type *toEnd, extern_type *&toNext) const {
    while (from != fromEnd) {
        UChar32 c = 0;
        std::size_t consumed = 0;
        if (decodeUtf16(from, fromEnd, c, consumed) == Step::incomplete)
            break;
        if (toEnd - to < U8_LENGTH(c))
            break;
        int32_t i = 0;
        U8_APPEND_UNSAFE(to, i, c);
        to += i;
        from += consumed;
    }
    fromNext = from;
    toNext = to;
    return from == fromEnd ? ok : partial;
}

codecvt_ustring_to_string::result codecvt_ustring_to_string::do_in(state_type &, extern_type const *from,
                                                                   extern_type const *fromEnd,
                                                                   extern_type const *&fromNext, intern_type *to,
                                                                   intern_type *toEnd, intern_type *&toNext) const {
    while (from != fromEnd) {
        UChar32 c = 0;
        std::size_t consumed = 0;
        if (decodeUtf8(from, fromEnd, c, consumed) == Step::incomplete)
            break;
        if (toEnd - to < U16_LENGTH(c))
            break;
        int32_t i = 0;
        U16_APPEND_UNSAFE(to, i, c);
        to += i;
        from += consumed;
    }
    fromNext = from;
    toNext = to;
    return from == fromEnd ? ok : partial;
}

codecvt_ustring_to_string::result codecvt_ustring_to_string::do_unshift(state_type &, extern_type *to,
                                                                        extern_type *, extern_type *&toNext) const {
    // UTF-8 has no shift states to close.
    toNext = to;
    return noconv;
}

int codecvt_ustring_to_string::do_length(state_type &, extern_type const *from, extern_type const *end,
                                         std::size_t max) const {
    // As do_in with room for `max` units: a supplementary character counts two, and an
    // incomplete tail is not counted.
    char const *const begin = from;
    while (from != end) {
        UChar32 c = 0;
        std::size_t consumed = 0;
        if (decodeUtf8(from, end, c, consumed) == Step::incomplete)
            break;
        auto const units = static_cast<std::size_t>(U16_LENGTH(c));
        if (max < units)
            break;
        max -= units;
        from += consumed;
    }
    return static_cast<int>(std::min<std::ptrdiff_t>(from - begin, INT_MAX));
}

// --- comparison --------------------------------------------------------------------

namespace detail {

int compare(char16_t const *left, std::size_t leftLength, char16_t const *right, std::size_t rightLength,
            compare_options options) {
    if (options == case_insensitive) {
        if (leftLength > INT32_MAX || rightLength > INT32_MAX)
            throw std::length_error("basalt::i18n::compare: text too long for case-insensitive comparison");
        UErrorCode status = U_ZERO_ERROR;
        int32_t const order = u_strCaseCompare(left, static_cast<int32_t>(leftLength), right,
                                               static_cast<int32_t>(rightLength),
                                               U_FOLD_CASE_DEFAULT | U_COMPARE_CODE_POINT_ORDER, &status);
        if (U_FAILURE(status))
            throwIcuFailure("case-insensitive comparison", status);
        return order;
    }

    // Equal prefixes are skipped here so that ICU only has to order the first
    // difference; its code point fix-up looks at most one unit either side of it.
    std::size_t const common = std::min(leftLength, rightLength);
    auto const at = static_cast<std::size_t>(std::mismatch(left, left + common, right).first - left);
    if (at == common)
        return leftLength < rightLength ? -1 : leftLength > rightLength ? 1 : 0;
    std::size_t const from = at == 0 ? 0 : at - 1;
    auto const window = [&](std::size_t length) { return static_cast<int32_t>(std::min(length, at + 2) - from); };
    return u_strCompare(left + from, window(leftLength), right + from, window(rightLength), true);
}

} // namespace detail

AsciiNarrowing::AsciiNarrowing(std::u16string_view text) {
    char *out = buffer_;
    if (text.size() > sizeof buffer_) {
        heap_.resize(text.size());
        out = heap_.data();
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        ascii_ = ascii_ && text[i] <= 0x7F;
        out[i] = text[i] > 0x7F ? '?' : static_cast<char>(text[i]);
    }
    bytes_ = std::string_view(out, text.size());
}

} // namespace basalt::i18n
