// SPDX-License-Identifier: Apache-2.0
//
// Watches on folders, on one inotify instance (a user has 128 of them), read by a thread of their
// own or by the serial queue that they report to, which then needs no other thread to wake it.
//
// A watch follows a path, not a folder: besides the folder itself the one above it is watched for
// the name, and all others on the way for being moved or deleted. So a folder that is replaced, or
// that does not exist yet, is watched again as soon as one stands there, without polling. Links
// that are part of the path are followed when the watch is set; one that is changed later is
// noticed in the folder's own name only.
//
// Any thread may use it. Who reads only posts and logs, and has ended when the destructor returns;
// watches that outlive it stay silent.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/execution.h"
#include "platform/log.h"

namespace thmp {

class LinuxSerialQueue;

class InotifyWatches {
 public:
  /// Hands a closure to the queue on which a watch reports. Never waits.
  using Poster = std::function<void(std::function<void()> closure)>;

  /// The system's descriptor of an instance; tests count and refuse them.
  using MakeInstance = std::function<int()>;

  /// `log` takes what the user should know of watches that fail or are set again.
  explicit InotifyWatches(SystemLog& log);
  /// Read by `reader`, which watches no other descriptor; null for a thread of their own.
  InotifyWatches(SystemLog& log, std::shared_ptr<LinuxSerialQueue> reader);
  InotifyWatches(SystemLog& log, std::shared_ptr<LinuxSerialQueue> reader,
                 MakeInstance makeInstance);
  ~InotifyWatches();
  InotifyWatches(const InotifyWatches&) = delete;
  InotifyWatches& operator=(const InotifyWatches&) = delete;

  /// The names of entries that were removed or renamed, in order; one that came and went in
  /// between, too.
  using Gone = std::function<void(const std::vector<std::string>& names)>;

  /// See Execution::makeDirectoryWatch. `moreEvents`: inotify events to report besides entries
  /// added, removed and renamed. `gone` is called after `changed`, with what was gone before it.
  std::unique_ptr<DirectoryWatch> makeWatch(const std::string& directory, Poster post,
                                            std::function<void()> changed,
                                            std::uint32_t moreEvents = 0, Gone gone = nullptr);

  /// Tries to set the watches that could not be set, for want of descriptors, watches, memory or
  /// permission. Each one that is set now reports once.
  void retry();

  class Registry;

 private:
  const std::shared_ptr<Registry> registry_;
};

}  // namespace thmp
