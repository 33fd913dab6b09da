#pragma once
// Not API: the working table of a query run.

#include "core/PageMemory.hpp"

#include <kivra/ModelElement.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace kivra::query {

/// Leaves what `resize` adds unwritten: a table of rows is written whole right after it
/// grows, and zeroing a large one first is a pass over fresh memory for nothing.
///
/// A table of a megabyte or more takes whole huge pages of its own, from the process's stock
/// of pages given back when it has a block of that size. The heap maps a block that large
/// afresh for each run and gives it back after, and a large join faulted in, zeroed and
/// unmapped its tables four kilobytes at a time: two fifths of what the run cost. A huge
/// page is one fault for two megabytes, none when it comes from the stock, and a table no
/// smaller than half of one wastes at most what it uses.
template <class T> struct UnwrittenAllocator : std::allocator<T> {
    static constexpr std::size_t hugeFrom = detail::hugePageSize / 2 / sizeof(T);

    template <class U> struct rebind {
        using other = UnwrittenAllocator<U>;
    };
    UnwrittenAllocator() noexcept = default;
    template <class U> UnwrittenAllocator(UnwrittenAllocator<U> const &) noexcept {}
    T *allocate(std::size_t n) {
        if (n >= hugeFrom)
            return static_cast<T *>(detail::takePages(n * sizeof(T)));
        return std::allocator<T>::allocate(n);
    }
    void deallocate(T *at, std::size_t n) noexcept {
        if (n >= hugeFrom)
            detail::givePages(at, n * sizeof(T));
        else
            std::allocator<T>::deallocate(at, n);
    }
    template <class U> void construct(U *at) noexcept(std::is_nothrow_default_constructible_v<U>) {
        ::new (static_cast<void *>(at)) U;
    }
    template <class U, class... A> void construct(U *at, A &&...arguments) {
        ::new (static_cast<void *>(at)) U(std::forward<A>(arguments)...);
    }
};

/// A position in a run's list of elements. Half a word: a large join's rows are most of
/// what it writes, and no model holds four thousand million elements.
using Cell = std::uint32_t;
/// The elements that a run's rows name, each once.
using Elements = std::vector<ModelElement::Impl *, UnwrittenAllocator<ModelElement::Impl *>>;
/// Positions of elements, row after row.
using Cells = std::vector<Cell, UnwrittenAllocator<Cell>>;

/// Rows of elements, one entry per column; `instanceIds` names the instance of each column.
/// The rows lie flat, one after another, as positions in `elements`: a row costs no
/// allocation, and moving one touches no element.
struct ResultSet {
    std::vector<std::size_t> instanceIds;
    /// What the rows name, null for no element. A run names elements of the model it reads,
    /// which keeps them alive while the run lasts: a count taken and given back on each
    /// would be two atomic operations per element for nothing.
    Elements elements;
    /// Row after row, one position in `elements` per column.
    Cells cells;
    /// What `addRow` was given, kept alive with the table.
    std::vector<ModelElement> held;

    std::size_t width() const noexcept { return instanceIds.size(); }
    std::size_t rowCount() const noexcept { return instanceIds.empty() ? 0 : cells.size() / instanceIds.size(); }
    Cell const *row(std::size_t index) const noexcept { return cells.data() + index * width(); }
    ModelElement::Impl *element(std::size_t index, std::size_t column) const noexcept {
        return elements[row(index)[column]];
    }
    /// The element at a row and column, as a handle of its own.
    ModelElement at(std::size_t index, std::size_t column) const { return ModelElement::fromImpl(element(index, column)); }
    /// Appends a row that names `row`, one element per column.
    void addRow(std::vector<ModelElement> const &row) {
        for (ModelElement const &element : row) {
            cells.push_back(static_cast<Cell>(elements.size()));
            elements.push_back(element.get());
            held.push_back(element);
        }
    }
};

} // namespace kivra::query
