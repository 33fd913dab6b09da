#include <basalt/dtoa/Dtoa.hpp>

#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

namespace {

using basalt::ustring;
using basalt::dtoa::to_double;
using basalt::dtoa::to_ustring;

std::uint64_t bits(double value) { return std::bit_cast<std::uint64_t>(value); }

std::string narrow(ustring const &text) { return std::string(text.begin(), text.end()); }

ustring widen(std::string const &text) { return ustring(text.begin(), text.end()); }

constexpr double dblMax = std::numeric_limits<double>::max();
constexpr double dblMin = std::numeric_limits<double>::min();
constexpr double minSubnormal = std::numeric_limits<double>::denorm_min();
double const maxSubnormal = std::nextafter(dblMin, 0.0);

TEST(Dtoa, WritesShortestText) {
    struct Case {
        double value;
        char16_t const *text;
    };
    Case const cases[] = {
        {0.0, u"0"},
        {-0.0, u"-0"},
        {0.1, u"0.1"},
        {0.3, u"0.3"},
        {0.1 + 0.2, u"0.30000000000000004"},
        {-2.5, u"-2.5"},
        {123456.0, u"123456"},
        {1e4, u"10000"}, // as long as "1e+04": plain wins the tie
        {1e5, u"1e+05"},
        {0.001, u"0.001"},
        {0.0001, u"1e-04"},
        {1e22, u"1e+22"},
        {1e23, u"1e+23"},
        {1e-7, u"1e-07"},
        {9007199254740992.0, u"9007199254740992"},
        {minSubnormal, u"5e-324"},
        {maxSubnormal, u"2.225073858507201e-308"},
        {dblMin, u"2.2250738585072014e-308"},
        {-dblMax, u"-1.7976931348623157e+308"},
        {std::numeric_limits<double>::infinity(), u"inf"},
        {-std::numeric_limits<double>::infinity(), u"-inf"},
        {std::numeric_limits<double>::quiet_NaN(), u"NaN"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(narrow(c.text));
        EXPECT_EQ(to_ustring(c.value), c.text);
    }
}

TEST(Dtoa, HardValuesRoundTripBitForBit) {
    double const values[] = {
        minSubnormal,
        2 * minSubnormal,
        maxSubnormal,
        dblMin,
        std::nextafter(dblMin, 1.0),
        dblMax,
        std::nextafter(dblMax, 0.0),
        1e22,
        std::nextafter(1e22, 0.0),
        std::nextafter(1e22, 1e30),
        1e23,
        std::nextafter(1e23, 0.0),
        std::nextafter(1e23, 1e30),
        9007199254740992.0,
        9007199254740994.0,
        0.1,
        0.3,
        1e-7,
        std::nextafter(1e-7, 1.0),
        5e-310,
        1.0 / 3.0,
        -1e-300,
        -123.456,
        -0.0,
    };
    for (double value : values) {
        ustring const text = to_ustring(value);
        SCOPED_TRACE(narrow(text));
        EXPECT_EQ(bits(to_double(text)), bits(value));
        ustring const negated = to_ustring(-value);
        EXPECT_EQ(bits(to_double(negated)), bits(-value));
    }
}

// Decimal texts that fall between two doubles must round to nearest, ties to even.
TEST(Dtoa, ReadsDecimalsToTheNearestDouble) {
    struct Case {
        char16_t const *text;
        double expected;
    };
    Case const cases[] = {
        {u"9007199254740993", 9007199254740992.0}, // tie, even neighbour below
        {u"9007199254740995", 9007199254740996.0}, // tie, even neighbour above
        {u"9007199254740993.0000000000000000001", 9007199254740994.0},
        {u"0.1000000000000000055511151231257827021181583404541015625", 0.1},
        {u"2.4703282292062328e-324", minSubnormal}, // just above half the smallest subnormal
        {u"1.7976931348623158e308", dblMax},
        {u"2.2250738585072011e-308", maxSubnormal},
        {u"2.2250738585072012e-308", dblMin},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(narrow(c.text));
        EXPECT_EQ(bits(to_double(c.text)), bits(c.expected));
    }
}

TEST(Dtoa, ReadsEveryAcceptedSpelling) {
    struct Case {
        char16_t const *text;
        double expected;
    };
    Case const cases[] = {
        {u"1", 1.0},       {u"+1", 1.0},        {u"-1", -1.0},    {u"1.", 1.0},         {u".5", 0.5},
        {u"-.5", -0.5},    {u"1E5", 1e5},       {u"1e+5", 1e5},   {u"25e-1", 2.5},      {u"00012", 12.0},
        {u"0", 0.0},       {u"+0", 0.0},        {u"-0", -0.0},    {u"-0.0e-5", -0.0},   {u"0e999999999999999999999", 0.0},
        {u"inf", std::numeric_limits<double>::infinity()},      {u"-inf", -std::numeric_limits<double>::infinity()},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(narrow(c.text));
        EXPECT_EQ(bits(to_double(c.text)), bits(c.expected));
    }
    EXPECT_TRUE(std::isnan(to_double(u"NaN")));
}

TEST(Dtoa, RejectsMalformedText) {
    char16_t const *const texts[] = {
        u"",         u" 1",      u"1 ",       u"1x",     u"--1",  u"+-1",      u"-+1",  u"+",
        u"-",        u".",       u"-.",       u"e5",     u"1e",   u"1e+",      u"1e5.", u"1.2.3",
        u"1,5",      u"1_000",   u"0x1p3",    u"0x10",   u"nan",  u"-NaN",     u"+inf", u"INF",
        u"Infinity", u"infinity", u"\u0661", // ARABIC-INDIC DIGIT ONE
        u"\uFF11",                           // FULLWIDTH DIGIT ONE
        u"\u0131",                           // its low byte is '1'
        u"1\u00A0",                          // trailing no-break space
    };
    for (char16_t const *text : texts) {
        SCOPED_TRACE(narrow(text));
        EXPECT_THROW(to_double(text), std::invalid_argument);
    }
    ustring const embeddedNul(u"1\0" u"2", 3);
    EXPECT_THROW(to_double(embeddedNul), std::invalid_argument);
}

// Overflow and underflow are told apart by where the value lies, not by the sign of
// the written exponent: the mantissa's own digits can move it across.
TEST(Dtoa, OverflowRaisesAndUnderflowRoundsToSignedZero) {
    char16_t const *const tooLarge[] = {
        u"1e400", u"-1e400", u"1.7976931348623159e308", u"1e99999999999999999999999", u"1000e306",
    };
    for (char16_t const *text : tooLarge) {
        SCOPED_TRACE(narrow(text));
        EXPECT_THROW(to_double(text), std::out_of_range);
    }
    EXPECT_THROW(to_double(widen("1" + std::string(400, '0') + "e-10")), std::out_of_range);

    struct Case {
        ustring text;
        double expected;
    };
    Case const tooSmall[] = {
        {u"1e-400", 0.0},
        {u"-1e-400", -0.0},
        {u"2.4703282292062327e-324", 0.0}, // just below half the smallest subnormal
        {u"-1e-99999999999999999999999", -0.0},
        {u"100000e-329", 0.0},
        {widen("0." + std::string(400, '0') + "1e10"), 0.0},
        {widen("-0." + std::string(400, '0') + "1e10"), -0.0},
    };
    for (auto const &c : tooSmall) {
        SCOPED_TRACE(narrow(c.text));
        EXPECT_EQ(bits(to_double(c.text)), bits(c.expected));
    }
    // Near the ends but in range, whichever way the exponent is written.
    EXPECT_EQ(to_double(widen("0." + std::string(100, '0') + "1e400")), 1e299);
    EXPECT_EQ(to_double(widen("1" + std::string(320, '0') + "e-320")), 1.0);
}

TEST(Dtoa, RandomBitPatternsRoundTripInShortestText) {
    std::mt19937_64 random(20240611);
    int checked = 0;
    for (int i = 0; i < 200'000; ++i) {
        double const value = std::bit_cast<double>(random());
        if (!std::isfinite(value))
            continue;
        ++checked;
        ustring const text = to_ustring(value);
        char shortest[64];
        auto const written = std::to_chars(shortest, shortest + sizeof shortest, value);
        if (bits(to_double(text)) != bits(value) || text.size() != std::size_t(written.ptr - shortest)) {
            ADD_FAILURE() << "bits " << std::hex << bits(value) << " gave " << narrow(text);
            break;
        }
    }
    EXPECT_GT(checked, 199'000);
}

} // namespace
