// SPDX-License-Identifier: Apache-2.0
//
// What `doctor` looks at, one function a subject. Each looks and changes nothing: no folder is
// made, no lock is kept, nothing is repaired, and a host that serves meanwhile does not notice. One
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/date.h"
#include "base/result.h"
#include "host/HostFolders.h"
#include "host/store/Library.h"
#include "paths/FullDiskAccess.h"
#include "platform/linux/XdgFolders.h"

namespace thmp::doctor {

/// One line of the report.
struct Finding {
  enum class Level : std::uint8_t {
    kOk,
    kWarn,  // works, or will once the user has done something that is still to do
    kFail,  // does not work
  };
  Level level = Level::kOk;
  std::string subject;
  /// What there is, and behind a semicolon what to do about it.
  std::string text;
};
using Findings = std::vector<Finding>;

Finding ok(std::string subject, std::string text);
Finding warn(std::string subject, std::string text);
Finding fail(std::string subject, std::string text);

/// "1 file", "3 files".
std::string counted(std::uint64_t count, const std::string& one);
/// "5 s", "12 min", "3 h", "4 days".
std::string ageText(double seconds);

/// A folder of ours at `path`: there, the user's own, usable, and closed to others. Empty when it
/// is not there.
std::optional<Finding> checkFolder(const std::string& subject, const std::string& path);

/// A failure when `path`, which is not there, cannot be made either.
std::optional<Finding> checkMakeable(const std::string& subject, const std::string& path);

/// Whether a host serves. `holder`: who keeps library and index.
Finding checkHost(const std::optional<HostLock::Holder>& holder);
/// `version`: that of the bundle, or why it cannot be used.
Finding checkBundle(const Result<std::string>& version);

/// The data folder of the exchange, "in" and "out": their modes, and what lies in them.
Findings checkExchange(const XdgFolders& xdg, bool serving, Date now);

struct MailLook {
  Findings findings;
  /// In all mail folders together, themselves included.
  std::size_t folders = 0;
};
/// `library`: null when there is none to use.
MailLook checkMailFolders(const Result<std::vector<std::string>>& remembered,
                          const Library* library);

/// Those of `mailFolders` that the system withholds; none where this process may read them.
Findings checkProtectedFolders(const FullDiskAccess& access,
                               const std::vector<std::string>& mailFolders);

struct WatchLimits {
  std::optional<std::uint64_t> watches;    // of a user
  std::optional<std::uint64_t> instances;  // of a user
  /// Whether as many more as a host needs were to be had.
  bool instancesLeft = true;
};
WatchLimits watchLimits();
Finding checkWatches(const WatchLimits& limits, std::size_t mailFolders, bool serving);

struct StoreLook {
  Findings findings;
  /// Null when it cannot be used.
  std::unique_ptr<Library> library;
};
/// Library, index, and how much of the mail in `mailFolders` is in them.
StoreLook checkStores(const HostFolders& folders, const std::vector<std::string>& mailFolders,
                      bool inUse, Date now);

Finding checkPasteboards(const XdgFolders& xdg, bool serving);
/// The folder of the running applications, and files of those that have quit.
Findings checkApplications(const XdgFolders& xdg, bool serving);

}  // namespace thmp::doctor
