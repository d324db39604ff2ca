// SPDX-License-Identifier: Apache-2.0
//
// Reads the binary encoding: what was checked is built from the leaves up, each object once, so
// that shared objects stay shared.
#include <cstring>
#include <vector>

#include "base/PropertyListView.h"
#include "base/plist.h"
#include "base/value_nodes.h"

namespace thmp {
namespace {

using value_internal::Access;
using value_internal::entriesOf;
using value_internal::Node;
using value_internal::NodeRef;
using value_internal::retainUnpublished;
using value_internal::valuesOf;

using Kind = Value::Kind;
using Object = PropertyListView::Object;

/// The values are seen by no other thread before they are all built.
class ValueBuilder {
 public:
  explicit ValueBuilder(const PropertyListView& list) : list_(list), values_(list.objectCount()) {}

  Value build() {
    for (const Object object : list_.reached()) values_[object] = made(object);
    return std::move(values_[list_.root()]);
  }

 private:
  Value made(Object object) {
    switch (const Kind kind = list_.kind(object); kind) {
      case Kind::kData:
      case Kind::kText:
        return Access::value(kind, nodeOfBytes(kind, list_.bytes(object, room_)));
      case Kind::kArray:
        return madeArray(list_.elements(object));
      case Kind::kDictionary:
        return madeDictionary(list_.entries(object));
      default:
        return list_.plain(object);
    }
  }

  static Node* nodeOfBytes(Kind kind, std::string_view bytes) {
    Node* node = value_internal::newBytesNode(kind, bytes.size());
    if (node != nullptr) std::memcpy(value_internal::bytesOf(node), bytes.data(), bytes.size());
    return node;
  }

  Value madeArray(const PropertyListView::Members& elements) {
    if (elements.size() == 0) return Access::value(Kind::kArray, nullptr);
    NodeRef node(value_internal::newContainerNode(Kind::kArray, elements.size()));
    for (std::size_t i = 0; i < elements.size(); ++i) {
      new (valuesOf(node.get()) + i) Value(shared(elements[i]));
      ++node.get()->size;
    }
    return Access::value(Kind::kArray, node.release());
  }

  Value madeDictionary(const PropertyListView::Entries& entries) {
    const std::size_t count = entries.keys.size();
    if (count == 0) return Access::value(Kind::kDictionary, nullptr);
    NodeRef node(value_internal::newContainerNode(Kind::kDictionary, count));
    for (std::size_t i = 0; i < count; ++i) {
      Node* key = Access::node(values_[entries.keys[i]]);
      retainUnpublished(key);
      new (entriesOf(node.get()) + i)
          Dictionary::Entry{Access::text(key), shared(entries.values[i])};
      ++node.get()->size;
    }
    return Access::value(Kind::kDictionary, node.release());
  }

  Value shared(Object object) const {
    const Value& value = values_[object];
    if (value.kind() < Kind::kData) return value;
    retainUnpublished(Access::node(value));
    return Access::value(value.kind(), Access::node(value));
  }

  const PropertyListView& list_;
  std::vector<Value> values_;  // by object
  std::string room_;
};

}  // namespace

Value PropertyListView::value() const { return ValueBuilder(*this).build(); }

std::optional<Value> readBinaryPropertyList(std::string_view bytes,
                                            const PropertyListLimits& limits, Error* error) {
  const auto list = PropertyListView::open(bytes, limits, error);
  if (!list) return std::nullopt;
  return list->value();
}

}  // namespace thmp
