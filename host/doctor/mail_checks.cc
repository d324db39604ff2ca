// SPDX-License-Identifier: Apache-2.0
//
// The mail folders: named, readable, not withheld by the system, and not more than can be watched.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <charconv>

#include "host/doctor/checks.h"
#include "host/store/MailFolders.h"
#include "platform/linux/posix_io.h"

namespace thmp::doctor {
namespace {

// What the host watches besides mail: the exchange, the applications, the folders above them.
constexpr std::size_t kOtherWatches = 32;
// One for the mail, one for the exchange, one for the rest.
constexpr std::uint64_t kInstances = 3;

Finding checkMailFolder(const std::string& path, const Library* library, std::size_t& folders) {
  const std::string subject = "mail folder";
  const std::string why =
      library != nullptr ? library->whyUnreachable(path) : lookAt(path).unreadable;
  if (!why.empty()) {
    return fail(subject,
                fmt::format("{}: {}; its mail is not found until it can be read: bring it back, or "
                            "name others with tallyhive-mailhost index --mail DIR",
                            path, why));
  }
  const MailTree tree = walkMail(path, path);
  folders += tree.folders.size();
  const std::size_t closed = tree.unreadable.size() + tree.failed.size();
  if (closed > 0) {
    const UnreadablePath& first = tree.unreadable.empty() ? tree.failed[0] : tree.unreadable[0];
    return warn(subject, fmt::format("{}: {} in it cannot be read, such as {}: {}; {}", path,
                                     counted(closed, "folder"), first.path, first.reason,
                                     tree.unreadable.empty() ? "rename it"
                                                             : "run chmod u+rx on what is yours"));
  }
  if (tree.mailboxes.empty()) {
    return warn(subject, path +
                             ": no mail in it (Maildir, *.eml or *.emlx); name another with "
                             "tallyhive-mailhost index --mail DIR");
  }
  return ok(subject, path + ": " + counted(tree.mailboxes.size(), "mailbox"));
}

std::optional<std::uint64_t> numberIn(const std::string& path) {
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY);
  // In one read: what is left of such a number is not told in a second.
  std::array<char, 32> text{};
  const ssize_t size = file ? ::read(file.get(), text.data(), text.size()) : -1;
  std::uint64_t number = 0;
  if (size <= 0 || std::from_chars(text.data(), text.data() + size, number).ec != std::errc()) {
    return std::nullopt;
  }
  return number;
}

}  // namespace

MailLook checkMailFolders(const Result<std::vector<std::string>>& remembered,
                          const Library* library) {
  MailLook look;
  if (!remembered) {
    look.findings = {fail("user defaults", remembered.error().description)};
    return look;
  }
  if (remembered->empty()) {
    look.findings = {warn("mail folder",
                          "none is named yet; name one with tallyhive-mailhost index --mail DIR")};
  }
  for (const std::string& path : *remembered) {
    look.findings.push_back(checkMailFolder(path, library, look.folders));
  }
  return look;
}

Findings checkProtectedFolders(const FullDiskAccess& access,
                               const std::vector<std::string>& mailFolders) {
  Findings findings;
  if (access.thmp_hasFullDiskAccess()) return findings;
  for (const std::string& folder : mailFolders) {
    std::string location;
    if (access.thmp_isDescendantOfKnownFullDiskAccessLocation(folder, &location) ||
        access.thmp_isAncestorOfKnownFullDiskAccessLocation(folder, &location)) {
      findings.push_back(
          fail("protected", fmt::format("the system withholds {}, which {} needs; grant this "
                                        "program Full Disk Access in the system settings",
                                        location, folder)));
    }
  }
  return findings;
}

WatchLimits watchLimits() {
  WatchLimits limits;
  limits.watches = numberIn("/proc/sys/fs/inotify/max_user_watches");
  limits.instances = numberIn("/proc/sys/fs/inotify/max_user_instances");
  std::array<Descriptor, kInstances> instances;
  for (Descriptor& instance : instances) {
    instance = Descriptor(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!instance) limits.instancesLeft = false;
  }
  return limits;
}

Finding checkWatches(const WatchLimits& limits, std::size_t mailFolders, bool serving) {
  const std::string subject = "watches";
  if (!limits.watches || !limits.instances) {
    return warn(subject,
                "how many folders the system watches cannot be found out; is /proc there?");
  }
  const bool tooFew = *limits.instances < kInstances;
  // A host that serves has its own already.
  if (tooFew || (!limits.instancesLeft && !serving)) {
    return fail(subject,
                fmt::format("all {} of this user are taken, so requests would not be seen; "
                            "run sudo sysctl fs.inotify.max_user_instances={}",
                            counted(*limits.instances, "inotify instance"),
                            std::bit_ceil(*limits.instances * 2 + kInstances)));
  }
  const std::size_t needed = mailFolders + kOtherWatches;
  if (needed > *limits.watches) {
    return warn(
        subject,
        fmt::format("{} of mail, and the system watches {} for a user, so new mail "
                    "is seen late; run sudo sysctl fs.inotify.max_user_watches={}",
                    counted(mailFolders, "folder"), *limits.watches, std::bit_ceil(needed * 2)));
  }
  return ok(subject, fmt::format("{} of mail, the system watches {} for a user",
                                 counted(mailFolders, "folder"), *limits.watches));
}

}  // namespace thmp::doctor
