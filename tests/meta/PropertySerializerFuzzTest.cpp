// Random texts fed to every parser of the serializers, with fixed seeds: nothing may crash
// or raise outside what a failed parse raises, and whatever parses must write a text that
// reads back to the same text.

#include "RegistryFixtures.hpp"

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/lexical_cast.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace kivra::meta {
namespace {

using basalt::ustring;
using S = StandardTypes;
using test::Colours;

/// Which exceptions a failed parse may raise: the lexical casts' for every parser, and
/// for dates and UUIDs what the Boost parsers behind them raise.
enum class Allowed { Casts, CastsAndDates, CastsAndUuids };

struct Parser {
    Type type;
    char const *flavour;
    Allowed allowed;
};

/// Characters that numbers, dates, UUIDs and special words are made of, so that random
/// texts come near the accepted forms, and a few that nothing accepts.
constexpr char16_t alphabet[] = u"0123456789-+.,:eETZtfinfaNrsu{}abcdefABCDEF x\u00e4\u0661\xD800\xDC00";

ustring randomText(std::mt19937 &random) {
    std::uniform_int_distribution<int> length(0, 40);
    std::uniform_int_distribution<int> pick(0, int(std::size(alphabet)) - 2);
    std::uniform_int_distribution<int> anyUnit(0, 0xFFFF);
    std::bernoulli_distribution stray(0.05);
    ustring text;
    for (int i = length(random); i > 0; --i)
        text.push_back(stray(random) ? char16_t(anyUnit(random)) : alphabet[pick(random)]);
    return text;
}

/// A random text that starts as a text the type writes, then has a few units changed:
/// near misses find more than noise does.
ustring mutate(ustring text, std::mt19937 &random) {
    std::uniform_int_distribution<int> edits(1, 3);
    std::uniform_int_distribution<int> pick(0, int(std::size(alphabet)) - 2);
    for (int i = edits(random); i > 0 && !text.empty(); --i) {
        std::size_t const at = std::uniform_int_distribution<std::size_t>(0, text.size() - 1)(random);
        switch (random() % 3) {
        case 0: text[at] = alphabet[pick(random)]; break;
        case 1: text.erase(at, 1); break;
        default: text.insert(text.begin() + std::ptrdiff_t(at), alphabet[pick(random)]); break;
        }
    }
    return text;
}

bool allowed(std::exception const &error, Allowed allowed) {
    if (dynamic_cast<std::bad_cast const *>(&error)) // the lexical casts' too
        return true;
    switch (allowed) {
    case Allowed::CastsAndDates: return dynamic_cast<std::out_of_range const *>(&error) != nullptr;
    case Allowed::CastsAndUuids: return dynamic_cast<std::runtime_error const *>(&error) != nullptr;
    default: return false;
    }
}

TEST(PropertySerializerFuzz, RandomTextNeverCrashesAndWhatParsesRereadsAlike) {
    Colours const colours; // red -1 "R", green 2, blue 7 "B"
    Type const colour = colours.colour;

    std::vector<Parser> parsers = {
        {S::stdstringMeta.get(), "", Allowed::Casts},     {S::integerMeta.get(), "", Allowed::Casts},
        {S::integer8Meta.get(), "", Allowed::Casts},      {S::integer16Meta.get(), "", Allowed::Casts},
        {S::integer64Meta.get(), "", Allowed::Casts},     {S::realMeta.get(), "", Allowed::Casts},
        {S::realMeta.get(), "commaDecimalBackwardsCompatible", Allowed::Casts},
        {S::booleanMeta.get(), "", Allowed::Casts},       {S::booleanMeta.get(), "numeric", Allowed::Casts},
        {S::unlimitedNaturalMeta.get(), "", Allowed::Casts}, {S::uinteger8Meta.get(), "", Allowed::Casts},
        {S::uinteger16Meta.get(), "", Allowed::Casts},    {S::uinteger64Meta.get(), "", Allowed::Casts},
        {S::uuidMeta.get(), "", Allowed::CastsAndUuids},  {S::stringMeta.get(), "", Allowed::Casts},
        {S::dateTimeMeta.get(), "", Allowed::CastsAndDates}, {S::dateTimeMeta.get(), "Rel8", Allowed::CastsAndDates},
        {colour, "", Allowed::Casts},                     {colour, "ID", Allowed::Casts},
        {colour, "PublicID", Allowed::Casts},
    };
    for (std::uint32_t seed : {1u, 2u, 3u}) {
        std::mt19937 random(seed);
        for (Parser const &parser : parsers) {
            PropertySerializer const *serializer =
                PropertySerializerRegistry::getInstance().getPropertySerializer(parser.type, parser.flavour);
            ASSERT_TRUE(serializer) << parser.flavour;
            ustring const seedText = serializer->serializeValue(serializer->createDefaultValue(parser.type));
            int parsed = 0;
            for (int round = 0; round < 1500; ++round) {
                ustring const text = round % 2 ? randomText(random) : mutate(seedText, random);
                std::string const shown =
                    basalt::i18n::ustring_to_utf8(parser.type->getQualifiedName()) + " '" + parser.flavour + "' \"" +
                    basalt::i18n::ustring_to_utf8(text) + "\" seed " + std::to_string(seed);
                try {
                    Value const value = serializer->parseValue(text, parser.type);
                    ++parsed;
                    ustring const written = serializer->serializeValue(value);
                    ustring const rewritten = serializer->serializeValue(serializer->parseValue(written, parser.type));
                    if (rewritten != written) {
                        ADD_FAILURE() << shown << " writes \"" << basalt::i18n::ustring_to_utf8(written)
                                      << "\" but that rereads as \"" << basalt::i18n::ustring_to_utf8(rewritten) << '"';
                        return;
                    }
                } catch (std::exception const &error) {
                    if (!allowed(error, parser.allowed)) {
                        ADD_FAILURE() << shown << " raised " << typeid(error).name() << ": " << error.what();
                        return;
                    }
                }
            }
            // Near misses of a real text must parse now and then, or the loop tests nothing.
            EXPECT_GT(parsed, 0) << basalt::i18n::ustring_to_utf8(parser.type->getQualifiedName()) << " '"
                                 << parser.flavour << "'";
        }
    }
}

} // namespace
} // namespace kivra::meta
