// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "host/doctor/checks.h"

namespace thmp::doctor {

Finding ok(std::string subject, std::string text) {
  return {Finding::Level::kOk, std::move(subject), std::move(text)};
}

Finding warn(std::string subject, std::string text) {
  return {Finding::Level::kWarn, std::move(subject), std::move(text)};
}

Finding fail(std::string subject, std::string text) {
  return {Finding::Level::kFail, std::move(subject), std::move(text)};
}

std::string counted(std::uint64_t count, const std::string& one) {
  const bool sibilant = one.ends_with('x') || one.ends_with('s');
  return fmt::format("{} {}{}", count, one, count == 1 ? "" : sibilant ? "es" : "s");
}

std::string ageText(double seconds) {
  if (seconds < 120) return fmt::format("{:.0f} s", seconds < 0 ? 0 : seconds);
  if (seconds < 2 * 3600) return fmt::format("{:.0f} min", seconds / 60);
  if (seconds < 2 * 86400) return fmt::format("{:.0f} h", seconds / 3600);
  return fmt::format("{:.0f} days", seconds / 86400);
}

std::optional<Finding> checkFolder(const std::string& subject, const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int why = errno;
    if (::lstat(path.c_str(), &status) == 0) {
      return fail(subject, path + " is a link that leads nowhere; remove it");
    }
    if (why == ENOENT) return std::nullopt;
    return fail(subject, fmt::format("{} cannot be reached: {}; look at the folders above it", path,
                                     std::generic_category().message(why)));
  }
  if (!S_ISDIR(status.st_mode)) {
    return fail(subject, path + " is no folder; move it out of the way");
  }
  if (status.st_uid != ::geteuid()) {
    return fail(subject, fmt::format("{} belongs to another user; give it back with chown, or move "
                                     "it out of the way",
                                     path));
  }
  const unsigned mode = status.st_mode & 07777U;
  const std::string remedy =
      fmt::format("{} has mode {:04o}; run chmod 700 '{}'", path, mode, path);
  if ((mode & 0700U) != 0700U) return fail(subject, remedy);
  if ((mode & 0077U) != 0) return warn(subject, remedy + ", as others can look into it");
  return ok(subject, path);
}

std::optional<Finding> checkMakeable(const std::string& subject, const std::string& path) {
  std::string folder = path;
  do {
    folder.resize(std::max<std::size_t>(folder.rfind('/'), 1));
  } while (::access(folder.c_str(), F_OK) != 0 && errno == ENOENT && folder != "/");
  if (::access(folder.c_str(), W_OK | X_OK) == 0) return std::nullopt;
  return fail(subject, fmt::format("{} is not there and cannot be made in {}: {}; make that folder "
                                   "writable for you",
                                   path, folder, std::generic_category().message(errno)));
}

Finding checkHost(const std::optional<HostLock::Holder>& holder) {
  const std::string subject = "host";
  if (!holder) return warn(subject, "none serves; start one with tallyhive-mailhost serve");
  if (holder->command == "serve") return ok(subject, holder->text() + " serves");
  return warn(subject, holder->text() +
                           " is at work, none serves; start one afterwards with "
                           "tallyhive-mailhost serve");
}

Finding checkBundle(const Result<std::string>& version) {
  const std::string subject = "plug-in";
  if (!version) return fail(subject, version.error().description);
  return ok(subject, "version " + *version + ", fits this host");
}

}  // namespace thmp::doctor
