#pragma once
/// \file
/// The service that supplies display summary maps of one format.

#include <basalt/ustring.hpp>

#include <memory>

namespace kivra::io {
class DisplaySummaryMap;
} // namespace kivra::io

namespace kivra::services {

/// Makes the display summary maps of one format for the library's spans.
class DisplaySummaryMapProvider {
public:
    /// The format of log documents that spans use unless told otherwise.
    static basalt::ustring const FORMAT_JSON;

    virtual ~DisplaySummaryMapProvider() = default;
    /// A new, empty map.
    virtual std::unique_ptr<io::DisplaySummaryMap> createDisplaySummaryMap() = 0;
    /// The format this provider serves, such as "json".
    virtual basalt::ustring getFormat() const = 0;
};

/// Makes `provider` the one of its format for every span made from now on (a provider
/// registered earlier for that format is replaced). Thread-safe.
void registerDisplaySummaryMapProvider(std::shared_ptr<DisplaySummaryMapProvider> provider);
/// Takes the provider of `format` away again.
void unregisterDisplaySummaryMapProvider(basalt::ustring const &format);

} // namespace kivra::services
