#include "serialize/common_subsequence.h"

#include <algorithm>
#include <unordered_map>

namespace verdalune::sessionreplay {

std::vector<std::pair<std::size_t, std::size_t>> longestCommonSubsequence(
    std::span<const std::int64_t> previous, std::span<const std::int64_t> next) {
  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  if (previous.empty() || next.empty()) return pairs;

  // The common prefix and suffix are the usual case (nothing moved) and need no search.
  std::size_t head = 0;
  while (head < previous.size() && head < next.size() && previous[head] == next[head]) ++head;
  std::size_t tail = 0;
  while (tail < previous.size() - head && tail < next.size() - head &&
         previous[previous.size() - 1 - tail] == next[next.size() - 1 - tail]) {
    ++tail;
  }
  for (std::size_t i = 0; i < head; ++i) pairs.emplace_back(i, i);

  const std::span<const std::int64_t> middlePrevious = previous.subspan(head, previous.size() - head - tail);
  const std::span<const std::int64_t> middleNext = next.subspan(head, next.size() - head - tail);
  if (!middlePrevious.empty() && !middleNext.empty()) {
    std::unordered_map<std::int64_t, std::size_t> positionInPrevious;
    positionInPrevious.reserve(middlePrevious.size());
    for (std::size_t i = 0; i < middlePrevious.size(); ++i) positionInPrevious.emplace(middlePrevious[i], i);

    // Patience sorting: tails[k] is the index (into `candidates`) of the smallest last element of an
    // increasing run of length k + 1; back links rebuild the run.
    struct Candidate {
      std::size_t previous;
      std::size_t next;
    };
    std::vector<Candidate> candidates;
    std::vector<std::size_t> tails;
    std::vector<std::size_t> backLinks;
    constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    for (std::size_t j = 0; j < middleNext.size(); ++j) {
      const auto found = positionInPrevious.find(middleNext[j]);
      if (found == positionInPrevious.end()) continue;
      const std::size_t position = found->second;
      const auto slot = std::lower_bound(
          tails.begin(), tails.end(), position,
          [&](std::size_t candidate, std::size_t value) { return candidates[candidate].previous < value; });
      const std::size_t index = candidates.size();
      candidates.push_back({position, j});
      backLinks.push_back(slot == tails.begin() ? kNone : *(slot - 1));
      if (slot == tails.end()) {
        tails.push_back(index);
      } else {
        *slot = index;
      }
    }
    std::vector<std::pair<std::size_t, std::size_t>> middle;
    for (std::size_t at = tails.empty() ? kNone : tails.back(); at != kNone; at = backLinks[at]) {
      middle.emplace_back(head + candidates[at].previous, head + candidates[at].next);
    }
    pairs.insert(pairs.end(), middle.rbegin(), middle.rend());
  }

  for (std::size_t i = tail; i > 0; --i) pairs.emplace_back(previous.size() - i, next.size() - i);
  return pairs;
}

}  // namespace verdalune::sessionreplay
