// SPDX-License-Identifier: Apache-2.0
//
// The reference of the query language says what the parser does.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/query/attributes.h"
#include "host/query/parser.h"
#include "tests/support/attribute_reference.h"

namespace thmp {
namespace {

std::string document() {
  std::ifstream in(THMP_SOURCE_DIR "/docs/query-language.md", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The lines of all blocks that the document marks with `kind`; what stands behind two blanks and a
// "#" explains the line.
std::vector<std::string> linesOf(const std::string& kind) {
  std::vector<std::string> lines;
  std::istringstream in(document());
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("```")) {
      inside = line == "```" + kind;
    } else if (inside) {
      lines.push_back(line.substr(0, line.find("  #")));
    }
  }
  return lines;
}

TEST(QueryLanguageReference, HasTheAttributesOfTheTable) {
  const std::string text = document();
  EXPECT_NE(text.find("| `kMDItemSubject`, `subject` |"), std::string::npos);
  EXPECT_TRUE(withAttributeReference(text) == text)
      << "renew it: BUILD/bin/renew_attribute_reference docs/query-language.md";
}

TEST(QueryLanguageReference, ItsExamplesAreQueries) {
  const std::vector<std::string> examples = linesOf("query");
  EXPECT_GT(examples.size(), 30U);
  for (const std::string& example : examples) {
    query::SyntaxError error;
    EXPECT_TRUE(query::parse(example, {}, &error)) << example << ": " << error.message;
  }
}

TEST(QueryLanguageReference, ItsExamplesNameAttributesThatThereAre) {
  for (const std::string& example : linesOf("query")) {
    const auto parsed = query::parse(example, {});
    ASSERT_TRUE(parsed) << example;
    for (const std::string& name : query::attributesReferenced(*parsed)) {
      EXPECT_TRUE(name.starts_with('*') || query::findAttribute(name) != nullptr) << name;
    }
  }
}

TEST(QueryLanguageReference, WhatItCallsAnErrorIsOne) {
  const std::vector<std::string> mistakes = linesOf("error");
  EXPECT_GT(mistakes.size(), 10U);
  for (const std::string& mistake : mistakes) EXPECT_FALSE(query::parse(mistake, {})) << mistake;
}

}  // namespace
}  // namespace thmp
