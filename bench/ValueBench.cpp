// Copying, moving and reading dynamic values; moves and reads must not allocate.
#include <kivra/Value.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> allocations{0};
}

// Counting replacements of the global allocation functions; GCC cannot see that the
// matching delete is the one below.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void *operator new(std::size_t size) {
    ++allocations;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

namespace {

using kivra::Value;
using kivra::meta::StandardTypes;

Value makeText() {
    kivra::meta::MetaRegistry::getInstance();
    return Value(StandardTypes::stringMeta, basalt::ustring(u"a title of some length"));
}

void BM_ValueCopy(benchmark::State &state) {
    Value const source = makeText();
    std::size_t const before = allocations;
    for (auto _ : state) {
        Value copy = source;
        benchmark::DoNotOptimize(copy);
    }
    state.counters["allocs/op"] = double(allocations - before) / double(state.iterations());
}
BENCHMARK(BM_ValueCopy);

void BM_ValueMove(benchmark::State &state) {
    Value a = makeText();
    Value b = makeText();
    std::size_t const before = allocations;
    for (auto _ : state) {
        Value moved = std::move(a);
        a = std::move(b);
        b = std::move(moved);
        benchmark::DoNotOptimize(a);
    }
    state.counters["allocs/op"] = double(allocations - before) / double(state.iterations());
}
BENCHMARK(BM_ValueMove);

void BM_ValueReads(benchmark::State &state) {
    Value const value = makeText();
    std::size_t const before = allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value.getType().get());
        benchmark::DoNotOptimize(value.getFlags());
        benchmark::DoNotOptimize(value.isManaged());
        benchmark::DoNotOptimize(value.isReflective());
    }
    state.counters["allocs/op"] = double(allocations - before) / double(state.iterations());
}
BENCHMARK(BM_ValueReads);

} // namespace
