#include <basalt/log/DiagnosticLogger.hpp>

#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/expressions/predicates/has_attr.hpp>
#include <boost/log/keywords/channel.hpp>
#include <boost/log/keywords/severity.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <utility>

namespace logging = boost::log;

namespace basalt::log {

/// The shared state of one channel. The strings never change after creation; `ownMask`
/// is guarded by the registry mutex, while `mask` is read without any lock.
struct channel_state {
    channel_state(std::string d, std::string n, std::uint32_t initial)
        : domain(std::move(d)), name(std::move(n)), mask(initial) {}

    std::string const domain;
    std::string const name;
    std::atomic<std::uint32_t> mask;
    bool ownMask = false;
};

namespace {

// Attribute names shared by the loggers and the capture backend.
constexpr char const *domainAttribute = "Domain";
constexpr char const *channelAttribute = "Channel";
constexpr char const *severityAttribute = "Severity";
constexpr char const *preformattedJsonAttribute = "IsPreformattedJson";

// A sink that consumes nothing. Boost.Log hands records to its built-in console sink
// whenever the core holds no sink at all, which would make this library print on its
// own as soon as a host enables a mask without adding a sink. Keeping this sink in the
// core for the life of the process turns the built-in sink off; its filter rejects
// every record, so the core does not even open a record unless some other sink wants
// it. The price: a host that logs through Boost.Log itself must add its own sink to see
// anything, which it has to do anyway to choose where output goes. A host that calls
// remove_all_sinks() brings the console sink back, which is its own choice.
class discard_backend : public logging::sinks::basic_sink_backend<logging::sinks::concurrent_feeding> {
public:
    void consume(logging::record_view const &) {}
};

struct Registry {
    Registry() {
        auto sink = boost::make_shared<logging::sinks::synchronous_sink<discard_backend>>();
        sink->set_filter([](logging::attribute_value_set const &) { return false; });
        logging::core::get()->add_sink(sink);
    }

    std::mutex mutex;
    std::uint32_t defaultMask = no_events;
    // std::map keeps its nodes in place, so loggers may hold raw pointers to the states.
    std::map<std::pair<std::string, std::string>, channel_state> channels;

    // Callers hold `mutex`.
    channel_state &channel(std::string const &domain, std::string const &name) {
        auto [it, inserted] = channels.try_emplace(std::pair(domain, name), domain, name, defaultMask);
        return it->second;
    }
};

Registry &registry() {
    // Never destroyed: loggers held by static objects of the host may still test their
    // masks, or write, while the process tears down.
    static auto *instance = new Registry;
    return *instance;
}

} // namespace

// ---------------------------------------------------------------------------------------
// basic_diagnostic_logger<char>

struct basic_diagnostic_logger<char>::Impl {
    Impl(std::string const &domain, std::string const &name) : source(logging::keywords::channel = name) {
        source.add_attribute(domainAttribute, logging::attributes::constant<std::string>(domain));
    }

    logging::sources::severity_channel_logger_mt<std::uint32_t, std::string> source;
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string const &name)
    : basic_diagnostic_logger(std::string(), name) {}

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string const &domain, std::string const &name)
    : impl_(std::make_unique<Impl>(domain, name)) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    channel_ = &reg.channel(domain, name);
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() = default;

std::string const &basic_diagnostic_logger<char>::name() const noexcept { return channel_->name; }

std::string const &basic_diagnostic_logger<char>::domain() const noexcept { return channel_->domain; }

std::uint32_t basic_diagnostic_logger<char>::mask() const noexcept {
    // The mask publishes no other data, so no ordering beyond the value itself is needed.
    return channel_->mask.load(std::memory_order_relaxed);
}

void basic_diagnostic_logger<char>::write(std::uint32_t type, std::string const &message, bool preformattedJson) {
    if (!is_enabled(type))
        return;
    auto core = logging::core::get();
    if (!core->get_logging_enabled())
        return;

    logging::record rec = impl_->source.open_record(logging::keywords::severity = type);
    if (!rec)
        return; // no sink wants it
    if (preformattedJson)
        rec.attribute_values().insert(preformattedJsonAttribute, logging::attributes::make_attribute_value(true));
    {
        logging::record_ostream stream(rec);
        stream << message;
        stream.flush();
    }
    impl_->source.push_record(std::move(rec));
}

// ---------------------------------------------------------------------------------------
// configuration

void configuration::set_default_mask(std::uint32_t mask) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    reg.defaultMask = mask;
    for (auto &entry : reg.channels)
        if (!entry.second.ownMask)
            entry.second.mask.store(mask, std::memory_order_relaxed);
}

std::uint32_t configuration::default_mask() {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    return reg.defaultMask;
}

void configuration::set_mask(std::string const &domain, std::string const &name, std::uint32_t mask) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    // Created if need be, so that loggers made later start with this mask.
    channel_state &channel = reg.channel(domain, name);
    channel.ownMask = true;
    channel.mask.store(mask, std::memory_order_relaxed);
}

void configuration::clear_mask(std::string const &domain, std::string const &name) {
    Registry &reg = registry();
    std::lock_guard lock(reg.mutex);
    auto it = reg.channels.find(std::pair(domain, name));
    if (it == reg.channels.end())
        return;
    it->second.ownMask = false;
    it->second.mask.store(reg.defaultMask, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------
// record_capture

namespace {

// The records live in the backend rather than in the capture: the core may still be
// delivering a record opened just before the sink was removed, and the sink keeps the
// backend alive for exactly that long.
class capture_backend : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
public:
    void consume(logging::record_view const &rec) {
        captured_record out;
        auto const &values = rec.attribute_values();
        if (auto domain = logging::extract<std::string>(domainAttribute, values))
            out.domain = domain.get();
        if (auto name = logging::extract<std::string>(channelAttribute, values))
            out.name = name.get();
        if (auto type = logging::extract<std::uint32_t>(severityAttribute, values))
            out.type = type.get();
        if (auto message = rec[logging::expressions::smessage])
            out.message = message.get();
        if (auto json = logging::extract<bool>(preformattedJsonAttribute, values))
            out.preformattedJson = json.get();

        std::lock_guard lock(mutex_);
        records_.push_back(std::move(out));
    }

    std::vector<captured_record> records() const {
        std::lock_guard lock(mutex_);
        return records_;
    }

    void clear() {
        std::lock_guard lock(mutex_);
        records_.clear();
    }

private:
    // The frontend serialises consume(), but records() and clear() come from other threads.
    mutable std::mutex mutex_;
    std::vector<captured_record> records_;
};

using capture_sink = logging::sinks::synchronous_sink<capture_backend>;

} // namespace

struct record_capture::Impl {
    boost::shared_ptr<capture_backend> backend = boost::make_shared<capture_backend>();
    boost::shared_ptr<capture_sink> sink = boost::make_shared<capture_sink>(backend);
};

record_capture::record_capture() : impl_(std::make_unique<Impl>()) {
    // The discard sink must be in place first, or the console sink would come back once
    // this capture leaves the core empty again.
    registry();
    // Only this library's records: a host may log through Boost.Log on its own.
    impl_->sink->set_filter(logging::expressions::has_attr<std::string>(domainAttribute));
    logging::core::get()->add_sink(impl_->sink);
}

record_capture::~record_capture() { logging::core::get()->remove_sink(impl_->sink); }

std::vector<captured_record> record_capture::records() const { return impl_->backend->records(); }

void record_capture::clear() { impl_->backend->clear(); }

} // namespace basalt::log
