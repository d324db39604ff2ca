// SPDX-License-Identifier: Apache-2.0
//
// Binary property lists put together by hand, with any lie in the trailer or the offset table that
// a test wants to tell.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace thmp::testing {

/// `number` in `width` bytes, big-endian.
inline std::string bigEndian(std::uint64_t number, std::size_t width) {
  std::string bytes;
  for (std::size_t i = width; i > 0; --i) {
    bytes += i > 8 ? '\0' : static_cast<char>(number >> (8 * (i - 1)) & 0xFF);
  }
  return bytes;
}

/// One byte, so that objects can be written as joined pieces.
inline std::string byte(unsigned value) { return std::string(1, static_cast<char>(value)); }

/// A text, data or container's first bytes.
inline std::string head(unsigned type, std::uint64_t count) {
  if (count < 0x0F) return byte(type | static_cast<unsigned>(count));
  return byte(type | 0x0F) + byte(0x13) + bigEndian(count, 8);
}

inline std::string ascii(std::string_view text) { return head(0x50, text.size()).append(text); }

/// An array (0xA0) or dictionary (0xD0, keys first) of objects of these numbers.
inline std::string container(unsigned type, const std::vector<std::uint64_t>& members,
                             std::size_t referenceSize = 1) {
  std::string bytes = head(type, type == 0xD0 ? members.size() / 2 : members.size());
  for (std::uint64_t member : members) bytes += bigEndian(member, referenceSize);
  return bytes;
}

inline std::string array(const std::vector<std::uint64_t>& members) {
  return container(0xA0, members);
}

inline std::string dictionary(const std::vector<std::uint64_t>& members) {
  return container(0xD0, members);
}

/// What differs from the truth.
struct Lies {
  std::string header = "bplist00";
  unsigned offsetSize = 4;
  unsigned referenceSize = 1;
  std::uint64_t root = 0;
  std::optional<std::uint64_t> objectCount = std::nullopt;
  std::optional<std::uint64_t> tableOffset = std::nullopt;
  std::optional<std::vector<std::uint64_t>> offsets = std::nullopt;
};

inline std::string binaryPropertyList(const std::vector<std::string>& objects,
                                      const Lies& lies = {}) {
  std::string bytes = lies.header;
  std::vector<std::uint64_t> offsets;
  for (const std::string& object : objects) {
    offsets.push_back(bytes.size());
    bytes += object;
  }
  if (lies.offsets) offsets = *lies.offsets;
  const std::uint64_t table = bytes.size();
  for (std::uint64_t offset : offsets) bytes += bigEndian(offset, lies.offsetSize);
  bytes += bigEndian(0, 6) + byte(lies.offsetSize) + byte(lies.referenceSize);
  bytes += bigEndian(lies.objectCount.value_or(offsets.size()), 8);
  bytes += bigEndian(lies.root, 8) + bigEndian(lies.tableOffset.value_or(table), 8);
  return bytes;
}

}  // namespace thmp::testing
