// What an element without generated code costs beside a generated one of the same class:
// creating 10^6 of them, their memory, and a read and a write through `Value`; and a field
// of a data type record read and written.
#include "AllocationCounter.hpp"

#include <Flavours.hpp>

#include <kivra/Model.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/reflection/ReflectiveModelElementImpl.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>
#include <library/Book.hpp>
#include <library/LibraryPackage.hpp>

#include <benchmark/benchmark.h>

#include <malloc.h>

namespace {

using kivra::Model;
using kivra::ModelElement;
using kivra::Value;
using kivra::test::Flavour;
using Tag = ModelElement::Impl::ReflectionPrivateTag;

constexpr std::size_t elementCount = 1'000'000;

std::size_t heapInUse() {
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

Flavour const &flavourOf(benchmark::State const &state) {
    return state.range(0) ? kivra::test::runtimeLibrary() : kivra::test::generatedLibrary();
}

// 10^6 books with default values in one transaction of a fresh model, through the one
// path both kinds share; the model's destruction is not timed.
void BM_CreateBooks(benchmark::State &state) {
    kivra::meta::Class const &book = flavourOf(state).book;
    double bytesPerElement = 0, allocationsPerElement = 0;
    for (auto _ : state) {
        Model model = Model::createTransientModel();
        std::size_t const heapBefore = heapInUse(), allocationsBefore = kivra::bench::allocations();
        kivra::Transaction transaction = model->beginTransaction();
        for (std::size_t i = 0; i < elementCount; ++i)
            benchmark::DoNotOptimize(book->instantiate(model));
        transaction.commit();
        bytesPerElement = double(heapInUse() - heapBefore) / double(elementCount);
        allocationsPerElement = double(kivra::bench::allocations() - allocationsBefore) / double(elementCount);
        state.PauseTiming();
        model->destroy();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * elementCount);
    state.counters["bytes/element"] = bytesPerElement;
    state.counters["allocations/element"] = allocationsPerElement;
    // The object itself lives in the model's pages, outside the heap counted above.
    state.counters["object bytes"] = double(state.range(0) ? sizeof(kivra::reflection::ReflectiveModelElementImpl)
                                                          : sizeof(kivra::test::library::Book::Impl));
}
BENCHMARK(BM_CreateBooks)->ArgName("reflective")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

// The same through the direct form, which skips the builder.
void BM_CreateReflectiveDirectly(benchmark::State &state) {
    kivra::meta::Class const &book = kivra::test::runtimeLibrary().book;
    double allocationsPerElement = 0;
    for (auto _ : state) {
        Model model = Model::createTransientModel();
        std::size_t const allocationsBefore = kivra::bench::allocations();
        kivra::Transaction transaction = model->beginTransaction();
        for (std::size_t i = 0; i < elementCount; ++i)
            benchmark::DoNotOptimize(ModelElement::createReflective(model, book, {}));
        transaction.commit();
        allocationsPerElement = double(kivra::bench::allocations() - allocationsBefore) / double(elementCount);
        state.PauseTiming();
        model->destroy();
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * elementCount);
    state.counters["allocations/element"] = allocationsPerElement;
}
BENCHMARK(BM_CreateReflectiveDirectly)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ReadAttribute(benchmark::State &state) {
    Model model = Model::createTransientModel();
    ModelElement const book = flavourOf(state).book->instantiate(model);
    kivra::meta::Property const pages = book->getMetaClass()->getPropertyByName(u"pages");
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(book->getPropertyValue(pages, Tag::PUBLIC_ACCESS));
    state.counters["allocations/read"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ReadAttribute)->ArgName("reflective")->Arg(0)->Arg(1);

// Two different values in turn, so that every write is a change, each its own transaction.
void BM_WriteAttribute(benchmark::State &state) {
    Model model = Model::createTransientModel();
    ModelElement const book = flavourOf(state).book->instantiate(model);
    kivra::meta::Property const pages = book->getMetaClass()->getPropertyByName(u"pages");
    Value const values[] = {Value(std::int32_t(1)), Value(std::int32_t(2))};
    std::size_t i = 0;
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        book->setPropertyValue(pages, values[++i & 1], Tag::PUBLIC_ACCESS);
    state.counters["allocations/write"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_WriteAttribute)->ArgName("reflective")->Arg(0)->Arg(1);

// A field of a record that holds it already: a table lookup and the `Value` copy.
void BM_ReadRecordField(benchmark::State &state) {
    auto const &library = kivra::test::library::LibraryPackage::getInstance().elements();
    kivra::reflection::ReflectiveDataType const record(library.d_Edition);
    benchmark::DoNotOptimize(record.getPropertyValue(library.p_Edition_number));
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(record.getPropertyValue(library.p_Edition_number));
    state.counters["allocations/read"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_ReadRecordField);

// Two different numbers in turn into a field that has its entry.
void BM_WriteRecordField(benchmark::State &state) {
    auto const &library = kivra::test::library::LibraryPackage::getInstance().elements();
    kivra::reflection::ReflectiveDataType record(library.d_Edition);
    Value const values[] = {Value(std::int32_t(1)), Value(std::int32_t(2))};
    record.setPropertyValue(library.p_Edition_number, values[0]);
    std::size_t i = 0;
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        record.setPropertyValue(library.p_Edition_number, values[++i & 1]);
    state.counters["allocations/write"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}
BENCHMARK(BM_WriteRecordField);

} // namespace
