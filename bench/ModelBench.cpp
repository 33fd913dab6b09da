// Element creation and lookup by UUID in large models, and the memory an element costs.
#include "Probes.hpp"

#include <library/Book.hpp>

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <vector>

namespace {

using kivra::Model;
using kivra::test::Probe;
using kivra::test::library::Book;

std::size_t heapInUse() {
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void BM_CreateElements(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    double bytesPerElement = 0;
    for (auto _ : state) {
        Model model = Model::createTransientModel();
        std::size_t const before = heapInUse();
        for (std::size_t i = 0; i < count; ++i)
            Probe::create(model);
        bytesPerElement = double(heapInUse() - before) / double(count);
        state.PauseTiming();
        model->destroy();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * count);
    // Everything an element costs: the object and its entries in both tables.
    state.counters["bytes/element"] = bytesPerElement;
    state.counters["base bytes"] = double(sizeof(kivra::ModelElement::Impl));
    state.counters["Book bytes"] = double(sizeof(Book::Impl));
}
BENCHMARK(BM_CreateElements)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_CreateElementsWithGivenUuids(benchmark::State &state) {
    // UUIDs as a user may give them: one shared first half, numbered in the second. The
    // cost per element must not grow with the count.
    auto const count = static_cast<std::size_t>(state.range(0));
    std::vector<boost::uuids::uuid> ids(count);
    for (std::size_t i = 0; i < count; ++i) {
        ids[i] = boost::uuids::uuid{{0x6b, 0x1a, 0x20, 0x11, 0x5c, 0x3e, 0x41, 0x07, 0x80}};
        for (std::size_t b = 0; b < sizeof i; ++b)
            ids[i].data[15 - b] = static_cast<std::uint8_t>(i >> (8 * b));
    }
    for (auto _ : state) {
        Model model = Model::createTransientModel();
        for (auto const &id : ids)
            Probe::create(model, id);
        state.PauseTiming();
        model->destroy();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_CreateElementsWithGivenUuids)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FindElementByUuid(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Model model = Model::createTransientModel();
    std::vector<boost::uuids::uuid> ids;
    ids.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        ids.push_back(Probe::create(model)->getUuid());
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(model->findElement(ids[next]));
        next = (next + 7919) % count; // stride through the table, not along the insertion order
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindElementByUuid)->Arg(1'000'000);

void BM_ModelKindTests(benchmark::State &state) {
    Model model = Model::createTransientModel();
    for (auto _ : state) {
        benchmark::DoNotOptimize(model->isTransientModel());
        benchmark::DoNotOptimize(model->isRegistryModel());
        benchmark::DoNotOptimize(model->empty());
    }
}
BENCHMARK(BM_ModelKindTests);

} // namespace
