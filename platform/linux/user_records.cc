// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/user_records.h"

#include <pwd.h>

#include <cerrno>
#include <functional>
#include <vector>

#include "platform/linux/utf8.h"

namespace thmp {
namespace {

using Query = std::function<int(passwd* record, char* buffer, std::size_t size, passwd** found)>;

std::optional<UserRecord> ask(const Query& query) {
  constexpr std::size_t kLargestRecord = std::size_t{1} << 20;
  for (std::size_t size = 1024; size <= kLargestRecord; size *= 2) {
    std::vector<char> buffer(size);
    passwd record = {};
    passwd* found = nullptr;
    int number = 0;
    do {
      number = query(&record, buffer.data(), buffer.size(), &found);
    } while (number == EINTR);
    if (number == ERANGE) continue;
    if (number != 0 || found == nullptr) return std::nullopt;
    UserRecord user;
    if (found->pw_name != nullptr) user.name = found->pw_name;
    if (found->pw_dir != nullptr && isUtf8(found->pw_dir)) user.home = found->pw_dir;
    return user;
  }
  return std::nullopt;
}

}  // namespace

std::optional<UserRecord> userRecordOf(uid_t user) {
  return ask([user](passwd* record, char* buffer, std::size_t size, passwd** found) {
    return ::getpwuid_r(user, record, buffer, size, found);
  });
}

std::optional<UserRecord> userRecordOf(const std::string& name) {
  if (name.find('\0') != std::string::npos) return std::nullopt;
  return ask([&name](passwd* record, char* buffer, std::size_t size, passwd** found) {
    return ::getpwnam_r(name.c_str(), record, buffer, size, found);
  });
}

}  // namespace thmp
