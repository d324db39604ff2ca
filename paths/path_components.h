// SPDX-License-Identifier: Apache-2.0
//
// Paths as lists of components. An absolute path's first component is the root "/", the others are
// the names between slashes; a doubled slash gives an empty name. Components are views of the path
// that they were made of, which must outlive them. Nothing here looks at a disk. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace thmp {

using PathComponents = std::vector<std::string_view>;

/// The components of `path` as it stands; none for an empty path. A slash at the end gives none.
PathComponents pathComponents(std::string_view path);

/// Joins components again, with one slash between them. Empty ones are left out.
std::string pathWithComponents(const PathComponents& components);

/// Takes single-dot and empty components away, and each double-dot component of an absolute path
/// together with the one before it. The root stays; a relative path keeps its double dots.
PathComponents standardizedComponents(PathComponents components);

}  // namespace thmp
