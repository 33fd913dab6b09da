#include "meta/StandardSerializers.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/dtoa/Dtoa.hpp>
#include <basalt/i18n/Unicode.hpp>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>

namespace kivra::meta::detail {

namespace {

using basalt::ustring;
using boost::posix_time::ptime;

ustring widen(char const *first, char const *last) { return ustring(first, last); }

[[noreturn]] void raiseBadCast(std::type_info const &target) { throw boost::bad_lexical_cast(typeid(ustring), target); }

/// Calls `parse` with the text narrowed to bytes. Every text the parsers below accept is
/// ASCII, so a text that is not fails before anything is converted.
template <class F> decltype(auto) withAscii(ustring const &text, std::type_info const &target, F &&parse) {
    basalt::i18n::AsciiNarrowing const narrowing(text);
    if (!narrowing.ascii())
        raiseBadCast(target);
    return parse(narrowing.bytes());
}

// --- Numbers and texts -------------------------------------------------------------------------

template <class T> class PropertySerializerLexicalCastable final : public DefaultPropertySerializer<T> {
public:
    ustring toText(T const &native) const override {
        if constexpr (std::is_same_v<T, std::string>) {
            return basalt::i18n::utf8_to_ustring(native);
        } else if constexpr (std::is_same_v<T, bool>) {
            return native ? u"1" : u"0";
        } else {
            // The decimal text of the number, as a lexical cast gives it, without its stream.
            std::array<char, 24> buffer;
            auto const result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), native);
            return widen(buffer.data(), result.ptr);
        }
    }
    T fromText(ustring const &text) const override {
        if constexpr (std::is_same_v<T, std::string>) {
            return basalt::i18n::ustring_to_utf8(text);
        } else {
            return withAscii(text, typeid(T), [](std::string_view bytes) {
                return boost::lexical_cast<T>(bytes.data(), bytes.size());
            });
        }
    }
};

/// The one-byte integers, read and written as numbers, not as characters.
template <class T> class PropertySerializerIntLexicalCastable final : public DefaultPropertySerializer<T> {
public:
    ustring toText(T const &native) const override {
        std::array<char, 8> buffer;
        auto const result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), int(native));
        return widen(buffer.data(), result.ptr);
    }
    T fromText(ustring const &text) const override {
        int const number = withAscii(text, typeid(T), [](std::string_view bytes) {
            return boost::lexical_cast<int>(bytes.data(), bytes.size());
        });
        if (number < std::numeric_limits<T>::min() || number > std::numeric_limits<T>::max())
            raiseBadCast(typeid(T));
        return static_cast<T>(number);
    }
};

class PropertySerializerBoolean final : public DefaultPropertySerializer<bool> {
public:
    ustring toText(bool const &native) const override { return native ? u"true" : u"false"; }
    bool fromText(ustring const &text) const override {
        if (text == u"true")
            return true;
        if (text == u"false")
            return false;
        throw std::bad_cast();
    }
};

double parseDouble(std::u16string_view text) {
    try {
        return basalt::dtoa::to_double(text);
    } catch (std::invalid_argument const &) {
    } catch (std::out_of_range const &) {
    }
    raiseBadCast(typeid(double));
}

class PropertySerializerDouble final : public DefaultPropertySerializer<double> {
public:
    // The text layer writes and reads "inf", "-inf" and "NaN" itself.
    ustring toText(double const &native) const override { return basalt::dtoa::to_ustring(native); }
    double fromText(ustring const &text) const override { return parseDouble(text); }
};

/// Reads texts written where the decimal mark was a comma.
class PropertySerializerDoubleCommaDecimalBackwardsCompatible final : public DefaultPropertySerializer<double> {
public:
    ustring toText(double const &native) const override { return basalt::dtoa::to_ustring(native); }
    double fromText(ustring const &text) const override {
        std::size_t const comma = text.find(u',');
        if (comma == ustring::npos)
            return parseDouble(text);
        ustring copy = text;
        copy[comma] = u'.';
        return parseDouble(copy);
    }
};

class StringPropertySerializer final : public DefaultPropertySerializer<ustring> {
public:
    ustring toText(ustring const &native) const override { return native; }
    ustring fromText(ustring const &text) const override { return text; }
};

class UUIDPropertySerializer final : public DefaultPropertySerializer<boost::uuids::uuid> {
public:
    ustring toText(boost::uuids::uuid const &native) const override {
        static constexpr char digits[] = "0123456789abcdef";
        ustring text;
        text.reserve(36);
        for (std::size_t i = 0; i < 16; ++i) {
            if (i == 4 || i == 6 || i == 8 || i == 10)
                text.push_back(u'-');
            text.push_back(char16_t(digits[native.data[i] >> 4]));
            text.push_back(char16_t(digits[native.data[i] & 0xF]));
        }
        return text;
    }
    boost::uuids::uuid fromText(ustring const &text) const override {
        // Narrowed so that the generator meets only bytes; a unit beyond ASCII becomes a
        // byte it refuses as it refuses any other stray character.
        std::array<char, 64> buffer;
        std::string heap;
        char *out = buffer.data();
        if (text.size() > buffer.size()) {
            heap.resize(text.size());
            out = heap.data();
        }
        for (std::size_t i = 0; i < text.size(); ++i)
            out[i] = text[i] > 0x7F ? '\x7F' : static_cast<char>(text[i]);
        return boost::uuids::string_generator()(out, out + text.size());
    }
};

// --- Date-times ------------------------------------------------------------------------------

constexpr std::string_view notADateTime = "not-a-date-time";
constexpr std::string_view negativeInfinity = "-infinity";
constexpr std::string_view positiveInfinity = "+infinity";

std::string_view specialWord(ptime const &time) {
    if (time.is_neg_infinity())
        return negativeInfinity;
    if (time.is_pos_infinity())
        return positiveInfinity;
    return notADateTime;
}

/// Writes `number` as `width` digits with leading zeros.
char *putDigits(char *out, long number, int width) {
    for (int i = width - 1; i >= 0; --i, number /= 10)
        out[i] = char('0' + number % 10);
    return out + width;
}

/// The text of a date-time: with `delimited`, "YYYY-MM-DDTHH:MM:SS", else
/// "YYYYMMDDTHHMMSS"; a fraction of six digits only when there is one.
ustring writeTime(ptime const &time, bool delimited) {
    if (time.is_special()) {
        std::string_view const word = specialWord(time);
        return widen(word.data(), word.data() + word.size());
    }
    auto const ymd = time.date().year_month_day();
    boost::posix_time::time_duration const day = time.time_of_day();
    std::array<char, 32> buffer;
    char *out = buffer.data();
    out = putDigits(out, ymd.year, 4);
    if (delimited)
        *out++ = '-';
    out = putDigits(out, ymd.month, 2);
    if (delimited)
        *out++ = '-';
    out = putDigits(out, ymd.day, 2);
    *out++ = 'T';
    out = putDigits(out, day.hours(), 2);
    if (delimited)
        *out++ = ':';
    out = putDigits(out, day.minutes(), 2);
    if (delimited)
        *out++ = ':';
    out = putDigits(out, day.seconds(), 2);
    // Microseconds, whatever resolution the time type was built with.
    long long const ticks = boost::posix_time::time_duration::ticks_per_second();
    long long const micros = ticks >= 1'000'000 ? day.fractional_seconds() / (ticks / 1'000'000)
                                                : day.fractional_seconds() * (1'000'000 / ticks);
    if (micros != 0) {
        *out++ = '.';
        out = putDigits(out, static_cast<long>(micros), 6);
    }
    return widen(buffer.data(), out);
}

boost::optional<ptime> specialTime(std::string_view text) {
    if (text == notADateTime)
        return ptime(boost::date_time::not_a_date_time);
    if (text == negativeInfinity)
        return ptime(boost::date_time::neg_infin);
    if (text == positiveInfinity)
        return ptime(boost::date_time::pos_infin);
    return boost::none;
}

/// Reads the delimited form, with a 'T' or a blank between date and time and an optional
/// trailing 'Z', and falls back on the undelimited one.
ptime readTime(ustring const &text) {
    std::string const bytes = basalt::i18n::ustring_to_utf8(text);
    if (auto special = specialTime(bytes))
        return *special;
    std::string cut = bytes;
    if (std::size_t const zone = cut.rfind('Z'); zone != std::string::npos)
        cut.erase(zone);
    if (std::size_t const mark = cut.find('T'); mark != std::string::npos)
        cut[mark] = ' ';
    if (std::size_t const blank = cut.find(' '); blank != std::string::npos) {
        try {
            boost::gregorian::date const date = boost::gregorian::from_simple_string(cut.substr(0, blank));
            boost::posix_time::time_duration const day = boost::posix_time::duration_from_string(cut.substr(blank + 1));
            // Only a time of day counts: "25:00" is not one, and neither is a negative span.
            if (!date.is_special() && !day.is_special() && !day.is_negative() && day < boost::posix_time::hours(24))
                return ptime(date, day);
        } catch (std::exception const &) {
            // The undelimited form below has the last word.
        }
    }
    return boost::posix_time::from_iso_string(bytes);
}

class DefaultDateTimeSerializer final : public DefaultPropertySerializer<ptime> {
public:
    ustring toText(ptime const &native) const override { return writeTime(native, /*delimited=*/true); }
    ptime fromText(ustring const &text) const override { return readTime(text); }
    /// The epoch: a required date-time starts at a real time, not at not-a-date-time.
    Value createDefaultValue(Type const &type) const override {
        return parseValue(u"1970-01-01T00:00:00", type);
    }
};

class DateTimeSerializerRel8 final : public DefaultPropertySerializer<ptime> {
public:
    ustring toText(ptime const &native) const override { return writeTime(native, /*delimited=*/false); }
    ptime fromText(ustring const &text) const override {
        return boost::posix_time::from_iso_string(basalt::i18n::ustring_to_utf8(text));
    }
};

// --- Enums known as model elements -----------------------------------------------------------

/// The literals of an enum, ordered by name as its `literals` map orders them. Literals
/// are found as the elements of the enum's model whose parent is the enum, which costs a
/// walk over the model: reflective enums are small and their values are rarely texts.
std::vector<EnumLiteral> literalsOf(Type const &type) {
    std::vector<EnumLiteral> literals;
    auto *const enumImpl = dynamic_cast<Enum::Impl *>(type.get());
    if (!enumImpl)
        return literals;
    for (ModelElement const &element : enumImpl->getModel()->getAllElements())
        if (auto *literal = dynamic_cast<EnumLiteral::Impl *>(element.get()))
            if (literal->getParentEnum().get() == enumImpl)
                literals.push_back(EnumLiteral::fromImpl(literal));
    std::sort(literals.begin(), literals.end(),
              [](EnumLiteral const &a, EnumLiteral const &b) { return a->getName() < b->getName(); });
    return literals;
}

template <class Match> EnumLiteral findLiteral(Type const &type, Match const &match) {
    for (EnumLiteral const &literal : literalsOf(type))
        if (match(literal))
            return literal;
    return {};
}

EnumLiteral findLiteralByValue(Type const &type, std::int32_t number) {
    return findLiteral(type, [number](EnumLiteral const &literal) { return literal->getValue() == number; });
}

/// A literal without a public identifier goes by its name, as it is written.
EnumLiteral findLiteralByPublicIdentifier(Type const &type, ustring const &identifier) {
    return findLiteral(type, [&identifier](EnumLiteral const &literal) {
        return literal->hasPublicIdentifier() ? *literal->getPublicIdentifier() == identifier
                                              : literal->getName() == identifier;
    });
}

/// The literal number of an enum value: its payload, narrowed back to the literal's width.
boost::optional<std::int32_t> literalNumber(Value const &value) {
    if (!value.hasPayload())
        return boost::none;
    return static_cast<std::int32_t>(static_cast<std::int64_t>(value.get<std::uint64_t>()));
}

class ReflectiveEnumPropertySerializer : public PropertySerializer {
public:
    Value createEmptyOptionalValue(Type const &) const override {
        static PrimitiveType const integer = meta::internal::getPrimitiveTypeFromMetaRegistry(u"Integer");
        return Value(integer, boost::none);
    }
    Value createDefaultValue(Type const &type) const override {
        std::vector<EnumLiteral> const literals = literalsOf(type);
        if (literals.empty())
            throw std::bad_cast();
        return Value::createEnumValue(literals.front());
    }
};

class ReflectiveEnumPropertySerializerAsName final : public ReflectiveEnumPropertySerializer {
public:
    ustring serializeValue(Value const &value) const override {
        auto const number = literalNumber(value);
        EnumLiteral const literal = number ? findLiteralByValue(value.getType(), *number) : EnumLiteral();
        return literal ? literal->getName() : ustring();
    }
    Value parseValue(ustring const &text, Type const &type) const override {
        EnumLiteral const literal =
            findLiteral(type, [&text](EnumLiteral const &candidate) { return candidate->getName() == text; });
        if (!literal)
            throw std::bad_cast();
        return Value::createEnumValue(literal);
    }
};

class ReflectiveEnumPropertySerializerAsValue final : public ReflectiveEnumPropertySerializer {
public:
    ustring serializeValue(Value const &value) const override {
        std::array<char, 16> buffer;
        auto const result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), literalNumber(value).value_or(0));
        return widen(buffer.data(), result.ptr);
    }
    Value parseValue(ustring const &text, Type const &type) const override {
        int const number = withAscii(text, typeid(int), [](std::string_view bytes) {
            return boost::lexical_cast<int>(bytes.data(), bytes.size());
        });
        EnumLiteral const literal = findLiteralByValue(type, number);
        if (!literal)
            throw std::bad_cast();
        return Value::createEnumValue(literal);
    }
};

class ReflectiveEnumPropertySerializerAsPublicId final : public ReflectiveEnumPropertySerializer {
public:
    ustring serializeValue(Value const &value) const override {
        auto const number = literalNumber(value);
        EnumLiteral const literal = number ? findLiteralByValue(value.getType(), *number) : EnumLiteral();
        if (!literal)
            return {};
        return literal->hasPublicIdentifier() ? *literal->getPublicIdentifier() : literal->getName();
    }
    Value parseValue(ustring const &text, Type const &type) const override {
        EnumLiteral const literal = findLiteralByPublicIdentifier(type, text);
        if (!literal)
            throw std::bad_cast();
        return Value::createEnumValue(literal);
    }
};

template <class S> std::unique_ptr<PropertySerializer> make() { return std::make_unique<S>(); }

/// A model handle as the payload of a `Value`: copies share the model, and two values are
/// equal when they name the same one.
PayloadFunctions const modelPayload{
    [](void *payload) { delete static_cast<Model *>(payload); },
    [](void const *payload) -> void * { return new Model(*static_cast<Model const *>(payload)); },
    [](void const *a, void const *b) {
        return a && b ? *static_cast<Model const *>(a) == *static_cast<Model const *>(b) : a == b;
    },
    nullptr,
    nullptr,
    nullptr,
};

class TransientOnlyPropertySerializer final : public PropertySerializer {
public:
    basalt::ustring serializeValue(Value const &) const override { return {}; }
    Value parseValue(basalt::ustring const &, Type const &type) const override { return createDefaultValue(type); }
    Value createEmptyOptionalValue(Type const &type) const override { return Value(type, boost::none); }
    Value createDefaultValue(Type const &type) const override {
        return Value(ValueMeta(type, ValueFlags::Single), new Model(), &modelPayload);
    }
};

} // namespace

std::unique_ptr<PropertySerializer> makeTransientOnlyModelSerializer() {
    return std::make_unique<TransientOnlyPropertySerializer>();
}

std::vector<StandardSerializer> makeStandardSerializers() {
    using S = StandardTypes;
    std::vector<StandardSerializer> rows;
    rows.push_back({S::stdstringMeta, "", make<PropertySerializerLexicalCastable<std::string>>()});
    rows.push_back({S::integerMeta, "", make<PropertySerializerLexicalCastable<std::int32_t>>()});
    rows.push_back({S::integer8Meta, "", make<PropertySerializerIntLexicalCastable<std::int8_t>>()});
    rows.push_back({S::integer16Meta, "", make<PropertySerializerLexicalCastable<std::int16_t>>()});
    rows.push_back({S::integer64Meta, "", make<PropertySerializerLexicalCastable<std::int64_t>>()});
    rows.push_back({S::realMeta, "", make<PropertySerializerDouble>()});
    rows.push_back({S::realMeta, "commaDecimalBackwardsCompatible",
                    make<PropertySerializerDoubleCommaDecimalBackwardsCompatible>()});
    rows.push_back({S::booleanMeta, "", make<PropertySerializerBoolean>()});
    rows.push_back({S::booleanMeta, "numeric", make<PropertySerializerLexicalCastable<bool>>()});
    rows.push_back({S::unlimitedNaturalMeta, "", make<PropertySerializerLexicalCastable<std::uint32_t>>()});
    rows.push_back({S::uinteger8Meta, "", make<PropertySerializerIntLexicalCastable<std::uint8_t>>()});
    rows.push_back({S::uinteger16Meta, "", make<PropertySerializerLexicalCastable<std::uint16_t>>()});
    rows.push_back({S::uinteger64Meta, "", make<PropertySerializerLexicalCastable<std::uint64_t>>()});
    rows.push_back({S::uuidMeta, "", make<UUIDPropertySerializer>()});
    rows.push_back({S::stringMeta, "", make<StringPropertySerializer>()});
    rows.push_back({S::dateTimeMeta, "", make<DefaultDateTimeSerializer>()});
    rows.push_back({S::dateTimeMeta, "Rel8", make<DateTimeSerializerRel8>()});
    return rows;
}

std::vector<std::pair<std::string, std::unique_ptr<PropertySerializer>>> makeReflectiveEnumSerializers() {
    std::vector<std::pair<std::string, std::unique_ptr<PropertySerializer>>> serializers;
    serializers.emplace_back("", make<ReflectiveEnumPropertySerializerAsName>());
    serializers.emplace_back("ID", make<ReflectiveEnumPropertySerializerAsValue>());
    serializers.emplace_back("PublicID", make<ReflectiveEnumPropertySerializerAsPublicId>());
    return serializers;
}

} // namespace kivra::meta::detail
