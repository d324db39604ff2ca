// SPDX-License-Identifier: Apache-2.0
//
// The file system by POSIX calls. Any thread; no state but the folder it was made with.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"

namespace thmp {

class LinuxFiles final : public Files {
 public:
  /// `dataHome`: the folder of XDG_DATA_HOME.
  explicit LinuxFiles(std::string dataHome);

  bool exists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  bool isReadable(const std::string& path) override;
  bool isWritable(const std::string& path) override;
  std::optional<unsigned> permissions(const std::string& path) override;
  std::optional<std::string> linkTarget(const std::string& path) override;
  std::optional<std::vector<std::string>> list(const std::string& directory, Error* error) override;
  void walk(const std::string& directory,
            const std::function<void(const std::string& entry)>& visit) override;
  [[nodiscard]] bool createDirectories(const std::string& path, Error* error) override;
  std::optional<std::string> readFile(const std::string& path, std::size_t maxBytes,
                                      Error* error) override;
  std::unique_ptr<PreparedFile> prepareFile(const std::string& directory, const std::string& name,
                                            std::string_view bytes, Error* error) override;
  [[nodiscard]] bool removeEntry(const std::string& directory, const std::string& name,
                                 Error* error) override;
  std::string displayName(const std::string& path) override;
  std::string applicationSupportDirectory() override;
  std::string applicationSupportBelowHome() override;

  /// Removes from `directory` the unfinished files of a process that died while it wrote there.
  /// REQUIRES: nobody writes there now.
  static void removeTemporaryFiles(const std::string& directory);

 private:
  const std::string dataHome_;
};

}  // namespace thmp
