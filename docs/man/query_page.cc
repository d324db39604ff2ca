// SPDX-License-Identifier: Apache-2.0
#include "docs/man/query_page.h"

#include "host/query/attributes.h"

namespace thmp {
namespace {

using query::AttributeInfo;
using query::AttributeUse;

constexpr std::string_view kMark = "; The attribute table makes the list that stands here.\n";

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '*' || c == '_' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string bold(std::string_view text) { return "*" + escaped(text) + "*"; }

std::string entry(const AttributeInfo& info) {
  std::string out = bold(info.name);
  if (!info.alias.empty()) out += ", " + bold(info.alias);
  out += " (" + std::string(typeName(info.type)) + ")\n\t" + escaped(info.meaning);
  out += info.number ? ", as in " + bold(info.example)
                     : ". No message here has it: " + escaped(info.source);
  return out + "\n\n";
}

std::string attributeList() {
  std::string out;
  std::string_view title;
  for (const AttributeInfo& info : query::attributes()) {
    const std::string_view group =
        info.use == AttributeUse::kQueryOnly ? "In queries only" : groupName(info.group);
    if (group != title) out += "## " + std::string(group) + "\n\n";
    title = group;
    out += entry(info);
  }
  out.pop_back();  // the template has the blank line that follows
  return out;
}

}  // namespace

std::string withAttributeList(std::string_view page) {
  const std::size_t mark = page.find(kMark);
  if (mark == std::string_view::npos) return {};
  return std::string(page.substr(0, mark)) + attributeList() +
         std::string(page.substr(mark + kMark.size()));
}

}  // namespace thmp
