// SPDX-License-Identifier: Apache-2.0
//
// The tree of files, folders and links behind InMemoryFileSystem: what a kernel would do, told in
// errno numbers, 0 for success. No locks: its owner guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace thmp {

class FileTree {
 public:
  enum class Kind { kFile, kFolder, kLink, kSpecial };

  struct Node {
    Kind kind = Kind::kFile;
    /// The bytes of a file, the target of a link.
    std::string content = {};
    bool writable = true;
    bool readable = true;
    /// The access bits; without them those of a private file or folder.
    std::optional<unsigned> permissions = {};
    /// When it came under its name; later ones are greater.
    std::uint64_t arrival = 0;
    std::map<std::string, std::shared_ptr<Node>> children = {};
  };

  /// Where a path leads: a node and its path without links and dots, or an error.
  struct Place {
    std::shared_ptr<Node> node;
    std::string path;
    int error = 0;
  };

  /// An entry `name` of `folder` came or went.
  struct Change {
    std::string folder;
    std::string name;
  };

  FileTree();

  Place find(std::string_view path, bool followLast = true) const;

  // Bound by the flags of the nodes.
  int list(const std::string& path, std::vector<std::string>& names) const;
  int read(const std::string& path, std::size_t maxBytes, std::string& bytes) const;
  int makeFolders(const std::string& path);
  /// Whether an entry may be added to `directory`, and its node.
  int openForAdding(const std::string& directory, std::shared_ptr<Node>& folder) const;
  /// Adds `bytes` as `name` to `directory` if that is still `folder` and has no such entry.
  int addFile(const std::string& directory, const std::shared_ptr<Node>& folder,
              const std::string& name, std::string bytes);
  int removeEntry(const std::string& directory, const std::string& name);

  // Bound by nothing; missing parents are made.
  void put(const std::string& path, Node node);
  void take(const std::string& path);
  void rename(const std::string& from, const std::string& to);

  /// What changed since the last call.
  std::vector<Change> takeChanges();

 private:
  void attach(const Place& folder, const std::string& name, std::shared_ptr<Node> node);
  void detach(const Place& folder, const std::string& name);
  Place makeFoldersUnchecked(std::string_view path);

  std::shared_ptr<Node> root_;
  std::uint64_t arrivals_ = 0;
  std::vector<Change> changes_;
};

}  // namespace thmp
