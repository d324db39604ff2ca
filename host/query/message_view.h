// SPDX-License-Identifier: Apache-2.0
//
// A message as the evaluator sees it: attributes by name, asked for one at a time, so that whoever
// holds the message need not have all of them at hand.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "base/value.h"

namespace thmp::query {

class MessageView {
 public:
  virtual ~MessageView() = default;

  /// The value or array of values stored under `name`, null when there is none. `name` is never an
  /// alias. The text of the body is asked for only where a query looks at it.
  virtual Value attribute(std::string_view name) const = 0;

  /// Calls `visit` with the name of each stored attribute until it returns false. The name of the
  /// body's text may be left out; it is asked for in any case.
  virtual void forEachAttributeName(
      const std::function<bool(std::string_view name)>& visit) const = 0;
};

/// A message whose attributes are all in one dictionary.
class ValueMessageView : public MessageView {
 public:
  explicit ValueMessageView(Dictionary attributes) : attributes_(std::move(attributes)) {}

  Value attribute(std::string_view name) const override { return attributes_[name]; }
  void forEachAttributeName(
      const std::function<bool(std::string_view name)>& visit) const override {
    for (const Dictionary::Entry& entry : attributes_) {
      if (!visit(entry.key)) return;
    }
  }

 private:
  Dictionary attributes_;
};

}  // namespace thmp::query
