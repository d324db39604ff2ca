// SPDX-License-Identifier: Apache-2.0
//
// What a client asked for, as the callbacks of its query need it.
#pragma once

#include "base/value.h"

namespace thmp {

struct SearchRequest {
  /// The payload as it came; each message about the query carries a copy.
  Dictionary userInfo;
  Text uniqueName;
  // Texts, or null.
  Value clientName;
  Value sortingAttribute;
  bool sortAscending = false;
};

}  // namespace thmp
