#pragma once
// A display summary map for tests: its documents are a JSON object of the message and
// the contexts, innermost span first, that tests can read.

#include <kivra/services/DisplaySummaryMapProvider.hpp>

#include <atomic>
#include <memory>

namespace kivra::test {

/// Serves the "json" format while it is registered, and counts the maps it makes.
class TextDisplaySummaryMapProvider final : public services::DisplaySummaryMapProvider {
public:
    std::unique_ptr<io::DisplaySummaryMap> createDisplaySummaryMap() override;
    basalt::ustring getFormat() const override { return FORMAT_JSON; }

    static inline std::atomic<int> mapsMade{0};
};

/// Registers the provider for the life of the object.
struct TextDisplaySummaryMaps {
    TextDisplaySummaryMaps() { services::registerDisplaySummaryMapProvider(std::make_shared<TextDisplaySummaryMapProvider>()); }
    ~TextDisplaySummaryMaps() { services::unregisterDisplaySummaryMapProvider(services::DisplaySummaryMapProvider::FORMAT_JSON); }
};

} // namespace kivra::test
