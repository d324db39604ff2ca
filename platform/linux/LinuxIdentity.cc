// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxIdentity.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <utility>

#include "platform/linux/posix_io.h"
#include "platform/linux/user_records.h"

namespace thmp {
namespace {

/// Whether the file at `path` begins with `prefix`. Reads no more than that.
bool beginsWith(const std::string& path, std::string_view prefix) {
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file) return false;
  std::array<char, 16> bytes = {};
  const ssize_t count = ::read(file.get(), bytes.data(), bytes.size());
  return count > 0 &&
         std::string_view(bytes.data(), static_cast<std::size_t>(count)).starts_with(prefix);
}

}  // namespace

LinuxIdentity::LinuxIdentity(std::string home, SandboxMarks marks)
    : home_(std::move(home)), marks_(std::move(marks)) {}

std::optional<UserRecord> LinuxIdentity::currentUser() { return userRecordOf(::getuid()); }

std::optional<UserRecord> LinuxIdentity::userByName(const std::string& name) {
  return userRecordOf(name);
}

std::string LinuxIdentity::processHome() { return home_; }

bool LinuxIdentity::hostSandboxed() {
  return ::access(marks_.flatpakInfo.c_str(), F_OK) == 0 ||
         beginsWith(marks_.securityLabel, "snap.");
}

std::optional<double> LinuxIdentity::systemVersion() { return std::nullopt; }

std::string LinuxIdentity::globallyUniqueString() {
  std::string text = randomHex(16);
  for (char& digit : text) {
    if (digit >= 'a') digit = static_cast<char>(digit - 'a' + 'A');
  }
  for (const std::size_t place : {20U, 16U, 12U, 8U}) text.insert(place, 1, '-');
  return text;
}

}  // namespace thmp
