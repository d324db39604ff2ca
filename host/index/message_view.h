// SPDX-License-Identifier: Apache-2.0
//
// A message of the index as the evaluator sees it; its text is read when the query asks for it. The
// message outlives it.
#pragma once

#include <functional>
#include <string_view>

#include "host/index/Index.h"
#include "host/query/message_view.h"

namespace thmp {

class IndexedMessageView : public query::MessageView {
 public:
  explicit IndexedMessageView(const IndexedMessage& message) : message_(message) {}

  Value attribute(std::string_view name) const override { return message_.value(name); }
  void forEachAttributeName(
      const std::function<bool(std::string_view name)>& visit) const override {
    message_.forEachAttribute([&](AttributeKey key, const Value&) { return visit(keyText(key)); });
  }

 private:
  const IndexedMessage& message_;
};

}  // namespace thmp
