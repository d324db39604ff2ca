// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/RecordingLog.h"

#include <algorithm>
#include <utility>

namespace thmp {
namespace {

std::string escaped(std::string_view line) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      text += "\\x";
      text += kHex[byte >> 4];
      text += kHex[byte & 0xf];
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace

std::vector<std::string> RecordingLog::lines() const {
  const Lock lock(mutex_);
  return lines_;
}

std::size_t RecordingLog::count(std::string_view text) const {
  const Lock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      lines_.begin(), lines_.end(),
      [text](const std::string& line) { return line.find(text) != std::string::npos; }));
}

void RecordingLog::clear() {
  const Lock lock(mutex_);
  lines_.clear();
}

void RecordingLog::write(std::string_view line) noexcept {
  std::string text = escaped(line);
  const Lock lock(mutex_);
  lines_.push_back(std::move(text));
}

}  // namespace thmp
