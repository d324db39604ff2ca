// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxExecution.h"

#include <chrono>
#include <utility>

#include "platform/linux/LinuxSerialQueue.h"

namespace thmp {

std::shared_ptr<SerialQueue> LinuxExecution::makeSerialQueue(const std::string& label) {
  return LinuxSerialQueue::create(label);
}

std::unique_ptr<DirectoryWatch> LinuxExecution::makeDirectoryWatch(
    const std::string& directory, std::shared_ptr<SerialQueue> queue,
    std::function<void()> changed) {
  const Lock lock(mutex_);
  std::unique_ptr<InotifyWatches>& watches = queueWatches_[queue];
  if (!watches) {
    watches =
        std::make_unique<InotifyWatches>(log_, std::static_pointer_cast<LinuxSerialQueue>(queue));
  }
  return watches->makeWatch(
      directory,
      [queue = std::move(queue)](std::function<void()> closure) {
        queue->post(std::move(closure));
      },
      std::move(changed));
}

void LinuxExecution::retryWatches() {
  watches_.retry();
  const Lock lock(mutex_);
  for (const auto& [queue, watches] : queueWatches_) watches->retry();
}

Date LinuxExecution::now() {
  const std::chrono::duration<double> since = std::chrono::system_clock::now().time_since_epoch();
  return Date::fromUnixSeconds(since.count());
}

}  // namespace thmp
