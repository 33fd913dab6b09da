#include "TextDisplaySummaryMap.hpp"

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/log/Span.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>

#include <basalt/log/DiagnosticLogger.hpp>

#include <gtest/gtest.h>

#include <boost/uuid/uuid_io.hpp>

namespace kivra::log {
namespace {

using basalt::log::configuration;

class SpanTest : public ::testing::Test {
protected:
    void SetUp() override { configuration::set_default_mask(basalt::log::error); }
    void TearDown() override { configuration::set_default_mask(basalt::log::no_events); }

    std::vector<basalt::log::captured_record> records() const { return capture.records(); }

    test::TextDisplaySummaryMaps maps;
    basalt::log::record_capture capture;
};

TEST_F(SpanTest, DisabledContextsCostNothingAndStayOut) {
    Span span = Span::create("test");
    int const mapsBefore = test::TextDisplaySummaryMapProvider::mapsMade;
    bool called = false;
    span->addContext(basalt::log::info, "note", std::function<Value()>([&] {
                         called = true;
                         return Value(meta::MetaRegistry::getInstance()->getPrimitiveType(u"StdString"), std::string());
                     }));
    EXPECT_FALSE(called);
    EXPECT_EQ(test::TextDisplaySummaryMapProvider::mapsMade, mapsBefore); // no map yet
    span->addContext(basalt::log::error, "file-name", "notes.json");
    span->log(basalt::log::info, "not written");
    span->log(basalt::log::error, "written");
    auto const seen = records();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].message, R"({"message":"written","file-name":"notes.json"})");
    EXPECT_TRUE(seen[0].preformattedJson);
    EXPECT_EQ(seen[0].type, basalt::log::error);
    EXPECT_EQ(seen[0].name, "test");
}

TEST_F(SpanTest, ChildrenAreNamedByTheirPathAndWrappedByTheirAncestors) {
    Span root = Span::createWithDomain("library", "root");
    Span child = root->createChild("child");
    Span grandchild = child->createChild("leaf");
    root->addContext(basalt::log::error, "at", "root");
    child->addContext(basalt::log::error, "at", "child");
    grandchild->log(basalt::log::error, "deep");

    auto const seen = records();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].name, "root::child::leaf");
    EXPECT_EQ(seen[0].domain, "library");
    // The nearest ancestor wraps first.
    EXPECT_EQ(seen[0].message, R"({"message":"deep","at":"child","at":"root"})");

    auto const *impl = static_cast<Span::DisplaySummaryImpl *>(child.get());
    Span scope = child->createChild(); // a new scope of the same name shares the logger
    EXPECT_EQ(static_cast<Span::DisplaySummaryImpl *>(scope.get())->getLogger(), impl->getLogger());
    auto const factory = child->getChildFactory("made");
    Span a = factory->createSpan();
    Span b = factory->createSpan();
    EXPECT_EQ(static_cast<Span::DisplaySummaryImpl *>(a.get())->getName(), "root::child::made");
    EXPECT_EQ(static_cast<Span::DisplaySummaryImpl *>(a.get())->getLogger(),
              static_cast<Span::DisplaySummaryImpl *>(b.get())->getLogger());
}

TEST_F(SpanTest, DynamicContextsShowTheStateAtLogTime) {
    Span span = Span::create("test");
    std::string state = "before";
    auto const type = meta::MetaRegistry::getInstance()->getPrimitiveType(u"StdString");
    span->addDynamicContext(basalt::log::error, "state", std::function<Value()>([&] { return Value(type, state); }));
    state = "after";
    span->log(basalt::log::error, "now");
    EXPECT_EQ(records().at(0).message, R"({"message":"now","state":"after"})");
}

// A span that counts its live instances, so that a test sees when the last handle goes.
class CountedSpan final : public Span::Impl {
public:
    static inline int alive = 0;
    CountedSpan() { ++alive; }
    ~CountedSpan() override { --alive; }
    void addContext(std::uint32_t, std::string const &, std::function<Value()> const &) override {}
    void addContext(std::uint32_t, std::string const &, ModelElement const &) override {}
    void addContext(std::uint32_t, std::string const &, char const *) override {}
    void addContext(std::uint32_t, std::string const &, Value const &) override {}
    void addDynamicContext(std::uint32_t, std::string const &, std::function<ModelElement()> const &) override {}
    void addDynamicContext(std::uint32_t, std::string const &, std::function<Value()> const &) override {}
    void log(std::uint32_t, std::string const &) override {}
    Span createChild(std::string const &) override { return {}; }
    Span createChild() override { return {}; }
    std::unique_ptr<SpanCreator> getChildFactory(std::string const &) override { return nullptr; }
};

TEST_F(SpanTest, HandlesCountTheirSpan) {
    Span span(new CountedSpan);
    {
        Span copy = span;
        Span assigned;
        assigned = copy;
        Span moved = std::move(copy);
        EXPECT_FALSE(copy);
        span.reset();
        Span::Impl *raw = moved.release();
        EXPECT_FALSE(moved);
        Span adopted(raw); // takes one more: the released one is still to balance
        raw->removeRef();
        EXPECT_EQ(CountedSpan::alive, 1); // held by `assigned` and `adopted`
        assigned.reset();
        EXPECT_EQ(CountedSpan::alive, 1);
        EXPECT_EQ(adopted.get(), raw);
    }
    EXPECT_EQ(CountedSpan::alive, 0);
}

TEST_F(SpanTest, LogAndRaiseRecordsTheFailureFirst) {
    Span span = Span::create("io::Parser");
    try {
        log::raise<messages::InvalidFileLocation>(span, "bad path", u"a|b");
        FAIL() << "nothing raised";
    } catch (Error<messages::InvalidFileLocation> const &) {
    }
    auto const seen = records();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_NE(seen[0].message.find(R"("message":"kivra:messages:InvalidFileLocation")"), std::string::npos);
    EXPECT_NE(seen[0].message.find(R"("error-message":"bad path")"), std::string::npos);
    EXPECT_NE(seen[0].message.find(R"("exception-message":")"), std::string::npos);
}

TEST_F(SpanTest, ModelsLogThroughTheirSpanWithTheirIdentity) {
    configuration::set_mask("", "kivra::cpp", basalt::log::info | basalt::log::error);
    Model model = Model::createTransientModel();
    configuration::clear_mask("", "kivra::cpp");
    auto const seen = records();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].name, "kivra::cpp");
    EXPECT_EQ(seen[0].message,
              R"({"message":"Model created","modelID":")" + boost::uuids::to_string(model->getUuid()) + "\"}");
}

TEST_F(SpanTest, WithoutAProviderLinesAreEmpty) {
    services::unregisterDisplaySummaryMapProvider(services::DisplaySummaryMapProvider::FORMAT_JSON);
    Span::create("plain")->log(basalt::log::error, "text");
    EXPECT_EQ(records().at(0).message, "");
}

} // namespace
} // namespace kivra::log
