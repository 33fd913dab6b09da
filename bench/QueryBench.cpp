// What a query pays per comparison and per sorted row: the comparator is looked up once per
// constraint, called once per element; a sort reads each row's key once. And what building a
// query costs through each front: the typed front makes the same calls as the reflective one,
// with a copy of each property handle and constant on the way.
#include "query/QuerySorting.hpp"

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/query/Constrainables.hpp>
#include <kivra/query/ReflectiveQuery.hpp>
#include <kivra/query/ValueComparatorRegistry.hpp>

#include <library/Author.hpp>
#include <library/AuthorConstrainables.hpp>
#include <library/Book.hpp>
#include <library/BookConstrainables.hpp>

#include "AllocationCounter.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
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
        rows.rows.push_back({book});
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

} // namespace
