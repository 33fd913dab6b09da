#include "TextDisplaySummaryMap.hpp"

#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/io/DisplaySummaryMap.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <string>
#include <utility>
#include <vector>

namespace kivra::test {

namespace {

std::string show(Value const &value) {
    if (!value.hasPayload())
        return "null";
    try {
        return '"' + value.get<std::string>() + '"';
    } catch (std::exception const &) {
    }
    try {
        return '"' + boost::uuids::to_string(value.get<boost::uuids::uuid>()) + '"';
    } catch (std::exception const &) {
    }
    return std::to_string(value.hashValues());
}

struct Context {
    std::string name;
    std::function<std::string()> text;
};

class TextDocument final : public io::LogDocument {
public:
    explicit TextDocument(std::string message) : message_(std::move(message)) {}
    void add(std::vector<Context> const &contexts) { contexts_.insert(contexts_.end(), contexts.begin(), contexts.end()); }
    void visitString(std::string &text) override {
        text = "{\"message\":\"" + message_ + "\"";
        for (auto const &context : contexts_)
            text += ",\"" + context.name + "\":" + context.text();
        text += "}";
    }

private:
    std::string message_;
    std::vector<Context> contexts_;
};

class TextMap final : public io::DisplaySummaryMap {
public:
    void add(std::string const &name, ModelElement const &element) override {
        std::string const text = element.get() ? '"' + boost::uuids::to_string(element->getUuid()) + '"' : "null";
        contexts_.push_back({name, [text] { return text; }});
    }
    void add(std::string const &name, Value const &value) override {
        std::string const text = show(value);
        contexts_.push_back({name, [text] { return text; }});
    }
    void addDynamic(std::string const &name, std::function<ModelElement()> const &element) override {
        contexts_.push_back({name, [element] {
                                 ModelElement const e = element();
                                 return e.get() ? '"' + boost::uuids::to_string(e->getUuid()) + '"' : std::string("null");
                             }});
    }
    void addDynamic(std::string const &name, std::function<Value()> const &value) override {
        contexts_.push_back({name, [value] { return show(value()); }});
    }
    std::unique_ptr<io::LogDocument> createDocument(std::string const &message) const override {
        auto document = std::make_unique<TextDocument>(message);
        document->add(contexts_);
        return document;
    }
    void wrapDocument(io::LogDocument *document) const override { static_cast<TextDocument *>(document)->add(contexts_); }

private:
    std::vector<Context> contexts_;
};

} // namespace

std::unique_ptr<io::DisplaySummaryMap> TextDisplaySummaryMapProvider::createDisplaySummaryMap() {
    ++mapsMade;
    return std::make_unique<TextMap>();
}

} // namespace kivra::test
