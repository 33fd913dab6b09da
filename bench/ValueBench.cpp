// Copying, moving and reading dynamic values; moves and reads must not allocate.
#include <kivra/Value.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include "AllocationCounter.hpp"

#include <benchmark/benchmark.h>

namespace {

using kivra::Value;
using kivra::meta::StandardTypes;

Value makeText() {
    kivra::meta::MetaRegistry::getInstance();
    return Value(StandardTypes::stringMeta, basalt::ustring(u"a title of some length"));
}

void BM_ValueCopy(benchmark::State &state) {
    Value const source = makeText();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        Value copy = source;
        benchmark::DoNotOptimize(copy);
    }
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ValueCopy);

void BM_ValueMove(benchmark::State &state) {
    Value a = makeText();
    Value b = makeText();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        Value moved = std::move(a);
        a = std::move(b);
        b = std::move(moved);
        benchmark::DoNotOptimize(a);
    }
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ValueMove);

void BM_ValueReads(benchmark::State &state) {
    Value const value = makeText();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        benchmark::DoNotOptimize(value.getType().get());
        benchmark::DoNotOptimize(value.getFlags());
        benchmark::DoNotOptimize(value.isManaged());
        benchmark::DoNotOptimize(value.isReflective());
    }
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ValueReads);

} // namespace
