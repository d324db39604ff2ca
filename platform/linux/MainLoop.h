// SPDX-License-Identifier: Apache-2.0
//
// The host's main thread: closures, timers, descriptors and signals on one epoll instance.
//
// Made on the main thread, which alone may run it and watch descriptors and signals with it. One
// pass of the loop is: at most one descriptor, the closures that are there by then, the timers that
// are due by then. Every closure and callback runs inside a noexcept boundary.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "platform/execution.h"
#include "platform/linux/Descriptor.h"

namespace thmp {

class MainLoop final : public MainQueue {
 public:
  MainLoop();
  ~MainLoop() override;
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  void post(std::function<void()> closure) override;
  void postAfter(std::chrono::milliseconds delay, std::function<void()> closure) override;
  bool isCurrent() const override;

  /// Runs until stop(), which may also have come before. False when the system gave the loop no
  /// descriptors.
  bool run();
  /// Ends run() after the closure in hand. What is left stays for a later run(). Any thread.
  void stop();
  /// From here on closures are destroyed unrun, those that wait too. Any thread.
  void close();

  /// Calls `readable` whenever `fd`, which stays the caller's, can be read, until it is unwatched.
  /// False, with errno, when the system refuses. Main thread.
  bool watchDescriptor(int fd, std::function<void()> readable);
  /// REQUIRES: `fd` is still open. Main thread; also from inside the callback.
  void unwatchDescriptor(int fd);

  /// Takes `signals` out of their usual ways: they are blocked in this thread, and so in all that
  /// start later, and each that comes calls `received`. Once, before other threads start. False,
  /// with errno, when the system refuses. Main thread.
  bool watchSignals(std::initializer_list<int> signals, std::function<void(int signal)> received);

 private:
  using Closure = std::function<void()>;
  struct Timer {
    std::chrono::steady_clock::time_point due;
    std::uint64_t number;
    Closure closure;
  };

  static bool later(const Timer& a, const Timer& b);
  void wake();
  int timeoutInMilliseconds() THMP_EXCLUDES(mutex_);
  void waitForDescriptor();
  void runClosures();
  void runTimers();
  bool stopping() THMP_EXCLUDES(mutex_);
  void readSignals(const std::function<void(int)>& received);

  const std::thread::id thread_;
  Descriptor epoll_;
  Descriptor wakeUp_;
  Descriptor signals_;

  // Main thread only.
  std::map<int, std::shared_ptr<const Closure>> watched_;

  Mutex mutex_;
  std::deque<Closure> closures_ THMP_GUARDED_BY(mutex_);
  std::vector<Timer> timers_ THMP_GUARDED_BY(mutex_);  // a heap, the next one in front
  std::uint64_t timersMade_ THMP_GUARDED_BY(mutex_) = 0;
  bool stopped_ THMP_GUARDED_BY(mutex_) = false;
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
