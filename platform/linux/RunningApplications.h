// SPDX-License-Identifier: Apache-2.0
//
// The applications beside the host, as files "BUNDLE-ID.PID" in one folder: each application makes
// its file, holds a flock(2) on it, and keeps it. It runs from the moment its file exists while the
// process PID lives; it has quit when the file is gone, or when the process has ended and nobody
// holds the lock. Then, and only then, a file that is left is removed.
//
// The folder is watched, and a descriptor of each process tells at once when it ends. A process
// number that has gone to another process is told by that process's being younger than the file,
// which nobody holds locked.
//
// Made and used on the main thread, but for isRunning().
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/execution.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/LinuxExecution.h"

namespace thmp {

class RunningApplications {
 public:
  using Quit = std::function<void(const std::string& bundleIdentifier)>;

  /// `folder` may be missing. `quit` is called on the main thread, from the loop.
  RunningApplications(std::string folder, LinuxExecution& execution, Quit quit);
  ~RunningApplications();
  RunningApplications(const RunningApplications&) = delete;
  RunningApplications& operator=(const RunningApplications&) = delete;

  /// Begins to watch. What has quit before is removed without a word. Once.
  void start();

  /// Looks at the folder as it is now. Any thread.
  static bool isRunning(const std::string& folder, const std::string& bundleIdentifier);

  struct FileName {
    std::string bundleIdentifier;
    pid_t process = 0;
  };
  struct Found {
    FileName name;
    /// Else it has quit and left its file.
    bool running = false;
  };
  /// The applications that have a file in the folder as it is now. Any thread.
  static std::vector<Found> look(const std::string& folder);
  /// Empty when `name` is no application's.
  static std::optional<FileName> parse(std::string_view name);

 private:
  struct Entry {
    FileName name;
    Descriptor file;
    Descriptor process;  // none when it has ended, or cannot be had
    bool ended = false;  // the process, or it is another one than the file's
    bool told = false;
  };

  void scan();
  /// Tells of applications that came and went while the main thread was busy. `gone` are the names
  /// of files that the watch saw go.
  void tellOfUnseen(const std::vector<std::string>& gone);
  void add(int folder, const std::string& fileName);
  void forget(std::map<std::string, Entry>::iterator entry, bool tell);
  /// Whether the entry's file has no longer its name.
  bool removeFile(const std::string& fileName, const Entry& entry) const;
  /// Tells if the application of the entry has quit, once, and removes its file and the entry. A
  /// file that cannot be removed now keeps its entry.
  void check(const std::string& fileName);
  void watchProcess(const std::string& fileName, Entry& entry);
  void unwatchProcess(Entry& entry);

  const std::string folder_;
  LinuxExecution& execution_;
  const Quit quit_;
  bool firstScan_ = true;
  std::map<std::string, Entry> entries_;
  /// Files that went and were seen to; the watch is still to tell their names.
  std::multiset<std::string> forgotten_;
  /// Calls nothing once it is gone, as it is called and goes on the main thread.
  std::unique_ptr<DirectoryWatch> watch_;
};

}  // namespace thmp
