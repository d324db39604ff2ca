// SPDX-License-Identifier: Apache-2.0
#include "host/query/attributes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

TEST(AttributeTable, Has91FetchedAttributesAnd5ForQueriesOnly) {
  const auto isFetched = [](const AttributeInfo& info) {
    return info.use == AttributeUse::kFetched;
  };
  EXPECT_EQ(std::count_if(attributes().begin(), attributes().end(), isFetched), 91);
  EXPECT_EQ(attributes().size(), 96U);
  EXPECT_TRUE(std::is_partitioned(attributes().begin(), attributes().end(), isFetched));
}

TEST(AttributeTable, NamesEachAttributeOnce) {
  std::set<std::string_view> names;
  for (const AttributeInfo& info : attributes()) names.insert(info.name);
  std::size_t count = names.size();
  EXPECT_EQ(count, attributes().size());
  for (const AttributeInfo& info : attributes()) {
    if (!info.alias.empty() && ++count > 0) names.insert(info.alias);
  }
  EXPECT_EQ(names.size(), count);
}

TEST(AttributeTable, TellsOfEachAttributeWhatItMeansAndWhereItComesFrom) {
  for (const AttributeInfo& info : attributes()) {
    EXPECT_FALSE(info.meaning.empty()) << info.name;
    EXPECT_FALSE(info.source.empty()) << info.name;
    EXPECT_FALSE(groupName(info.group).empty()) << info.name;
    EXPECT_FALSE(typeName(info.type).empty()) << info.name;
  }
}

TEST(AttributeTable, HasForEachAttributeAnExampleThatAsksForIt) {
  for (const AttributeInfo& info : attributes()) {
    const std::optional<Query> query = parsed(info.example);
    ASSERT_TRUE(query) << info.name;
    EXPECT_EQ(attributesReferenced(*query), std::vector<std::string>{std::string(info.name)});
  }
}

TEST(AttributeTable, FindsEveryAttributeByItsNameAndByItsAlias) {
  for (const AttributeInfo& info : attributes()) {
    ASSERT_NE(findAttribute(info.name), nullptr);
    EXPECT_EQ(findAttribute(info.name)->name, info.name);
    EXPECT_EQ(canonicalName(info.name), info.name);
  }
  for (const AttributeInfo& info : attributes()) {
    if (info.alias.empty()) continue;
    EXPECT_EQ(findAttribute(info.alias), findAttribute(info.name));
    EXPECT_EQ(canonicalName(info.alias), info.name);
  }
}

TEST(AttributeTable, KnowsNoOtherNames) {
  for (const std::string_view name : {"", "kMDItem", "kmditemsubject", "Subject", "*", "zzz"}) {
    EXPECT_EQ(findAttribute(name), nullptr) << name;
    EXPECT_EQ(canonicalName(name), name);
  }
}

TEST(AttributeTable, AliasesAreNamesWithoutTheirBeginningExceptFive) {
  const std::set<std::string_view> others{"authorNames", "recipientNames", "emailHeaders",
                                          "mailboxIdentifiers", "likelyJunk"};
  std::size_t aliases = 0;
  for (const AttributeInfo& info : attributes()) {
    if (info.alias.empty()) continue;
    ++aliases;
    if (others.contains(info.alias)) continue;
    std::string expected = "kMDItem" + std::string(info.alias);
    expected[7] = static_cast<char>(expected[7] - 'a' + 'A');
    EXPECT_EQ(info.name, expected);
  }
  EXPECT_EQ(aliases, 24U);
  EXPECT_EQ(canonicalName("authorNames"), "kMDItemAuthors");
  EXPECT_EQ(canonicalName("recipientNames"), "kMDItemRecipients");
  EXPECT_EQ(canonicalName("emailHeaders"), "kMDItemEmailHeadersDictionary");
  EXPECT_EQ(canonicalName("mailboxIdentifiers"), "kMDItemMailboxes");
  EXPECT_EQ(canonicalName("likelyJunk"), "kMDItemIsLikelyJunk");
}

TEST(AttributeTable, TheBodyAndMailboxesAreForQueriesOnly) {
  EXPECT_EQ(findAttribute("textContent")->use, AttributeUse::kQueryOnly);
  EXPECT_EQ(findAttribute("kMDItemMailboxes")->use, AttributeUse::kQueryOnly);
  EXPECT_EQ(findAttribute("kMDItemSubject")->use, AttributeUse::kFetched);
}

TEST(AttributeTable, AnyAttributeLeavesOutTextHeadersPlacesAndTheEnginesOwn) {
  for (const std::string_view name :
       {"kMDItemTextContent", "kMDItemEmailHeadersDictionary", "kMDItemPath", "kMDItemURL",
        "kMDItemAttachmentPaths", ":MD:DeviceId", "_kMDItemExternalID", "kMDItemFSName"}) {
    EXPECT_FALSE(isInAnyAttribute(name)) << name;
  }
  for (const std::string_view name :
       {"kMDItemSubject", "kMDItemTitle", "com_apple_mail_read", "kMDItemMailboxes", "unknown"}) {
    EXPECT_TRUE(isInAnyAttribute(name)) << name;
  }
}

}  // namespace
}  // namespace thmp::query
