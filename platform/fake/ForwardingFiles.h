// SPDX-License-Identifier: Apache-2.0
//
// Files that hand every call on to others, so that a double overrides only what it breaks.
#pragma once

#include "platform/files.h"

namespace thmp {

class ForwardingFiles : public Files {
 public:
  /// `target` must outlive this object.
  explicit ForwardingFiles(Files& target) : target_(target) {}

  bool exists(const std::string& path) override { return target_.exists(path); }
  bool isDirectory(const std::string& path) override { return target_.isDirectory(path); }
  bool isReadable(const std::string& path) override { return target_.isReadable(path); }
  bool isWritable(const std::string& path) override { return target_.isWritable(path); }
  std::optional<unsigned> permissions(const std::string& path) override {
    return target_.permissions(path);
  }
  std::optional<std::string> linkTarget(const std::string& path) override {
    return target_.linkTarget(path);
  }
  std::optional<std::vector<std::string>> list(const std::string& directory,
                                               Error* error = nullptr) override {
    return target_.list(directory, error);
  }
  void walk(const std::string& directory,
            const std::function<void(const std::string& entry)>& visit) override {
    target_.walk(directory, visit);
  }
  [[nodiscard]] bool createDirectories(const std::string& path, Error* error = nullptr) override {
    return target_.createDirectories(path, error);
  }
  std::optional<std::string> readFile(const std::string& path, std::size_t maxBytes,
                                      Error* error = nullptr) override {
    return target_.readFile(path, maxBytes, error);
  }
  std::unique_ptr<PreparedFile> prepareFile(const std::string& directory, const std::string& name,
                                            std::string_view bytes,
                                            Error* error = nullptr) override {
    return target_.prepareFile(directory, name, bytes, error);
  }
  [[nodiscard]] bool removeEntry(const std::string& directory, const std::string& name,
                                 Error* error = nullptr) override {
    return target_.removeEntry(directory, name, error);
  }
  std::string displayName(const std::string& path) override { return target_.displayName(path); }
  std::string applicationSupportDirectory() override {
    return target_.applicationSupportDirectory();
  }
  std::string applicationSupportBelowHome() override {
    return target_.applicationSupportBelowHome();
  }

 protected:
  Files& target() { return target_; }

 private:
  Files& target_;
};

}  // namespace thmp
