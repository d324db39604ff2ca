// SPDX-License-Identifier: Apache-2.0
//
// Pasteboards, and one pasteboard, that hand every call on to others, so that a double overrides
// only what it breaks.
#pragma once

#include <utility>

#include "platform/pasteboard.h"

namespace thmp {

class ForwardingPasteboard : public Pasteboard {
 public:
  explicit ForwardingPasteboard(std::shared_ptr<Pasteboard> target) : target_(std::move(target)) {}

  const std::string& name() const override { return target_->name(); }
  void clearContents() override { target_->clearContents(); }
  void declareType(const std::string& type) override { target_->declareType(type); }
  [[nodiscard]] bool setPropertyList(const Value& propertyList, const std::string& type,
                                     Error* error = nullptr) override {
    return target_->setPropertyList(propertyList, type, error);
  }
  void releaseGlobally() override { target_->releaseGlobally(); }

 protected:
  Pasteboard& target() { return *target_; }

 private:
  const std::shared_ptr<Pasteboard> target_;
};

class ForwardingPasteboards : public Pasteboards {
 public:
  /// `target` must outlive this object.
  explicit ForwardingPasteboards(Pasteboards& target) : target_(target) {}

  std::shared_ptr<Pasteboard> makeUnique(Error* error = nullptr) override {
    return target_.makeUnique(error);
  }

 protected:
  Pasteboards& target() { return target_; }

 private:
  Pasteboards& target_;
};

}  // namespace thmp
