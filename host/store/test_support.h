// SPDX-License-Identifier: Apache-2.0
//
// What the tests of store and index share: temporary folders, mail made on the spot, and the place
// of the sample mail.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace thmp::testing_support {

/// A folder of its own for each test, removed with all it holds.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "thmp-store-XXXXXX").string();
    path_ = ::mkdtemp(name.data()) == nullptr ? std::string() : name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, std::string_view bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readWhole(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

inline void makeMaildir(const std::string& path) {
  for (const char* part : {"cur", "new", "tmp"}) {
    std::filesystem::create_directories(path + "/" + part);
  }
}

inline std::string mailText(std::string_view subject, std::string_view body = "Hello.\n") {
  return "From: Ann Example <ann@example.com>\nTo: Bob <bob@example.org>\nSubject: " +
         std::string(subject) + "\nDate: Mon, 2 Feb 2015 10:11:12 +0100\nMessage-ID: <" +
         std::string(subject) + "@example.com>\n\n" + std::string(body);
}

/// The sample mail's folder; empty when it is not on this machine.
inline std::optional<std::string> mailSample() {
  const char* named = std::getenv("THMP_MAIL_SAMPLE");
  const std::string path =
      named != nullptr ? named : std::string(THMP_SOURCE_DIR) + "/../shared/mail-sample";
  if (!std::filesystem::exists(path + "/manifest.tsv")) return std::nullopt;
  return path;
}

}  // namespace thmp::testing_support
