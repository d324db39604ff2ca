// SPDX-License-Identifier: Apache-2.0
//
// The search for a place in a table of numbers, as the tables of shared values and of subjects are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace thmp {

/// The slot that `holds(slot)` says is the right one, or the free one, 0, where it is to be put;
/// null for neither: somebody could make many values for one place, so after some that are others
/// none is looked at. `slots`: as many as a power of two.
template <typename Holds>
std::uint32_t* probe(std::vector<std::uint32_t>& slots, std::uint64_t hash, const Holds& holds) {
  constexpr std::size_t kMostProbes = 32;
  for (std::size_t step = 0; step < kMostProbes; ++step) {
    std::uint32_t& slot = slots[(hash + step) & (slots.size() - 1)];
    if (slot == 0 || holds(slot)) return &slot;
  }
  return nullptr;
}

}  // namespace thmp
