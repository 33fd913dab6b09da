// What builders and the generated accessors cost: creating elements through a builder
// against the short form, a typed read, and a reflective read of a scalar.
#include "AllocationCounter.hpp"

#include <library/Book.hpp>

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>

#include <benchmark/benchmark.h>

namespace {

using kivra::Model;
using kivra::test::library::Book;
using Tag = kivra::ModelElement::Impl::ReflectionPrivateTag;

constexpr std::size_t elementCount = 1'000'000;

// Times `make(model)` run elementCount times in one transaction of a fresh model; the
// model's destruction is not timed.
template <class Make> void timeCreation(benchmark::State &state, Make make) {
    for (auto _ : state) {
        Model model = Model::createTransientModel();
        kivra::Transaction transaction = model->beginTransaction();
        for (std::size_t i = 0; i < elementCount; ++i)
            make(model);
        transaction.commit();
        state.PauseTiming();
        model->destroy();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * elementCount);
}

// The short form alone, default values.
void BM_Create(benchmark::State &state) {
    timeCreation(state, [](Model const &model) { Book::create(model); });
}
BENCHMARK(BM_Create)->Unit(benchmark::kMillisecond)->Iterations(3);

// The builder with nothing staged: what the builder and its orchestrator add.
void BM_CreateThroughEmptyBuilder(benchmark::State &state) {
    timeCreation(state, [](Model const &model) { Book::Builder(model).createBook(); });
}
BENCHMARK(BM_CreateThroughEmptyBuilder)->Unit(benchmark::kMillisecond)->Iterations(3);

// The short form: create, then two typed setters, all in one transaction.
void BM_CreateThenSet(benchmark::State &state) {
    timeCreation(state, [](Model const &model) {
        Book book = Book::create(model);
        book->setTitle(u"Dune");
        book->setPages(412);
    });
}
BENCHMARK(BM_CreateThenSet)->Unit(benchmark::kMillisecond)->Iterations(3);

// The same elements through a fresh builder each: its creation is nested in the open
// transaction, as a parser's is.
void BM_CreateThroughBuilder(benchmark::State &state) {
    timeCreation(state, [](Model const &model) { Book::Builder(model).setTitle(u"Dune").setPages(412).createBook(); });
}
BENCHMARK(BM_CreateThroughBuilder)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_TypedRead(benchmark::State &state) {
    Model model = Model::createTransientModel();
    Book const book = Book::create(model);
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(book->getPages());
    state.counters["allocations/read"] =
        double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_TypedRead);

void BM_ReflectiveScalarRead(benchmark::State &state) {
    Model model = Model::createTransientModel();
    Book const book = Book::create(model);
    kivra::meta::Property const &pages = Book::Impl::pagesProperty();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(book->getPropertyValue(pages, Tag::PUBLIC_ACCESS));
    state.counters["allocations/read"] =
        double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ReflectiveScalarRead);

} // namespace
