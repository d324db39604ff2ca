// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FakeIdentity.h"

#include <utility>

namespace thmp {

void FakeIdentity::setCurrentUser(std::optional<UserRecord> user) {
  const Lock lock(mutex_);
  currentUser_ = std::move(user);
}

void FakeIdentity::addUser(UserRecord user) {
  const Lock lock(mutex_);
  std::string name = user.name;
  users_[std::move(name)] = std::move(user);
}

void FakeIdentity::setProcessHome(std::string home) {
  const Lock lock(mutex_);
  processHome_ = std::move(home);
}

void FakeIdentity::setHostSandboxed(bool sandboxed) {
  const Lock lock(mutex_);
  sandboxed_ = sandboxed;
}

void FakeIdentity::setSystemVersion(std::optional<double> version) {
  const Lock lock(mutex_);
  systemVersion_ = version;
}

int FakeIdentity::sandboxedCount() const {
  const Lock lock(mutex_);
  return sandboxedCount_;
}

std::optional<UserRecord> FakeIdentity::currentUser() {
  const Lock lock(mutex_);
  return currentUser_;
}

std::optional<UserRecord> FakeIdentity::userByName(const std::string& name) {
  const Lock lock(mutex_);
  if (const auto user = users_.find(name); user != users_.end()) return user->second;
  if (currentUser_ && currentUser_->name == name) return currentUser_;
  return std::nullopt;
}

std::string FakeIdentity::processHome() {
  const Lock lock(mutex_);
  return processHome_;
}

bool FakeIdentity::hostSandboxed() {
  const Lock lock(mutex_);
  ++sandboxedCount_;
  return sandboxed_;
}

std::optional<double> FakeIdentity::systemVersion() {
  const Lock lock(mutex_);
  return systemVersion_;
}

std::string FakeIdentity::globallyUniqueString() {
  const Lock lock(mutex_);
  const std::string number = std::to_string(++uniqueStrings_);
  return "UNIQUE-" + std::string(number.size() < 6 ? 6 - number.size() : 0, '0') + number;
}

}  // namespace thmp
