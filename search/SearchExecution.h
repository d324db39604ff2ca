// SPDX-License-Identifier: Apache-2.0
//
// Turns a client's Search message into one live query over the user's mail.
//
// search: runs on the exchange queue. What follows (found and removed items, the end of gathering,
// completion) arrives on the engine's threads and is a SearchSession's.
#pragma once

#include <memory>

#include "base/value.h"
#include "platform/platform.h"
#include "search/Mediator.h"
#include "search/PostingThread.h"
#include "search/QueryConstruction.h"
#include "search/QueryRegistry.h"

namespace thmp {

class SearchExecution {
 public:
  /// `registry` and this object live at least as long as the mediators given to search:.
  SearchExecution(const Platform& platform, AttributeList& attributeList, QueryRegistry& registry)
      : platform_(platform), attributeList_(attributeList), registry_(registry) {}

  /// search:
  /// `message` is the whole message: "name" and "userInfo". The query holds `mediator` until it is
  /// cancelled.
  void search(const Value& message, const std::shared_ptr<SearchMediator>& mediator);

 private:
  const Platform& platform_;
  AttributeList& attributeList_;
  QueryRegistry& registry_;
  PostingThread posting_;
};

}  // namespace thmp
