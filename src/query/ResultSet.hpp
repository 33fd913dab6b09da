#pragma once
// Not API: the working table of a query run.

#include <kivra/Handles.hpp>

#include <cstddef>
#include <vector>

namespace kivra::query {

/// Rows of elements, one entry per column; `instanceIds` names the instance of each column.
/// The rows lie flat, one after another, as positions in `elements`: a row costs no
/// allocation, and moving one touches no element.
struct ResultSet {
    std::vector<std::size_t> instanceIds;
    /// What the rows name; the table keeps it alive.
    std::vector<ModelElement> elements;
    /// Row after row, one position in `elements` per column.
    std::vector<std::size_t> cells;

    std::size_t width() const noexcept { return instanceIds.size(); }
    std::size_t rowCount() const noexcept { return instanceIds.empty() ? 0 : cells.size() / instanceIds.size(); }
    std::size_t const *row(std::size_t index) const noexcept { return cells.data() + index * width(); }
    ModelElement const &at(std::size_t index, std::size_t column) const { return elements[row(index)[column]]; }
    /// Appends a row that names `row`, one element per column.
    void addRow(std::vector<ModelElement> const &row) {
        for (ModelElement const &element : row) {
            cells.push_back(elements.size());
            elements.push_back(element);
        }
    }
};

} // namespace kivra::query
