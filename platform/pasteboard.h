// SPDX-License-Identifier: Apache-2.0
//
// Named pasteboards: where a batch lies until its client has read it. Seen by other processes under
// their names.
//
// Any thread; each operation on one pasteboard is atomic against the others.
#pragma once

#include <memory>
#include <string>

#include "base/error.h"
#include "base/value.h"

namespace thmp {

class Pasteboard {
 public:
  virtual ~Pasteboard() = default;
  /// Made by the system, never used twice.
  virtual const std::string& name() const = 0;
  /// Empties it of all types. A reader that has it open keeps the old content or sees none.
  virtual void clearContents() = 0;
  /// Makes `type` its only type, without content yet.
  virtual void declareType(const std::string& type) = 0;
  /// Stores `propertyList` under `type`. False, with `error` filled, when it could not be stored
  /// whole; readers then see none.
  [[nodiscard]] virtual bool setPropertyList(const Value& propertyList, const std::string& type,
                                             Error* error = nullptr) = 0;
  /// Gives the name and what it holds back to the system. Repeats are harmless.
  virtual void releaseGlobally() = 0;
};

class Pasteboards {
 public:
  virtual ~Pasteboards() = default;
  /// A new pasteboard under a new name; null, with `error` filled, when the system gives none.
  virtual std::shared_ptr<Pasteboard> makeUnique(Error* error = nullptr) = 0;
};

}  // namespace thmp
