// SPDX-License-Identifier: Apache-2.0
//
// What a command waits for: changes in folders, a signal to end, a reader of standard output that
// has gone, or time. From open() on SIGINT, SIGTERM and SIGHUP are blocked, the last unless it was
// ignored, as nohup(1) has it. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/result.h"
#include "client/FolderEvents.h"
#include "platform/linux/Descriptor.h"

namespace thmp::client {

enum class Wake { kFolder, kSignal, kOutputClosed, kTimeout };

class Wakeups {
 public:
  static Result<std::unique_ptr<Wakeups>> open();
  Wakeups(const Wakeups&) = delete;
  Wakeups& operator=(const Wakeups&) = delete;

  /// Wakes from now on when entries of `folder` come, go or are replaced, or when it goes itself.
  /// A folder that is watched already stays so.
  Result<void> watch(const std::string& folder) { return events_.watch(folder); }

  /// From now on a reader of standard output that has gone wakes nobody: for what prints nothing.
  void ignoreOutput() { watchesOutput_ = false; }

  /// Waits until one of them happens or `deadline` has passed; without one as long as it takes.
  Wake wait(std::optional<std::chrono::steady_clock::time_point> deadline);
  /// The signal that wait() returned for.
  int signal() const { return signal_; }

 private:
  explicit Wakeups(FolderEvents events) : events_(std::move(events)) {}

  FolderEvents events_;
  Descriptor signals_;
  bool watchesOutput_ = true;
  int signal_ = 0;
};

}  // namespace thmp::client
