// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/Witness.h"

#include <gtest/gtest.h>

#include "base/plist.h"

namespace thmp::faults {

Witness::Known Witness::known() const {
  Known known;
  for (const auto& [name, search] : searches_) known[name] = search.number;
  return known;
}

void Witness::ended(const Known& searches) {
  for (const auto& [name, number] : searches) ended(searches, name);
}

void Witness::ended(const Known& searches, const std::string& name) {
  const auto known = searches.find(name);
  if (known == searches.end()) return;
  Search& search = searches_[name];
  if (search.number == known->second) search.over = true;
}

bool Witness::wasReplaced(const std::string& name) const {
  const auto search = searches_.find(name);
  return search != searches_.end() && search->second.number > 1;
}

void Witness::published(const std::string& path) {
  const auto bytes = world_.fake.files.contents(path);
  const auto message = readPropertyList(bytes.value_or(""), kMessageLimits);
  ASSERT_TRUE(message) << path;
  ++messages_;
  const auto kind = (*message)[kNameKey].asText();
  const Value& userInfo = (*message)[kUserInfoKey];
  const auto name = userInfo[kUniqueNameKey].asText();
  ASSERT_TRUE(kind);
  if (!name) return;
  Search& search = searches_[std::string(*name)];
  if (*kind == kQueryDidStartName) {
    search = Search{.number = search.number + 1};
    return;
  }
  EXPECT_FALSE(search.over) << *kind << " of " << *name << " after its end";
  if (*kind == kQueryHasUpdatesName) checkBatch(userInfo, search.results, kResultsBatchType);
  if (*kind == kQueryHasRemovalsName) checkBatch(userInfo, search.removals, kRemovalBatchType);
}

void Witness::checkBatch(const Value& userInfo, std::int64_t& last, const char* type) {
  EXPECT_EQ(userInfo[kBatchNumberKey], Value(last + 1));
  last = userInfo[kBatchNumberKey].integerValue();
  const std::string batch(userInfo[kBatchNameKey].asText().value_or(""));
  const Value content = world_.fake.pasteboards.content(batch, type);
  if (content.isNull() && (quit_ || cleared_.contains(batch))) return;
  EXPECT_EQ(content[kUniqueNameKey], userInfo[kUniqueNameKey]) << batch;
  EXPECT_EQ(content[kBatchNumberKey], userInfo[kBatchNumberKey]) << batch;
}

}  // namespace thmp::faults
