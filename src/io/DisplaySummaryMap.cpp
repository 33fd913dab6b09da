#include <kivra/io/DisplaySummaryMap.hpp>

#include <kivra/ModelElement.hpp>
#include <kivra/Value.hpp>
#include <kivra/services/DisplaySummaryMapProvider.hpp>
#include <kivra/services/Hashers.hpp>

#include <mutex>
#include <unordered_map>

namespace kivra {

namespace io {

void SerializationOutput::Visitor::visitFile(basalt::ustring const &) {}
void SerializationOutput::Visitor::visitStream(std::ostream &) {}
void SerializationOutput::Visitor::visitString(std::string &) {}
void SerializationOutput::Visitor::visitUString(basalt::ustring &) {}
void SerializationOutput::Visitor::visitIntermediateFormat(void *) {}
void SerializationOutput::Visitor::visitLittleEndianByteSequence(std::vector<unsigned char> &) {}

std::unique_ptr<LogDocument> NoOpDisplaySummaryMap::createDocument(std::string const &) const {
    return std::make_unique<LogDocument>();
}

Value DisplaySummaryMap::getModelPropertyValue(ModelElement const &element, meta::Property const &property) {
    return element->getPropertyValue(property, ModelElement::Impl::ReflectionPrivateTag::PRIVILEGED_ACCESS);
}

bool DisplaySummaryMap::hasModelPropertyValue(ModelElement const &element, meta::Property const &property) {
    return element->hasPropertyValue(property, ModelElement::Impl::ReflectionPrivateTag::PRIVILEGED_ACCESS);
}

} // namespace io

namespace services {

basalt::ustring const DisplaySummaryMapProvider::FORMAT_JSON = u"json";

namespace {

struct ProviderTable {
    std::mutex mutex;
    std::unordered_map<basalt::ustring, std::shared_ptr<DisplaySummaryMapProvider>, hashers::KivraHasher<basalt::ustring>>
        providers;
};

ProviderTable &providerTable() {
    static auto *table = new ProviderTable; // spans may log while statics are torn down
    return *table;
}

} // namespace

void registerDisplaySummaryMapProvider(std::shared_ptr<DisplaySummaryMapProvider> provider) {
    auto &table = providerTable();
    std::lock_guard lock(table.mutex);
    table.providers[provider->getFormat()] = std::move(provider);
}

void unregisterDisplaySummaryMapProvider(basalt::ustring const &format) {
    auto &table = providerTable();
    std::lock_guard lock(table.mutex);
    table.providers.erase(format);
}

} // namespace services

std::unique_ptr<io::DisplaySummaryMap> io::DisplaySummaryMap::create(basalt::ustring const &format) {
    std::shared_ptr<services::DisplaySummaryMapProvider> provider;
    {
        auto &table = services::providerTable();
        std::lock_guard lock(table.mutex);
        if (auto const found = table.providers.find(format); found != table.providers.end())
            provider = found->second;
    }
    if (provider)
        return provider->createDisplaySummaryMap();
    return std::make_unique<NoOpDisplaySummaryMap>();
}

} // namespace kivra
