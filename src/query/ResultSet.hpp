#pragma once
// Not API: the working table of a query run.

#include <kivra/Handles.hpp>

#include <cstddef>
#include <vector>

namespace kivra::query {

/// Rows of elements, one entry per column; `instanceIds` names the instance of each column.
struct ResultSet {
    std::vector<std::size_t> instanceIds;
    std::vector<std::vector<ModelElement>> rows;
};

} // namespace kivra::query
