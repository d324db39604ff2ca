// SPDX-License-Identifier: Apache-2.0
//
// The property-list value: what messages, batches, attributes, preferences and information
// dictionaries are made of.
//
// Values are immutable from the outside and cheap to copy: copies share one node, and a change to a
// copy of an Array or Dictionary touches that copy alone (copy on write). Any thread may read and
// copy values at the same time; one object must not be changed by one thread while another uses
// that same object. Comparing, freeing and encoding walk without recursion, so a deeply nested
// value is safe on any stack. Keys and texts compare by address first, then by their bytes.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/date.h"

namespace thmp {

class DictionarySource;
class Value;

namespace value_internal {

struct Access;

/// What all copies of one text, data, array or dictionary share. The bytes or elements follow it in
/// the same allocation; value_nodes.h has their layout.
struct Node {
  std::atomic<std::uint32_t> references{1};
  std::uint8_t kind = 0;   // a Value::Kind
  bool isForever = false;  // never freed, so not counted
  bool hasSource = false;  // a dictionary whose entries a DictionarySource gives
  std::size_t size = 0;    // of bytes, values or entries
};

/// Frees a node whose last reference is gone and, without recursion, all that only it held.
void destroyNode(Node* node) noexcept;

inline void retainNode(Node* node) noexcept {
  if (node != nullptr && !node->isForever) node->references.fetch_add(1, std::memory_order_relaxed);
}

/// True when the caller held the last reference and has to free the node. A sole owner is spared
/// the atomic subtraction.
inline bool dropReference(Node* node) noexcept {
  return node->references.load(std::memory_order_acquire) == 1 ||
         node->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

inline void releaseNode(Node* node) noexcept {
  if (node != nullptr && !node->isForever && dropReference(node)) destroyNode(node);
}

/// Counted reference to a node.
class NodeRef {
 public:
  NodeRef() noexcept = default;
  explicit NodeRef(Node* adopted) noexcept : node_(adopted) {}
  NodeRef(const NodeRef& other) noexcept : node_(other.node_) { retainNode(node_); }
  NodeRef(NodeRef&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  NodeRef& operator=(NodeRef other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~NodeRef() { releaseNode(node_); }
  Node* get() const noexcept { return node_; }
  Node* release() noexcept { return std::exchange(node_, nullptr); }

 private:
  Node* node_ = nullptr;
};

}  // namespace value_internal

/// Text: bytes with a length. UTF-8 by convention; what came in otherwise is kept as it came, a
/// lone UTF-16 surrogate as its three bytes (WTF-8), so that two different names never become one
/// key.
class Text {
 public:
  Text() noexcept = default;
  Text(std::string_view bytes);
  Text(const std::string& bytes) : Text(std::string_view(bytes)) {}
  Text(const char* bytes) : Text(std::string_view(bytes)) {}
  /// A text that is never freed, so that its copies need no counting: for the names of a process.
  static Text forever(std::string_view bytes);

  std::string_view view() const noexcept {
    const value_internal::Node* node = node_.get();
    if (node == nullptr) return {};
    return {reinterpret_cast<const char*>(node + 1), node->size};
  }
  std::string str() const { return std::string(view()); }
  operator std::string_view() const noexcept { return view(); }
  bool empty() const noexcept { return view().empty(); }

  /// The same for all copies of one text; null for the empty text.
  const void* identity() const noexcept { return node_.get(); }

  friend bool operator==(const Text& a, const Text& b) noexcept {
    return a.identity() == b.identity() || a.view() == b.view();
  }
  friend bool operator==(const Text& a, std::string_view b) noexcept { return a.view() == b; }
  friend std::strong_ordering operator<=>(const Text& a, const Text& b) noexcept {
    return a.view() <=> b.view();
  }

 private:
  friend class Value;
  friend struct value_internal::Access;
  value_internal::NodeRef node_;
};

/// A sequence of values.
class Array {
 public:
  Array() noexcept = default;
  Array(std::initializer_list<Value> values);
  explicit Array(std::vector<Value> values);

  std::size_t size() const noexcept { return node_.get() == nullptr ? 0 : node_.get()->size; }
  bool empty() const noexcept { return size() == 0; }
  /// REQUIRES: index < size().
  const Value& operator[](std::size_t index) const noexcept;
  const Value* begin() const noexcept;
  const Value* end() const noexcept;

  void reserve(std::size_t capacity);
  void push_back(Value value);
  /// REQUIRES: index + count <= size().
  void erase(std::size_t index, std::size_t count = 1);
  const void* identity() const noexcept { return node_.get(); }

 private:
  friend class Value;
  friend struct value_internal::Access;
  value_internal::NodeRef node_;
};

/// Values under text keys. Walked in the order of the keys' bytes. With a source, the entries are
/// made when they are first asked for; asking may throw std::bad_alloc then.
class Dictionary {
 public:
  struct Entry;

  Dictionary() noexcept = default;
  Dictionary(std::initializer_list<Entry> entries);
  /// Entries in any order; of two with one key the later one stays, and null values are left out.
  explicit Dictionary(std::vector<Entry> entries);
  /// REQUIRES: `source` is not null.
  explicit Dictionary(std::shared_ptr<const DictionarySource> source);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  /// Null pointer when the key is absent.
  const Value* find(std::string_view key) const;
  /// Makes no entries.
  bool contains(std::string_view key) const;
  /// The null value when the key is absent.
  const Value& operator[](std::string_view key) const;
  /// The same, without making other entries.
  Value get(std::string_view key) const;
  const Entry* begin() const;
  const Entry* end() const;

  /// The value under `key`, to be changed in place and not to null; null pointer when it is absent.
  /// Valid until the dictionary is changed or copied.
  Value* edit(std::string_view key);
  /// Makes room for `capacity` entries in all.
  void reserve(std::size_t capacity);
  /// Stores `value` under `key`; a null value takes the key out.
  void set(Text key, Value value);
  /// The same for a key after all others, without a search. REQUIRES: it is, and the value is not
  /// null.
  void append(Text key, Value value);
  void erase(std::string_view key);
  const void* identity() const noexcept { return node_.get(); }

 private:
  friend class Value;
  friend struct value_internal::Access;
  value_internal::NodeRef node_;
};

/// Bytes, kept apart from text.
struct Data {
  std::string bytes;
  friend bool operator==(const Data&, const Data&) = default;
};

class Value {
 public:
  enum class Kind : std::uint8_t {
    kNull,
    kBoolean,
    kInteger,   // fits a signed 64-bit integer
    kUnsigned,  // above the largest signed 64-bit integer
    kReal,
    kDate,
    kData,
    kText,
    kArray,
    kDictionary,
  };

  Value() noexcept = default;
  template <typename T>
  requires std::is_same_v<T, bool> Value(T boolean)
  noexcept : kind_(Kind::kBoolean) { scalar_.unsignedInteger = boolean ? 1 : 0; }
  template <typename T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Value(T integer)
  noexcept {
    if constexpr (std::is_signed_v<T>) {
      setInteger(static_cast<std::int64_t>(integer));
    } else {
      setUnsigned(static_cast<std::uint64_t>(integer));
    }
  }
  Value(double real) noexcept : kind_(Kind::kReal) { scalar_.real = real; }
  Value(Date date) noexcept : kind_(Kind::kDate) { scalar_.real = date.secondsSinceReference; }
  Value(const Data& data);
  Value(Text text) noexcept : Value(Kind::kText, text.node_.release()) {}
  Value(std::string_view text) : Value(Text(text)) {}
  Value(const std::string& text) : Value(Text(text)) {}
  Value(const char* text) : Value(Text(text)) {}
  Value(Array array) noexcept : Value(Kind::kArray, array.node_.release()) {}
  Value(Dictionary dictionary) noexcept : Value(Kind::kDictionary, dictionary.node_.release()) {}

  Value(const Value& other) noexcept : kind_(other.kind_), scalar_(other.scalar_) {
    if (hasNode()) value_internal::retainNode(scalar_.node);
  }
  Value(Value&& other) noexcept
      : kind_(std::exchange(other.kind_, Kind::kNull)), scalar_(other.scalar_) {}
  Value& operator=(Value other) noexcept {
    std::swap(kind_, other.kind_);
    std::swap(scalar_, other.scalar_);
    return *this;
  }
  ~Value() {
    if (hasNode()) value_internal::releaseNode(scalar_.node);
  }

  Kind kind() const noexcept { return kind_; }
  bool isNull() const noexcept { return kind_ == Kind::kNull; }
  /// Boolean, integer, unsigned or real.
  bool isNumber() const noexcept { return kind_ >= Kind::kBoolean && kind_ <= Kind::kReal; }

  // Each is empty unless the value has that kind; nothing is converted.
  std::optional<bool> asBoolean() const noexcept;
  std::optional<std::int64_t> asInteger() const noexcept;    // kInteger
  std::optional<std::uint64_t> asUnsigned() const noexcept;  // kUnsigned, or kInteger from 0 up
  std::optional<double> asReal() const noexcept;             // kReal
  std::optional<Date> asDate() const noexcept;
  std::optional<std::string_view> asData() const noexcept;
  std::optional<std::string_view> asText() const noexcept;
  /// The text as a shared object; empty unless the value is a text.
  std::optional<Text> asSharedText() const noexcept;
  /// Empty when the value is of another kind.
  std::optional<Array> asArray() const noexcept;
  std::optional<Dictionary> asDictionary() const noexcept;

  /// The member of a dictionary; the null value when there is none, or when this is no dictionary.
  const Value& operator[](std::string_view key) const;

  /// Boolean reading of a boolean, number or text ("1", "YES", "true" and the like); false for all
  /// else.
  bool booleanValue() const noexcept;
  /// 64-bit integer reading of a number (cut towards zero, saturated) or of a text's leading
  /// decimal number; 0 for all else.
  std::int64_t integerValue() const noexcept;
  /// Any number as a double; empty for other kinds.
  std::optional<double> numberValue() const noexcept;

  /// The same for all copies of one text, data, array or dictionary; null for other kinds, and for
  /// empty ones.
  const void* identity() const noexcept { return hasNode() ? scalar_.node : nullptr; }

  /// Equality by value: booleans, integers and reals are equal when their numbers are (1, 1.0 and
  /// true). A NaN equals itself, so that a value always equals its copy.
  friend bool operator==(const Value& a, const Value& b);
  /// Equality by value and kind, throughout; a NaN equals itself, and -0.0 is not 0.0.
  static bool identical(const Value& a, const Value& b);

 private:
  friend struct value_internal::Access;
  union Scalar {
    std::int64_t integer;
    std::uint64_t unsignedInteger;  // a boolean is 1 or 0 here
    double real;
    value_internal::Node* node;  // null for an empty text, data, array or dictionary
  };

  Value(Kind kind, value_internal::Node* adopted) noexcept : kind_(kind) { scalar_.node = adopted; }
  bool hasNode() const noexcept { return kind_ >= Kind::kData; }
  void setInteger(std::int64_t integer) noexcept {
    kind_ = Kind::kInteger;
    scalar_.integer = integer;
  }
  void setUnsigned(std::uint64_t integer) noexcept {
    if (integer <= INT64_MAX) return setInteger(static_cast<std::int64_t>(integer));
    kind_ = Kind::kUnsigned;
    scalar_.unsignedInteger = integer;
  }

  Kind kind_ = Kind::kNull;
  Scalar scalar_ = {.unsignedInteger = 0};
};

struct Dictionary::Entry {
  Text key;
  Value value;
};

}  // namespace thmp
