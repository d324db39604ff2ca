// SPDX-License-Identifier: Apache-2.0
//
// The attributes of a message: one table from which the parser, the index, the help texts and the
// documents derive. Constant data; any thread.
#pragma once

#include <cstdint>
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

enum class AttributeSource : std::uint8_t {
  kMessage,  // derived from the message, its file or its place, where they tell
  kNone,     // nothing here can tell it: absent on every message
};

struct AttributeInfo {
  std::string_view name;
  AttributeType type;
  AttributeUse use;
  AttributeSource source;
  std::string_view meaning;  // a few words
  std::string_view example;  // a query that asks for it
};

struct AttributeAlias {
  std::string_view alias;
  std::string_view name;
};

/// The attribute that holds the body's text: searched by words, and left out of "any attribute".
inline constexpr std::string_view kTextContentAttribute = "kMDItemTextContent";

/// All attributes, the fetched ones first.
std::span<const AttributeInfo> attributes();
/// The shorter names that queries may use.
std::span<const AttributeAlias> attributeAliases();

/// What is known of `name`, which may be an alias; null for a name that no message has.
const AttributeInfo* findAttribute(std::string_view name);

/// The name that stands behind an alias; `name` itself when it is none.
std::string_view canonicalName(std::string_view name);

/// Whether the attribute * ranges over `name`: not over the body's text, the headers, places of
/// files, and the engine's own records, whose common words would match every message.
bool isInAnyAttribute(std::string_view name);

/// "string", "string array", "number" and so on.
std::string_view typeName(AttributeType type);

}  // namespace thmp::query
