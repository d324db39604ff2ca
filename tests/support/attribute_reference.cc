// SPDX-License-Identifier: Apache-2.0
#include "tests/support/attribute_reference.h"

#include "host/query/attributes.h"

namespace thmp {

namespace {

using query::AttributeInfo;
using query::AttributeUse;

constexpr std::string_view kBegin = "<!-- The attribute table makes what follows. -->\n";
constexpr std::string_view kEnd = "<!-- Here it ends. -->\n";

std::string code(std::string_view text) { return "`" + std::string(text) + "`"; }

std::string row(const AttributeInfo& info) {
  std::string name = code(info.name);
  if (!info.alias.empty()) name += ", " + code(info.alias);
  const std::string source = (info.number ? "" : "absent: ") + std::string(info.source);
  return "| " + name + " | " + std::string(typeName(info.type)) + " | " +
         std::string(info.meaning) + " | " + source + " | " + code(info.example) + " |\n";
}

std::string heading(std::string_view title) {
  return "\n### " + std::string(title) +
         "\n\n| attribute | type | meaning | where it comes from | example "
         "|\n|---|---|---|---|---|\n";
}

std::string tables() {
  std::string out;
  std::string_view title;
  for (const AttributeInfo& info : query::attributes()) {
    const std::string_view group = info.use == AttributeUse::kQueryOnly
                                       ? "In queries only, never in a found item"
                                       : groupName(info.group);
    if (group != title) out += heading(group);
    title = group;
    out += row(info);
  }
  return out + "\n";
}

}  // namespace

std::string withAttributeReference(std::string_view document) {
  const std::size_t begin = document.find(kBegin);
  const std::size_t end = document.find(kEnd);
  if (begin == std::string_view::npos || end == std::string_view::npos || end < begin) {
    return std::string(document);
  }
  return std::string(document.substr(0, begin + kBegin.size())) + tables() +
         std::string(document.substr(end));
}

}  // namespace thmp
