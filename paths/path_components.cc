// SPDX-License-Identifier: Apache-2.0
#include "paths/path_components.h"

#include <algorithm>
#include <cstddef>

namespace thmp {

PathComponents pathComponents(std::string_view path) {
  PathComponents components;
  components.reserve(static_cast<std::size_t>(std::count(path.begin(), path.end(), '/')) + 1);
  if (path.starts_with('/')) {
    components.push_back(path.substr(0, 1));
    path.remove_prefix(1);
  }
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    components.push_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return components;
}

std::string pathWithComponents(const PathComponents& components) {
  std::string path;
  for (const std::string_view component : components) {
    if (component.empty()) continue;
    if (!path.empty() && path.back() != '/') path += '/';
    path += component;
  }
  return path;
}

PathComponents standardizedComponents(PathComponents components) {
  const bool absolute = !components.empty() && components.front() == "/";
  std::size_t kept = 0;
  for (const std::string_view component : components) {
    if (component.empty() || component == ".") continue;
    if (absolute && component == "..") {
      if (kept > 1) --kept;
      continue;
    }
    components[kept++] = component;
  }
  components.resize(kept);
  return components;
}

}  // namespace thmp
