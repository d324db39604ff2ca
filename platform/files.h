// SPDX-License-Identifier: Apache-2.0
//
// What the core asks of the file system. Paths are absolute and UTF-8. Every operation may be
// called from any thread, blocks for the disk only, never follows a FIFO or device, and reports
// failure by its result: nothing is thrown.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace thmp {

/// A file whose bytes are written but whose name nobody sees yet. Destruction without publish()
/// leaves nothing behind.
class PreparedFile {
 public:
  virtual ~PreparedFile() = default;
  /// Gives the file its name, in one step, if no entry of that name exists. Takes microseconds, and
  /// may be called under a lock. False, with `error` filled, when the name cannot be given. Called
  /// at most once.
  [[nodiscard]] virtual bool publish(Error* error = nullptr) = 0;
};

class Files {
 public:
  virtual ~Files() = default;

  /// Whether anything stands at `path`, links followed.
  virtual bool exists(const std::string& path) = 0;
  virtual bool isDirectory(const std::string& path) = 0;
  virtual bool isReadable(const std::string& path) = 0;
  virtual bool isWritable(const std::string& path) = 0;
  /// The access bits, such as 0700, links followed. Empty when they cannot be had.
  virtual std::optional<unsigned> permissions(const std::string& path) = 0;
  /// Where the link at `path` leads, as the link says it. Empty when no link stands there, or when
  /// it cannot be read.
  virtual std::optional<std::string> linkTarget(const std::string& path) = 0;

  /// The names of a folder's entries, hidden ones included, in the file system's own order, which
  /// may repeat or miss names while the folder changes. Empty optional when the folder cannot be
  /// listed; `error` then has the operating system's own error under it.
  virtual std::optional<std::vector<std::string>> list(const std::string& directory,
                                                       Error* error = nullptr) = 0;

  /// Calls `visit` with every entry below `directory` at any depth, as its path from there, each
  /// folder before what it holds. A link at `directory` is followed, no other. A folder that cannot
  /// be listed, or goes meanwhile, holds nothing; so does one whose path is too long.
  virtual void walk(const std::string& directory,
                    const std::function<void(const std::string& entry)>& visit) = 0;

  /// Makes `path` and the folders above it that are missing, each private to the user. An existing
  /// folder is success.
  [[nodiscard]] virtual bool createDirectories(const std::string& path, Error* error = nullptr) = 0;

  /// The bytes of a regular file, links followed. Anything else at the path, and a file of more
  /// than `maxBytes`, is a failure, found out without blocking.
  virtual std::optional<std::string> readFile(const std::string& path, std::size_t maxBytes,
                                              Error* error = nullptr) = 0;

  /// Writes `bytes` into `directory` under no visible name; publish() will call it `name`, private
  /// to the user. Null on failure.
  virtual std::unique_ptr<PreparedFile> prepareFile(const std::string& directory,
                                                    const std::string& name, std::string_view bytes,
                                                    Error* error = nullptr) = 0;

  /// Removes the entry `name` of `directory`: a file, a link (never what it points to), or a folder
  /// with all it holds. An entry that is not there is success.
  [[nodiscard]] virtual bool removeEntry(const std::string& directory, const std::string& name,
                                         Error* error = nullptr) = 0;

  /// The name to show for the file at `path`: on Linux its last component.
  virtual std::string displayName(const std::string& path) = 0;

  /// The user's application-support folder as this process sees it.
  virtual std::string applicationSupportDirectory() = 0;
  /// Where that folder lies below a home folder, for a home that is not this process's own:
  /// "Library/Application Support", on Linux ".local/share".
  virtual std::string applicationSupportBelowHome() = 0;
};

}  // namespace thmp
