// SPDX-License-Identifier: Apache-2.0
//
// What a command waits for: changes in folders, a signal to end, a reader of standard output that
// has gone, or time. From open() on SIGINT, SIGTERM, SIGIO and SIGHUP are blocked, the last unless
// it was ignored, as nohup(1) has it. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/FolderEvents.h"
#include "platform/linux/Descriptor.h"

namespace thmp::client {

/// What wakes of the entries of a folder.
enum class Entries { kCome, kGo };

enum class Wake { kFolder, kSignal, kOutputClosed, kTimeout };

class Wakeups {
 public:
  static Result<std::unique_ptr<Wakeups>> open();
  Wakeups(const Wakeups&) = delete;
  Wakeups& operator=(const Wakeups&) = delete;

  /// Wakes from now on when entries of `folder` come, go or are replaced, or when it goes itself.
  /// A folder that is watched already stays so.
  Result<void> watch(const std::string& folder);

  /// Wakes from now on when entries of `folder` come, by whatever name they had before, or go. For
  /// commands that end soon: after watch() the kernel may hold an ending process for 20 ms, longer
  /// than a search takes.
  Result<void> watchEntries(const std::string& folder, Entries which);

  /// From now on a reader of standard output that has gone wakes nobody: for what prints nothing.
  void ignoreOutput() { watchesOutput_ = false; }

  /// Waits until one of them happens or `deadline` has passed; without one as long as it takes.
  Wake wait(std::optional<std::chrono::steady_clock::time_point> deadline);
  /// The signal that wait() returned for.
  int signal() const { return signal_; }

 private:
  Wakeups() = default;

  std::optional<FolderEvents> events_;  // once something is watched by them
  std::vector<Descriptor> folders_;     // with directory notification
  Descriptor signals_;
  bool watchesOutput_ = true;
  int signal_ = 0;
};

}  // namespace thmp::client
