// SPDX-License-Identifier: Apache-2.0
#include "host/store/attribute_keys.h"

#include <array>
#include <unordered_map>

#include "host/query/attributes.h"

namespace thmp {

namespace {

constexpr std::size_t kSlots = static_cast<std::size_t>(AttributeKey::kEnd);

struct KeyTable {
  std::array<Text, kSlots> texts;
  std::unordered_map<std::string_view, AttributeKey> byName;

  KeyTable() {
    for (const query::AttributeInfo& info : query::attributes()) {
      if (!info.number) continue;
      texts[*info.number] = Text::forever(info.name);
      byName.emplace(info.name, static_cast<AttributeKey>(*info.number));
    }
  }
};

// Never destroyed: threads may outlive the static destructors.
const KeyTable& keyTable() {
  static const KeyTable& table = *new KeyTable;
  return table;
}

}  // namespace

const Text& keyText(AttributeKey key) noexcept {
  return keyTable().texts[static_cast<std::size_t>(key)];
}

std::optional<AttributeKey> keyNamed(std::string_view name) noexcept {
  const auto found = keyTable().byName.find(name);
  if (found == keyTable().byName.end()) return std::nullopt;
  return found->second;
}

}  // namespace thmp
