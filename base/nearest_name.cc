// SPDX-License-Identifier: Apache-2.0
#include "base/nearest_name.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>

namespace thmp {

namespace {

constexpr std::size_t kLongestName = 64;
using Row = std::array<std::size_t, kLongestName + 1>;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// How many slips lead from one to the other. REQUIRES: neither is longer than kLongestName.
std::size_t slips(std::string_view a, std::string_view b) {
  Row twoAbove{};
  Row above{};
  Row row{};
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    twoAbove = above;
    above = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = lower(a[i - 1]) == lower(b[j - 1]);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
      const bool swapped = i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
                           lower(a[i - 2]) == lower(b[j - 1]);
      if (swapped) row[j] = std::min(row[j], twoAbove[j - 2] + 1);
    }
  }
  return row[b.size()];
}

}  // namespace

std::string_view nearestName(std::string_view name, std::span<const std::string_view> names) {
  if (name.empty() || name.size() > kLongestName) return {};
  std::string_view nearest;
  // One slip in three letters is still a slip; more is another word.
  std::size_t best = std::max<std::size_t>(1, name.size() / 3) + 1;
  for (const std::string_view candidate : names) {
    if (candidate.empty() || candidate.size() > kLongestName) continue;
    const std::size_t distance = slips(name, candidate);
    if (distance >= best || distance >= candidate.size()) continue;
    best = distance;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace thmp
