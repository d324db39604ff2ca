// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/RecordingPasteboards.h"

#include <cerrno>
#include <utility>

#include "base/plist.h"

namespace thmp {

RecordingPasteboard::RecordingPasteboard(RecordingPasteboards& owner, std::string name)
    : owner_(owner), name_(std::move(name)) {}

std::vector<std::string> RecordingPasteboard::record() const {
  const Lock lock(mutex_);
  return record_;
}

int RecordingPasteboard::clearCount() const {
  const Lock lock(mutex_);
  return cleared_;
}

int RecordingPasteboard::releaseCount() const {
  const Lock lock(mutex_);
  return released_;
}

Value RecordingPasteboard::content(const std::string& type) const {
  const Lock lock(mutex_);
  return type == type_ ? content_ : Value();
}

std::vector<Value> RecordingPasteboard::contents() const {
  const Lock lock(mutex_);
  return contents_;
}

std::string RecordingPasteboard::type() const {
  const Lock lock(mutex_);
  return type_;
}

void RecordingPasteboard::clearContents() {
  const Lock lock(mutex_);
  record_.emplace_back("clear");
  ++cleared_;
  type_.clear();
  content_ = Value();
}

void RecordingPasteboard::declareType(const std::string& type) {
  const Lock lock(mutex_);
  record_.push_back("declare " + type);
  type_ = type;
  content_ = Value();
}

bool RecordingPasteboard::setPropertyList(const Value& propertyList, const std::string& type,
                                          Error* error) {
  const bool fails = owner_.beginSet(*this);
  // What has no encoding cannot be handed to another process.
  const bool encodable = writeBinaryPropertyList(propertyList, error).has_value();
  const Lock lock(mutex_);
  const bool stored = !fails && encodable && type == type_ && released_ == 0;
  record_.push_back("set " + type + (stored ? "" : " failed"));
  content_ = stored ? propertyList : Value();
  if (stored) contents_.push_back(propertyList);
  return stored || !encodable ? stored : fail(error, Error::posix(fails ? ENOSPC : ENOENT, name_));
}

void RecordingPasteboard::releaseGlobally() {
  const Lock lock(mutex_);
  record_.emplace_back("release");
  ++released_;
  type_.clear();
  content_ = Value();
}

std::vector<std::shared_ptr<RecordingPasteboard>> RecordingPasteboards::made() const {
  const Lock lock(mutex_);
  return made_;
}

std::shared_ptr<RecordingPasteboard> RecordingPasteboards::find(const std::string& name) const {
  for (const auto& pasteboard : made()) {
    if (pasteboard->name() == name) return pasteboard;
  }
  return nullptr;
}

Value RecordingPasteboards::content(const std::string& name, const std::string& type) const {
  const auto pasteboard = find(name);
  return pasteboard ? pasteboard->content(type) : Value();
}

void RecordingPasteboards::failCreation(bool fails) {
  const Lock lock(mutex_);
  failsCreation_ = fails;
}

void RecordingPasteboards::failSetAt(int nth) {
  const Lock lock(mutex_);
  failingSet_ = nth;
}

void RecordingPasteboards::beforeSet(SetHook hook) {
  const Lock lock(mutex_);
  beforeSet_ = std::move(hook);
}

std::shared_ptr<Pasteboard> RecordingPasteboards::makeUnique(Error* error) {
  const Lock lock(mutex_);
  if (failsCreation_) {
    fail(error, Error::posix(ENOSPC, "pasteboard"));
    return nullptr;
  }
  made_.push_back(
      std::make_shared<RecordingPasteboard>(*this, "pb-" + std::to_string(made_.size() + 1)));
  return made_.back();
}

bool RecordingPasteboards::beginSet(RecordingPasteboard& pasteboard) {
  SetHook hook;
  bool fails = false;
  {
    const Lock lock(mutex_);
    hook = beforeSet_;
    fails = failingSet_ > 0 && --failingSet_ == 0;
  }
  if (hook) hook(pasteboard);
  return fails;
}

}  // namespace thmp
