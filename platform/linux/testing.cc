// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/testing.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <memory>

#include "platform/linux/posix_io.h"

/// Read by the thread sanitizer where the tests are built with it: by default it ends a child that
/// starts threads, once any test before has started one.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "die_after_fork=0";
}

namespace thmp::testing {

TemporaryFolder::TemporaryFolder() {
  path_ = std::filesystem::temp_directory_path() / ("thmp-test-" + randomHex(8));
  EXPECT_EQ(::mkdir(path_.c_str(), 0700), 0);
}

TemporaryFolder::~TemporaryFolder() { EXPECT_TRUE(removeTree(AT_FDCWD, path_)); }

void writeFile(const std::string& path, std::string_view bytes) {
  const Descriptor file = openAt(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  EXPECT_TRUE(file && writeAll(file.get(), bytes)) << path;
}

std::string readFile(const std::string& path) {
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK);
  return file ? readRegularFile(file.get(), std::size_t{1} << 28).value_or("") : "";
}

void makeFolder(const std::string& path) { EXPECT_TRUE(createFolders(path)) << path; }

bool exists(const std::string& path) { return statAt(AT_FDCWD, path).has_value(); }

unsigned modeOf(const std::string& path) {
  const auto status = statAt(AT_FDCWD, path);
  return status ? status->st_mode & 07777U : 0U;
}

std::vector<std::string> namesIn(const std::string& folder) {
  const Descriptor open = openAt(AT_FDCWD, folder, O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(open) << folder;
  auto names = listFolder(open.get()).value_or(std::vector<std::string>());
  std::sort(names.begin(), names.end());
  return names;
}

std::size_t openDescriptors() {
  const Descriptor own = openAt(AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY);
  return listFolder(own.get())->size();
}

void CollectingLog::write(std::string_view line) noexcept {
  const Lock lock(mutex_);
  lines_.emplace_back(line);
}

std::vector<std::string> CollectingLog::lines() const {
  const Lock lock(mutex_);
  return lines_;
}

void Count::raise() {
  const Lock lock(mutex_);
  ++value_;
  raised_.notify_all();
}

int Count::value() const {
  const Lock lock(mutex_);
  return value_;
}

bool Count::reaches(int least) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const Lock lock(mutex_);
  while (value_ < least) {
    if (raised_.wait_until(mutex_, deadline) == std::cv_status::timeout) return value_ >= least;
  }
  return true;
}

bool runUntilStopped(MainLoop& loop) {
  const auto late = std::make_shared<bool>(false);
  loop.postAfter(std::chrono::seconds(60), [&loop, late] {
    *late = true;
    loop.stop();
  });
  return loop.run() && !*late;
}

Child::Child(const std::function<std::string()>& prepare) {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  process_ = ::fork();
  if (process_ == 0) {
    const std::string report = prepare();
    writeAll(ends[1], report);
    ::close(ends[1]);
    for (;;) ::pause();
  }
  ::close(ends[1]);
  std::array<char, 4096> buffer = {};
  for (;;) {
    const ssize_t count = ::read(ends[0], buffer.data(), buffer.size());
    if (count <= 0) break;
    report_.append(buffer.data(), static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
}

Child::~Child() { kill(); }

void Child::kill(bool collect) {
  if (collected_) return;
  ::kill(process_, SIGKILL);
  if (!collect) return;
  ::waitpid(process_, nullptr, 0);
  collected_ = true;
}

}  // namespace thmp::testing
