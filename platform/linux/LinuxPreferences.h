// SPDX-License-Identifier: Apache-2.0
//
// The user defaults: one property-list dictionary in one file, read at construction, kept in
// memory, written behind on a thread of its own within a second of a change.
//
// The file is replaced whole, and is on the disk (file, then folder) before the old one is given
// up. A damaged file is set aside under its name and ".damaged"; one that cannot be read for want
// of descriptors or rights, or is no file, stays, and nothing is written in its place. Where
// several processes keep one file, each writes what it has changed itself into what it finds; the
// last writer of a key wins. What fails is tried again with the next change, and told once in the
// log. Any thread.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/error.h"
#include "base/mutex.h"
#include "base/result.h"
#include "base/value.h"
#include "platform/linux/Descriptor.h"
#include "platform/log.h"
#include "platform/preferences.h"

namespace thmp {

/// The file that keeps the user defaults in `folder`.
std::string defaultsFile(const std::string& folder);

/// The defaults that `folder` holds now, for who only looks: nothing is locked, made or set aside.
/// Empty when there is no file yet. An error, which begins with the file's path, in the domain of
/// property lists when it is damaged, else the operating system's.
Result<Dictionary> lookAtDefaults(const std::string& folder);

class LinuxPreferences final : public Preferences {
 public:
  /// The file is `folder`/defaults.plist; `folder` is made with the first write.
  LinuxPreferences(std::string folder, SystemLog& log);
  /// Writes what is not written yet.
  ~LinuxPreferences() override;
  LinuxPreferences(const LinuxPreferences&) = delete;
  LinuxPreferences& operator=(const LinuxPreferences&) = delete;

  Value get(const std::string& key) override;
  void set(const std::string& key, const Value& value) override;
  void remove(const std::string& key) override;
  /// Atomic.
  void change(const std::string& key, const std::function<void(Value& value)>& edit) override;

  /// Writes what is not written yet, before it returns. False when that fails.
  bool flush();

 private:
  void load() THMP_REQUIRES(fileMutex_);
  void noteChange(const std::string& key) THMP_REQUIRES(mutex_);
  void writeBehind();
  bool write() THMP_REQUIRES(fileMutex_);
  bool adoptFile(int folder) THMP_REQUIRES(fileMutex_);
  bool replaceFile(int folder, const std::string& bytes) THMP_REQUIRES(fileMutex_);
  /// Writes the line unless the last one told of a failure, too. Always false.
  bool tell(const std::string& what) THMP_REQUIRES(fileMutex_);
  bool tellErrno(const std::string& what, const std::string& why) THMP_REQUIRES(fileMutex_);

  const std::string folder_;
  SystemLog& log_;

  /// Held over the file's reading and writing; taken before mutex_.
  Mutex fileMutex_;
  /// What the file was when it was read or written last.
  std::optional<struct stat> known_ THMP_GUARDED_BY(fileMutex_);
  bool failing_ THMP_GUARDED_BY(fileMutex_) = false;

  Mutex mutex_;
  ConditionVariable changed_;
  Dictionary values_ THMP_GUARDED_BY(mutex_);
  std::set<std::string> changedKeys_ THMP_GUARDED_BY(mutex_);
  bool writeWanted_ THMP_GUARDED_BY(mutex_) = false;
  bool ended_ THMP_GUARDED_BY(mutex_) = false;
  std::thread writer_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
