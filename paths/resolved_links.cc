// SPDX-License-Identifier: Apache-2.0
#include "paths/resolved_links.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <utility>

#include "paths/path_components.h"

namespace thmp {
namespace {

// As many as systems follow.
constexpr int kMostLinks = 40;
// Longer than any that systems take: nothing is there, so nothing is asked for.
constexpr std::size_t kLongestPath = 4096;

}  // namespace

std::optional<std::string> resolvedLinks(Files& files, const std::string& path) {
  const PathComponents components = pathComponents(path);
  std::deque<std::string> left(components.begin(), components.end());
  std::string resolved;
  int links = 0;
  while (!left.empty()) {
    std::string component = std::move(left.front());
    left.pop_front();
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      resolved.resize(std::max<std::size_t>(1, resolved.rfind('/')));
      continue;
    }
    if (component == "/") {  // the path begins, or a link leads to an absolute one
      resolved = component;
      continue;
    }
    const std::size_t folder = resolved.size();
    if (resolved.back() != '/') resolved += '/';
    resolved += component;
    if (resolved.size() > kLongestPath) continue;
    const std::optional<std::string> target = files.linkTarget(resolved);
    if (!target) continue;
    if (++links > kMostLinks) return std::nullopt;
    resolved.resize(folder);
    const PathComponents inserted = pathComponents(*target);
    left.insert(left.begin(), inserted.begin(), inserted.end());
  }
  return resolved;
}

}  // namespace thmp
