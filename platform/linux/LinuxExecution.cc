// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxExecution.h"

#include <chrono>
#include <utility>
#include <vector>

#include "platform/linux/LinuxSerialQueue.h"

namespace thmp {

std::shared_ptr<SerialQueue> LinuxExecution::makeSerialQueue(const std::string& label) {
  return LinuxSerialQueue::create(label);
}

std::unique_ptr<DirectoryWatch> LinuxExecution::makeDirectoryWatch(
    const std::string& directory, std::shared_ptr<SerialQueue> queue,
    std::function<void()> changed) {
  const Lock lock(mutex_);
  auto watches = queueWatches_.find(queue);
  if (watches == queueWatches_.end()) {
    auto made =
        std::make_unique<InotifyWatches>(log_, std::static_pointer_cast<LinuxSerialQueue>(queue));
    watches = queueWatches_.emplace(queue, std::move(made)).first;
  }
  return watches->second->makeWatch(
      directory,
      [queue = std::move(queue)](std::function<void()> closure) {
        queue->post(std::move(closure));
      },
      std::move(changed));
}

void LinuxExecution::retryWatches() {
  std::vector<InotifyWatches*> all = {&watches_};
  {
    const Lock lock(mutex_);
    for (const auto& [queue, watches] : queueWatches_) all.push_back(watches.get());
  }
  // Without the lock: a retry may log.
  for (InotifyWatches* const watches : all) watches->retry();
}

Date LinuxExecution::now() {
  const std::chrono::duration<double> since = std::chrono::system_clock::now().time_since_epoch();
  return Date::fromUnixSeconds(since.count());
}

}  // namespace thmp
