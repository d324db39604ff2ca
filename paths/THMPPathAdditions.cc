// SPDX-License-Identifier: Apache-2.0
#include "paths/THMPPathAdditions.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "paths/path_components.h"

namespace thmp {
namespace {

/// The home of the user whom a first component "~name" names; empty for none.
std::optional<std::string> homeOfNamedUser(Identity& identity, std::string_view component) {
  const std::optional<UserRecord> user = identity.userByName(std::string(component.substr(1)));
  return user ? user->home : std::nullopt;
}

/// Puts `home` in the place of the first component, if there is a home.
std::string withHome(const std::string& path, PathComponents components,
                     const std::optional<std::string>& home) {
  if (!home || home->empty()) return path;
  components.front() = *home;
  return pathWithComponents(components);
}

/// Whether the first component begins with a tilde.
bool hasTilde(const std::string& path) { return path.starts_with('~'); }

}  // namespace

bool THMPPathAdditions::thmp_isPathString(std::string_view path) const noexcept {
  return path.starts_with('~') || path.find('/') != std::string_view::npos;
}

std::optional<std::string> THMPPathAdditions::thmp_commonAncestorWithPath(
    const std::string& path, const std::string& other) const {
  const std::string standard = stringByStandardizingPath(path);
  const std::string otherStandard = stringByStandardizingPath(other);
  PathComponents shared = pathComponents(standard);
  const PathComponents others = pathComponents(otherStandard);
  const auto end = std::mismatch(shared.begin(), shared.end(), others.begin(), others.end()).first;
  shared.erase(end, shared.end());
  if (shared.empty()) return std::nullopt;
  return pathWithComponents(shared);
}

bool THMPPathAdditions::thmp_hasPathPrefix(const std::string& path,
                                           const std::string& prefix) const {
  return thmp_hasPathPrefix(path, prefix, /*strict=*/false);
}

bool THMPPathAdditions::thmp_hasPathPrefix(const std::string& path, const std::string& prefix,
                                           bool strict) const {
  const std::string standard = stringByStandardizingPath(path);
  const std::string standardPrefix = stringByStandardizingPath(prefix);
  const PathComponents whole = pathComponents(standard);
  const PathComponents start = pathComponents(standardPrefix);
  if (start.size() > whole.size() || (strict && start.size() == whole.size())) return false;
  return std::equal(start.begin(), start.end(), whole.begin());
}

std::string THMPPathAdditions::thmp_stringByExpandingTildeInPath(const std::string& path) const {
  if (!hasTilde(path)) return path;
  PathComponents components = pathComponents(path);
  const std::string_view first = components.front();
  if (first == "~") {
    return withHome(path, std::move(components), processPaths_.THMPUserHomeDirectory());
  }
  return withHome(path, std::move(components), homeOfNamedUser(identity_, first));
}

std::string THMPPathAdditions::thmp_stringByAbbreviatingWithTildeInPath(
    const std::string& path) const {
  const std::string& home = processPaths_.THMPUserHomeDirectory();
  if (home.empty() || !thmp_hasPathPrefix(path, home)) return path;
  // Deliberate: the prefix is tested on standardized paths, the cut is made by count on the path as
  // it stands.
  PathComponents components = pathComponents(path);
  const std::size_t cut = std::min(pathComponents(home).size(), components.size());
  components.erase(components.begin(), components.begin() + static_cast<std::ptrdiff_t>(cut));
  components.insert(components.begin(), "~");
  return pathWithComponents(components);
}

std::string THMPPathAdditions::stringByExpandingTildeInPath(const std::string& path) const {
  if (!hasTilde(path)) return path;
  PathComponents components = pathComponents(path);
  const std::string_view first = components.front();
  return withHome(path, std::move(components),
                  first == "~" ? identity_.processHome() : homeOfNamedUser(identity_, first));
}

std::string THMPPathAdditions::stringByStandardizingPath(const std::string& path) const {
  const std::string expanded = stringByExpandingTildeInPath(path);
  return pathWithComponents(standardizedComponents(pathComponents(expanded)));
}

}  // namespace thmp
