// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FileTree.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

namespace thmp {
namespace {

using Node = FileTree::Node;
using Kind = FileTree::Kind;

constexpr int kMostLinks = 40;

std::deque<std::string> split(std::string_view path) {
  std::deque<std::string> components;
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (!component.empty() && component != ".") components.emplace_back(component);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
  }
  return components;
}

std::string join(const std::vector<std::pair<std::string, std::shared_ptr<Node>>>& steps) {
  std::string path;
  for (const auto& [name, node] : steps) {
    if (!name.empty()) path += "/" + name;
  }
  return path.empty() ? "/" : path;
}

std::pair<std::string, std::string> folderAndName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {"/", std::string(path)};
  return {std::string(path.substr(0, std::max<std::size_t>(slash, 1))),
          std::string(path.substr(slash + 1))};
}

bool isEntryName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool removable(const Node& node) {
  if (node.children.empty()) return true;
  return node.writable && std::all_of(node.children.begin(), node.children.end(),
                                      [](const auto& child) { return removable(*child.second); });
}

}  // namespace

FileTree::FileTree() : root_(std::make_shared<Node>(Node{.kind = Kind::kFolder})) {}

FileTree::Place FileTree::find(std::string_view path, bool followLast) const {
  std::deque<std::string> left = split(path);
  std::vector<std::pair<std::string, std::shared_ptr<Node>>> steps{{"", root_}};
  int links = 0;
  while (!left.empty()) {
    const std::string component = std::move(left.front());
    left.pop_front();
    if (component == "..") {
      if (steps.size() > 1) steps.pop_back();
      continue;
    }
    const Node& folder = *steps.back().second;
    if (folder.kind != Kind::kFolder) return {nullptr, "", ENOTDIR};
    const auto child = folder.children.find(component);
    if (child == folder.children.end()) return {nullptr, "", ENOENT};
    if (child->second->kind != Kind::kLink || (left.empty() && !followLast)) {
      steps.emplace_back(component, child->second);
      continue;
    }
    if (++links > kMostLinks) return {nullptr, "", ELOOP};
    const std::string& target = child->second->content;
    const std::deque<std::string> inserted = split(target);
    left.insert(left.begin(), inserted.begin(), inserted.end());
    if (target.starts_with('/')) steps.resize(1);
  }
  return {steps.back().second, join(steps), 0};
}

int FileTree::list(const std::string& path, std::vector<std::string>& names) const {
  const Place place = find(path);
  if (place.error != 0) return place.error;
  if (place.node->kind != Kind::kFolder) return ENOTDIR;
  if (!place.node->readable) return EACCES;
  std::vector<std::pair<std::uint64_t, std::string>> arrived;
  for (const auto& [name, child] : place.node->children) arrived.emplace_back(child->arrival, name);
  std::sort(arrived.begin(), arrived.end());
  for (auto& [arrival, name] : arrived) names.push_back(std::move(name));
  return 0;
}

int FileTree::read(const std::string& path, std::size_t maxBytes, std::string& bytes) const {
  const Place place = find(path);
  if (place.error != 0) return place.error;
  if (place.node->kind == Kind::kFolder) return EISDIR;
  if (place.node->kind != Kind::kFile) return EINVAL;
  if (!place.node->readable) return EACCES;
  if (place.node->content.size() > maxBytes) return EFBIG;
  bytes = place.node->content;
  return 0;
}

int FileTree::makeFolders(const std::string& path) {
  if (!path.starts_with('/')) return EINVAL;
  std::string so_far;
  Place parent{root_, "/", 0};
  for (const std::string& component : split(path)) {
    so_far += "/" + component;
    Place place = find(so_far);
    if (place.error == ENOENT) {
      if (find(so_far, false).node) return EEXIST;  // a link that leads nowhere
      if (!parent.node->writable) return EACCES;
      attach(parent, component, std::make_shared<Node>(Node{.kind = Kind::kFolder}));
      place = find(so_far);
    }
    if (place.error != 0) return place.error;
    if (place.node->kind != Kind::kFolder) return ENOTDIR;
    parent = std::move(place);
  }
  return 0;
}

int FileTree::openForAdding(const std::string& directory, std::shared_ptr<Node>& folder) const {
  Place place = find(directory);
  if (place.error != 0) return place.error;
  if (place.node->kind != Kind::kFolder) return ENOTDIR;
  if (!place.node->writable) return EACCES;
  folder = std::move(place.node);
  return 0;
}

int FileTree::addFile(const std::string& directory, const std::shared_ptr<Node>& folder,
                      const std::string& name, std::string bytes) {
  if (!isEntryName(name)) return EINVAL;
  const Place place = find(directory);
  if (place.node != folder) return ENOENT;
  if (!folder->writable) return EACCES;
  if (folder->children.contains(name)) return EEXIST;
  attach(place, name, std::make_shared<Node>(Node{.content = std::move(bytes)}));
  return 0;
}

int FileTree::removeEntry(const std::string& directory, const std::string& name) {
  if (!isEntryName(name)) return EINVAL;
  const Place place = find(directory);
  if (place.error == ENOENT) return 0;
  if (place.error != 0) return place.error;
  const auto child = place.node->children.find(name);
  if (child == place.node->children.end()) return 0;
  if (!place.node->writable || !removable(*child->second)) return EACCES;
  detach(place, name);
  return 0;
}

void FileTree::put(const std::string& path, Node node) {
  const auto [folder, name] = folderAndName(path);
  const Place place = makeFoldersUnchecked(folder);
  const auto old = place.node->children.find(name);
  if (old == place.node->children.end()) {
    attach(place, name, std::make_shared<Node>(std::move(node)));
  } else {
    node.arrival = old->second->arrival;
    *old->second = std::move(node);
  }
}

void FileTree::take(const std::string& path) {
  const auto [folder, name] = folderAndName(path);
  const Place place = find(folder);
  if (place.node) detach(place, name);
}

void FileTree::rename(const std::string& from, const std::string& to) {
  const std::shared_ptr<Node> node = find(from, false).node;
  if (!node) return;
  take(from);
  const auto [folder, name] = folderAndName(to);
  attach(makeFoldersUnchecked(folder), name, node);
}

std::vector<FileTree::Change> FileTree::takeChanges() { return std::exchange(changes_, {}); }

void FileTree::attach(const Place& folder, const std::string& name, std::shared_ptr<Node> node) {
  node->arrival = ++arrivals_;
  folder.node->children[name] = std::move(node);
  changes_.push_back({folder.path, name});
}

void FileTree::detach(const Place& folder, const std::string& name) {
  if (folder.node->children.erase(name) > 0) changes_.push_back({folder.path, name});
}

FileTree::Place FileTree::makeFoldersUnchecked(std::string_view path) {
  std::string so_far = "/";
  for (const std::string& component : split(path)) {
    const Place parent = find(so_far);
    so_far += (so_far == "/" ? "" : "/") + component;
    if (!find(so_far).node) {
      attach(parent, component, std::make_shared<Node>(Node{.kind = Kind::kFolder}));
    }
  }
  return find(so_far);
}

}  // namespace thmp
