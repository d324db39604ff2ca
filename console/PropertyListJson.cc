// SPDX-License-Identifier: Apache-2.0
#include "console/PropertyListJson.h"

#include <cstring>

#include "console/json_text.h"

namespace thmp::console {
namespace {

using Kind = Value::Kind;
using Object = PropertyListView::Object;

/// Most pieces are short: they are copied in blocks of so many bytes, beyond their end.
constexpr std::size_t kBlock = 16;

}  // namespace

PropertyListJson::Piece PropertyListJson::pieceFrom(std::size_t begin) const {
  return {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(pieces_.size() - begin)};
}

/// Without the first bytes that are `skipped`.
inline void PropertyListJson::copy(const Piece& piece, std::size_t skipped,
                                   fmt::memory_buffer& json) const {
  const char* from = pieces_.data() + piece.begin + skipped;
  const std::size_t size = piece.size - skipped;
  const std::size_t begin = json.size();
  json.reserve(begin + size + kBlock);
  char* to = json.data() + begin;
  if (size > 4 * kBlock || piece.begin + piece.size + kBlock > pieces_.size()) {
    std::memcpy(to, from, size);
  } else {
    for (std::size_t done = 0; done < size; done += kBlock) {
      std::memcpy(to + done, from + done, kBlock);
    }
  }
  json.resize(begin + size);
}

void PropertyListJson::append(Object object, fmt::memory_buffer& json) {
  if (const Piece& known = values_[object]; known.size > 0) return copy(known, 0, json);
  switch (list_.kind(object)) {
    case Kind::kArray:
      return appendArray(list_.elements(object), json);
    case Kind::kDictionary:
      return appendObject(list_.entries(object), json);
    default:
      makeValue(object);
      copy(values_[object], 0, json);
  }
}

void PropertyListJson::appendArray(const PropertyListView::Members& elements,
                                   fmt::memory_buffer& json) {
  json.push_back('[');
  for (std::size_t i = 0; i < elements.size(); ++i) {
    if (i > 0) json.push_back(',');
    append(elements[i], json);
  }
  json.push_back(']');
}

void PropertyListJson::appendObject(const PropertyListView::Entries& entries,
                                    fmt::memory_buffer& json) {
  json.push_back('{');
  for (std::size_t i = 0; i < entries.keys.size(); ++i) {
    const Object key = entries.keys[i];
    if (keys_[key].size == 0) makeKey(key);
    copy(keys_[key], i == 0 ? 1 : 0, json);
    append(entries.values[i], json);
  }
  json.push_back('}');
}

void PropertyListJson::makeValue(Object object) {
  const std::size_t begin = pieces_.size();
  switch (list_.kind(object)) {
    case Kind::kText:
      appendJsonText(list_.bytes(object, room_), pieces_);
      break;
    case Kind::kData:
      appendJson(Value(Data{std::string(list_.bytes(object, room_))}), pieces_);
      break;
    default:
      appendJson(list_.plain(object), pieces_);
  }
  values_[object] = pieceFrom(begin);
}

void PropertyListJson::makeKey(Object object) {
  const std::size_t begin = pieces_.size();
  pieces_.push_back(',');
  appendJsonText(list_.bytes(object, room_), pieces_);
  pieces_.push_back(':');
  keys_[object] = pieceFrom(begin);
}

}  // namespace thmp::console
