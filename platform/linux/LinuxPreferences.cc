// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxPreferences.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "base/plist.h"
#include "platform/linux/TemporaryFile.h"
#include "platform/linux/posix_io.h"
#include "platform/linux/thread.h"

namespace thmp {
namespace {

constexpr char kFileName[] = "defaults.plist";
constexpr char kDamagedName[] = "defaults.plist.damaged";
constexpr char kLockName[] = "defaults.plist.lock";
constexpr char kNewName[] = "defaults.plist.new";

/// Changes that come close together are written once.
constexpr std::chrono::milliseconds kGathering{250};

bool sameState(const struct stat& a, const struct stat& b) {
  return sameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

/// The lock that processes take around reading and replacing the file. A process that is stopped
/// while it holds it does not keep the others for long: each write is whole without it, too.
Descriptor lockFile(int folder) {
  Descriptor lock = openAt(folder, kLockName, O_RDWR | O_CREAT | O_NOFOLLOW, kPrivateFileMode);
  if (!lock || ::fchmod(lock.get(), kPrivateFileMode) != 0) return lock;
  for (int attempt = 0; attempt < 20 && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return lock;
}

std::optional<Dictionary> dictionaryOf(std::string_view bytes, Error& error) {
  const auto root = readPropertyList(bytes, kBatchLimits, &error);
  std::optional<Dictionary> values = root ? root->asDictionary() : std::nullopt;
  if (root && !values) {
    fail(&error,
         Error{std::string(kPropertyListErrorDomain),
               static_cast<std::int64_t>(PropertyListError::kDamaged), "no dictionary", nullptr});
  }
  return values;
}

}  // namespace

std::string defaultsFile(const std::string& folder) { return folder + "/" + kFileName; }

Result<Dictionary> lookAtDefaults(const std::string& folder) {
  const std::string path = defaultsFile(folder);
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file && (errno == ENOENT || errno == ENOTDIR)) return Dictionary();
  const auto bytes = file ? readRegularFile(file.get(), kBatchLimits.maxBytes) : std::nullopt;
  if (!bytes) return Error::posix(errno, path);
  Error error;
  std::optional<Dictionary> values = dictionaryOf(*bytes, error);
  if (values) return *std::move(values);
  error.description = path + ": " + error.description;
  return error;
}

LinuxPreferences::LinuxPreferences(std::string folder, SystemLog& log)
    : folder_(std::move(folder)), log_(log) {
  const Lock lock(fileMutex_);
  load();
}

LinuxPreferences::~LinuxPreferences() {
  std::thread writer;
  {
    const Lock lock(mutex_);
    ended_ = true;
    writer.swap(writer_);
  }
  changed_.notify_all();
  if (writer.joinable()) writer.join();
  flush();
}

Value LinuxPreferences::get(const std::string& key) {
  const Lock lock(mutex_);
  return values_[key];
}

void LinuxPreferences::set(const std::string& key, const Value& value) {
  const Lock lock(mutex_);
  values_.set(key, value);
  noteChange(key);
}

void LinuxPreferences::remove(const std::string& key) { set(key, Value()); }

void LinuxPreferences::change(const std::string& key,
                              const std::function<void(Value& value)>& edit) {
  const Lock lock(mutex_);
  if (Value* const value = values_.edit(key)) {
    edit(*value);
    if (value->isNull()) values_.erase(key);
  } else {
    Value made;
    edit(made);
    values_.set(key, std::move(made));
  }
  noteChange(key);
}

/// Has it written soon.
void LinuxPreferences::noteChange(const std::string& key) {
  changedKeys_.insert(key);
  const bool writerKnows = std::exchange(writeWanted_, true);
  if (!writer_.joinable() && !ended_) {
    writer_ = startThread("user-defaults", [this] { writeBehind(); });
  }
  if (!writerKnows) changed_.notify_one();
}

bool LinuxPreferences::flush() {
  bool written = false;
  const Lock lock(fileMutex_);
  runGuarded([&]() THMP_NO_THREAD_SAFETY_ANALYSIS { written = write(); });
  return written;
}

void LinuxPreferences::load() {
  const Descriptor folder = openAt(AT_FDCWD, folder_, O_RDONLY | O_DIRECTORY);
  if (!folder) return;
  const Descriptor lock = lockFile(folder.get());
  if (!adoptFile(folder.get())) {
    tellErrno("the user defaults cannot be read: ", "cannot read the file in");
  }
}

void LinuxPreferences::writeBehind() {
  for (;;) {
    {
      const Lock lock(mutex_);
      while (!writeWanted_ && !ended_) changed_.wait(mutex_);
      const auto until = std::chrono::steady_clock::now() + kGathering;
      while (!ended_ && changed_.wait_until(mutex_, until) != std::cv_status::timeout) {
      }
      if (ended_) return;
      writeWanted_ = false;
    }
    const Lock lock(fileMutex_);
    runGuarded([this]() THMP_NO_THREAD_SAFETY_ANALYSIS { write(); });
  }
}

bool LinuxPreferences::write() {
  {
    const Lock lock(mutex_);
    if (changedKeys_.empty()) return true;
  }
  const auto failed = [this](const char* what) THMP_NO_THREAD_SAFETY_ANALYSIS {
    return tellErrno("the user defaults cannot be written: ", what);
  };
  if (!createFolders(folder_)) return failed("cannot make the folder");
  const Descriptor folder = openAt(AT_FDCWD, folder_, O_RDONLY | O_DIRECTORY);
  if (!folder) return failed("cannot open the folder");
  const Descriptor lock = lockFile(folder.get());
  if (!adoptFile(folder.get())) return failed("cannot read the file in");
  Dictionary values;
  std::set<std::string> keys;
  {
    const Lock state(mutex_);
    values = values_;
    keys.swap(changedKeys_);
  }
  Error error;
  const auto bytes = writeBinaryPropertyList(values, &error);
  if (bytes && replaceFile(folder.get(), *bytes)) {
    failing_ = false;
    return true;
  }
  const int number = errno;
  {
    const Lock state(mutex_);
    changedKeys_.merge(keys);
  }
  if (!bytes) return tell("the user defaults cannot be written: " + error.text());
  errno = number;
  return failed("cannot replace the file in");
}

/// Takes in what another process has written since the file was seen last; our own changes stay.
/// False when a file stands there that may be sound and cannot be read: then it must not be
/// replaced.
bool LinuxPreferences::adoptFile(int folder) {
  const auto status = statAt(folder, kFileName);
  if (!status) return errno == ENOENT;
  if (known_ && sameState(*status, *known_)) return true;
  const Descriptor file = openAt(folder, kFileName, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  std::optional<std::string> bytes;
  if (file) bytes = readRegularFile(file.get(), kBatchLimits.maxBytes);
  struct stat seen = {};
  if (!bytes || ::fstat(file.get(), &seen) != 0) return false;
  Error error;
  std::optional<Dictionary> found = dictionaryOf(*bytes, error);
  if (!found) {
    log_.write("tallyhive: the user defaults are damaged and were set aside as " + folder_ + "/" +
               kDamagedName + ": " + error.text());
    return ::renameat(folder, kFileName, folder, kDamagedName) == 0;
  }
  known_ = seen;
  const Lock lock(mutex_);
  for (const std::string& key : changedKeys_) found->set(key, values_[key]);
  values_ = std::move(*found);
  return true;
}

bool LinuxPreferences::replaceFile(int folder, const std::string& bytes) {
  // What a process that died has left. Nobody else writes it: the lock is ours.
  ::unlinkat(folder, kNewName, 0);
  auto file = TemporaryFile::makeNamed(folder, kNewName);
  struct stat status = {};
  if (!file || !file->write(bytes) || ::fsync(file->descriptor()) != 0 ||
      ::fstat(file->descriptor(), &status) != 0 || !file->finish() ||
      !file->renameOver(folder, kFileName)) {
    return false;
  }
  known_ = status;
  return ::fsync(folder) == 0;
}

bool LinuxPreferences::tell(const std::string& what) {
  if (!std::exchange(failing_, true)) log_.write("tallyhive: " + what);
  return false;
}

bool LinuxPreferences::tellErrno(const std::string& what, const std::string& why) {
  Error error;
  failWithErrno(&error, why + " " + folder_);
  return tell(what + error.text());
}

}  // namespace thmp
