// What a query pays per comparison and per sorted row: the comparator is looked up once per
// constraint, called once per element; a sort reads each row's key once. And what building a
// query costs through each front: the typed front makes the same calls as the reflective one,
// with a copy of each property handle and constant on the way.
#include "query/NativeKivraQuery.hpp"
#include "query/QuerySorting.hpp"

#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/Constrainables.hpp>
#include <kivra/query/ReflectiveQuery.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <library/Author.hpp>
#include <library/AuthorConstrainables.hpp>
#include <library/Book.hpp>
#include <library/BookConstrainables.hpp>

#include <workload/Book.hpp>
#include <workload/Library.hpp>
#include <workload/Writer.hpp>

#include "AllocationCounter.hpp"

#include <basalt/i18n/Unicode.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>
#include <random>

namespace {

using namespace kivra;
using meta::StandardTypes;
using query::ValueMatchRelation;

void BM_ComparatorLookup(benchmark::State &state) {
    auto const *registry = query::ValueComparatorRegistry::getInstance();
    meta::Type const type = StandardTypes::integerMeta.get();
    for (auto _ : state)
        benchmark::DoNotOptimize(registry->getComparator(ValueMatchRelation::less, type, true));
}
BENCHMARK(BM_ComparatorLookup);

void BM_CompareIntegers(benchmark::State &state) {
    auto const *less = query::ValueComparatorRegistry::getInstance()->getComparator(
        ValueMatchRelation::less, StandardTypes::integerMeta.get(), state.range(0) != 0);
    Value const a(StandardTypes::integerMeta.get(), std::int32_t(3)), b(StandardTypes::integerMeta.get(), std::int32_t(4));
    for (auto _ : state)
        benchmark::DoNotOptimize((*less)(a, b));
}
BENCHMARK(BM_CompareIntegers)->ArgName("required")->Arg(1)->Arg(0);

// A like pattern becomes a regular expression that is compiled at each comparison.
void BM_LikeMatch(benchmark::State &state) {
    auto const *match = query::ValueComparatorRegistry::getInstance()->getComparator(
        ValueMatchRelation::regexpMatch, StandardTypes::stringMeta.get(), true);
    Value const text(StandardTypes::stringMeta.get(), basalt::ustring(u"The Left Hand of Darkness"));
    Value const pattern(StandardTypes::stringMeta.get(), basalt::ustring(u"The .*of Dark.ess"));
    for (auto _ : state)
        benchmark::DoNotOptimize((*match)(text, pattern));
}
BENCHMARK(BM_LikeMatch);

void BM_SortByPages(benchmark::State &state) {
    Model model = Model::createTransientModel();
    query::ResultSet rows;
    rows.instanceIds = {0};
    std::mt19937 random(7);
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        test::library::Book book = test::library::Book::create(model);
        book->setPages(static_cast<std::int32_t>(random() % 1000));
        rows.addRow({book});
    }
    query::ByPropertySorting const sorting(0, query::SortDirection::Ascending, test::library::Book::Impl::pagesProperty());
    // Only the sort's own allocations count, not those of the copy it works on.
    std::size_t allocations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        query::ResultSet copy = rows;
        std::size_t const before = bench::allocations();
        state.ResumeTiming();
        sorting.sort(copy);
        allocations += bench::allocations() - before;
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["allocs/row"] = double(allocations) / double(state.iterations()) / double(state.range(0));
}
BENCHMARK(BM_SortByPages)->Arg(1000)->Arg(100000);

// One question: two instances, a constant, a pattern, a join, an association, an OR of two
// constants, a sort.
void BM_BuildQueryTyped(benchmark::State &state) {
    using namespace test::library;
    Model const model = Model::createTransientModel();
    std::size_t const before = bench::allocations();
    for (auto _ : state) {
        query::AbstractQuery built(model);
        Book::Constrainables books({built, query::SearchClassMatchMode::ClassOrSubclass});
        Author::Constrainables authors({built, query::SearchClassMatchMode::ExactClass});
        built.add(books.pages > 100);
        built.add(books.title.like(u"Dune%"));
        built.add(authors.name == books.title);
        built.add(books.writer == authors);
        built.add(books.pages < 10 || books.pages > 1000);
        built.sortByProperty(books.pages, query::SortDirection::Descending);
        benchmark::DoNotOptimize(built);
    }
    state.counters["allocs/query"] = double(bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_BuildQueryTyped);

void BM_BuildQueryReflective(benchmark::State &state) {
    using namespace test::library;
    Model const model = Model::createTransientModel();
    meta::Type const integer = StandardTypes::integerMeta.get();
    std::size_t const before = bench::allocations();
    for (auto _ : state) {
        auto built = query::createNativeQuery(model);
        std::size_t const book = built->addSearchClass(Book::metaClass(), query::SearchClassMatchMode::ClassOrSubclass);
        std::size_t const author = built->addSearchClass(Author::metaClass(), query::SearchClassMatchMode::ExactClass);
        built->addPropertyRelationValue(Book::Impl::pagesProperty(), ValueMatchRelation::greater,
                                        Value(integer, std::int32_t(100)), book);
        built->addPropertyRelationValue(Book::Impl::titleProperty(), ValueMatchRelation::like,
                                        Value(StandardTypes::stringMeta.get(), basalt::ustring(u"Dune%")), book);
        built->addPropertyRelationProperty(Author::Impl::nameProperty(), author, ValueMatchRelation::equal,
                                           Book::Impl::titleProperty(), book);
        built->addAssociatedObject(Book::Impl::writerProperty(), book, author);
        query::ReflectiveDisjunction *const group = built->createDisjunction();
        group->addPropertyRelationValue(Book::Impl::pagesProperty(), ValueMatchRelation::less,
                                        Value(integer, std::int32_t(10)), book);
        group->addPropertyRelationValue(Book::Impl::pagesProperty(), ValueMatchRelation::greater,
                                        Value(integer, std::int32_t(1000)), book);
        group->finish();
        built->sortByProperty(Book::Impl::pagesProperty(), book, query::SortDirection::Descending);
        benchmark::DoNotOptimize(built);
    }
    state.counters["allocs/query"] = double(bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_BuildQueryReflective);

// The workload's library: 2*10^5 books (title, pages i % 1000, category i % 3) and 2*10^4
// writers, two writers per book; made once for all the runs below.
struct WorkloadLibrary {
    Model model = Model::createTransientModel();
    std::vector<bench::workload::Book> books;
    WorkloadLibrary() {
        using namespace bench::workload;
        std::size_t const n = 200'000, writerCount = n / 10;
        Transaction transaction = model->beginTransaction(false);
        Library const library = Library::create(model);
        std::vector<Writer> writers;
        for (std::size_t j = 0; j < writerCount; ++j) {
            Writer writer = Writer::create(model);
            writer->setName(basalt::i18n::utf8_to_ustring("Writer " + std::to_string(j)));
            library->getWritersMutable().push_back(writer);
            writers.push_back(std::move(writer));
        }
        for (std::size_t i = 0; i < n; ++i) {
            Book book = Book::create(model);
            book->setTitle(basalt::i18n::utf8_to_ustring("Book " + std::to_string(i)));
            book->setPages(std::int32_t(i % 1000));
            book->setCategory(Category(i % 3));
            book->getAuthorsMutable().push_back(writers[i % writerCount]);
            book->getAuthorsMutable().push_back(writers[(i * 7 + 3) % writerCount]);
            library->getBooksMutable().push_back(book);
            books.push_back(std::move(book));
        }
        transaction.commit();
    }
};

WorkloadLibrary const &workloadLibrary() {
    static WorkloadLibrary const library;
    return library;
}

void report(benchmark::State &state, std::size_t rows, query::NativeKivraQuery::RunCounts const &counts) {
    state.counters["rows"] = double(rows);
    state.counters["scanned"] = double(counts.scanned);
    state.counters["tested"] = double(counts.tested);
    state.counters["combined"] = double(counts.combined);
}

// Books with pages > 500 and category Mystery, sorted by title, counted.
void BM_QueryLongMysteries(benchmark::State &state) {
    using namespace bench::workload;
    Model const &model = workloadLibrary().model;
    query::NativeKivraQuery q;
    q.setModel(model);
    std::size_t const book = q.addSearchClass(Book::metaClass(), query::SearchClassMatchMode::ExactClass);
    q.addPropertyRelationValue(Book::Impl::pagesProperty(), ValueMatchRelation::greater, Value(std::int32_t(500)), book);
    q.addPropertyRelationValue(Book::Impl::categoryProperty(), ValueMatchRelation::equal,
                               Value(Book::Impl::categoryProperty()->getType(), std::uint64_t(Category::Mystery)), book);
    q.sortByProperty(Book::Impl::titleProperty(), book, query::SortDirection::Ascending);
    std::size_t rows = 0;
    query::NativeKivraQuery::RunCounts counts;
    for (auto _ : state) {
        counts = {};
        rows = q.evaluate(&counts).rowCount();
    }
    report(state, rows, counts);
}
BENCHMARK(BM_QueryLongMysteries)->Unit(benchmark::kMillisecond);

// The bar: the same question as a loop over the generated books, with a sort by title.
void BM_LoopLongMysteries(benchmark::State &state) {
    using namespace bench::workload;
    auto const &books = workloadLibrary().books;
    std::size_t rows = 0;
    for (auto _ : state) {
        std::vector<Book const *> found;
        for (Book const &book : books)
            if (book->getPages() > 500 && book->getCategory() == Category::Mystery)
                found.push_back(&book);
        std::sort(found.begin(), found.end(),
                  [](Book const *a, Book const *b) { return (*a)->getTitle() < (*b)->getTitle(); });
        rows = found.size();
    }
    state.counters["rows"] = double(rows);
}
BENCHMARK(BM_LoopLongMysteries)->Unit(benchmark::kMillisecond);

// Every book with each of its writers: a join through the books' authors.
void BM_QueryBooksWithWriters(benchmark::State &state) {
    using namespace bench::workload;
    query::NativeKivraQuery q;
    q.setModel(workloadLibrary().model);
    std::size_t const book = q.addSearchClass(Book::metaClass(), query::SearchClassMatchMode::ExactClass);
    std::size_t const writer = q.addSearchClass(Writer::metaClass(), query::SearchClassMatchMode::ExactClass);
    q.addAssociatedObject(Book::Impl::authorsProperty(), book, writer);
    std::size_t rows = 0;
    query::NativeKivraQuery::RunCounts counts;
    for (auto _ : state) {
        counts = {};
        rows = q.evaluate(&counts).rowCount();
    }
    report(state, rows, counts);
}
BENCHMARK(BM_QueryBooksWithWriters)->Unit(benchmark::kMillisecond);

// The bar: each book's writers read from the generated collection.
void BM_LoopBooksWithWriters(benchmark::State &state) {
    using namespace bench::workload;
    auto const &books = workloadLibrary().books;
    std::size_t rows = 0;
    for (auto _ : state) {
        std::vector<std::pair<Book const *, Writer::Impl const *>> found;
        for (Book const &book : books)
            for (Writer const &writer : book->getAuthors())
                found.emplace_back(&book, writer.get());
        rows = found.size();
    }
    state.counters["rows"] = double(rows);
}
BENCHMARK(BM_LoopBooksWithWriters)->Unit(benchmark::kMillisecond);

} // namespace
