// SPDX-License-Identifier: Apache-2.0
//
// The layout of the nodes behind texts, data, arrays and dictionaries, for the code of this folder
// that builds or walks them in bulk. A node is one allocation: its head, then its bytes, values or
// entries.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/value.h"

namespace thmp::value_internal {

/// The head of an array or dictionary. Its elements are relocated byte by byte: a Value and an
/// Entry hold no address of themselves.
struct ContainerNode : Node {
  std::size_t capacity = 0;
  ContainerNode* nextToFree = nullptr;
};

/// The node of a dictionary with a source.
struct SourceNode : ContainerNode {
  std::shared_ptr<const DictionarySource> source;
  std::atomic<Node*> made{nullptr};  // has the entries; null until they are asked for
};

/// The node that has the entries of `node`, made now if need be.
Node* madeNode(SourceNode* node);

/// The source of a dictionary whose entries are not made yet; null for any other node.
const DictionarySource* unusedSource(const Node* node) noexcept;

/// The node that has the elements of an array's or dictionary's node; null for null.
inline Node* elementsNode(Node* node) {
  return node == nullptr || !node->hasSource ? node : madeNode(static_cast<SourceNode*>(node));
}

inline char* bytesOf(Node* node) noexcept { return reinterpret_cast<char*>(node + 1); }
inline const char* bytesOf(const Node* node) noexcept {
  return reinterpret_cast<const char*>(node + 1);
}

/// REQUIRES: `node` is an array's.
inline Value* valuesOf(Node* node) noexcept {
  return reinterpret_cast<Value*>(static_cast<ContainerNode*>(node) + 1);
}

/// REQUIRES: `node` is a dictionary's, and has its entries itself.
inline Dictionary::Entry* entriesOf(Node* node) noexcept {
  return reinterpret_cast<Dictionary::Entry*>(static_cast<ContainerNode*>(node) + 1);
}

/// A text's or data's node with `size` bytes that the caller fills; null for none.
Node* newBytesNode(Value::Kind kind, std::size_t size);

/// An array's or dictionary's node without elements, with room for `capacity` of them.
ContainerNode* newContainerNode(Value::Kind kind, std::size_t capacity);

/// One more reference to a node that no other thread can see yet, without an atomic addition.
inline void retainUnpublished(Node* node) noexcept {
  if (node == nullptr || node->isForever) return;
  node->references.store(node->references.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
}

/// The way to the private parts.
struct Access {
  static Value value(Value::Kind kind, Node* adopted) noexcept { return Value(kind, adopted); }
  /// REQUIRES: a boolean's, number's or date's kind and bits.
  static Value plain(Value::Kind kind, std::uint64_t bits) noexcept {
    Value value;
    value.kind_ = kind;
    value.scalar_.unsignedInteger = bits;
    return value;
  }
  static NodeRef takeNode(Dictionary dictionary) noexcept { return std::move(dictionary.node_); }
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
