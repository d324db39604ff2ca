// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxSerialQueue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
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
  bool first = false;
  int wakeUp = -1;
  {
    const Lock lock(mutex_);
    first = closures_.empty();
    wakeUp = wakeUp_.get();
    closures_.push_back(std::move(closure));
    // Without a thread the closures wait for the next post, which tries again.
    start();
  }
  // Without the lock, which the woken thread takes first.
  if (first && !isCurrent()) wake(wakeUp);
}

bool LinuxSerialQueue::isCurrent() const { return currentQueue == this; }

bool LinuxSerialQueue::watchDescriptor(std::shared_ptr<const Descriptor> descriptor,
                                       std::function<void()> readable) {
  int wakeUp = -1;
  {
    const Lock lock(mutex_);
    if (!wakeUp_) wakeUp_ = Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeUp_) return false;
    if (!start()) {
      errno = EAGAIN;
      return false;
    }
    watched_ = std::make_shared<const Watched>(Watched{std::move(descriptor), std::move(readable)});
    wakeUp = wakeUp_.get();
  }
  wake(wakeUp);
  return true;
}

void LinuxSerialQueue::unwatchDescriptor() {
  int wakeUp = -1;
  {
    const Lock lock(mutex_);
    watched_ = nullptr;
    wakeUp = wakeUp_.get();
  }
  wake(wakeUp);
}

/// Whether the thread runs.
bool LinuxSerialQueue::start() {
  if (started_) return true;
  std::thread thread = startThread(label_, [self = shared_from_this()] { self->run(); });
  started_ = thread.joinable();
  if (started_) thread.detach();
  return started_;
}

void LinuxSerialQueue::wake(int wakeUp) {
  changed_.notify_one();
  const std::uint64_t one = 1;
  if (wakeUp >= 0) [[maybe_unused]]
    const ssize_t written = ::write(wakeUp, &one, sizeof one);
}

void LinuxSerialQueue::run() {
  currentQueue = this;
  for (;;) {
    std::shared_ptr<const Watched> watched;
    int wakeUp = -1;
    {
      const Lock lock(mutex_);
      while (closures_.empty() && !watched_) changed_.wait(mutex_);
      taken_.swap(closures_);
      watched = watched_;
      wakeUp = wakeUp_.get();
    }
    const bool idle = taken_.empty();
    for (; !taken_.empty(); taken_.pop_front()) runGuarded(taken_.front());
    if (watched) waitFor(*watched, wakeUp, idle ? -1 : 0);
  }
}

void LinuxSerialQueue::waitFor(const Watched& watched, int wakeUp, int milliseconds) {
  std::array<pollfd, 2> ready = {{{wakeUp, POLLIN, 0}, {watched.descriptor->get(), POLLIN, 0}}};
  if (::poll(ready.data(), ready.size(), milliseconds) <= 0) return;
  std::uint64_t count = 0;
  if (ready[0].revents != 0) {
    [[maybe_unused]] const ssize_t size = ::read(wakeUp, &count, sizeof count);
  }
  if (ready[1].revents != 0) runGuarded(watched.readable);
}

}  // namespace thmp
