// SPDX-License-Identifier: Apache-2.0
//
// A system log that keeps its lines. Control characters are escaped: "\n", "\t", else "\x1b". Any
// thread.
#pragma once

#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/log.h"

namespace thmp {

class RecordingLog : public SystemLog {
 public:
  std::vector<std::string> lines() const;
  /// How many lines contain `text`.
  std::size_t count(std::string_view text) const;
  void clear();

  // SystemLog.
  void write(std::string_view line) noexcept override;

 private:
  mutable Mutex mutex_;
  std::vector<std::string> lines_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
