#include "AllocationCounter.hpp"

#include <cstdlib>
#include <new>

namespace {
// Per thread and plain: a locked increment would cost the allocations it counts more than
// the allocator does. The workloads run on one thread.
thread_local std::size_t count = 0;
} // namespace

std::size_t kivra::bench::allocations() noexcept { return count; }

// GCC cannot see that the matching delete is the one below.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void *operator new(std::size_t size) {
    ++count;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
