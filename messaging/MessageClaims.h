// SPDX-License-Identifier: Apache-2.0
//
// Which message files the scans now in flight have taken, so that of several that list one folder
// at the same time only one handles each file. One table for the process, whichever centers scan.
// Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "base/mutex.h"

namespace thmp {

class MessageClaims {
 public:
  /// One scan of `directory`, in flight for as long as this lives; begun before the folder is
  /// listed. When the last scan of a folder ends, the claims made there are dropped.
  class Scan {
   public:
    Scan(MessageClaims& claims, const std::string& directory);
    ~Scan();
    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    /// Takes the entry `name`. False when a scan in flight has taken it before.
    [[nodiscard]] bool claim(const std::string& name);

    /// Calls `use` with the names that scans in flight have claimed here, while nobody can claim
    /// more. `use` does little.
    template <typename Use>
    void withClaims(Use use) const {
      const Lock lock(claims_.mutex_);
      use(claims_.folders_.at(directory_).claimed);
    }

   private:
    MessageClaims& claims_;
    const std::string directory_;
  };

  /// How many claims are held, over all folders.
  std::size_t count() const;

 private:
  using Names = std::unordered_set<std::string>;
  struct Folder {
    std::size_t scansInFlight = 0;
    Names claimed;
  };

  mutable Mutex mutex_;
  std::unordered_map<std::string, Folder> folders_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
