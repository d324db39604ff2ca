// SPDX-License-Identifier: Apache-2.0
//
// The attributes that a message can have, each as one shared text, so that the dictionaries of all
// messages share their keys, and as its small number, so that stored records need not spell it.
// Both come from the attribute table. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/value.h"

namespace thmp {

enum class AttributeKey : std::uint8_t {
#define THMP_STORED(number, key, ...) key = number,
#define THMP_QUERY_ONLY(number, key, ...) key = number,
#define THMP_ABSENT(...)
#include "host/query/attribute_table.def"
  kEnd,  // the table's last row has the highest number
  kBeforeQueryOnly = 127,
  kFetchedCount = 0
#define THMP_STORED(...) +1
#define THMP_QUERY_ONLY(...)
#define THMP_ABSENT(...)
#include "host/query/attribute_table.def"
};

constexpr bool isQueryOnly(AttributeKey key) noexcept {
  return key > AttributeKey::kBeforeQueryOnly;
}

/// The one shared text of the attribute's name. REQUIRES: `key` names an attribute.
const Text& keyText(AttributeKey key) noexcept;

/// Empty for a name that no message ever has.
std::optional<AttributeKey> keyNamed(std::string_view name) noexcept;

}  // namespace thmp
