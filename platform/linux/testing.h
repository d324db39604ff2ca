// SPDX-License-Identifier: Apache-2.0
//
// What the tests of this folder share: a folder of their own, a log that keeps its lines, counts to
// wait for, children to kill.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "platform/linux/MainLoop.h"
#include "platform/log.h"

namespace thmp::testing {

/// A folder that is removed at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string at(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void writeFile(const std::string& path, std::string_view bytes);
/// Empty when there is none.
std::string readFile(const std::string& path);
void makeFolder(const std::string& path);
bool exists(const std::string& path);
/// The access bits; 0 when nothing stands there.
unsigned modeOf(const std::string& path);
/// Sorted.
std::vector<std::string> namesIn(const std::string& folder);
/// How many descriptors this process has open.
std::size_t openDescriptors();

class CollectingLog final : public SystemLog {
 public:
  void write(std::string_view line) noexcept override;
  std::vector<std::string> lines() const;

 private:
  mutable Mutex mutex_;
  std::vector<std::string> lines_ THMP_GUARDED_BY(mutex_);
};

/// A count that one thread raises and another waits for.
class Count {
 public:
  void raise();
  int value() const;
  /// Until the count is `least` or a generous time has passed. Whether it is.
  bool reaches(int least);

 private:
  mutable Mutex mutex_;
  ConditionVariable raised_;
  int value_ THMP_GUARDED_BY(mutex_) = 0;
};

/// Runs `loop` until something stops it. False when a generous time passes without.
bool runUntilStopped(MainLoop& loop);

/// A child that says what it has prepared, and then stays until it is killed.
class Child {
 public:
  /// `prepare` runs in the child; its result is report().
  explicit Child(const std::function<std::string()>& prepare);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t process() const { return process_; }
  const std::string& report() const { return report_; }
  /// SIGKILL. With `collect` the process is also waited for, else it stays a zombie.
  void kill(bool collect = true);

 private:
  pid_t process_ = -1;
  bool collected_ = false;
  std::string report_;
};

}  // namespace thmp::testing
