// SPDX-License-Identifier: Apache-2.0
//
// A serial queue on a thread of its own, which starts with the first closure or watch and holds the
// queue from then on: it lives as long as the process, is never joined, and what is on it stays
// reachable while the process exits.
//
// It can wait for one descriptor as well, so that what comes from the system is handled without
// another thread in between: a pass is the closures that are there by then and one look at it.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "platform/execution.h"
#include "platform/linux/Descriptor.h"

namespace thmp {

class LinuxSerialQueue final : public SerialQueue,
                               public std::enable_shared_from_this<LinuxSerialQueue> {
 public:
  static std::shared_ptr<LinuxSerialQueue> create(std::string label);

  void post(std::function<void()> closure) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }

  /// Calls `readable` on the queue whenever `descriptor` can be read, in place of the one watched
  /// before. False, with errno, when the system refuses. Any thread; never waits.
  bool watchDescriptor(std::shared_ptr<const Descriptor> descriptor,
                       std::function<void()> readable);
  /// One call may still come of a look that has begun, and the queue lets go of the descriptor
  /// after it. Any thread.
  void unwatchDescriptor();

 private:
  using Closure = std::function<void()>;
  struct Watched {
    std::shared_ptr<const Descriptor> descriptor;
    Closure readable;
  };

  explicit LinuxSerialQueue(std::string label) : label_(std::move(label)) {}

  bool start() THMP_REQUIRES(mutex_);
  void wake(int wakeUp);
  [[noreturn]] void run();
  static void waitFor(const Watched& watched, int wakeUp, int milliseconds);

  const std::string label_;
  Mutex mutex_;
  ConditionVariable changed_;
  // Made for the first descriptor to watch; from then on it wakes the thread.
  Descriptor wakeUp_ THMP_GUARDED_BY(mutex_);
  std::deque<Closure> closures_ THMP_GUARDED_BY(mutex_);
  std::shared_ptr<const Watched> watched_ THMP_GUARDED_BY(mutex_);
  bool started_ THMP_GUARDED_BY(mutex_) = false;

  // The pass's, on the queue's thread only. Not made there: nothing may end the thread, not even a
  // lack of memory.
  std::deque<Closure> taken_;
};

}  // namespace thmp
