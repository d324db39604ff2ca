// SPDX-License-Identifier: Apache-2.0
//
// The folders through which clients and plug-in speak, and what the dead have left in their shared
// places.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "base/plist.h"
#include "host/doctor/checks.h"
#include "messaging/message_names.h"
#include "platform/linux/PasteboardFolder.h"
#include "platform/linux/RunningApplications.h"
#include "platform/linux/posix_io.h"

namespace thmp::doctor {
namespace {

// Both sides take what is theirs within moments.
constexpr double kLateSeconds = 60;

/// Message files that wait in a folder.
struct Waiting {
  std::uint64_t count = 0;
  double oldestSeconds = 0;
  /// Messages for all clients, which nobody takes.
  std::uint64_t notices = 0;

  bool late() const { return oldestSeconds >= kLateSeconds; }
};

/// PluginQuit, and PluginReady that answers nobody: they are read by all and taken by none.
bool isForAll(int folder, const std::string& name) {
  const Descriptor file = openAt(folder, name, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  const auto bytes = file ? readRegularFile(file.get(), kMessageLimits.maxBytes) : std::nullopt;
  const auto message = bytes ? readPropertyList(*bytes, kMessageLimits) : std::nullopt;
  const auto root = message ? message->asDictionary() : std::nullopt;
  if (!root) return false;
  const auto kind = (*root)[kNameKey].asText();
  if (kind == kPluginQuitName) return true;
  const auto userInfo = (*root)[kUserInfoKey].asDictionary();
  return kind == kPluginReadyName && userInfo && (*userInfo)[kClientNameKey].isNull();
}

Waiting waitingIn(const std::string& path, Date now) {
  Waiting waiting;
  const Descriptor folder = openAt(AT_FDCWD, path, O_RDONLY | O_DIRECTORY);
  const auto names = folder ? listFolder(folder.get()) : std::nullopt;
  if (!names) return waiting;
  for (const std::string& name : *names) {
    if (!isMessageFileName(name)) continue;
    const auto status = statAt(folder.get(), name);
    if (!status) continue;  // taken meanwhile
    if (isForAll(folder.get(), name)) {
      ++waiting.notices;
      continue;
    }
    ++waiting.count;
    const double age = now.unixSeconds() - static_cast<double>(status->st_mtim.tv_sec);
    waiting.oldestSeconds = std::max(waiting.oldestSeconds, age);
  }
  return waiting;
}

Finding checkInbox(const std::string& path, bool serving, Date now) {
  const std::string subject = "in";
  const Waiting waiting = waitingIn(path, now);
  const std::uint64_t count = waiting.count + waiting.notices;
  if (count == 0) return ok(subject, "nothing waits");
  const std::string what =
      counted(count, "request") + ", the oldest " + ageText(waiting.oldestSeconds) + " old";
  if (!serving) {
    return warn(subject, what + ", and nobody to answer; the next host deletes them unanswered");
  }
  if (!waiting.late()) return ok(subject, counted(count, "request") + " on the way");
  return warn(subject, what +
                           ": the host could not read or remove them, as its log says; remove "
                           "them");
}

Finding checkOutbox(const std::string& path, Date now) {
  const std::string subject = "out";
  const Waiting waiting = waitingIn(path, now);
  if (waiting.count == 0) {
    if (waiting.notices == 0) return ok(subject, "nothing waits");
    return ok(subject, "nothing waits but " + counted(waiting.notices, "notice") + " for all");
  }
  if (!waiting.late()) return ok(subject, counted(waiting.count, "message") + " on the way");
  return warn(subject,
              fmt::format("{} that no client took, the oldest {} old; the next start of "
                          "the host removes them",
                          counted(waiting.count, "message"), ageText(waiting.oldestSeconds)));
}

std::string missing(const std::string& path) { return path + " is not there yet; "; }

}  // namespace

Findings checkExchange(const XdgFolders& xdg, bool serving, Date now) {
  const std::string data = xdg.data + "/Mail/Tallyhive";
  const auto absent = [&](const std::string& subject, const std::string& path) {
    if (const auto refused = checkMakeable(subject, path)) return *refused;
    return serving ? fail(subject, missing(path) + "the host could not make it, as its log says")
                   : warn(subject, missing(path) + "the plug-in makes it when a host serves");
  };
  const std::optional<Finding> whole = checkFolder("exchange", data);
  if (!whole) return {absent("exchange", data)};
  Findings findings = {*whole};
  if (whole->level == Finding::Level::kFail) return findings;
  for (const char* name : {kInboxName, kOutboxName}) {
    const std::string path = data + "/" + name;
    const std::optional<Finding> folder = checkFolder(name, path);
    if (!folder) {
      findings.push_back(absent(name, path));
      continue;
    }
    if (folder->level != Finding::Level::kOk) findings.push_back(*folder);
    if (folder->level == Finding::Level::kFail) continue;
    findings.push_back(name == std::string_view(kInboxName) ? checkInbox(path, serving, now)
                                                            : checkOutbox(path, now));
  }
  return findings;
}

Finding checkPasteboards(const XdgFolders& xdg, bool serving) {
  const std::string subject = "pasteboards";
  const std::string path = PasteboardFolder(xdg.cache).path();
  for (const std::string& folder : {xdg.cache + "/tallyhive", path}) {
    struct stat status {};
    if (::lstat(folder.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      return fail(subject, folder + " is a link, which is refused; remove it");
    }
    const std::optional<Finding> looked = checkFolder(subject, folder);
    if (!looked) return ok(subject, "none");
    if (looked->level != Finding::Level::kOk) return *looked;
  }
  const Descriptor folder = openAt(AT_FDCWD, path, O_RDONLY | O_DIRECTORY);
  const auto names = folder ? listFolder(folder.get()) : std::nullopt;
  const std::size_t count = names ? names->size() : 0;
  if (count == 0) return ok(subject, "none");
  if (serving) return ok(subject, std::to_string(count) + " in use");
  return warn(subject, counted(count, "pasteboard") +
                           " left by a host that is gone; the next start of a host removes them");
}

Findings checkApplications(const XdgFolders& xdg, bool serving) {
  const std::string subject = "applications";
  if (xdg.runtimeIsSubstitute) {
    struct stat status {};
    const bool there = ::lstat(xdg.runtime.c_str(), &status) == 0;
    if (there && (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid())) {
      return {fail(subject, xdg.runtime + " is not your own folder, and is refused; set "
                                          "XDG_RUNTIME_DIR to a folder of your own")};
    }
  }
  const std::string path = xdg.runtime + "/tallyhive/applications";
  const std::optional<Finding> folder = checkFolder(subject, path);
  if (!folder) return {ok(subject, "none has run yet")};
  if (folder->level != Finding::Level::kOk) return {*folder};
  Findings findings;
  std::uint64_t running = 0;
  for (const RunningApplications::Found& found : RunningApplications::look(path)) {
    if (found.running) {
      ++running;
      continue;
    }
    const std::string file =
        fmt::format("{}/{}.{}", path, found.name.bundleIdentifier, found.name.process);
    findings.push_back(warn(subject, file + " is stale: its process has ended; " +
                                         (serving ? "remove it" : "the next host removes it")));
  }
  if (findings.empty()) {
    findings.push_back(
        ok(subject, running == 0 ? "none runs" : fmt::format("{} running", running)));
  }
  return findings;
}

}  // namespace thmp::doctor
