// SPDX-License-Identifier: Apache-2.0
//
// The main loop, serial queues, the folder watches and the clock.
//
// Made on the main thread. Outlives what it gave, but for serial queues, which nothing needs to
// outlive.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/execution.h"
#include "platform/linux/InotifyWatches.h"
#include "platform/linux/MainLoop.h"
#include "platform/log.h"

namespace thmp {

class LinuxExecution final : public Execution {
 public:
  explicit LinuxExecution(SystemLog& log) : watches_(log) {}

  MainLoop& mainQueue() override { return loop_; }
  InotifyWatches& watches() { return watches_; }

  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override;
  std::unique_ptr<DirectoryWatch> makeDirectoryWatch(const std::string& directory,
                                                     std::shared_ptr<SerialQueue> queue,
                                                     std::function<void()> changed) override;
  Date now() override;

 private:
  MainLoop loop_;
  InotifyWatches watches_;
};

}  // namespace thmp
