// SPDX-License-Identifier: Apache-2.0
//
// Which folders the operating system withholds from processes that the user has not granted Full
// Disk Access, and whether this process holds it. Offered to whoever must tell the user why mail
// cannot be read; the plug-in itself does not ask.
//
// The entry point makes one object for the process. The lists are made at their first use and never
// change afterwards. Any thread; nothing is locked while the disk is asked.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "paths/THMPPathAdditions.h"
#include "platform/application.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/log.h"

namespace thmp {

class FullDiskAccess {
 public:
  FullDiskAccess(const THMPPathAdditions& paths, Files& files, Identity& identity,
                 Application& application, SystemLog& log);

  /// thmp_knownFullDiskAccessLocations
  ///
  /// The protected locations, absolute and standardized, in the order of the stored list: the
  /// current one, unless the system says that it is an earlier one.
  const std::vector<std::string>& thmp_knownFullDiskAccessLocations() const;

  /// thmp_knownFullDiskAccessPathPrefixes
  ///
  /// The user's and the system's Library folder; empty when a known location lies outside both.
  const std::optional<std::vector<std::string>>& thmp_knownFullDiskAccessPathPrefixes() const;

  /// thmp_isAncestorOfKnownFullDiskAccessLocation:
  ///
  /// Whether `path`, its links resolved, is a known location or a folder above one. The first such
  /// location is stored in `location` if that is not null; without one `location` is left alone.
  bool thmp_isAncestorOfKnownFullDiskAccessLocation(const std::string& path,
                                                    std::string* location = nullptr) const;

  /// thmp_isDescendantOfKnownFullDiskAccessLocation:
  ///
  /// Whether `path`, its links resolved, is a known location or lies inside one; `location` as
  /// above.
  bool thmp_isDescendantOfKnownFullDiskAccessLocation(const std::string& path,
                                                      std::string* location = nullptr) const;

  /// thmp_printFDAFoldersUnderPaths:
  ///
  /// One step of a walk: takes the first folder off `paths`, writes each protected folder below it
  /// to the system log, and adds the readable ones at the end of `paths`, for the caller to go on.
  /// It looks at any depth, so that what lies deep comes up in several steps.
  void thmp_printFDAFoldersUnderPaths(std::deque<std::string>& paths) const;

  /// thmp_hasFullDiskAccess
  ///
  /// thmp_checkHasFullDiskAccess(), asked once between two activations of the host application.
  /// True on systems without this control.
  bool thmp_hasFullDiskAccess() const;

  /// thmp_checkHasFullDiskAccess
  ///
  /// True when one of the probe folders exists and the system refuses none of them.
  bool thmp_checkHasFullDiskAccess() const;

 private:
  /// The answer, and which activation it belongs to. Apart, because the notice may come when this
  /// object is gone.
  struct AccessCache {
    static constexpr std::uint64_t kNone = UINT64_MAX;
    std::atomic<std::uint64_t> activations = 0;
    /// Twice the number of activations before the check, plus one for access.
    std::atomic<std::uint64_t> answer = kNone;
  };

  /// stringByResolvingSymlinksInPath
  std::string stringByResolvingSymlinksInPath(const std::string& path) const;
  bool isSystemVersionAbove(double version) const;
  bool isRefused(const std::string& folder) const;

  const THMPPathAdditions& paths_;
  Files& files_;
  Identity& identity_;
  Application& application_;
  SystemLog& log_;

  // Each written under its own flag only.
  mutable std::once_flag locationsOnce_;
  mutable std::vector<std::string> locations_;
  mutable std::once_flag prefixesOnce_;
  mutable std::optional<std::vector<std::string>> prefixes_;
  mutable std::once_flag probeFoldersOnce_;
  mutable std::vector<std::string> probeFolders_;
  mutable std::once_flag observedOnce_;
  const std::shared_ptr<AccessCache> cache_ = std::make_shared<AccessCache>();
};

}  // namespace thmp
