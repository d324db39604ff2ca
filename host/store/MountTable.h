// SPDX-License-Identifier: Apache-2.0
//
// Says where file systems come and go. A folder upon which one is mounted, or from which it is
// taken, tells its watchers nothing, and stays as readable as before.
//
// Of one thread at a time.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace thmp {

class MountTable {
 public:
  /// Begins with what is mounted now. Only places at, above or below one of `folders` (absolute)
  /// count.
  explicit MountTable(std::vector<std::string> folders);
  ~MountTable();
  MountTable(const MountTable&) = delete;
  MountTable& operator=(const MountTable&) = delete;

  /// To be polled for POLLPRI, which says that changes() may have some; -1 when the system shows no
  /// table.
  int descriptor() const noexcept { return descriptor_; }

  /// The folders upon which something was mounted, or from which it was taken, since the last call.
  std::set<std::string> changes();

 private:
  // By the number of the mount and its place.
  using Mounts = std::set<std::pair<std::string, std::string>>;
  Mounts read() const;

  const std::vector<std::string> folders_;
  const int descriptor_;
  Mounts mounts_;
};

}  // namespace thmp
