// SPDX-License-Identifier: Apache-2.0
//
// What the contract suites need of an implementation of the boundary. Each suite runs once for
// every implementation of this build; a fixture is made for each test and holds nothing of others.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/mutex.h"
#include "platform/platform.h"

namespace thmp::contract {

/// The file system as other programs use it. Operations that fail fail the test.
class Scene {
 public:
  virtual ~Scene() = default;
  /// An empty folder that only this fixture knows.
  virtual std::string freshFolder() = 0;
  virtual void makeFolder(const std::string& path) = 0;
  virtual void writeFile(const std::string& path, std::string_view bytes) = 0;
  virtual void makeLink(const std::string& path, const std::string& target) = 0;
  virtual void makeFifo(const std::string& path) = 0;
  virtual void makeUnwritable(const std::string& folder) = 0;
  /// By its access bits.
  virtual void makeUnreadable(const std::string& folder) = 0;
  /// A folder of another user's, who might read it by its access bits. Only where one may mount.
  virtual void makeAnothers(const std::string& folder) = 0;
  virtual void rename(const std::string& from, const std::string& to) = 0;
  /// With all it holds.
  virtual void erase(const std::string& path) = 0;
  /// Links not followed.
  virtual bool hasEntry(const std::string& path) = 0;
  virtual std::string contents(const std::string& path) = 0;
  virtual std::vector<std::string> entries(const std::string& folder) = 0;
  /// The access bits, such as 0600; empty where there are none.
  virtual std::optional<unsigned> mode(const std::string& path) = 0;
};

class FilesFixture {
 public:
  virtual ~FilesFixture() = default;
  virtual Files& files() = 0;
  virtual Scene& scene() = 0;
  /// From here to the fixture's end the process is no user whom access rights do not bind.
  virtual void dropPrivileges() {}
};

/// A count that one thread raises and another waits for.
class Counter {
 public:
  void raise() {
    const Lock lock(mutex_);
    ++count_;
    raised_.notify_all();
  }
  int count() const {
    const Lock lock(mutex_);
    return count_;
  }
  /// Until the count is `least`, or a generous time has passed. Whether it is.
  bool waitFor(int least);

 private:
  mutable Mutex mutex_;
  ConditionVariable raised_;
  int count_ THMP_GUARDED_BY(mutex_) = 0;
};

/// Calls `closure` when the last copy of the result is destroyed.
std::shared_ptr<void> onDestruction(std::function<void()> closure);

/// Runs `body` on `count` threads at once, each with its number, and waits for all.
void runOnThreads(int count, const std::function<void(int number)>& body);

class ExecutionFixture {
 public:
  virtual ~ExecutionFixture() = default;
  virtual Execution& execution() = 0;
  virtual Scene& scene() = 0;
  /// Lets serial queues and watches run until `counter` has come to `least`. Whether it has.
  virtual bool waitFor(Counter& counter, int least) = 0;
  /// Runs the main queue until `done` or a generous time has passed. Whether it is done.
  virtual bool runMainQueueUntil(const std::function<bool()>& done) = 0;
  virtual void closeMainQueue() = 0;
};

class PreferencesFixture {
 public:
  virtual ~PreferencesFixture() = default;
  virtual Preferences& preferences() = 0;
  /// The host ends and is started again.
  virtual void relaunch() = 0;
};

class PasteboardsFixture {
 public:
  virtual ~PasteboardsFixture() = default;
  virtual Pasteboards& pasteboards() = 0;
  /// What another process finds; the null value when it finds none.
  virtual Value read(const std::string& name, const std::string& type) = 0;
};

class IdentityFixture {
 public:
  virtual ~IdentityFixture() = default;
  virtual Identity& identity() = 0;
};

class ApplicationFixture {
 public:
  virtual ~ApplicationFixture() = default;
  virtual Application& application() = 0;
  virtual Scene& scene() = 0;
  // Each returns once all observers have been called.
  /// Once for each fixture.
  virtual void sendWillTerminate() = 0;
  virtual void sendDidBecomeActive() = 0;
  virtual void sendApplicationTerminated(const std::string& bundleIdentifier) = 0;
};

class LogFixture {
 public:
  virtual ~LogFixture() = default;
  virtual SystemLog& log() = 0;
  /// What reached the log so far, without marks of time and origin.
  virtual std::vector<std::string> lines() = 0;
};

template <typename Fixture>
std::unique_ptr<Fixture> makeFixture() {
  return std::make_unique<Fixture>();
}

/// One implementation: its name, and what makes its fixtures.
struct Implementation {
  std::string name;
  std::function<std::unique_ptr<FilesFixture>()> files;
  std::function<std::unique_ptr<ExecutionFixture>()> execution;
  std::function<std::unique_ptr<PreferencesFixture>()> preferences;
  std::function<std::unique_ptr<PasteboardsFixture>()> pasteboards;
  std::function<std::unique_ptr<IdentityFixture>()> identity;
  std::function<std::unique_ptr<ApplicationFixture>()> application;
  std::function<std::unique_ptr<LogFixture>()> log;
};

/// How the test library shows one.
inline void PrintTo(const Implementation& implementation, std::ostream* stream) {
  *stream << implementation.name;
}

/// All of this build.
std::vector<Implementation> implementations();

/// The base of the suites: `fixture()` of the implementation under test.
template <typename Fixture, std::function<std::unique_ptr<Fixture>()> Implementation::*kMake>
class ContractTest : public testing::TestWithParam<Implementation> {
 protected:
  Fixture& fixture() { return *fixture_; }

 private:
  const std::unique_ptr<Fixture> fixture_ = (GetParam().*kMake)();
};

inline std::string implementationName(const testing::TestParamInfo<Implementation>& info) {
  return info.param.name;
}

}  // namespace thmp::contract

/// Runs the suite over all implementations.
#define THMP_RUN_CONTRACT(suite)                                                   \
  INSTANTIATE_TEST_SUITE_P(Platform, suite,                                        \
                           ::testing::ValuesIn(thmp::contract::implementations()), \
                           thmp::contract::implementationName)
