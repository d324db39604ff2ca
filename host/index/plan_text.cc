// SPDX-License-Identifier: Apache-2.0
#include "host/index/plan_text.h"

namespace thmp {

std::string describePlan(const query::Query& query) {
  std::string plan = "walk the attributes of every message, newest first\n";
  if (query::needsTextContent(query)) plan += "read the text of those that depend on it\n";
  return plan;
}

}  // namespace thmp
