// SPDX-License-Identifier: Apache-2.0
//
// All of the boundary on Linux but the host's own engine and mail library. Made once, on the main
// thread, by an entry point, before any other thread starts. It ignores SIGPIPE for the process, so
// that a closed output or log is an error and not the host's end.
#pragma once

#include <string>

#include "platform/linux/LinuxApplication.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/LinuxFiles.h"
#include "platform/linux/LinuxIdentity.h"
#include "platform/linux/LinuxLog.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/PasteboardStore.h"
#include "platform/linux/XdgFolders.h"
#include "platform/platform.h"

namespace thmp {

class LinuxPlatform {
 public:
  struct Options {
    /// What the system log's lines stand under, and the folder of the user defaults.
    std::string programName = "tallyhive-mailhost";
  };

  explicit LinuxPlatform(XdgFolders folders) : LinuxPlatform(std::move(folders), Options()) {}
  LinuxPlatform(XdgFolders folders, const Options& options);
  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  /// The bundle of references that the core takes; valid while this object and the arguments are.
  Platform platform(Spotlight& spotlight, Mail& mail);

  const XdgFolders& folders() const { return folders_; }
  LinuxLog& log() { return log_; }
  LinuxFiles& files() { return files_; }
  LinuxExecution& execution() { return execution_; }
  LinuxIdentity& identity() { return identity_; }
  LinuxPreferences& preferences() { return preferences_; }
  PasteboardStore& pasteboards() { return pasteboards_; }
  LinuxApplication& application() { return application_; }

 private:
  const XdgFolders folders_;
  LinuxLog log_;
  LinuxFiles files_;
  LinuxExecution execution_;
  LinuxIdentity identity_;
  LinuxPreferences preferences_;
  PasteboardStore pasteboards_;
  LinuxApplication application_;
};

}  // namespace thmp
