// SPDX-License-Identifier: Apache-2.0
//
// Paths without the symbolic links on them. Any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/files.h"

namespace thmp {

/// An absolute path with each link replaced by what it leads to, and without dots
/// and empty names; a double dot leaves the folder that a link led to. What is missing, or hides
/// from this process, counts as no link, so that a path is told by where it would lead. Empty
/// optional for a loop of links.
std::optional<std::string> resolvedLinks(Files& files, const std::string& path);

}  // namespace thmp
