// SPDX-License-Identifier: Apache-2.0
//
// The layout of the nodes behind texts, data, arrays and dictionaries, for the code of this folder
// that builds or walks them in bulk. A node is one allocation: its head, then its bytes, values or
// entries.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>

#include "base/value.h"

namespace thmp::value_internal {

/// The head of an array or dictionary. Its elements are relocated byte by byte: a Value and an
/// Entry hold no address of themselves.
struct ContainerNode : Node {
  static constexpr std::size_t kMostLent = 128;

  std::size_t capacity = 0;
  ContainerNode* nextToFree = nullptr;
  /// Of a dictionary: the entries whose values it does not count, because they are part of its own
  /// allocation or belong to `lender`, a dictionary that it holds. See DictionaryBuilder.
  std::bitset<kMostLent> lent;
  Node* lender = nullptr;

  /// Whether the elements may be moved elsewhere or changed by a sole owner.
  bool ownsElements() const noexcept { return lender == nullptr && lent.none(); }
};

inline char* bytesOf(Node* node) noexcept { return reinterpret_cast<char*>(node + 1); }
inline const char* bytesOf(const Node* node) noexcept {
  return reinterpret_cast<const char*>(node + 1);
}

/// REQUIRES: `node` is an array's.
inline Value* valuesOf(Node* node) noexcept {
  return reinterpret_cast<Value*>(static_cast<ContainerNode*>(node) + 1);
}

/// REQUIRES: `node` is a dictionary's.
inline Dictionary::Entry* entriesOf(Node* node) noexcept {
  return reinterpret_cast<Dictionary::Entry*>(static_cast<ContainerNode*>(node) + 1);
}

/// A text's or data's node with `size` bytes that the caller fills; null for none.
Node* newBytesNode(Value::Kind kind, std::size_t size);

/// An array's or dictionary's node without elements, with room for `capacity` of them.
ContainerNode* newContainerNode(Value::Kind kind, std::size_t capacity);

/// One more reference to a node that no other thread can see yet, without an atomic addition.
inline void retainUnpublished(Node* node) noexcept {
  node = counterOf(node);
  if (node == nullptr) return;
  node->references.store(node->references.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
}

/// The way to the private parts.
struct Access {
  static Value value(Value::Kind kind, Node* adopted) noexcept { return Value(kind, adopted); }
  static Dictionary dictionary(Node* adopted) noexcept {
    Dictionary dictionary;
    dictionary.node_ = NodeRef(adopted);
    return dictionary;
  }
  static Text text(Node* adopted) noexcept {
    Text text;
    text.node_ = NodeRef(adopted);
    return text;
  }
  /// Null for an empty one. REQUIRES: the value is a text, data, array or dictionary.
  static Node* node(const Value& value) noexcept { return value.scalar_.node; }
  static Node* node(const Text& text) noexcept { return text.node_.get(); }
  static Node* node(const Dictionary& dictionary) noexcept { return dictionary.node_.get(); }
  /// With the kind, what tells two scalars apart; for the others the address of the node.
  static std::uint64_t bits(const Value& value) noexcept { return value.scalar_.unsignedInteger; }
};

}  // namespace thmp::value_internal
