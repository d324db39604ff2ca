// SPDX-License-Identifier: Apache-2.0
//
// Lets the user pick one folder only in a folder chooser. Used on the thread that runs the chooser.
#pragma once

#include <string>
#include <utility>

#include "base/url.h"

namespace thmp {

class THMPOpenPanelDelegate {
 public:
  /// path
  const std::string& path() const noexcept { return path_; }
  /// setPath:
  ///
  /// `path` is standardized.
  void setPath(std::string path) { path_ = std::move(path); }

  /// panel:shouldEnableURL:
  ///
  /// True when the URL is a file URL and its path is path(), in letters of either case.
  bool panel(const Url& shouldEnableURL) const;

 private:
  std::string path_;
};

}  // namespace thmp
