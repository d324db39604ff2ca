// SPDX-License-Identifier: Apache-2.0
//
// Where the host keeps what is its own, and the one lock that says which process keeps it up to
// date.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/XdgFolders.h"

namespace thmp {

/// In the user defaults: the mail folders that were named last, absolute.
inline constexpr char kMailFoldersKey[] = "mailFolders";

struct HostFolders {
  explicit HostFolders(const XdgFolders& folders)
      : library(folders.data + "/tallyhive-mailhost/library.sqlite"),
        caches(folders.cache + "/tallyhive-mailhost"),
        index(caches + "/index.sqlite"),
        lock(folders.data + "/tallyhive-mailhost/host.lock"),
        defaults(folders.config + "/tallyhive-mailhost") {}

  std::string library;
  std::string caches;  // the folder of the index and what belongs to it
  std::string index;
  std::string lock;
  std::string defaults;  // the folder of the user defaults
};

/// Held by the one process that writes library and index; given back when destroyed, and when the
/// process ends however it does.
class HostLock {
 public:
  struct Holder {
    std::string command;  // "serve" or "index"
    std::int64_t process = 0;
    /// "process 4711 (tallyhive-mailhost serve)"
    std::string text() const;
    /// Why no other process may write library and index now, and what to do.
    std::string refusal() const;
  };
  /// Who holds it now; empty when nobody does. Holds it shared for the moment of the look.
  static std::optional<Holder> holder(const std::string& path);

  /// An error says which process holds it and as what: "serve" or "index".
  static Result<std::unique_ptr<HostLock>> take(const std::string& path,
                                                const std::string& command);
  ~HostLock();
  HostLock(const HostLock&) = delete;
  HostLock& operator=(const HostLock&) = delete;

 private:
  explicit HostLock(int descriptor) : descriptor_(descriptor) {}
  const int descriptor_;
};

/// The mail folders that the user defaults name; none when there are no defaults yet. An error, in
/// one line that says what to do, when they cannot be read.
Result<std::vector<std::string>> rememberedMailFolders(const XdgFolders& xdg);

/// The mail folders to use: those given, made absolute; without any the remembered ones. An error
/// when one that is given is no folder, or none that can be read; without any, as for those.
Result<std::vector<std::string>> chooseMailFolders(const std::vector<std::string>& given,
                                                   const XdgFolders& xdg);

/// Remembers them in the user defaults, on disk when it returns. False when that fails, which the
/// defaults have logged.
bool rememberMailFolders(const std::vector<std::string>& folders, LinuxPreferences& preferences);

/// When none is given and none remembered.
inline constexpr char kNoMailFolderText[] = "no mail folder is known yet; name one with --mail DIR";

/// A line about a mail folder that is not there or cannot be read, and `why`.
std::string unreachableFolderText(const std::string& folder, const std::string& why);

}  // namespace thmp
