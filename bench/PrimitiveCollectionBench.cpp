// The named costs of primitive collections: adding to and finding in a sequence and the
// two sets of integers, per entry, with the allocations each add makes. The collections
// are owned by a book and serve its `pages` property, so that every add runs in the frame
// of a recorded change, as a generated owner's would. Then a generated element's own list,
// reached through its accessors: a push_back, and the first touch in a transaction that
// makes the collection and records a copy of it.
#include "AllocationCounter.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>

#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

using kivra::Model;
using kivra::test::library::Author;
using kivra::test::library::Book;

/// Distinct integers in random order.
std::vector<std::int32_t> shuffled(std::size_t count) {
    std::vector<std::int32_t> values(count);
    for (std::size_t i = 0; i < count; ++i)
        values[i] = std::int32_t(i * 7919);
    std::shuffle(values.begin(), values.end(), std::mt19937(42));
    return values;
}

struct Owner {
    Model model = Model::create(kivra::ModelConstellation());
    Book book = Book::create(model);
    template <class C, class... A> std::unique_ptr<C> make(A... arguments) {
        return std::unique_ptr<C>(new (book.get()) C(kivra::ModelElement::Impl::_privateTag(), book.get(),
                                                     Book::Impl::pagesProperty().get(), arguments...));
    }
};

/// Adds `values` in one transaction with `add`, and reports time and allocations per entry.
template <class C, class Add> void addAll(benchmark::State &state, std::unique_ptr<C> (*make)(Owner &), Add add) {
    auto const values = shuffled(std::size_t(state.range(0)));
    std::size_t allocations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Owner owner;
        auto collection = make(owner);
        std::size_t const before = kivra::bench::allocations();
        state.ResumeTiming();
        {
            kivra::Transaction transaction = owner.model->beginTransaction(false);
            for (std::int32_t value : values)
                add(*collection, value);
            transaction.commit();
        }
        state.PauseTiming();
        allocations += kivra::bench::allocations() - before;
        if (collection->size() != values.size())
            state.SkipWithError("lost an entry");
        collection.reset();
        owner.model->destroy();
        state.ResumeTiming();
    }
    auto const entries = double(state.iterations()) * double(values.size());
    state.counters["allocs/entry"] = double(allocations) / entries;
    state.counters["ns/entry"] = benchmark::Counter(entries, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

std::unique_ptr<kivra::PrimitiveSequence<std::int32_t>> makeSequence(Owner &owner) {
    return owner.make<kivra::PrimitiveSequence<std::int32_t>>(false);
}
std::unique_ptr<kivra::UnorderedPrimitiveSet<std::int32_t>> makeHashed(Owner &owner) {
    return owner.make<kivra::UnorderedPrimitiveSet<std::int32_t>>();
}
std::unique_ptr<kivra::PrimitiveSet<std::int32_t>> makeSorted(Owner &owner) {
    return owner.make<kivra::PrimitiveSet<std::int32_t>>();
}

void BM_SequencePushBack(benchmark::State &state) {
    addAll(state, &makeSequence, [](auto &sequence, std::int32_t value) { sequence.push_back(value); });
}
BENCHMARK(BM_SequencePushBack)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

// The untyped add: the entry is read from a value first.
void BM_SequenceGenericAdd(benchmark::State &state) {
    addAll(state, &makeSequence, [](auto &sequence, std::int32_t value) {
        sequence.genericAdd(kivra::Value(kivra::meta::StandardTypes::integerMeta, value));
    });
}
BENCHMARK(BM_SequenceGenericAdd)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

void BM_HashedSetInsert(benchmark::State &state) {
    addAll(state, &makeHashed, [](auto &set, std::int32_t value) { set.insert(value); });
}
BENCHMARK(BM_HashedSetInsert)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

// A sorted array: each insert moves the entries behind it, so the cost grows with the size.
void BM_SortedSetInsert(benchmark::State &state) {
    addAll(state, &makeSorted, [](auto &set, std::int32_t value) { set.insert(value); });
}
BENCHMARK(BM_SortedSetInsert)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

/// Looks up every entry, half of them present, and reports time per lookup.
template <class C, class Find> void findAll(benchmark::State &state, std::unique_ptr<C> (*make)(Owner &), Find find) {
    auto const values = shuffled(std::size_t(state.range(0)));
    Owner owner;
    auto collection = make(owner);
    for (std::size_t i = 0; i < values.size(); i += 2)
        collection->genericAdd(kivra::Value(kivra::meta::StandardTypes::integerMeta, values[i]));
    std::size_t found = 0;
    for (auto _ : state)
        for (std::int32_t value : values)
            found += find(*collection, value);
    benchmark::DoNotOptimize(found);
    state.counters["ns/lookup"] = benchmark::Counter(double(state.iterations()) * double(values.size()),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A sequence keeps no index: a lookup is a scan.
void BM_SequenceContains(benchmark::State &state) {
    findAll(state, &makeSequence, [](auto &sequence, std::int32_t value) { return sequence.contains(value); });
}
BENCHMARK(BM_SequenceContains)->Arg(16)->Arg(1'000);

void BM_HashedSetContains(benchmark::State &state) {
    findAll(state, &makeHashed, [](auto &set, std::int32_t value) { return set.contains(value); });
}
BENCHMARK(BM_HashedSetContains)->Arg(16)->Arg(1'000)->Arg(100'000);

void BM_SortedSetContains(benchmark::State &state) {
    findAll(state, &makeSorted, [](auto &set, std::int32_t value) { return set.contains(value); });
}
BENCHMARK(BM_SortedSetContains)->Arg(16)->Arg(1'000)->Arg(100'000);

// `Author.ratings` is a generated list of integers: each push_back goes through the
// accessor, which checks the owner and finds the collection made at the first one.
void BM_GeneratedPushBack(benchmark::State &state) {
    auto const values = shuffled(std::size_t(state.range(0)));
    std::size_t allocations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Model model = Model::create(kivra::ModelConstellation());
        Author const author = Author::create(model);
        std::size_t const before = kivra::bench::allocations();
        state.ResumeTiming();
        {
            kivra::Transaction transaction = model->beginTransaction(false);
            for (std::int32_t value : values)
                author->getRatingsMutable().push_back(value);
            transaction.commit();
        }
        state.PauseTiming();
        allocations += kivra::bench::allocations() - before;
        if (author->getRatings().size() != values.size())
            state.SkipWithError("lost an entry");
        model->destroy();
        state.ResumeTiming();
    }
    auto const entries = double(state.iterations()) * double(values.size());
    state.counters["allocs/entry"] = double(allocations) / entries;
    state.counters["ns/entry"] = benchmark::Counter(entries, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GeneratedPushBack)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

// One push_back on each of 1000 authors in one revertible transaction, commit included.
// With 0 entries held the first touch makes the collection; with some, the record copies
// them all, once per element and transaction.
void BM_GeneratedFirstTouch(benchmark::State &state) {
    std::size_t const held = std::size_t(state.range(0));
    std::size_t const count = 1000;
    std::size_t allocations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Model model = Model::create(kivra::ModelConstellation());
        std::vector<Author> authors;
        for (std::size_t i = 0; i < count; ++i) {
            authors.push_back(Author::create(model));
            if (held)
                authors.back()->getRatingsMutable().assign(std::vector<std::int32_t>(held, 1));
        }
        std::size_t const before = kivra::bench::allocations();
        state.ResumeTiming();
        {
            kivra::Transaction transaction = model->beginRevertibleTransaction();
            for (Author const &author : authors)
                author->getRatingsMutable().push_back(2);
            transaction.commit();
        }
        state.PauseTiming();
        allocations += kivra::bench::allocations() - before;
        authors.clear();
        model->destroy();
        state.ResumeTiming();
    }
    auto const elements = double(state.iterations()) * double(count);
    state.counters["allocs/element"] = double(allocations) / elements;
    state.counters["ns/element"] = benchmark::Counter(elements, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GeneratedFirstTouch)->Arg(0)->Arg(100)->Unit(benchmark::kMicrosecond);

} // namespace
