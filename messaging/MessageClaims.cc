// SPDX-License-Identifier: Apache-2.0
#include "messaging/MessageClaims.h"

#include <utility>

namespace thmp {

MessageClaims::Scan::Scan(MessageClaims& claims, const std::string& directory)
    : claims_(claims), directory_(directory) {
  const Lock lock(claims_.mutex_);
  ++claims_.folders_[directory_].scansInFlight;
}

MessageClaims::Scan::~Scan() {
  Names dropped;  // freed after the lock is let go
  const Lock lock(claims_.mutex_);
  const auto folder = claims_.folders_.find(directory_);
  if (--folder->second.scansInFlight > 0) return;
  dropped.swap(folder->second.claimed);
  claims_.folders_.erase(folder);
}

bool MessageClaims::Scan::claim(const std::string& name) {
  const Lock lock(claims_.mutex_);
  return claims_.folders_.at(directory_).claimed.insert(name).second;
}

std::size_t MessageClaims::count() const {
  const Lock lock(mutex_);
  std::size_t count = 0;
  for (const auto& [directory, folder] : folders_) count += folder.claimed.size();
  return count;
}

}  // namespace thmp
