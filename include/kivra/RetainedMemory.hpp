#pragma once
/// \file
/// The memory that the process keeps, once models give it back, for the models made after them.

#include <cstddef>

namespace kivra {

/// Bounds the memory, in bytes, that the process keeps once models give it back. A model made
/// after another then writes into pages the system has handed over already, where fresh ones
/// cost a fault and a clearing by the system each: about a third of the time of making a model
/// of millions of elements. What is kept beyond a lowered bound goes back to the system at once.
/// The bound starts at 528 MiB. A process that makes and drops models of several GiB in turn
/// gains from a higher one; a process that must give its memory back when a model goes sets 0.
/// Safe from any thread.
void setRetainedMemoryLimit(std::size_t bytes) noexcept;
/// The bound set last.
std::size_t getRetainedMemoryLimit() noexcept;
/// The memory kept now, in bytes.
std::size_t getRetainedMemory() noexcept;

} // namespace kivra
