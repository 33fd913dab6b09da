// Lookups in a registry of 10^4 types and 10^2 root packages: a hit must not allocate.
#include <kivra/Transaction.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>

#include "AllocationCounter.hpp"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

using kivra::meta::MetaRegistry;

constexpr int typeCount = 10000;
constexpr int packageCount = 100;

basalt::ustring text(std::string const &ascii) { return basalt::ustring(ascii.begin(), ascii.end()); }

/// The qualified names and package URIs of the registry, made once for all benchmarks.
struct Catalogue {
    std::vector<basalt::ustring> typeNames;
    std::vector<basalt::ustring> packageUris;

    Catalogue() {
        MetaRegistry &registry = *MetaRegistry::getInstance();
        auto locked = registry.getMetaRegistryModel();
        kivra::Transaction transaction = locked->beginTransaction();
        for (int i = 0; i < typeCount; ++i) {
            kivra::meta::Class const cls = kivra::meta::Class::create(locked.get());
            cls->setName(text("benchmark.catalogue.Type" + std::to_string(i)));
            registry.registerType(cls);
            typeNames.push_back(cls->getQualifiedName());
        }
        std::vector<kivra::meta::Package> packages;
        for (int i = 0; i < packageCount; ++i) {
            kivra::meta::Package const package = kivra::meta::Package::create(locked.get());
            package->setName(text("family" + std::to_string(i)));
            package->setUri(MetaRegistry::composeUri(u"20240101", text("family" + std::to_string(i))) + u"/root");
            packages.push_back(package);
            packageUris.push_back(package->getUri());
        }
        transaction.commit();
        for (auto const &package : packages)
            registry.registerRootPackage(package);
    }
};

Catalogue const &catalogue() {
    static Catalogue const instance;
    return instance;
}

template <class Lookup> void measure(benchmark::State &state, std::vector<basalt::ustring> const &keys, Lookup lookup) {
    std::size_t i = 0;
    for (auto const &key : keys) // the first answers are made and kept outside the count
        benchmark::DoNotOptimize(lookup(key));
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        benchmark::DoNotOptimize(lookup(keys[i]));
        if (++i == keys.size())
            i = 0;
    }
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}

void BM_GetTypeByQualifiedName(benchmark::State &state) {
    MetaRegistry &registry = *MetaRegistry::getInstance();
    measure(state, catalogue().typeNames, [&](basalt::ustring const &name) { return registry.getType(name); });
}
BENCHMARK(BM_GetTypeByQualifiedName);

// A name longer than a small string, given as a literal, as the library's own code names
// the standard types.
void BM_GetPrimitiveTypeByLiteral(benchmark::State &state) {
    MetaRegistry &registry = *MetaRegistry::getInstance();
    catalogue();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(registry.getPrimitiveType(u"UnlimitedNatural"));
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_GetPrimitiveTypeByLiteral);

void BM_GetRootPackageByUri(benchmark::State &state) {
    MetaRegistry &registry = *MetaRegistry::getInstance();
    measure(state, catalogue().packageUris, [&](basalt::ustring const &uri) { return registry.getRootPackage(uri); });
}
BENCHMARK(BM_GetRootPackageByUri);

void BM_ParseUriCached(benchmark::State &state) {
    measure(state, catalogue().packageUris,
            [](basalt::ustring const &uri) { return MetaRegistry::parseUri(uri).second.size(); });
}
BENCHMARK(BM_ParseUriCached);

// What a document's reader asks of each package URI in its header.
void BM_IsVersionCurrentForFamily(benchmark::State &state) {
    MetaRegistry &registry = *MetaRegistry::getInstance();
    measure(state, catalogue().packageUris,
            [&](basalt::ustring const &uri) { return registry.isVersionCurrentForFamily(uri); });
}
BENCHMARK(BM_IsVersionCurrentForFamily);

} // namespace
