// SPDX-License-Identifier: Apache-2.0
#include "host/query/attributes.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

namespace thmp::query {

namespace {

constexpr AttributeInfo kAttributes[] = {
#define THMP_ROW(use, number, name, alias, group, type, ...) \
  {name, alias, AttributeUse::use, AttributeGroup::group, AttributeType::type, number, __VA_ARGS__},
#define THMP_STORED(number, key, ...) THMP_ROW(kFetched, number, __VA_ARGS__)
#define THMP_QUERY_ONLY(number, key, ...) THMP_ROW(kQueryOnly, number, __VA_ARGS__)
#define THMP_ABSENT(...) THMP_ROW(kFetched, std::nullopt, __VA_ARGS__)
#include "host/query/attribute_table.def"
#undef THMP_ROW
};

struct Name {
  std::string_view text;
  const AttributeInfo* attribute = nullptr;
};

// Every name and alias, sorted; the rows without an alias leave empty texts at the beginning.
constexpr auto kNames = [] {
  std::array<Name, 2 * std::size(kAttributes)> names;
  std::size_t count = 0;
  for (const AttributeInfo& info : kAttributes) {
    names[count++] = {info.name, &info};
    names[count++] = {info.alias, &info};
  }
  std::sort(names.begin(), names.end(),
            [](const Name& a, const Name& b) { return a.text < b.text; });
  return names;
}();

constexpr std::array<std::string_view, 5> kNotInAny{kTextContentAttribute,
                                                    "kMDItemEmailHeadersDictionary", "kMDItemPath",
                                                    "kMDItemURL", "kMDItemAttachmentPaths"};

}  // namespace

std::span<const AttributeInfo> attributes() { return kAttributes; }

const AttributeInfo* findAttribute(std::string_view name) {
  const auto* found =
      std::lower_bound(kNames.begin(), kNames.end(), name,
                       [](const Name& a, std::string_view wanted) { return a.text < wanted; });
  return found != kNames.end() && found->text == name && !name.empty() ? found->attribute : nullptr;
}

std::string_view canonicalName(std::string_view name) {
  const AttributeInfo* info = findAttribute(name);
  return info == nullptr ? name : info->name;
}

bool isInAnyAttribute(std::string_view name) {
  return !name.starts_with(':') && !name.starts_with('_') && !name.starts_with("kMDItemFS") &&
         std::find(kNotInAny.begin(), kNotInAny.end(), name) == kNotInAny.end();
}

std::string_view typeName(AttributeType type) {
  switch (type) {
    case AttributeType::kString:
      return "string";
    case AttributeType::kStrings:
      return "string array";
    case AttributeType::kNumber:
      return "number";
    case AttributeType::kBoolean:
      return "boolean";
    case AttributeType::kDate:
      return "date";
    case AttributeType::kDictionary:
      return "dictionary";
    case AttributeType::kDatas:
      return "data array";
  }
  return "";
}

std::string_view groupName(AttributeGroup group) {
  switch (group) {
    case AttributeGroup::kPlace:
      return "Identity and place";
    case AttributeGroup::kType:
      return "Type";
    case AttributeGroup::kHeader:
      return "Subject, headers and text";
    case AttributeGroup::kPeople:
      return "People and accounts";
    case AttributeGroup::kDate:
      return "Dates";
    case AttributeGroup::kState:
      return "State";
    case AttributeGroup::kAttachment:
      return "Attachments";
    case AttributeGroup::kFile:
      return "File";
  }
  return "";
}

}  // namespace thmp::query
