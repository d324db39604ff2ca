// SPDX-License-Identifier: Apache-2.0
//
// A folder of the process's own, in memory where the system has such a place, removed when the
// process ends well. For the targets that go through real files: one for the process, emptied by
// the target as it needs.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {

class ScratchFolder {
 public:
  ScratchFolder() {
    const bool hasMemory = std::filesystem::is_directory("/dev/shm");
    path_ = std::string(hasMemory ? "/dev/shm" : "/tmp") + "/tallyhive-fuzz-XXXXXX";
    THMP_FUZZ_CHECK(mkdtemp(path_.data()) != nullptr);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }

  /// Makes the folders above, which are private to the user, and the file or its new bytes.
  void write(const std::string& below, std::string_view bytes) const {
    const std::filesystem::path file = path_ + "/" + below;
    for (auto folder = file.parent_path(); folder.string().size() > path_.size();
         folder = folder.parent_path()) {
      std::filesystem::create_directories(folder);
      std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    }
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    THMP_FUZZ_CHECK(stream.good());
  }

 private:
  std::string path_;
};

}  // namespace thmp::fuzz
