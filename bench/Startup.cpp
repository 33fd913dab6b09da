// The cost of the metamodel's first use: the registry, the standard types and the whole
// self-description, built once per process. One JSON line per run.
//
//   build/bench/kivra_startup

#include "AllocationCounter.hpp"

#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaPackageMeta.hpp>
#include <kivra/meta/Package.hpp>

#include <chrono>
#include <cstdio>
#include <malloc.h>

int main() {
    using Clock = std::chrono::steady_clock;
    std::size_t const heapBefore = mallinfo2().uordblks;
    std::size_t const allocationsBefore = kivra::bench::allocations();
    Clock::time_point const start = Clock::now();
    kivra::meta::Class const &cls = kivra::meta::Class::metaClass();
    double const ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::size_t const heap = mallinfo2().uordblks - heapBefore;
    std::size_t const allocations = kivra::bench::allocations() - allocationsBefore;
    std::size_t const elements = kivra::meta::MetaRegistry::getInstance()->getFrozenMetaRegistryModel()->elementCount();
    std::printf("{\"step\":\"describe the metamodel\",\"ms\":%.2f,\"heap_bytes\":%zu,\"allocations\":%zu,"
                "\"registry_elements\":%zu,\"class_is_its_own_class\":%s}\n",
                ms, heap, allocations, elements, cls->getMetaClass() == cls ? "true" : "false");
    return 0;
}
