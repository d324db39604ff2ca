// SPDX-License-Identifier: Apache-2.0
//
// The little of URLs that the system needs: a scheme, and a path that is kept decoded. Two URLs are
// equal when both are.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

class Url {
 public:
  Url() = default;
  Url(std::string scheme, std::string path) : scheme_(std::move(scheme)), path_(std::move(path)) {}

  static Url file(std::string path) { return Url("file", std::move(path)); }

  bool isFile() const noexcept { return scheme_ == "file"; }
  const std::string& path() const noexcept { return path_; }
  bool empty() const noexcept { return scheme_.empty(); }

  /// The URL of `component` below this one, with one slash between them.
  Url appending(std::string_view component) const {
    const bool slash = !path_.empty() && path_.back() == '/';
    return Url(scheme_, path_ + (slash ? "" : "/") + std::string(component));
  }

  friend bool operator==(const Url&, const Url&) = default;
  friend auto operator<=>(const Url&, const Url&) = default;

 private:
  std::string scheme_;
  std::string path_;
};

}  // namespace thmp
