// SPDX-License-Identifier: Apache-2.0
//
// What the fuzz targets share. Each target is one function from bytes to a sound end: whatever the
// bytes are, nothing crashes, no property of the target is broken, and the bounds on time and
// memory hold, which are taken here for all of them (entry.cc). A target keeps no state from one
// input to the next that could change what an input does. One thread, but for what a target itself
// starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace thmp::fuzz {

// The target: both are defined once in each program.
void runInput(std::string_view bytes);

/// What one input of up to 1 MiB may cost, all that the target does with it together.
struct Bounds {
  double seconds;     // of processor time, in an optimised build; sanitizers get twenty times that
  std::size_t bytes;  // allocated at a time; held where AddressSanitizer counts
  /// What the product does with such bytes, once; null where that is no one thing. The replay
  /// holds it to the bounds below.
  void (*parse)(std::string_view bytes) = nullptr;
};
extern const Bounds kBounds;
inline constexpr std::size_t kMiB = std::size_t{1} << 20;
/// For one parse of up to 1 MiB.
inline constexpr double kParseSeconds = 0.05;
inline constexpr std::size_t kParseBytes = 64 * kMiB;

/// Says what is broken and where, and ends the process, so that libFuzzer keeps the input.
[[noreturn]] void reportBroken(const char* property, const char* file, int line);

/// `condition` is a property of the target: it holds for every input.
#define THMP_FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::thmp::fuzz::reportBroken(#condition, __FILE__, __LINE__))

/// What the inputs have cost so far.
struct Cost {
  double worstSeconds = 0;  // of processor time, for one input
  std::size_t worstBytes =
      0;  // allocated at a time beyond what was before; 0 without AddressSanitizer
};
Cost costSoFar();

/// Takes an input apart into decisions, first byte first; past its end all are 0 and empty.
class Decisions {
 public:
  explicit Decisions(std::string_view bytes) : rest_(bytes) {}

  bool atEnd() const { return rest_.empty(); }
  std::uint8_t byte() {
    if (rest_.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return first;
  }
  bool flag() { return (byte() & 1) != 0; }
  /// REQUIRES: 0 < count <= 256.
  std::size_t below(std::size_t count) { return byte() % count; }
  std::uint64_t number(int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | byte();
    return value;
  }
  /// A text behind two bytes of length, or what is left of one.
  std::string_view text() {
    const auto size = static_cast<std::size_t>(number(2));
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace thmp::fuzz
