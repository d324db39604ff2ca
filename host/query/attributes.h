// SPDX-License-Identifier: Apache-2.0
//
// What is known of the attributes of a message: the rows of attribute_table.def. Constant data; any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace thmp::query {

enum class AttributeType : std::uint8_t {
  kString,
  kStrings,  // array of strings
  kNumber,
  kBoolean,
  kDate,
  kDictionary,  // header name to array of strings
  kDatas,       // array of data
};

enum class AttributeUse : std::uint8_t {
  kFetched,    // can be put into a found item
  kQueryOnly,  // can stand in a query, is never put into an item
};

enum class AttributeGroup : std::uint8_t {
  kPlace,
  kType,
  kHeader,
  kPeople,
  kDate,
  kState,
  kAttachment,
  kFile,
};

struct AttributeInfo {
  std::string_view name;
  std::string_view alias;  // a shorter name for queries; empty when there is none
  AttributeUse use;
  AttributeGroup group;
  AttributeType type;
  std::optional<std::uint8_t> number;  // in stored records; empty: absent on every message
  std::string_view meaning;            // a few words
  std::string_view source;             // from what it is derived, or why it is absent
  std::string_view example;            // a query that asks for it
};

/// The attribute that holds the body's text: searched by words, and left out of "any attribute".
inline constexpr std::string_view kTextContentAttribute = "kMDItemTextContent";

/// All attributes, the fetched ones first.
std::span<const AttributeInfo> attributes();

/// What is known of `name`, which may be an alias; null for any other name.
const AttributeInfo* findAttribute(std::string_view name);

/// The name that stands behind an alias; `name` itself when it is none.
std::string_view canonicalName(std::string_view name);

/// Whether the attribute * ranges over `name`: not over the body's text, the headers, places of
/// files, and the engine's own records, whose common words would match every message.
bool isInAnyAttribute(std::string_view name);

/// "string", "string array", "number" and so on.
std::string_view typeName(AttributeType type);

/// A heading for the group, such as "Identity and place".
std::string_view groupName(AttributeGroup group);

}  // namespace thmp::query
