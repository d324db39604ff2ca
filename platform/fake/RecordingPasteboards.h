// SPDX-License-Identifier: Apache-2.0
//
// Pasteboards in memory, named "pb-1", "pb-2" and so on, that record what is done to them. Any
// thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/pasteboard.h"

namespace thmp {

class RecordingPasteboards;

class RecordingPasteboard : public Pasteboard {
 public:
  /// `owner` must outlive this object.
  RecordingPasteboard(RecordingPasteboards& owner, std::string name);

  /// "clear", "declare <type>", "set <type>", "release", in order; a set that failed is
  /// "set <type> failed".
  std::vector<std::string> record() const;
  int clearCount() const;
  int releaseCount() const;
  /// What another process reads under `type`: the null value when there is none.
  Value content(const std::string& type) const;
  /// All that was ever stored, in order, cleared since or not.
  std::vector<Value> contents() const;
  /// The declared type; empty without one.
  std::string type() const;

  // Pasteboard.
  const std::string& name() const override { return name_; }
  void clearContents() override;
  void declareType(const std::string& type) override;
  [[nodiscard]] bool setPropertyList(const Value& propertyList, const std::string& type,
                                     Error* error = nullptr) override;
  void releaseGlobally() override;

 private:
  RecordingPasteboards& owner_;
  const std::string name_;
  mutable Mutex mutex_;
  std::vector<std::string> record_ THMP_GUARDED_BY(mutex_);
  std::vector<Value> contents_ THMP_GUARDED_BY(mutex_);
  std::string type_ THMP_GUARDED_BY(mutex_);
  Value content_ THMP_GUARDED_BY(mutex_);
  int cleared_ THMP_GUARDED_BY(mutex_) = 0;
  int released_ THMP_GUARDED_BY(mutex_) = 0;
};

class RecordingPasteboards : public Pasteboards {
 public:
  using SetHook = std::function<void(RecordingPasteboard& pasteboard)>;

  /// All that were made, in order.
  std::vector<std::shared_ptr<RecordingPasteboard>> made() const;
  /// Null when none has that name.
  std::shared_ptr<RecordingPasteboard> find(const std::string& name) const;
  /// What another process reads: the null value when there is nothing.
  Value content(const std::string& name, const std::string& type) const;

  /// Whether makeUnique() fails from now on.
  void failCreation(bool fails);
  /// The `nth` setPropertyList() of all pasteboards from now on fails, 1 being the next.
  void failSetAt(int nth);
  /// Runs before each setPropertyList(), on the calling thread with nothing locked.
  void beforeSet(SetHook hook);

  // Pasteboards.
  std::shared_ptr<Pasteboard> makeUnique(Error* error = nullptr) override;

 private:
  friend class RecordingPasteboard;
  /// The hook and the fault of one setPropertyList(): true when it is to fail.
  bool beginSet(RecordingPasteboard& pasteboard);

  mutable Mutex mutex_;
  std::vector<std::shared_ptr<RecordingPasteboard>> made_ THMP_GUARDED_BY(mutex_);
  bool failsCreation_ THMP_GUARDED_BY(mutex_) = false;
  int failingSet_ THMP_GUARDED_BY(mutex_) = 0;
  SetHook beforeSet_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
