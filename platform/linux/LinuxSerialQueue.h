// SPDX-License-Identifier: Apache-2.0
//
// A serial queue on a thread of its own, which starts with the first closure and holds the queue
// from then on: it lives as long as the process, is never joined, and what is on it stays reachable
// while the process exits.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "platform/execution.h"

namespace thmp {

class LinuxSerialQueue final : public SerialQueue,
                               public std::enable_shared_from_this<LinuxSerialQueue> {
 public:
  static std::shared_ptr<LinuxSerialQueue> create(std::string label);

  void post(std::function<void()> closure) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }

 private:
  explicit LinuxSerialQueue(std::string label) : label_(std::move(label)) {}

  [[noreturn]] void run();

  const std::string label_;
  Mutex mutex_;
  ConditionVariable wake_;
  std::deque<std::function<void()>> closures_ THMP_GUARDED_BY(mutex_);
  bool started_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
