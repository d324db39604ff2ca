// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/XdgFolders.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/linux/posix_io.h"
#include "platform/linux/user_records.h"

namespace thmp {
namespace {

std::string absoluteOr(const char* value, const std::string& otherwise) {
  return value != nullptr && value[0] == '/' ? std::string(value) : otherwise;
}

std::string recordedHome() {
  const std::optional<UserRecord> record = userRecordOf(::getuid());
  return record ? absoluteOr(record->home.value_or("").c_str(), "/") : "/";
}

std::string below(const std::string& folder, const char* path) {
  return folder == "/" ? "/" + std::string(path) : folder + "/" + path;
}

}  // namespace

XdgFolders XdgFolders::fromEnvironment() {
  return from([](const char* name) -> const char* { return std::getenv(name); });
}

XdgFolders XdgFolders::from(const Lookup& lookup, const std::string& temporary) {
  XdgFolders folders;
  folders.home = absoluteOr(lookup("HOME"), "");
  if (folders.home.empty()) folders.home = recordedHome();
  folders.data = absoluteOr(lookup("XDG_DATA_HOME"), below(folders.home, ".local/share"));
  folders.config = absoluteOr(lookup("XDG_CONFIG_HOME"), below(folders.home, ".config"));
  folders.cache = absoluteOr(lookup("XDG_CACHE_HOME"), below(folders.home, ".cache"));
  folders.runtime = absoluteOr(lookup("XDG_RUNTIME_DIR"), "");
  folders.runtimeIsSubstitute = folders.runtime.empty();
  if (folders.runtimeIsSubstitute) {
    folders.runtime = temporary + "/tallyhive-" + std::to_string(::geteuid());
  }
  return folders;
}

bool XdgFolders::prepareRuntime(Error* error) const {
  if (!runtimeIsSubstitute) {
    return createFolders(runtime) || failWithErrno(error, "cannot make the folder " + runtime);
  }
  const std::size_t slash = runtime.rfind('/');
  const Descriptor parent = openAt(AT_FDCWD, runtime.substr(0, slash) + "/", O_PATH | O_DIRECTORY);
  if (parent && openOwnFolder(parent.get(), runtime.substr(slash + 1), /*create=*/true)) {
    return true;
  }
  const int number = errno;
  if (error != nullptr) {
    *error = Error::posix(number, "cannot use the folder " + runtime);
    error->description += number == EPERM ? "; it is not your own folder" : "";
    error->description += "; set XDG_RUNTIME_DIR to a folder of your own";
  }
  return false;
}

}  // namespace thmp
