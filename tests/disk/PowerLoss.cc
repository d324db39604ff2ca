// SPDX-License-Identifier: Apache-2.0
#include "tests/disk/PowerLoss.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <utility>

#include "platform/linux/testing.h"

namespace thmp::disk {

namespace fs = std::filesystem;

namespace {

// What a disk writes at once.
constexpr std::size_t kSector = 512;

}  // namespace

PowerLoss::PowerLoss(std::string folder) : folder_(std::move(folder)) {
  struct stat status {};
  EXPECT_EQ(::stat(folder_.c_str(), &status), 0);
  learn(folder_, newNode(status.st_dev, status.st_ino, true));
  setFileCallHook(this);
}

PowerLoss::~PowerLoss() { stop(); }

void PowerLoss::stop() { setFileCallHook(nullptr); }

void PowerLoss::learn(const std::string& path, Node node) {
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    struct stat status {};
    EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
    const Node inner = newNode(status.st_dev, status.st_ino, S_ISDIR(status.st_mode));
    start_[node].names[entry.path().filename()] = inner;
    if (S_ISDIR(status.st_mode)) {
      learn(entry.path(), inner);
    } else {
      start_[inner].bytes = thmp::testing::readFile(entry.path());
    }
  }
}

// An inode's number is used again once its file is gone; the node is not.
PowerLoss::Node PowerLoss::newNode(dev_t device, ino_t inode, bool isFolder) {
  start_.push_back({.isFolder = isFolder});
  return nodes_[{device, inode}] = start_.size() - 1;
}

std::optional<PowerLoss::Node> PowerLoss::nodeOf(int file, const char* path, int flags) const {
  struct stat status {};
  if (::fstatat(file, path, &status, flags | AT_EMPTY_PATH) != 0) return std::nullopt;
  const auto found = nodes_.find({status.st_dev, status.st_ino});
  return found == nodes_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<PowerLoss::Place> PowerLoss::placeOf(int folder, const char* path) const {
  const fs::path whole(path);
  const fs::path parent = whole.parent_path();
  const auto node = nodeOf(folder, parent.c_str(), 0);
  if (!node || !start_[*node].isFolder) return std::nullopt;
  return Place{*node, whole.filename()};
}

void PowerLoss::before(const FileCall& call) {
  if (call.what != FileCall::What::kOpen) return;
  struct stat status {};
  existed_ = ::fstatat(call.file, call.path, &status, 0) == 0;
}

void PowerLoss::opened(const FileCall& call, int file) {
  const bool isUnnamed = (call.flags & O_TMPFILE) == O_TMPFILE;
  const bool isNew = isUnnamed || ((call.flags & O_CREAT) != 0 && !existed_);
  if (isNew) {
    const auto place = placeOf(call.file, call.path);
    struct stat status {};
    if (!(isUnnamed ? nodeOf(call.file, call.path, 0).has_value() : place.has_value()) ||
        ::fstat(file, &status) != 0) {
      return;
    }
    const Node node = newNode(status.st_dev, status.st_ino, false);
    if (isUnnamed) return;
    changes_.push_back(
        {.kind = Kind::kName, .node = place->folder, .name = place->name, .other = node});
  } else if ((call.flags & O_TRUNC) != 0) {
    if (const auto node = nodeOf(file, "", 0)) {
      changes_.push_back({.kind = Kind::kTruncate, .node = *node});
    }
  }
}

/// A link or a new folder.
void PowerLoss::named(const FileCall& call) {
  const bool isFolder = call.what == FileCall::What::kMakeFolder;
  const int folder = isFolder ? call.file : call.toFolder;
  const char* const path = isFolder ? call.path : call.toPath;
  const auto place = placeOf(folder, path);
  struct stat status {};
  if (!place || ::fstatat(folder, path, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  const auto known = nodes_.find({status.st_dev, status.st_ino});
  const Node node = isFolder || known == nodes_.end()
                        ? newNode(status.st_dev, status.st_ino, isFolder)
                        : known->second;
  changes_.push_back(
      {.kind = Kind::kName, .node = place->folder, .name = place->name, .other = node});
}

void PowerLoss::after(const FileCall& call, long result) {
  const auto file = [&] { return nodeOf(call.file, "", 0); };
  switch (call.what) {
    case FileCall::What::kOpen:
      return opened(call, static_cast<int>(result));
    case FileCall::What::kWrite:
      if (const auto node = file()) {
        changes_.push_back(
            {.kind = Kind::kWrite,
             .node = *node,
             .bytes = std::string(call.bytes.substr(0, static_cast<std::size_t>(result))),
             .place = static_cast<std::size_t>(call.place)});
      }
      return;
    case FileCall::What::kTruncate:
      if (const auto node = file()) {
        changes_.push_back({.kind = Kind::kTruncate,
                            .node = *node,
                            .place = static_cast<std::size_t>(call.place)});
      }
      return;
    case FileCall::What::kSync:
      if (const auto node = file()) changes_.push_back({.kind = Kind::kSync, .node = *node});
      return;
    case FileCall::What::kLink:
    case FileCall::What::kMakeFolder:
      return named(call);
    case FileCall::What::kRename: {
      const auto from = placeOf(call.file, call.path);
      const auto to = placeOf(call.toFolder, call.toPath);
      if (from && to) {
        changes_.push_back({.kind = Kind::kRename,
                            .node = from->folder,
                            .name = from->name,
                            .other = to->folder,
                            .newName = to->name});
      }
      return;
    }
    case FileCall::What::kUnlink:
      if (const auto place = placeOf(call.file, call.path)) {
        changes_.push_back({.kind = Kind::kUnname, .node = place->folder, .name = place->name});
      }
      return;
    case FileCall::What::kClose:
    case FileCall::What::kMode:
      return;
  }
}

bool PowerLoss::isSync(std::size_t count) const { return changes_[count - 1].kind == Kind::kSync; }

void PowerLoss::write(std::string& bytes, const Change& change) {
  if (change.kind == Kind::kTruncate) {
    bytes.resize(change.place);
    return;
  }
  bytes.resize(std::max(bytes.size(), change.place + change.bytes.size()));
  bytes.replace(change.place, change.bytes.size(), change.bytes);
}

void PowerLoss::apply(Disk& disk, const Change& change) {
  Entry& entry = disk[change.node];
  if (change.kind == Kind::kSync) {
    std::vector<const Change*> pending = std::exchange(entry.pending, {});
    for (const Change* each : pending) {
      if (entry.isFolder) {
        rename(disk, *each, change.node);
      } else {
        write(entry.bytes, *each);
      }
    }
    return;
  }
  entry.pending.push_back(&change);
  if (change.kind == Kind::kRename && change.other != change.node) {
    disk[change.other].pending.push_back(&change);
  }
}

/// What a change of names does to the folder `only`.
void PowerLoss::rename(Disk& disk, const Change& change, Node only) {
  Names& names = disk[only].names;
  if (change.kind == Kind::kName) {
    names[change.name] = change.other;
  } else if (change.kind == Kind::kUnname) {
    names.erase(change.name);
  } else if (change.node == change.other) {
    const auto from = names.find(change.name);
    if (from == names.end()) return;
    const Node moved = from->second;
    names.erase(from);
    names[change.newName] = moved;
  } else if (only == change.node) {
    names.erase(change.name);
  } else {
    // Moved from a folder that may not have known it on the disk.
    const Names& others = disk[change.node].names;
    if (const auto from = others.find(change.name); from != others.end()) {
      names[change.newName] = from->second;
    }
  }
}

/// The power goes: of what is pending, as much reaches the disk as chance says.
void PowerLoss::forget(Disk& disk, std::optional<unsigned> seed) {
  if (!seed) return;
  std::mt19937 chance(*seed);
  const auto below = [&](std::size_t limit) { return chance() % limit; };
  for (Node node = 0; node < disk.size(); ++node) {
    const std::vector<const Change*> pending = std::exchange(disk[node].pending, {});
    if (disk[node].isFolder) {
      const std::size_t kept = below(pending.size() + 1);
      for (std::size_t each = 0; each < kept; ++each) rename(disk, *pending[each], node);
      continue;
    }
    for (const Change* each : pending) {
      const std::size_t fate = below(4);
      if (fate == 0) continue;
      Change part = *each;
      if (fate == 1 && part.bytes.size() > kSector) {
        part.bytes.resize((1 + below(part.bytes.size() / kSector)) * kSector);
      }
      write(disk[node].bytes, part);
    }
  }
}

void PowerLoss::build(const Disk& disk, Node folder, const std::string& path) {
  for (const auto& [name, node] : disk[folder].names) {
    const std::string inner = path + "/" + name;
    if (disk[node].isFolder) {
      thmp::testing::makeFolder(inner);
      build(disk, node, inner);
    } else {
      thmp::testing::writeFile(inner, disk[node].bytes);
    }
  }
}

void PowerLoss::restore(std::size_t count, std::optional<unsigned> seed) const {
  Disk disk = start_;
  for (std::size_t each = 0; each < count; ++each) apply(disk, changes_[each]);
  forget(disk, seed);
  for (const fs::directory_entry& entry : fs::directory_iterator(folder_)) {
    fs::remove_all(entry.path());
  }
  build(disk, 0, folder_);
}

}  // namespace thmp::disk
