#pragma once
// Counts calls of the global allocation functions, which AllocationCounter.cpp replaces
// in every benchmark program.

#include <cstddef>

namespace kivra::bench {
/// Allocations made so far by the calling thread.
std::size_t allocations() noexcept;
} // namespace kivra::bench
