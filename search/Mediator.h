// SPDX-License-Identifier: Apache-2.0
//
// What a search asks of the plug-in around it. THMPMailPlugin implements it; tests play it.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "base/format.h"
#include "base/value.h"
#include "maillibrary/FoundItem.h"
#include "search/LentPasteboard.h"
#include "search/QueryRegistry.h"

namespace thmp {

class SearchMediator {
 public:
  virtual ~SearchMediator() = default;

  /// postMessageName:userInfo:
  /// On behalf of `record`: nothing leaves once that very query has been cancelled or replaced.
  virtual void postMessageName(std::string_view name, const Value& userInfo,
                               const std::shared_ptr<THMPMailPluginQuery>& record) = 0;
  /// cancelQuery:clientName:
  /// With a record, on its behalf: when another query has taken its name meanwhile, nothing
  /// happens. Null otherwise.
  virtual void cancelQuery(std::string_view uniqueName, const Value& clientName,
                           const std::shared_ptr<THMPMailPluginQuery>& record) = 0;
  /// pasteboardFromPool
  /// Null when the system gives none.
  virtual std::shared_ptr<LentPasteboard> pasteboardFromPool() = 0;
  /// pasteboardToPool:
  virtual void pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard) = 0;
  /// loadFilePaths:foundItemIndex:
  /// The items that have a path after the call, in order, numbered on from `foundItemIndex`.
  virtual std::vector<FoundItem> loadFilePaths(std::vector<FoundItem> items,
                                               std::uint64_t& foundItemIndex) = 0;
  /// logQueryName:format:
  virtual void logQueryName(const Value& queryName, std::string_view format,
                            std::span<const LogArg> arguments) = 0;
  virtual unsigned logLevel() const = 0;
  /// A line of our own to the system log alone; it begins with "tallyhive: ".
  virtual void logOwnLine(std::string_view line) = 0;
};

}  // namespace thmp
