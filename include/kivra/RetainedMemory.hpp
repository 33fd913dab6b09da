#pragma once
/// \file
/// The memory that the process keeps, once models give it back, for the models made after them.

#include <cstddef>

namespace kivra {

/// Bounds the memory, in bytes, that the process keeps once models give it back, for the models
/// it makes next: they write into pages the system has handed over already, where fresh ones cost
/// a fault and a clearing each (about a third of the time of making a model of millions of
/// elements). The bound starts at 544 MiB; a process that makes and drops models of several GiB
/// in turn gains from a higher one. What is kept beyond a lowered bound is freed at once, and a
/// bound of 0 keeps nothing: a model's memory then leaves with it. Safe from any thread.
void setRetainedMemoryLimit(std::size_t bytes) noexcept;
/// The bound set last.
std::size_t getRetainedMemoryLimit() noexcept;
/// The memory kept now, in bytes: within the bound.
std::size_t getRetainedMemory() noexcept;

} // namespace kivra
