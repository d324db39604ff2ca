// SPDX-License-Identifier: Apache-2.0
#include "paths/path_components.h"

#include <utility>

namespace thmp {

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (path.starts_with('/')) {
    components.emplace_back("/");
    path.remove_prefix(1);
  }
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    components.emplace_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return components;
}

std::string pathWithComponents(const std::vector<std::string>& components) {
  std::string path;
  for (const std::string& component : components) {
    if (component.empty()) continue;
    if (!path.empty() && path.back() != '/') path += '/';
    path += component;
  }
  return path;
}

std::vector<std::string> standardizedComponents(std::vector<std::string> components) {
  std::vector<std::string> result;
  const bool absolute = !components.empty() && components.front() == "/";
  for (std::string& component : components) {
    if (component.empty() || component == ".") continue;
    if (absolute && component == "..") {
      if (result.size() > 1) result.pop_back();
      continue;
    }
    result.push_back(std::move(component));
  }
  return result;
}

}  // namespace thmp
