#pragma once
/// \file
/// The platform's diagnostic logger: named loggers with a mask of enabled event types,
/// writing records through Boost.Log.
///
/// The mask belongs to the logger's channel (its domain and name): every logger of one
/// channel sees the same mask, and testing it is one atomic load. Nothing is enabled
/// until the host says so through `configuration`; the library reads no file or
/// environment variable.
///
/// Example:
/// \code
///   basalt::log::configuration::set_default_mask(basalt::log::error);
///   basalt::log::record_capture capture;                 // collect records in memory
///   basalt::log::basic_diagnostic_logger<char> logger("kivra::cpp");
///   if (logger.is_enabled(basalt::log::error))
///       logger.write(basalt::log::error, "kivra:messages:InvalidValue");
/// \endcode

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace basalt::log {

/// Event types: bit flags. Only the low 15 bits count in a mask.
enum logging_event_types : std::uint32_t {
    no_events = 0,
    trace = 1,
    debug = 2,
    info = 4,     ///< the ordinary course of events
    notice = 8,
    warning = 256,
    error = 512,  ///< errors and the log lines of raised exceptions
    all_events = 0x7FFF,
};

struct channel_state;

template <class CharT> class basic_diagnostic_logger;

/// A logger of 8-bit (UTF-8) records. Cheap to test, expensive to create: share it.
template <> class basic_diagnostic_logger<char> {
public:
    /// A logger of the channel `name` with an empty domain.
    explicit basic_diagnostic_logger(std::string const &name);
    /// A logger of the channel `name` in `domain`.
    basic_diagnostic_logger(std::string const &domain, std::string const &name);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(basic_diagnostic_logger const &) = delete;
    basic_diagnostic_logger &operator=(basic_diagnostic_logger const &) = delete;

    /// The channel's name, as given at creation.
    std::string const &name() const noexcept;
    /// The channel's domain; empty for a logger created from a name alone.
    std::string const &domain() const noexcept;

    /// The enabled event types of this logger's channel.
    std::uint32_t mask() const noexcept;
    /// True when `type` shares a bit with the mask, within the low 15 bits.
    bool is_enabled(std::uint32_t type) const noexcept { return (type & mask() & all_events) != 0; }

    /// Writes one record of `type` with `message`, unless the type is disabled or the
    /// logging core is off. With `preformattedJson`, the record carries the attribute
    /// "IsPreformattedJson" set to true: the message is a finished JSON document.
    void write(std::uint32_t type, std::string const &message, bool preformattedJson = false);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    channel_state *channel_;
};

/// Process-wide settings of the masks. Thread-safe.
struct configuration {
    /// The mask of every channel without one of its own; applies to existing loggers too.
    static void set_default_mask(std::uint32_t mask);
    /// The mask that channels without one of their own follow; `no_events` at start.
    static std::uint32_t default_mask();
    /// The mask of one channel; applies to existing loggers too.
    static void set_mask(std::string const &domain, std::string const &name, std::uint32_t mask);
    /// Returns the channel to the default mask.
    static void clear_mask(std::string const &domain, std::string const &name);
};

/// One record as a `record_capture` saw it.
struct captured_record {
    std::string domain;
    std::string name;
    std::uint32_t type = 0;
    std::string message;
    bool preformattedJson = false;
};

/// Collects the records of all loggers in memory while it lives (tests and hosts that
/// forward records elsewhere). Captures nest: each sees every record written in its life.
class record_capture {
public:
    /// Starts collecting: records written from now on are kept.
    record_capture();
    /// Stops collecting and drops the records.
    ~record_capture();
    record_capture(record_capture const &) = delete;
    record_capture &operator=(record_capture const &) = delete;

    /// A copy of the records seen so far, in the order written.
    std::vector<captured_record> records() const;
    /// Forgets the records seen so far; collecting goes on.
    void clear();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace basalt::log
