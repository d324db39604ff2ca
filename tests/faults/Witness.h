// SPDX-License-Identifier: Apache-2.0
//
// Watches what the plug-in posts, at the moment at which each message gets its name: of a query
// that has ended nothing leaves, batches are numbered without gaps, and each batch that is
// announced can be read. What has ended it is told once the call that ended it has returned. One
// thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/faults/FaultWorld.h"

namespace thmp::faults {

class Witness {
 public:
  explicit Witness(FaultWorld& world) : world_(world) {
    world.fake.files.after(FileOperation::kPublish,
                           [this](const std::string& path) { published(path); });
  }
  ~Witness() { world_.fake.files.after(FileOperation::kPublish, nullptr); }
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  /// Which searches have been announced so far: each name with the number of its latest.
  using Known = std::map<std::string, int>;
  Known known() const;
  /// The latest search of each name has ended by now, but where a newer one has begun since.
  void ended(const Known& searches);
  void ended(const Known& searches, const std::string& name);

  /// The client gives up a batch of this name, which may have been lent anew meanwhile, and be
  /// announced when it is empty.
  void cleared(const std::string& batch) { cleared_.insert(batch); }
  /// Every batch is given up; what is being posted may still leave.
  void hostQuits() { quit_ = true; }

  /// Names searched for more than once.
  bool wasReplaced(const std::string& name) const;
  std::size_t messages() const { return messages_; }

 private:
  struct Search {
    int number = 0;
    bool over = false;
    std::int64_t results = 0;
    std::int64_t removals = 0;
  };

  void published(const std::string& path);
  void checkBatch(const Value& userInfo, std::int64_t& last, const char* type);

  FaultWorld& world_;
  std::map<std::string, Search> searches_;
  std::set<std::string> cleared_;
  bool quit_ = false;
  std::size_t messages_ = 0;
};

}  // namespace thmp::faults
