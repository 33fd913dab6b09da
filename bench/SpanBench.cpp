// A disabled diagnostic costs one mask test: no string, no value, no map.
#include "AllocationCounter.hpp"

#include <kivra/Value.hpp>
#include <kivra/log/Span.hpp>

#include <basalt/log/DiagnosticLogger.hpp>

#include <benchmark/benchmark.h>

namespace {

void BM_DisabledContextAndLine(benchmark::State &state) {
    kivra::log::Span const span = kivra::log::Span::create("bench");
    std::function<kivra::Value()> const expensive = [] () -> kivra::Value { throw std::logic_error("evaluated"); };
    // The message is the caller's to make; what is measured is what the span adds.
    std::string const message = "Directory hierarchy already exists";
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        span->addContext(basalt::log::info, "file-name", "notes.json");
        span->addContext(basalt::log::info, "value", expensive);
        span->log(basalt::log::info, message);
    }
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_DisabledContextAndLine);

} // namespace
