// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/MainLoop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/linux/thread.h"

namespace thmp {
namespace {

bool addToEpoll(int epoll, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

MainLoop::MainLoop()
    : thread_(std::this_thread::get_id()),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (epoll_ && wakeUp_ && !addToEpoll(epoll_.get(), wakeUp_.get())) epoll_.reset();
}

MainLoop::~MainLoop() { close(); }

void MainLoop::post(std::function<void()> closure) {
  {
    const Lock lock(mutex_);
    if (closed_) return;
    closures_.push_back(std::move(closure));
  }
  wake();
}

void MainLoop::postAfter(std::chrono::milliseconds delay, std::function<void()> closure) {
  // Far enough, and no overflow.
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
  const auto due =
      std::chrono::steady_clock::now() + std::clamp(delay, std::chrono::milliseconds(0), kLongest);
  {
    const Lock lock(mutex_);
    if (closed_) return;
    timers_.push_back(Timer{due, timersMade_++, std::move(closure)});
    std::push_heap(timers_.begin(), timers_.end(), later);
  }
  wake();
}

bool MainLoop::isCurrent() const { return std::this_thread::get_id() == thread_; }

bool MainLoop::run() {
  if (!epoll_ || !wakeUp_) return false;
  while (!stopping()) {
    waitForDescriptor();
    runClosures();
    runTimers();
  }
  const Lock lock(mutex_);
  stopped_ = false;
  return true;
}

void MainLoop::stop() {
  {
    const Lock lock(mutex_);
    stopped_ = true;
  }
  wake();
}

void MainLoop::close() {
  std::deque<Closure> closures;
  std::vector<Timer> timers;
  // Destroyed outside the lock: a closure's end may post again.
  const Lock lock(mutex_);
  closed_ = true;
  closures.swap(closures_);
  timers.swap(timers_);
}

bool MainLoop::later(const Timer& a, const Timer& b) {
  return std::pair(a.due, a.number) > std::pair(b.due, b.number);
}

void MainLoop::wake() {
  const std::uint64_t one = 1;
  // A full counter is as good as a written one.
  [[maybe_unused]] const ssize_t written = ::write(wakeUp_.get(), &one, sizeof one);
}

bool MainLoop::stopping() {
  const Lock lock(mutex_);
  return stopped_;
}

int MainLoop::timeoutInMilliseconds() {
  constexpr std::int64_t kLongest = 3'600'000;
  const Lock lock(mutex_);
  if (!closures_.empty()) return 0;
  if (timers_.empty()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(timers_.front().due -
                                                                 std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, kLongest));
}

void MainLoop::waitForDescriptor() {
  // One event at a time, so that none is left over for a descriptor that a callback unwatches.
  epoll_event event = {};
  if (::epoll_wait(epoll_.get(), &event, 1, timeoutInMilliseconds()) != 1) return;
  if (event.data.fd == wakeUp_.get()) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(wakeUp_.get(), &count, sizeof count);
    return;
  }
  const auto watched = watched_.find(event.data.fd);
  if (watched == watched_.end()) return;
  const std::shared_ptr<const Closure> readable = watched->second;
  runGuarded(*readable);
}

void MainLoop::runClosures() {
  std::size_t count = 0;
  {
    const Lock lock(mutex_);
    count = closures_.size();
  }
  for (; count > 0 && !stopping(); --count) {
    Closure closure;
    {
      const Lock lock(mutex_);
      if (closures_.empty()) return;  // closed meanwhile
      closure = std::move(closures_.front());
      closures_.pop_front();
    }
    runGuarded(closure);
  }
}

void MainLoop::runTimers() {
  const auto now = std::chrono::steady_clock::now();
  std::uint64_t made = 0;
  {
    const Lock lock(mutex_);
    made = timersMade_;
  }
  while (!stopping()) {
    Closure closure;
    {
      const Lock lock(mutex_);
      // One that a timer of this pass has set waits for the next pass.
      if (timers_.empty() || timers_.front().due > now || timers_.front().number >= made) return;
      std::pop_heap(timers_.begin(), timers_.end(), later);
      closure = std::move(timers_.back().closure);
      timers_.pop_back();
    }
    runGuarded(closure);
  }
}

bool MainLoop::watchDescriptor(int fd, std::function<void()> readable) {
  if (!addToEpoll(epoll_.get(), fd)) return false;
  watched_[fd] = std::make_shared<const Closure>(std::move(readable));
  return true;
}

void MainLoop::unwatchDescriptor(int fd) {
  if (watched_.erase(fd) > 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

bool MainLoop::watchSignals(std::initializer_list<int> signals, std::function<void(int)> received) {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : signals) ::sigaddset(&set, signal);
  if (::pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return false;
  signals_ = Descriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  return signals_ && watchDescriptor(signals_.get(), [this, received = std::move(received)] {
           readSignals(received);
         });
}

void MainLoop::readSignals(const std::function<void(int)>& received) {
  signalfd_siginfo info = {};
  while (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    received(static_cast<int>(info.ssi_signo));
  }
}

}  // namespace thmp
