// SPDX-License-Identifier: Apache-2.0
//
// Numbers as the binary property list has them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace thmp {

/// The number in the `size` bytes at `bytes`, the highest one first. REQUIRES: at most eight.
[[gnu::always_inline]] inline std::uint64_t loadBig(const unsigned char* bytes,
                                                    std::size_t size) noexcept {
  // Those of nearly all references, one instruction each.
  if (size == 2) return static_cast<std::uint64_t>(bytes[0] << 8 | bytes[1]);
  if (size == 4) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
  }
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) number = number << 8 | bytes[i];
  return number;
}

}  // namespace thmp
