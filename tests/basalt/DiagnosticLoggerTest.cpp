#include <basalt/log/DiagnosticLogger.hpp>

#include <boost/log/core.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

namespace blog = basalt::log;
using blog::captured_record;
using blog::configuration;
using blog::record_capture;
using Logger = blog::basic_diagnostic_logger<char>;

constexpr char const *testDomain = "basalt.test";

// Every test restores the process-wide masks it touches, so that the order of tests
// (and the tests of other subsystems in this binary) does not matter.
class DiagnosticLoggerTest : public ::testing::Test {
protected:
    void SetUp() override { savedDefault_ = configuration::default_mask(); }

    void TearDown() override {
        for (auto const &[domain, name] : touched_)
            configuration::clear_mask(domain, name);
        configuration::set_default_mask(savedDefault_);
    }

    void setMask(std::string const &domain, std::string const &name, std::uint32_t mask) {
        touched_.emplace_back(domain, name);
        configuration::set_mask(domain, name, mask);
    }

private:
    std::uint32_t savedDefault_ = 0;
    std::vector<std::pair<std::string, std::string>> touched_;
};

TEST_F(DiagnosticLoggerTest, MaskTestCountsOnlyTheLowFifteenBits) {
    struct Case {
        std::uint32_t mask;
        std::uint32_t type;
        bool enabled;
    };
    Case const cases[] = {
        {blog::error, blog::error, true},
        {blog::error, blog::warning, false},
        {blog::error | blog::warning, blog::warning, true},
        {blog::info, blog::info | blog::error, true},
        {blog::no_events, blog::all_events, false},
        {0xFFFFFFFFu, blog::trace, true},
        {0xFFFFFFFFu, 0x8000u, false},
        {0xFFFFFFFFu, 0x10000u | 0x80000000u, false},
        {0xFFFF8000u, 0xFFFF8000u, false},
    };
    Logger logger(testDomain, "mask-bits");
    for (auto const &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << "mask 0x" << c.mask << " type 0x" << c.type);
        configuration::set_default_mask(c.mask);
        EXPECT_EQ(logger.mask(), c.mask);
        EXPECT_EQ(logger.is_enabled(c.type), c.enabled);
    }
}

TEST_F(DiagnosticLoggerTest, ChannelMaskOverridesTheDefaultUntilCleared) {
    Logger logger(testDomain, "override");
    Logger sameChannel(testDomain, "override");
    Logger other(testDomain, "override-other");
    Logger otherDomain("basalt.test.other", "override");

    configuration::set_default_mask(blog::info);
    EXPECT_EQ(configuration::default_mask(), blog::info);
    EXPECT_EQ(logger.mask(), blog::info);

    setMask(testDomain, "override", blog::error);
    EXPECT_EQ(logger.mask(), blog::error);
    EXPECT_EQ(sameChannel.mask(), blog::error);
    EXPECT_EQ(other.mask(), blog::info);
    EXPECT_EQ(otherDomain.mask(), blog::info);

    // A channel with its own mask no longer follows the default.
    configuration::set_default_mask(blog::debug);
    EXPECT_EQ(logger.mask(), blog::error);
    EXPECT_EQ(other.mask(), blog::debug);

    configuration::clear_mask(testDomain, "override");
    EXPECT_EQ(sameChannel.mask(), blog::debug);
    configuration::set_default_mask(blog::trace);
    EXPECT_EQ(logger.mask(), blog::trace);

    // A mask set before any logger of the channel exists is kept for later loggers.
    setMask(testDomain, "override-later", blog::warning);
    EXPECT_EQ(Logger(testDomain, "override-later").mask(), blog::warning);
}

TEST_F(DiagnosticLoggerTest, CaptureSeesDomainNameTypeMessageAndJsonFlag) {
    configuration::set_default_mask(blog::all_events);
    Logger logger(testDomain, "records");
    Logger plain("records-plain"); // no domain

    record_capture capture;
    logger.write(blog::error, "kivra:messages:InvalidValue");
    logger.write(blog::info, R"({"k\u00e9y":"välue"})", true);
    plain.write(blog::warning | blog::notice, "two bits, no domain");

    auto const records = capture.records();
    ASSERT_EQ(records.size(), 3u);
    struct Expected {
        char const *domain;
        char const *name;
        std::uint32_t type;
        char const *message;
        bool json;
    };
    Expected const expected[] = {
        {testDomain, "records", blog::error, "kivra:messages:InvalidValue", false},
        {testDomain, "records", blog::info, R"({"k\u00e9y":"välue"})", true},
        {"", "records-plain", blog::warning | blog::notice, "two bits, no domain", false},
    };
    for (std::size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(records[i].domain, expected[i].domain);
        EXPECT_EQ(records[i].name, expected[i].name);
        EXPECT_EQ(records[i].type, expected[i].type);
        EXPECT_EQ(records[i].message, expected[i].message);
        EXPECT_EQ(records[i].preformattedJson, expected[i].json);
    }

    capture.clear();
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(DiagnosticLoggerTest, DisabledRecordsAreNotWritten) {
    Logger logger(testDomain, "disabled");
    record_capture capture;

    setMask(testDomain, "disabled", blog::error);
    logger.write(blog::warning, "type not in the mask");

    auto core = boost::log::core::get();
    core->set_logging_enabled(false);
    logger.write(blog::error, "core switched off");
    core->set_logging_enabled(true);

    EXPECT_TRUE(capture.records().empty());
    logger.write(blog::error, "enabled again");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].message, "enabled again");
}

TEST_F(DiagnosticLoggerTest, CapturesNest) {
    configuration::set_default_mask(blog::all_events);
    Logger logger(testDomain, "nest");
    record_capture outer;
    logger.write(blog::info, "before");
    {
        record_capture inner;
        logger.write(blog::info, "during");
        ASSERT_EQ(inner.records().size(), 1u);
        EXPECT_EQ(inner.records()[0].message, "during");
    }
    logger.write(blog::info, "after");

    std::vector<std::string> messages;
    for (auto const &record : outer.records())
        messages.push_back(record.message);
    EXPECT_EQ(messages, (std::vector<std::string>{"before", "during", "after"}));
}

TEST_F(DiagnosticLoggerTest, RecordsFromTwoThreadsAreAllCaptured) {
    configuration::set_default_mask(blog::info);
    record_capture capture;
    constexpr int perThread = 200;
    auto writer = [](char const *name) {
        Logger logger(testDomain, name);
        for (int i = 0; i < perThread; ++i)
            logger.write(blog::info, std::to_string(i));
    };
    std::thread a(writer, "thread-a");
    std::thread b(writer, "thread-b");
    a.join();
    b.join();

    // Each thread's records arrive complete and in its own order.
    int next[2] = {0, 0};
    for (auto const &record : capture.records()) {
        int const which = record.name == "thread-a" ? 0 : 1;
        EXPECT_EQ(record.message, std::to_string(next[which]));
        ++next[which];
    }
    EXPECT_EQ(next[0], perThread);
    EXPECT_EQ(next[1], perThread);
}

// Run in a fresh process: the state at start-up and the first logger ever created are
// what matter, and the tests above have long since changed both.
TEST(DiagnosticLoggerDeathTest, StartsSilentAndNeverPrintsWithoutASink) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // Anything Boost.Log's console sink might print goes to the checked stream;
            // what the test runner itself has printed so far must not.
            std::fflush(stdout);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            if (configuration::default_mask() != blog::no_events)
                std::_Exit(2);
            Logger logger("kivra::cpp");
            if (logger.is_enabled(blog::all_events))
                std::_Exit(3);
            configuration::set_default_mask(blog::all_events);
            logger.write(blog::error, "first write");
            // And once more after a capture has come and gone.
            { record_capture capture; }
            logger.write(blog::info, "second write");
            std::fflush(nullptr);
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

} // namespace
