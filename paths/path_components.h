// SPDX-License-Identifier: Apache-2.0
//
// Paths as lists of components. An absolute path's first component is the root "/", the others are
// the names between slashes; a doubled slash gives an empty name. Nothing here looks at a disk. Any
// thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace thmp {

/// The components of `path` as it stands; none for an empty path. A slash at the end gives none.
std::vector<std::string> pathComponents(std::string_view path);

/// Joins components again, with one slash between them. Empty ones are left out.
std::string pathWithComponents(const std::vector<std::string>& components);

/// Takes single-dot and empty components away, and each double-dot component of an absolute path
/// together with the one before it. The root stays; a relative path keeps its double dots.
std::vector<std::string> standardizedComponents(std::vector<std::string> components);

}  // namespace thmp
