// The tables of a run: one large enough for huge pages of its own grows, is copied and
// shrinks as a small one does, and each block goes back where it came from.

#include "query/ResultSet.hpp"

#include <gtest/gtest.h>

#include <cstdint>

namespace kivra::query {
namespace {

TEST(ResultSet, ATableGrowsOntoHugePagesAndShrinksBack) {
    Cells cells;
    // Four megabytes, grown one cell at a time: blocks from the heap, then mapped ones.
    for (std::uint32_t i = 0; i < (1u << 20); ++i)
        cells.push_back(i);
    Cells copy = cells;
    EXPECT_EQ(copy, cells);
    copy.resize(1000);
    copy.shrink_to_fit();
    ASSERT_EQ(copy.size(), 1000u);
    EXPECT_EQ(copy.back(), 999u);
    cells.clear();
    cells.shrink_to_fit();
    EXPECT_EQ(cells.capacity(), 0u);
}

} // namespace
} // namespace kivra::query
