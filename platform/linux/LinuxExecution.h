// SPDX-License-Identifier: Apache-2.0
//
// The main loop, serial queues, the folder watches and the clock.
//
// Made on the main thread. Outlives what it gave, but for serial queues, which nothing needs to
// outlive.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "platform/execution.h"
#include "platform/linux/InotifyWatches.h"
#include "platform/linux/MainLoop.h"
#include "platform/log.h"

namespace thmp {

class LinuxExecution final : public Execution {
 public:
  explicit LinuxExecution(SystemLog& log) : log_(log), watches_(log) {}

  MainLoop& mainQueue() override { return loop_; }
  /// Those that report to the main queue.
  InotifyWatches& watches() { return watches_; }
  /// Tries again to set the watches that could not be set, of all queues.
  void retryWatches();

  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override;
  std::unique_ptr<DirectoryWatch> makeDirectoryWatch(const std::string& directory,
                                                     std::shared_ptr<SerialQueue> queue,
                                                     std::function<void()> changed) override;
  Date now() override;

 private:
  SystemLog& log_;
  MainLoop loop_;
  InotifyWatches watches_;
  Mutex mutex_;
  std::map<std::shared_ptr<SerialQueue>, std::unique_ptr<InotifyWatches>> queueWatches_
      THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
