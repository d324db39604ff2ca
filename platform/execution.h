// SPDX-License-Identifier: Apache-2.0
//
// Threads as the core knows them: the host's main queue, one serial queue for the exchange, a watch
// on a folder, a clock.
//
// A closure handed over runs on another thread or later on this one, never inside the call that
// hands it over. Closures that throw end there: queues run them inside a noexcept boundary.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/date.h"

namespace thmp {

/// The host's main thread. Nothing ever waits for it. Once the host is quitting the queue is
/// closed: what comes later is destroyed unrun.
class MainQueue {
 public:
  virtual ~MainQueue() = default;
  /// Runs `closure` on the main thread, in order. Any thread; never waits.
  virtual void post(std::function<void()> closure) = 0;
  /// Runs `closure` on the main thread after `delay`; with 0 right after the current pass of its
  /// run loop. Any thread.
  virtual void postAfter(std::chrono::milliseconds delay, std::function<void()> closure) = 0;
  virtual bool isCurrent() const = 0;
};

/// Runs closures one at a time in the order of posting, on a thread of its own. Lives as long as
/// the process.
class SerialQueue {
 public:
  virtual ~SerialQueue() = default;
  /// Any thread; never waits.
  virtual void post(std::function<void()> closure) = 0;
  /// Whether the caller runs on this queue.
  virtual bool isCurrent() const = 0;
  virtual const std::string& label() const = 0;
};

/// One watch on one folder. Destruction cancels.
class DirectoryWatch {
 public:
  virtual ~DirectoryWatch() = default;
  /// Begins to report. Called once.
  virtual void resume() = 0;
  /// Ends the watch without waiting: a running callback finishes, no later one begins. The watch's
  /// descriptor is closed once, on the queue. Repeats are harmless.
  virtual void cancel() = 0;
};

class Execution {
 public:
  virtual ~Execution() = default;

  virtual MainQueue& mainQueue() = 0;

  /// A new serial queue. Shared with whoever holds it; its thread ends with the process.
  virtual std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) = 0;

  /// Makes a watch on `directory`, not yet running. `changed` runs on `queue`, which this made, one
  /// call at a time, at least once after any entry is added, removed or renamed that follows
  /// resume(); neighbouring changes may be merged into one call, and it is not told which change. A
  /// folder that is deleted or moved away and made anew is watched again, with one call of
  /// `changed`. The watch holds `changed` until it ends. It never scans by itself. Never null: a
  /// folder that cannot be watched gives a watch that stays silent. Linux: inotify. macOS: a vnode
  /// source.
  virtual std::unique_ptr<DirectoryWatch> makeDirectoryWatch(const std::string& directory,
                                                             std::shared_ptr<SerialQueue> queue,
                                                             std::function<void()> changed) = 0;

  /// The time of day. Any thread.
  virtual Date now() = 0;
};

}  // namespace thmp
