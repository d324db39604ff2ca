// SPDX-License-Identifier: Apache-2.0
//
// Where a query of the search engine is made, with the attributes that a client may want to see.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/spotlight.h"

namespace thmp {

/// The attribute names to fetch, each once, in an order without meaning. Filled at the first
/// build() and never changed afterwards. Any thread.
class AttributeList {
 public:
  using Names = std::shared_ptr<const std::vector<std::string>>;

  AttributeList() = default;
  AttributeList(const AttributeList&) = delete;
  AttributeList& operator=(const AttributeList&) = delete;

  const Names& build();

 private:
  std::once_flag once_;
  Names names_;
};

/// buildQueryWithString:fetchAllAttributes:
/// A query that is not started and has no handlers; null when the engine makes none. Without
/// `fetchAllAttributes` the engine's default attributes are fetched; the list is built all the
/// same.
std::shared_ptr<SpotlightQuery> buildQueryWithString(Spotlight& spotlight, AttributeList& list,
                                                     const std::string& queryString,
                                                     bool fetchAllAttributes);

}  // namespace thmp
