// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <string_view>

#include "base/value.h"

namespace thmp::testing {

/// Random values by seed. Texts are made of `pieces`, which outlive it; small numbers and elements
/// come again now and then, so that there is something to share.
class RandomValues {
 public:
  RandomValues(std::uint32_t seed, std::span<const std::string_view> pieces)
      : random_(seed), pieces_(pieces) {}

  Value value(int depth) {
    switch (below(depth > 0 ? 12 : 10)) {
      case 0:
        return below(2) == 0;
      case 1:
        return static_cast<std::int64_t>(bits() >> below(64));
      case 2:
        return bits() >> below(64);
      case 3:
        return std::bit_cast<double>(bits());
      case 4:
        return static_cast<double>(below(100'000)) / 100;
      case 5:
        return Date{static_cast<double>(static_cast<std::int64_t>(bits()) >> 20) / 8};
      case 6:
        return Data{text()};
      case 7:
      case 8:
        return text();
      case 9:
        return static_cast<std::int64_t>(below(5));
      case 10:
        return arrayOf(depth - 1);
      default:
        return dictionaryOf(depth - 1);
    }
  }

 private:
  std::uint64_t bits() { return random_(); }
  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }

  std::string text() {
    std::string text;
    for (std::uint64_t i = below(below(4) == 0 ? 40 : 4); i > 0; --i) {
      text += pieces_[below(pieces_.size())];
    }
    return text;
  }

  Value arrayOf(int depth) {
    Array array;
    for (std::uint64_t i = below(8); i > 0; --i) array.push_back(value(depth));
    if (!array.empty() && below(3) == 0) array.push_back(array[0]);
    return array;
  }

  Value dictionaryOf(int depth) {
    Dictionary dictionary;
    for (std::uint64_t i = below(8); i > 0; --i) dictionary.set(text(), value(depth));
    return dictionary;
  }

  std::mt19937_64 random_;
  std::span<const std::string_view> pieces_;
};

}  // namespace thmp::testing
