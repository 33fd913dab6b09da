// What transactions cost: nothing recorded when nobody needs it, and a deep transaction
// and its roll-back linear in the number of changes.
#include "AllocationCounter.hpp"

#include <library/Book.hpp>

#include <kivra/Model.hpp>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using kivra::Model;
using kivra::Transaction;
using kivra::test::library::Book;

std::vector<Book> books(Model const &model, std::size_t count) {
    std::vector<Book> result;
    result.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        result.push_back(Book::create(model));
    return result;
}

// One change inside a transaction that nobody listens to and that keeps no old values:
// the gate records nothing; what is left is the setter's own nested transaction.
void BM_UnobservedChange(benchmark::State &state) {
    Model model = Model::createTransientModel();
    Book const book = Book::create(model);
    Transaction outer = model->beginTransaction();
    std::int32_t pages = 0;
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        book->setPages(++pages);
    state.counters["allocs/change"] = double(kivra::bench::allocations() - before) / double(state.iterations());
    outer.commit();
}
BENCHMARK(BM_UnobservedChange);

// A commit with changes but no listener of any phase makes no report: what is left is the
// transaction and its records.
void BM_CommitWithoutListeners(benchmark::State &state) {
    Model model = Model::createTransientModel();
    Book const book = Book::create(model);
    std::int32_t pages = 0;
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        Transaction transaction = model->beginRevertibleTransaction();
        book->setPages(++pages);
        transaction.commit();
    }
    state.counters["allocs/commit"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_CommitWithoutListeners);

// N changes in one deep transaction, then its commit.
void BM_DeepChanges(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Model model = Model::createTransientModel();
    std::vector<Book> const all = books(model, count);
    std::int32_t pages = 0;
    for (auto _ : state) {
        Transaction transaction = model->beginRevertibleTransaction();
        ++pages;
        for (Book const &book : all)
            book->setPages(pages);
        transaction.commit();
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_DeepChanges)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(3);

// The roll-back of N recorded changes.
void BM_DeepRollBack(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Model model = Model::createTransientModel();
    std::vector<Book> const all = books(model, count);
    std::int32_t pages = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Transaction transaction = model->beginRevertibleTransaction();
        ++pages;
        for (Book const &book : all)
            book->setPages(pages);
        state.ResumeTiming();
        transaction.rollBack();
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_DeepRollBack)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
