// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "base/mutex.h"

namespace thmp {

/// Texts of messages that came a moment ago: every live query that looks at texts asks for them.
/// Any thread.
class RecentTexts {
 public:
  void put(std::int64_t id, std::string text) {
    const Lock lock(mutex_);
    std::erase_if(texts_, [id](const Kept& one) { return one.id == id; });
    texts_.push_back({id, std::move(text)});
    std::size_t bytes = 0;
    for (const Kept& one : texts_) bytes += one.text.size();
    while (texts_.size() > kMostTexts || bytes > kMostBytes) {
      bytes -= texts_.front().text.size();
      texts_.pop_front();
    }
  }

  void forget(std::int64_t id) {
    const Lock lock(mutex_);
    std::erase_if(texts_, [id](const Kept& one) { return one.id == id; });
  }

  std::optional<std::string> find(std::int64_t id) const {
    const Lock lock(mutex_);
    for (const Kept& one : texts_) {
      if (one.id == id) return one.text;
    }
    return std::nullopt;
  }

 private:
  static constexpr std::size_t kMostTexts = 64;
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20;
  struct Kept {
    std::int64_t id;
    std::string text;
  };

  mutable Mutex mutex_;
  std::deque<Kept> texts_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
