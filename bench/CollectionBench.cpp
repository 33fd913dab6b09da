// The named costs of element collections: adding distinct elements to a large unique list
// whose far end is a set, asking a list with a single-valued far end whether it holds an
// element, what an untouched collection costs its element and what its first use costs.
#include <library/Author.hpp>
#include <library/Book.hpp>

#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/detail/CollectionSlot.hpp>

#include <benchmark/benchmark.h>

#include <optional>
#include <vector>

namespace {

using kivra::Model;
using kivra::test::library::Author;
using kivra::test::library::Book;

// Per added element the time stays flat from 10^5 to 10^6: the list's index answers for
// the duplicate test, where a scan (or the saturated filter) would make it quadratic.
void BM_UniqueListWithManyValuedFarEnd(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        Model model = Model::create(kivra::ModelConstellation());
        Book book = Book::create(model);
        std::vector<Author> authors;
        authors.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            authors.push_back(Author::create(model));
        state.ResumeTiming();
        {
            kivra::Transaction transaction = model->beginTransaction(false);
            auto &coauthors = book->getCoauthorsMutable();
            for (Author const &author : authors)
                coauthors.push_back(author);
            transaction.commit();
        }
        state.PauseTiming();
        if (book->getCoauthors().size() != count)
            state.SkipWithError("lost an author");
        authors.clear();
        book.reset();
        model->destroy();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(std::int64_t(state.iterations() * count));
}
BENCHMARK(BM_UniqueListWithManyValuedFarEnd)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(1);

// One read of the far end, whatever the length of the list.
void BM_ContainsWithSingleValuedFarEnd(benchmark::State &state) {
    auto const count = static_cast<std::size_t>(state.range(0));
    Model model = Model::create(kivra::ModelConstellation());
    Author author = Author::create(model);
    std::vector<Book> books;
    {
        kivra::Transaction transaction = model->beginTransaction(false);
        for (std::size_t i = 0; i < count; ++i) {
            books.push_back(Book::create(model));
            author->getBooksMutable().push_back(books.back());
        }
        transaction.commit();
    }
    auto const &list = author->getBooks();
    Book const absent = Book::create(model);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.contains(books[i++ % count]));
        benchmark::DoNotOptimize(list.contains(absent));
    }
    state.SetItemsProcessed(std::int64_t(state.iterations() * 2));
}
BENCHMARK(BM_ContainsWithSingleValuedFarEnd)->Arg(10)->Arg(100'000);

// An untouched collection is a null pointer in its element; touching it makes the list.
void BM_UntouchedCollection(benchmark::State &state) {
    Model model = Model::create(kivra::ModelConstellation());
    for (auto _ : state) {
        Author author = Author::create(model);
        benchmark::DoNotOptimize(author->hasBooks());
    }
    state.counters["bytes per untouched collection"] =
        double(sizeof(kivra::detail::CollectionSlot<kivra::ElementSequence<Book>>));
    state.counters["bytes of a made list"] = double(sizeof(kivra::ElementSequence<Book>));
}
BENCHMARK(BM_UntouchedCollection);

// The first use of a collection: made by the writer in its transaction (0), or by a reader
// of a frozen model (1), which takes a lock while it makes it.
void BM_FirstUseOfACollection(benchmark::State &state) {
    bool const reader = state.range(0) == 1;
    constexpr std::size_t batch = 10'000;
    for (auto _ : state) {
        state.PauseTiming();
        Model model = Model::create(kivra::ModelConstellation());
        std::vector<Author> authors;
        {
            kivra::Transaction transaction = model->beginTransaction(false);
            for (std::size_t i = 0; i < batch; ++i)
                authors.push_back(Author::create(model));
            transaction.commit();
        }
        std::optional<kivra::Transaction> writing;
        std::optional<Model::Freezer> frozen;
        if (reader)
            frozen.emplace(model->freeze());
        else
            writing.emplace(model->beginTransaction(false));
        state.ResumeTiming();
        for (Author const &author : authors)
            benchmark::DoNotOptimize(&author->getBooks());
        state.PauseTiming();
        if (writing)
            writing->commit();
        frozen.reset();
        authors.clear();
        model->destroy();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(std::int64_t(state.iterations() * batch));
}
BENCHMARK(BM_FirstUseOfACollection)->Arg(0)->Arg(1)->Iterations(50);

} // namespace
