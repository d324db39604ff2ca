// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxSerialQueue.h"

#include <utility>

#include "platform/linux/thread.h"

namespace thmp {
namespace {

thread_local const LinuxSerialQueue* currentQueue = nullptr;

}  // namespace

std::shared_ptr<LinuxSerialQueue> LinuxSerialQueue::create(std::string label) {
  return std::shared_ptr<LinuxSerialQueue>(new LinuxSerialQueue(std::move(label)));
}

void LinuxSerialQueue::post(std::function<void()> closure) {
  {
    const Lock lock(mutex_);
    closures_.push_back(std::move(closure));
    if (!started_) {
      // Without a thread the closures wait for the next post, which tries again.
      std::thread thread = startThread(label_, [self = shared_from_this()] { self->run(); });
      started_ = thread.joinable();
      if (started_) thread.detach();
    }
  }
  // Without the lock, which the woken thread takes first.
  wake_.notify_one();
}

bool LinuxSerialQueue::isCurrent() const { return currentQueue == this; }

void LinuxSerialQueue::run() {
  currentQueue = this;
  for (;;) {
    std::function<void()> closure;
    {
      const Lock lock(mutex_);
      while (closures_.empty()) wake_.wait(mutex_);
      closure = std::move(closures_.front());
      closures_.pop_front();
    }
    runGuarded(closure);
  }
}

}  // namespace thmp
