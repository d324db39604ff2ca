// SPDX-License-Identifier: Apache-2.0
//
// A folder that forgets what was not synced. It keeps the file calls that change the folder while
// it is the hook, and can make the folder again as the disk may have been at any moment between:
// of each file what was there at its last sync, of each folder the names at its own. The strictest
// disk keeps only that; others keep, as a seed says, some of the later writes and the first few of
// the later changes of names.
//
// One user; calls from any thread while it is the hook.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/disk/FileCalls.h"

namespace thmp::disk {

class PowerLoss final : public FileCallHook {
 public:
  /// All in `folder` counts as synced, and so does the folder itself in the one above it.
  explicit PowerLoss(std::string folder);
  ~PowerLoss() override;
  PowerLoss(const PowerLoss&) = delete;
  PowerLoss& operator=(const PowerLoss&) = delete;

  /// From here on nothing is kept.
  void stop();

  /// How many changes there were so far.
  std::size_t changes() const { return changes_.size(); }
  /// Whether the strictest disk after so many changes is another than after one less.
  bool isSync(std::size_t count) const;

  /// Makes the folder what the disk has after the first `count` changes. Without a seed it is the
  /// strictest disk.
  void restore(std::size_t count, std::optional<unsigned> seed) const;

  void before(const FileCall& call) override;
  void after(const FileCall& call, long result) override;

 private:
  using Node = std::size_t;
  using Names = std::map<std::string, Node>;
  enum class Kind : std::uint8_t { kName, kUnname, kRename, kWrite, kTruncate, kSync };
  struct Change {
    Kind kind;
    Node node = 0;  // the folder of a name, the file that is written
    std::string name = {};
    Node other = 0;  // what has the name; the folder that it moves to
    std::string newName = {};
    std::string bytes = {};
    std::size_t place = 0;
  };
  struct Entry {
    bool isFolder = false;
    std::string bytes = {};
    Names names = {};
    /// What has come since the last sync.
    std::vector<const Change*> pending = {};
  };
  struct Place {
    Node folder;
    std::string name;
  };
  using Disk = std::vector<Entry>;

  void learn(const std::string& path, Node node);
  Node newNode(dev_t device, ino_t inode, bool isFolder);
  std::optional<Node> nodeOf(int file, const char* path, int flags) const;
  std::optional<Place> placeOf(int folder, const char* path) const;
  void opened(const FileCall& call, int file);
  void named(const FileCall& call);

  static void write(std::string& bytes, const Change& change);
  static void rename(Disk& disk, const Change& change, Node only);
  static void apply(Disk& disk, const Change& change);
  static void forget(Disk& disk, std::optional<unsigned> seed);
  static void build(const Disk& disk, Node folder, const std::string& path);

  const std::string folder_;
  bool existed_ = false;
  std::map<std::pair<dev_t, ino_t>, Node> nodes_;
  Disk start_;
  std::vector<Change> changes_;
};

}  // namespace thmp::disk
