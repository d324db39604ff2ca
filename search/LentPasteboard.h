// SPDX-License-Identifier: Apache-2.0
//
// A pasteboard of the pool: the platform's pasteboard with the two owner tags that tie it to its
// query and client while it is lent. Compared by identity. Any thread; the tags have a lock of
// their own, which is a leaf.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "base/value.h"
#include "platform/pasteboard.h"

namespace thmp {

class LentPasteboard {
 public:
  explicit LentPasteboard(std::shared_ptr<Pasteboard> pasteboard)
      : pasteboard_(std::move(pasteboard)) {}

  Pasteboard& board() const { return *pasteboard_; }
  const std::string& name() const { return pasteboard_->name(); }

  /// Marks it as carrying a batch of `uniqueName` for `clientName`; a null client name leaves that
  /// tag away.
  void setOwnerTags(Value uniqueName, Value clientName) {
    const Lock lock(mutex_);
    uniqueName_ = std::move(uniqueName);
    clientName_ = std::move(clientName);
  }
  void clearOwnerTags() { setOwnerTags(Value(), Value()); }

  /// Both tags as they stand together; null values where there is none.
  struct OwnerTags {
    Value uniqueName;
    Value clientName;
  };
  OwnerTags ownerTags() const {
    const Lock lock(mutex_);
    return {uniqueName_, clientName_};
  }

 private:
  const std::shared_ptr<Pasteboard> pasteboard_;
  mutable Mutex mutex_;
  Value uniqueName_ THMP_GUARDED_BY(mutex_);
  Value clientName_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
