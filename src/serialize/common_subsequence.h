#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay {

// A longest common subsequence of two id sequences in which no id occurs twice, as pairs of
// (index in `previous`, index in `next`) in increasing order.
//
// With unique ids the ids common to both sequences form, read in `next` order, a sequence of positions
// in `previous`; a common subsequence is exactly an increasing run of those positions. So the longest one
// is a longest increasing subsequence, found in O(n log n) time and O(n) memory instead of the
// (n + 1) × (m + 1) table, and just as long.
std::vector<std::pair<std::size_t, std::size_t>> longestCommonSubsequence(
    std::span<const std::int64_t> previous, std::span<const std::int64_t> next);

}  // namespace verdalune::sessionreplay
