#pragma once
/// \file
/// What turns a span's contexts and a message into the text of a log line.

#include <kivra/Handles.hpp>
#include <kivra/io/SerializationOutput.hpp>

#include <basalt/ustring.hpp>

#include <functional>
#include <memory>
#include <string>

namespace kivra {
class Value;
} // namespace kivra

namespace kivra::io {

/// One log line as a document: written by visiting it with the target. This base writes
/// nothing; a map's own document writes at least into a `std::string`.
class LogDocument : public SerializationOutput::Visitor {};

/// Holds the contexts of one span and makes its log documents. The library knows only
/// this interface and a version that does nothing; a provider of a format (such as
/// "json") gives the real one.
class DisplaySummaryMap {
public:
    virtual void add(std::string const &name, ModelElement const &element) = 0;
    virtual void add(std::string const &name, Value const &value) = 0;
    /// A context read when a document is written, so that it shows the state of then.
    virtual void addDynamic(std::string const &name, std::function<ModelElement()> const &element) = 0;
    virtual void addDynamic(std::string const &name, std::function<Value()> const &value) = 0;
    /// A document of `message` with this map's contexts.
    virtual std::unique_ptr<LogDocument> createDocument(std::string const &message) const = 0;
    /// Adds this map's contexts to a document made by a descendant span.
    virtual void wrapDocument(LogDocument *document) const = 0;
    virtual ~DisplaySummaryMap() = default;

    /// The map of the provider registered for `format`; without one, a map that does nothing.
    static std::unique_ptr<DisplaySummaryMap> create(basalt::ustring const &format);

protected:
    /// Reads a property whatever its access, so that a map can show private properties.
    static Value getModelPropertyValue(ModelElement const &element, meta::Property const &property);
    static bool hasModelPropertyValue(ModelElement const &element, meta::Property const &property);
};

/// The map used when no provider serves a format: it keeps nothing and its documents
/// write nothing, so that log lines go out with empty text.
class NoOpDisplaySummaryMap final : public DisplaySummaryMap {
public:
    void add(std::string const &, ModelElement const &) override {}
    void add(std::string const &, Value const &) override {}
    void addDynamic(std::string const &, std::function<ModelElement()> const &) override {}
    void addDynamic(std::string const &, std::function<Value()> const &) override {}
    std::unique_ptr<LogDocument> createDocument(std::string const &message) const override;
    void wrapDocument(LogDocument *) const override {}
};

} // namespace kivra::io
