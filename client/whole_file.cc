// SPDX-License-Identifier: Apache-2.0
#include "client/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/linux/TemporaryFile.h"
#include "platform/linux/posix_io.h"

namespace thmp::client {
namespace {

namespace fs = std::filesystem;

struct Place {
  fs::path folder;
  fs::path name;
};

Place placeOf(const std::string& path) {
  std::error_code ignored;
  fs::path real = path;
  if (fs::is_symlink(real, ignored)) {
    const fs::path target = fs::canonical(real, ignored);
    if (!ignored) real = target;
  }
  return {real.has_parent_path() ? real.parent_path() : fs::path("."), real.filename()};
}

Error cannotWrite(const std::string& path, std::string_view why) {
  Error error = Error::posix(EINVAL, "");
  error.description = (path.empty() ? "\"\"" : path) + " cannot be written: " + std::string(why);
  return error;
}

}  // namespace

Result<void> canWriteWhole(const std::string& path) {
  const Place place = placeOf(path);
  if (!isEntryName(place.name.native())) return cannotWrite(path, "it names no file");
  std::error_code ignored;
  if (!fs::is_directory(place.folder, ignored)) {
    return cannotWrite(path, "there is no folder " + place.folder.native());
  }
  const fs::file_status there = fs::status(place.folder / place.name, ignored);
  if (fs::is_directory(there)) return cannotWrite(path, "a folder stands there");
  if (fs::exists(there) && !fs::is_regular_file(there)) {
    return cannotWrite(path, "no ordinary file stands there");
  }
  if (::access(place.folder.c_str(), W_OK | X_OK) != 0) {
    return cannotWrite(path, "its folder may not be written");
  }
  return {};
}

Result<void> writeWhole(const std::string& path, std::string_view bytes) {
  if (Result<void> possible = canWriteWhole(path); !possible) return possible;
  const Place place = placeOf(path);
  const auto failed = [&] { return Error::posix(errno, "cannot write " + path); };
  const Descriptor folder = openAt(AT_FDCWD, place.folder.native(), O_RDONLY | O_DIRECTORY);
  if (!folder) return failed();
  std::optional<TemporaryFile> file =
      TemporaryFile::makeNamed(folder.get(), ".tallyhive-mail-" + randomHex(16));
  if (!file || !file->write(bytes) || ::fsync(file->descriptor()) != 0 || !file->finish() ||
      !file->renameOver(folder.get(), place.name.native())) {
    return failed();
  }
  return {};
}

}  // namespace thmp::client
