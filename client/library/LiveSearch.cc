// SPDX-License-Identifier: Apache-2.0
#include "client/library/LiveSearch.h"

#include "messaging/message_names.h"

namespace thmp::client {

void LiveSearch::note(const Message& message) {
  const Dictionary& info = message.userInfo;
  if (message.name == kQueryDidStartName) {
    started = true;
  } else if (message.name == kQueryHasUpdatesName || message.name == kQueryHasRemovalsName) {
    auto& announced = message.name == kQueryHasRemovalsName ? removals : batches;
    announced[info[kBatchNumberKey].asUnsigned().value_or(0)] =
        info[kBatchNameKey].asText().value_or("");
  } else if (message.name == kQueryDidCompleteName) {
    // Of two the one that says why it has failed.
    if (!completion || info.contains(kErrorCodeKey)) completion = info;
  }
}

std::pair<std::uint64_t, std::string> LiveSearch::takeBatch() {
  const auto node = batches.extract(batches.begin());
  nextBatch = node.key() + 1;
  return {node.key(), node.mapped()};
}

}  // namespace thmp::client
