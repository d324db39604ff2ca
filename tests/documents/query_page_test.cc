// SPDX-License-Identifier: Apache-2.0
//
// The manual page of the query language says what the parser does.
#include "docs/man/query_page.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "host/query/attributes.h"
#include "host/query/parser.h"

namespace thmp {
namespace {

std::string source() {
  std::ifstream in(THMP_SOURCE_DIR "/docs/man/tallyhive-query.7.scd.in", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string escaped(std::string_view name) {
  std::string out;
  for (const char c : name) out += c == '_' ? "\\_" : std::string(1, c);
  return out;
}

TEST(QueryPage, NamesEveryAttributeAndEveryAlias) {
  const std::string page = withAttributeList(source());
  for (const query::AttributeInfo& info : query::attributes()) {
    EXPECT_NE(page.find("\n*" + escaped(info.name) + "*"), std::string::npos) << info.name;
    if (info.alias.empty()) continue;
    EXPECT_NE(page.find(", *" + escaped(info.alias) + "* ("), std::string::npos) << info.alias;
  }
}

TEST(QueryPage, ItsExamplesAreQueries) {
  std::istringstream in(source());
  bool inside = false;
  std::vector<std::string> examples;
  for (std::string line; std::getline(in, line);) {
    if (line == "```") {
      inside = !inside;
    } else if (inside) {
      examples.push_back(line);
    }
  }
  EXPECT_GT(examples.size(), 15U);
  for (const std::string& example : examples) {
    query::SyntaxError error;
    EXPECT_TRUE(query::parse(example, {}, &error)) << example << ": " << error.message;
  }
}

TEST(QueryPage, IsNoneWithoutThePlaceOfTheList) { EXPECT_EQ(withAttributeList("plum"), ""); }

}  // namespace
}  // namespace thmp
