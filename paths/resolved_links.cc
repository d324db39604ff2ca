// SPDX-License-Identifier: Apache-2.0
#include "paths/resolved_links.h"

#include <deque>
#include <utility>

#include "paths/path_components.h"

namespace thmp {
namespace {

// As many as systems follow.
constexpr int kMostLinks = 40;

}  // namespace

std::optional<std::vector<std::string>> resolvedLinks(Files& files,
                                                      const std::vector<std::string>& components) {
  std::deque<std::string> left(components.begin(), components.end());
  std::vector<std::string> resolved;
  int links = 0;
  while (!left.empty()) {
    std::string component = std::move(left.front());
    left.pop_front();
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      if (resolved.size() > 1) resolved.pop_back();
      continue;
    }
    if (component == "/") {  // the path begins, or a link leads to an absolute one
      resolved = {"/"};
      continue;
    }
    resolved.push_back(std::move(component));
    const std::optional<std::string> target = files.linkTarget(pathWithComponents(resolved));
    if (!target) continue;
    if (++links > kMostLinks) return std::nullopt;
    resolved.pop_back();
    const std::vector<std::string> inserted = pathComponents(*target);
    left.insert(left.begin(), inserted.begin(), inserted.end());
  }
  return resolved;
}

}  // namespace thmp
