// SPDX-License-Identifier: Apache-2.0
//
// Operations on paths held as texts. All compare whole components, never characters, exactly and
// with case. The path itself is the first argument. Besides, the process's home folder and sandbox
// flag, which some of them need: the entry point makes one object of this class for the process.
// Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "paths/ProcessPaths.h"
#include "platform/identity.h"

namespace thmp {

class THMPPathAdditions {
 public:
  explicit THMPPathAdditions(Identity& identity) : identity_(identity), processPaths_(identity) {}

  const ProcessPaths& processPaths() const noexcept { return processPaths_; }

  /// thmp_isPathString
  ///
  /// True when `path` begins with "~" or has a "/" anywhere.
  bool thmp_isPathString(std::string_view path) const noexcept;

  /// thmp_commonAncestorWithPath:
  ///
  /// The deepest path that both share, standardized; empty when they share no component.
  std::optional<std::string> thmp_commonAncestorWithPath(const std::string& path,
                                                         const std::string& other) const;

  /// thmp_hasPathPrefix:
  ///
  /// A path is a prefix of itself.
  bool thmp_hasPathPrefix(const std::string& path, const std::string& prefix) const;

  /// thmp_hasPathPrefix:strict:
  ///
  /// Whether the components of `prefix` begin those of `path`, both standardized; with `strict`,
  /// `path` must be longer too.
  bool thmp_hasPathPrefix(const std::string& path, const std::string& prefix, bool strict) const;

  /// thmp_stringByExpandingTildeInPath
  ///
  /// `path` with a first component "~" replaced by the user's real home folder, or "~name" by the
  /// home of that user as its record has it; unchanged when there is no such home.
  std::string thmp_stringByExpandingTildeInPath(const std::string& path) const;

  /// thmp_stringByAbbreviatingWithTildeInPath
  ///
  /// `path` with as many leading components as the home folder has replaced by "~", if the home
  /// folder is a prefix of it.
  std::string thmp_stringByAbbreviatingWithTildeInPath(const std::string& path) const;

  /// stringByExpandingTildeInPath
  ///
  /// The platform's own rule for a leading tilde: "~" is the process's home, in a sandbox the
  /// container's, and "~name" the home of that user. Unchanged when there is no such home.
  std::string stringByExpandingTildeInPath(const std::string& path) const;

  /// stringByStandardizingPath
  ///
  /// The platform's standardization: a leading tilde expanded by the platform's own rule, no
  /// single-dot or empty components, no double dots in an absolute path, no slash at the end.
  std::string stringByStandardizingPath(const std::string& path) const;

 private:
  Identity& identity_;
  ProcessPaths processPaths_;
};

}  // namespace thmp
