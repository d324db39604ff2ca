// SPDX-License-Identifier: Apache-2.0
#include "base/value.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "base/DictionarySource.h"
#include "base/value_nodes.h"

namespace thmp {

namespace value_internal {
namespace {

bool isContainer(const Node* node) {
  return node->kind >= static_cast<std::uint8_t>(Value::Kind::kArray);
}

std::size_t elementSize(Value::Kind kind) {
  return kind == Value::Kind::kArray ? sizeof(Value) : sizeof(Dictionary::Entry);
}

void freeContainer(ContainerNode* node) {
  node->~ContainerNode();
  ::operator delete(node);
}

void freeBytes(Node* node) {
  node->~Node();
  ::operator delete(node);
}

/// Drops one reference that a dying container held: bytes are freed at once, a container is put
/// before `pending`.
void dropHeld(Node* node, ContainerNode*& pending) {
  if (node == nullptr || node->isForever || !dropReference(node)) return;
  if (!isContainer(node)) return freeBytes(node);
  auto* container = static_cast<ContainerNode*>(node);
  container->nextToFree = pending;
  pending = container;
}

void dropHeld(const Value& value, ContainerNode*& pending) {
  if (value.kind() >= Value::Kind::kData) dropHeld(Access::node(value), pending);
}

/// Makes the entries of a dictionary that was looked into.
class EntryCollector final : public EntrySink {
 public:
  void begin(const EntryLayout& layout) override { layout_ = &layout; }
  Handle add(Value value) override {
    row_.push_back(value);
    given_.push_back(std::move(value));
    return static_cast<Handle>(given_.size() - 1);
  }
  Handle addText(std::string_view bytes) override { return add(Value(bytes)); }
  Handle addLent(const Value& value) override { return add(value); }
  Handle addLent(const LentValue& value) override {
    value.give(value.address, *this);
    return static_cast<Handle>(given_.size() - 1);
  }
  void addAgain(Handle value) override { row_.push_back(given_[value]); }
  void beginArray() override { begun_.push_back({row_.size(), true}); }
  void beginDictionary() override { begun_.push_back({row_.size(), false}); }
  Handle end() override {
    const Begun begun = begun_.back();
    begun_.pop_back();
    std::vector<Value> elements(row_.begin() + static_cast<std::ptrdiff_t>(begun.place),
                                row_.end());
    row_.resize(begun.place);
    if (begun.isArray) return add(Array(std::move(elements)));
    std::vector<Dictionary::Entry> entries;
    for (std::size_t i = 0; i + 1 < elements.size(); i += 2) {
      if (auto key = elements[i].asSharedText()) entries.push_back({*key, elements[i + 1]});
    }
    return add(Dictionary(std::move(entries)));
  }

  Dictionary take() {
    if (layout_ == nullptr) return {};
    std::vector<Dictionary::Entry> entries;
    entries.reserve(layout_->keys.size());
    std::size_t open = 0;
    for (std::size_t i = 0; i < layout_->keys.size(); ++i) {
      const Value& value = layout_->values[i];
      if (!value.isNull()) {
        entries.push_back({layout_->keys[i], value});
      } else {
        entries.push_back({layout_->keys[i], open < row_.size() ? row_[open] : Value("")});
        ++open;
      }
    }
    return Dictionary(std::move(entries));
  }

 private:
  struct Begun {
    std::size_t place;
    bool isArray;
  };

  const EntryLayout* layout_ = nullptr;
  std::vector<Value> row_;
  std::vector<Value> given_;
  std::vector<Begun> begun_;
};

}  // namespace

Node* madeNode(SourceNode* node) {
  Node* made = node->made.load(std::memory_order_acquire);
  if (made != nullptr) return made;
  EntryCollector entries;
  node->source->give(entries);
  NodeRef fresh = Access::takeNode(entries.take());
  if (fresh.get() == nullptr) fresh = NodeRef(newContainerNode(Value::Kind::kDictionary, 0));
  // Another thread may have been faster.
  if (node->made.compare_exchange_strong(made, fresh.get(), std::memory_order_acq_rel)) {
    made = fresh.release();
  }
  return made;
}

const DictionarySource* unusedSource(const Node* node) noexcept {
  if (node == nullptr || !node->hasSource) return nullptr;
  const auto* holder = static_cast<const SourceNode*>(node);
  return holder->made.load(std::memory_order_acquire) == nullptr ? holder->source.get() : nullptr;
}

void destroyNode(Node* node) noexcept {
  if (!isContainer(node)) return freeBytes(node);
  auto* pending = static_cast<ContainerNode*>(node);
  pending->nextToFree = nullptr;
  while (pending != nullptr) {
    ContainerNode* dying = pending;
    pending = dying->nextToFree;
    if (dying->hasSource) {
      auto* withSource = static_cast<SourceNode*>(dying);
      dropHeld(withSource->made.load(std::memory_order_acquire), pending);
      delete withSource;
      continue;
    }
    if (dying->kind == static_cast<std::uint8_t>(Value::Kind::kArray)) {
      for (std::size_t i = 0; i < dying->size; ++i) dropHeld(valuesOf(dying)[i], pending);
    } else {
      const Dictionary::Entry* entries = entriesOf(dying);
      for (std::size_t i = 0; i < dying->size; ++i) {
        dropHeld(Access::node(entries[i].key), pending);
        dropHeld(entries[i].value, pending);
      }
    }
    freeContainer(dying);
  }
}

Node* newBytesNode(Value::Kind kind, std::size_t size) {
  if (size == 0) return nullptr;
  if (size > std::numeric_limits<std::size_t>::max() / 2) throw std::bad_alloc();
  Node* node = new (::operator new(sizeof(Node) + size)) Node;
  node->kind = static_cast<std::uint8_t>(kind);
  node->size = size;
  return node;
}

ContainerNode* newContainerNode(Value::Kind kind, std::size_t capacity) {
  if (capacity > std::numeric_limits<std::size_t>::max() / 2 / elementSize(kind)) {
    throw std::bad_alloc();
  }
  void* memory = ::operator new(sizeof(ContainerNode) + capacity * elementSize(kind));
  auto* node = new (memory) ContainerNode;
  node->kind = static_cast<std::uint8_t>(kind);
  node->capacity = capacity;
  return node;
}

namespace {

Node* copyOfBytes(Value::Kind kind, std::string_view bytes) {
  Node* node = newBytesNode(kind, bytes.size());
  if (node != nullptr) std::memcpy(bytesOf(node), bytes.data(), bytes.size());
  return node;
}

template <typename Element>
Element* elementsOf(Node* node) {
  return reinterpret_cast<Element*>(static_cast<ContainerNode*>(node) + 1);
}

/// Makes `ref` the only owner of a container with room for `capacity` elements: leaves it, moves
/// its elements, or copies them when others hold the container or the elements too.
template <typename Element>
ContainerNode* makeOwned(NodeRef& ref, Value::Kind kind, std::size_t capacity) {
  auto* old = static_cast<ContainerNode*>(elementsNode(ref.get()));
  const bool sole =
      old != nullptr && old == ref.get() && old->references.load(std::memory_order_acquire) == 1;
  if (sole && old->capacity >= capacity) return old;
  const std::size_t size = old == nullptr ? 0 : old->size;
  const std::size_t grown = sole ? old->capacity + old->capacity / 2 : size;
  ContainerNode* node = newContainerNode(kind, std::max({capacity, grown, std::size_t{4}}));
  if (sole) {
    std::memcpy(static_cast<void*>(elementsOf<Element>(node)), elementsOf<Element>(old),
                size * sizeof(Element));
    node->size = size;
    freeContainer(static_cast<ContainerNode*>(ref.release()));
  } else {
    for (std::size_t i = 0; i < size; ++i) {
      new (elementsOf<Element>(node) + i) Element(elementsOf<Element>(old)[i]);
    }
    node->size = size;
  }
  ref = NodeRef(node);
  return node;
}

/// REQUIRES: `node` has one owner and room for one more element.
template <typename Element>
void insertElement(ContainerNode* node, std::size_t index, Element element) {
  Element* place = elementsOf<Element>(node) + index;
  std::memmove(static_cast<void*>(place + 1), place, (node->size - index) * sizeof(Element));
  new (place) Element(std::move(element));
  ++node->size;
}

/// REQUIRES: `node` has one owner.
template <typename Element>
void eraseElements(ContainerNode* node, std::size_t index, std::size_t count) {
  Element* place = elementsOf<Element>(node) + index;
  std::destroy_n(place, count);
  std::memmove(static_cast<void*>(place), place + count,
               (node->size - index - count) * sizeof(Element));
  node->size -= count;
}

const Value& nullValue() {
  static const Value& null = *new Value;
  return null;
}

}  // namespace
}  // namespace value_internal

namespace {

using value_internal::Access;
using value_internal::ContainerNode;
using value_internal::elementsNode;
using value_internal::entriesOf;
using value_internal::makeOwned;
using value_internal::Node;
using value_internal::NodeRef;
using value_internal::valuesOf;

using Entry = Dictionary::Entry;
using Kind = Value::Kind;

bool keyBefore(const Entry& entry, std::string_view key) { return entry.key.view() < key; }

std::size_t lowerBound(const Dictionary& dictionary, std::string_view key) {
  const Entry* place = std::lower_bound(dictionary.begin(), dictionary.end(), key, keyBefore);
  return static_cast<std::size_t>(place - dictionary.begin());
}

/// In the order of keys; of equal keys the last, and no null values.
void arrangeEntries(std::vector<Entry>& entries) {
  const auto before = [](const Entry& a, const Entry& b) { return a.key.view() < b.key.view(); };
  if (!std::is_sorted(entries.begin(), entries.end(), before)) {
    std::stable_sort(entries.begin(), entries.end(), before);
  }
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool repeated = i + 1 < entries.size() && entries[i].key == entries[i + 1].key;
    if (repeated || entries[i].value.isNull()) continue;
    if (kept != i) entries[kept] = std::move(entries[i]);
    ++kept;
  }
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(kept), entries.end());
}

}  // namespace

Text::Text(std::string_view bytes) : node_(value_internal::copyOfBytes(Kind::kText, bytes)) {}

Text Text::forever(std::string_view bytes) {
  Text text(bytes);
  if (!bytes.empty()) text.node_.get()->isForever = true;
  return text;
}

Array::Array(std::initializer_list<Value> values) : Array(std::vector<Value>(values)) {}

Array::Array(std::vector<Value> values) {
  if (values.empty()) return;
  reserve(values.size());
  for (Value& value : values) push_back(std::move(value));
}

const Value& Array::operator[](std::size_t index) const noexcept { return begin()[index]; }
const Value* Array::begin() const noexcept {
  return node_.get() == nullptr ? nullptr : valuesOf(node_.get());
}
const Value* Array::end() const noexcept { return begin() + size(); }

void Array::reserve(std::size_t capacity) {
  if (capacity > size()) makeOwned<Value>(node_, Kind::kArray, capacity);
}

void Array::push_back(Value value) {
  ContainerNode* node = makeOwned<Value>(node_, Kind::kArray, size() + 1);
  new (valuesOf(node) + node->size) Value(std::move(value));
  ++node->size;
}

void Array::erase(std::size_t index, std::size_t count) {
  if (size() == count) {
    node_ = NodeRef();
    return;
  }
  value_internal::eraseElements<Value>(makeOwned<Value>(node_, Kind::kArray, size()), index, count);
}

Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(std::vector<Entry>(entries)) {}

Dictionary::Dictionary(std::vector<Entry> entries) {
  arrangeEntries(entries);
  if (entries.empty()) return;
  ContainerNode* node = makeOwned<Entry>(node_, Kind::kDictionary, entries.size());
  for (Entry& entry : entries) {
    new (entriesOf(node) + node->size) Entry(std::move(entry));
    ++node->size;
  }
}

Dictionary::Dictionary(std::shared_ptr<const DictionarySource> source) {
  assert(source != nullptr);
  auto* node = new value_internal::SourceNode;
  node->kind = static_cast<std::uint8_t>(Kind::kDictionary);
  node->hasSource = true;
  node->source = std::move(source);
  node_ = NodeRef(node);
}

std::size_t Dictionary::size() const {
  const Node* node = elementsNode(node_.get());
  return node == nullptr ? 0 : node->size;
}

const Value* Dictionary::find(std::string_view key) const {
  const std::size_t index = lowerBound(*this, key);
  if (index == size() || begin()[index].key != key) return nullptr;
  return &begin()[index].value;
}

const Value& Dictionary::operator[](std::string_view key) const {
  const Value* value = find(key);
  return value == nullptr ? value_internal::nullValue() : *value;
}

bool Dictionary::contains(std::string_view key) const {
  const DictionarySource* source = value_internal::unusedSource(node_.get());
  return source != nullptr ? source->has(key) : find(key) != nullptr;
}

Value Dictionary::get(std::string_view key) const {
  if (const DictionarySource* source = value_internal::unusedSource(node_.get())) {
    return source->entry(key);
  }
  return (*this)[key];
}

const Entry* Dictionary::begin() const {
  Node* node = elementsNode(node_.get());
  return node == nullptr ? nullptr : entriesOf(node);
}
const Entry* Dictionary::end() const { return begin() + size(); }

void Dictionary::set(Text key, Value value) {
  if (value.isNull()) return erase(key);
  const std::size_t index = lowerBound(*this, key);
  if (index < size() && begin()[index].key == key) {
    ContainerNode* node = makeOwned<Entry>(node_, Kind::kDictionary, size());
    entriesOf(node)[index].value = std::move(value);
    return;
  }
  ContainerNode* node = makeOwned<Entry>(node_, Kind::kDictionary, size() + 1);
  value_internal::insertElement<Entry>(node, index, Entry{std::move(key), std::move(value)});
}

Value* Dictionary::edit(std::string_view key) {
  const std::size_t index = lowerBound(*this, key);
  if (index == size() || begin()[index].key != key) return nullptr;
  return &entriesOf(makeOwned<Entry>(node_, Kind::kDictionary, size()))[index].value;
}

void Dictionary::reserve(std::size_t capacity) {
  if (capacity > size()) makeOwned<Entry>(node_, Kind::kDictionary, capacity);
}

void Dictionary::append(Text key, Value value) {
  assert(!value.isNull() && (empty() || (end() - 1)->key < key));
  ContainerNode* node = makeOwned<Entry>(node_, Kind::kDictionary, size() + 1);
  value_internal::insertElement<Entry>(node, node->size, Entry{std::move(key), std::move(value)});
}

void Dictionary::erase(std::string_view key) {
  const std::size_t index = lowerBound(*this, key);
  if (index == size() || begin()[index].key != key) return;
  if (size() == 1) {
    node_ = NodeRef();
    return;
  }
  ContainerNode* node = makeOwned<Entry>(node_, Kind::kDictionary, size());
  value_internal::eraseElements<Entry>(node, index, 1);
}

Value::Value(const Data& data)
    : Value(Kind::kData, value_internal::copyOfBytes(Kind::kData, data.bytes)) {}

std::optional<bool> Value::asBoolean() const noexcept {
  if (kind_ != Kind::kBoolean) return std::nullopt;
  return scalar_.unsignedInteger != 0;
}

std::optional<std::int64_t> Value::asInteger() const noexcept {
  if (kind_ != Kind::kInteger) return std::nullopt;
  return scalar_.integer;
}

std::optional<std::uint64_t> Value::asUnsigned() const noexcept {
  if (kind_ == Kind::kUnsigned || (kind_ == Kind::kInteger && scalar_.integer >= 0)) {
    return scalar_.unsignedInteger;
  }
  return std::nullopt;
}

std::optional<double> Value::asReal() const noexcept {
  if (kind_ != Kind::kReal) return std::nullopt;
  return scalar_.real;
}

std::optional<Date> Value::asDate() const noexcept {
  if (kind_ != Kind::kDate) return std::nullopt;
  return Date{scalar_.real};
}

std::optional<std::string_view> Value::asData() const noexcept {
  if (kind_ != Kind::kData) return std::nullopt;
  if (scalar_.node == nullptr) return std::string_view();
  return std::string_view(value_internal::bytesOf(scalar_.node), scalar_.node->size);
}

std::optional<std::string_view> Value::asText() const noexcept {
  if (kind_ != Kind::kText) return std::nullopt;
  if (scalar_.node == nullptr) return std::string_view();
  return std::string_view(value_internal::bytesOf(scalar_.node), scalar_.node->size);
}

std::optional<Text> Value::asSharedText() const noexcept {
  if (kind_ != Kind::kText) return std::nullopt;
  value_internal::retainNode(scalar_.node);
  return Access::text(scalar_.node);
}

std::optional<Array> Value::asArray() const noexcept {
  if (kind_ != Kind::kArray) return std::nullopt;
  value_internal::retainNode(scalar_.node);
  Array array;
  array.node_ = NodeRef(scalar_.node);
  return array;
}

std::optional<Dictionary> Value::asDictionary() const noexcept {
  if (kind_ != Kind::kDictionary) return std::nullopt;
  value_internal::retainNode(scalar_.node);
  Dictionary dictionary;
  dictionary.node_ = NodeRef(scalar_.node);
  return dictionary;
}

const Value& Value::operator[](std::string_view key) const {
  if (kind_ != Kind::kDictionary || scalar_.node == nullptr) return value_internal::nullValue();
  Node* node = elementsNode(scalar_.node);
  const Entry* begin = entriesOf(node);
  const Entry* end = begin + node->size;
  const Entry* place = std::lower_bound(begin, end, key, keyBefore);
  return place != end && place->key == key ? place->value : value_internal::nullValue();
}

namespace {

std::string_view withoutLeadingSpace(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

/// White space, a sign and zeros may stand in front of a digit from 1 to 9, or of a letter that
/// begins "yes" or "true".
bool booleanOfText(std::string_view text) {
  text = withoutLeadingSpace(text);
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
  const std::size_t start = text.find_first_not_of('0');
  return start != std::string_view::npos &&
         std::string_view("123456789YyTt").find(text[start]) != std::string_view::npos;
}

std::int64_t integerOfText(std::string_view text) {
  text = withoutLeadingSpace(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') return 0;
  }
  std::int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc::result_out_of_range) return negative ? INT64_MIN : INT64_MAX;
  return number;
}

std::int64_t integerOfReal(double real) {
  if (std::isnan(real)) return 0;
  if (real >= 0x1p63) return INT64_MAX;
  if (real <= -0x1p63) return INT64_MIN;
  return static_cast<std::int64_t>(real);
}

}  // namespace

bool Value::booleanValue() const noexcept {
  switch (kind_) {
    case Kind::kBoolean:
    case Kind::kInteger:
    case Kind::kUnsigned:
      return scalar_.unsignedInteger != 0;
    case Kind::kReal:
      return scalar_.real != 0;
    case Kind::kText:
      return booleanOfText(*asText());
    default:
      return false;
  }
}

std::int64_t Value::integerValue() const noexcept {
  switch (kind_) {
    case Kind::kBoolean:
    case Kind::kInteger:
      return scalar_.integer;
    case Kind::kUnsigned:
      return INT64_MAX;
    case Kind::kReal:
      return integerOfReal(scalar_.real);
    case Kind::kText:
      return integerOfText(*asText());
    default:
      return 0;
  }
}

std::optional<double> Value::numberValue() const noexcept {
  switch (kind_) {
    case Kind::kBoolean:
    case Kind::kInteger:
      return static_cast<double>(scalar_.integer);
    case Kind::kUnsigned:
      return static_cast<double>(scalar_.unsignedInteger);
    case Kind::kReal:
      return scalar_.real;
    default:
      return std::nullopt;
  }
}

// ---- Comparing ----

namespace {

double realOf(const Value& value) { return std::bit_cast<double>(Access::bits(value)); }

bool sameReal(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

bool sameRealBits(const Value& a, const Value& b) {
  return Access::bits(a) == Access::bits(b) || (std::isnan(realOf(a)) && std::isnan(realOf(b)));
}

/// Whether a boolean, integer or unsigned has exactly the number `real`.
bool integerIsReal(const Value& integer, double real) {
  if (integer.kind() == Kind::kUnsigned) {
    return real >= 0x1p63 && real < 0x1p64 &&
           static_cast<std::uint64_t>(real) == Access::bits(integer);
  }
  return real >= -0x1p63 && real < 0x1p63 && std::trunc(real) == real &&
         static_cast<std::int64_t>(real) == static_cast<std::int64_t>(Access::bits(integer));
}

/// Of two numbers of different kinds.
bool sameNumber(const Value& a, const Value& b) {
  if (a.kind() == Kind::kReal) return integerIsReal(b, realOf(a));
  if (b.kind() == Kind::kReal) return integerIsReal(a, realOf(b));
  const bool unsignedA = a.kind() == Kind::kUnsigned;
  const bool unsignedB = b.kind() == Kind::kUnsigned;
  return unsignedA == unsignedB && Access::bits(a) == Access::bits(b);
}

enum class Verdict : std::uint8_t { kDifferent, kSame, kLookInside };

/// Compares all but the elements of two containers of one size.
Verdict compareShallow(const Value& a, const Value& b, bool byKind) {
  const auto verdict = [](bool same) { return same ? Verdict::kSame : Verdict::kDifferent; };
  if (a.kind() != b.kind()) {
    return verdict(!byKind && a.isNumber() && b.isNumber() && sameNumber(a, b));
  }
  switch (a.kind()) {
    case Kind::kNull:
      return Verdict::kSame;
    case Kind::kBoolean:
    case Kind::kInteger:
    case Kind::kUnsigned:
      return verdict(Access::bits(a) == Access::bits(b));
    case Kind::kReal:
    case Kind::kDate:
      return verdict(byKind ? sameRealBits(a, b) : sameReal(realOf(a), realOf(b)));
    default:
      break;
  }
  const Node* nodeA = Access::node(a);
  const Node* nodeB = Access::node(b);
  if (nodeA == nodeB) return Verdict::kSame;
  nodeA = elementsNode(Access::node(a));
  nodeB = elementsNode(Access::node(b));
  const std::size_t size = nodeA == nullptr ? 0 : nodeA->size;
  if (size != (nodeB == nullptr ? 0 : nodeB->size)) return Verdict::kDifferent;
  if (size == 0) return Verdict::kSame;
  if (a.kind() == Kind::kArray || a.kind() == Kind::kDictionary) return Verdict::kLookInside;
  return verdict(std::memcmp(value_internal::bytesOf(nodeA), value_internal::bytesOf(nodeB),
                             nodeA->size) == 0);
}

/// Two containers of one kind and size, compared up to an index.
struct ComparedPair {
  Node* a;
  Node* b;
  std::size_t next;
};

/// A stack that takes memory only past the depth that values from outside can have.
class PairStack {
 public:
  bool empty() const { return size_ == 0; }
  ComparedPair& top() { return size_ <= kInline ? inline_[size_ - 1] : more_.back(); }
  void push(const ComparedPair& pair) {
    if (size_ < kInline) {
      inline_[size_] = pair;
    } else {
      more_.push_back(pair);
    }
    ++size_;
  }
  void pop() {
    if (size_ > kInline) more_.pop_back();
    --size_;
  }

 private:
  static constexpr std::size_t kInline = 512;
  std::array<ComparedPair, kInline> inline_;
  std::vector<ComparedPair> more_;
  std::size_t size_ = 0;
};

bool compareInside(const Value& a, const Value& b, bool byKind) {
  PairStack stack;
  stack.push({elementsNode(Access::node(a)), elementsNode(Access::node(b)), 0});
  while (!stack.empty()) {
    ComparedPair& pair = stack.top();
    if (pair.next == pair.a->size) {
      stack.pop();
      continue;
    }
    const std::size_t i = pair.next++;
    const bool array = pair.a->kind == static_cast<std::uint8_t>(Kind::kArray);
    if (!array && !(entriesOf(pair.a)[i].key == entriesOf(pair.b)[i].key)) return false;
    const Value& left = array ? valuesOf(pair.a)[i] : entriesOf(pair.a)[i].value;
    const Value& right = array ? valuesOf(pair.b)[i] : entriesOf(pair.b)[i].value;
    const Verdict verdict = compareShallow(left, right, byKind);
    if (verdict == Verdict::kDifferent) return false;
    if (verdict == Verdict::kLookInside) {
      stack.push({elementsNode(Access::node(left)), elementsNode(Access::node(right)), 0});
    }
  }
  return true;
}

bool compare(const Value& a, const Value& b, bool byKind) {
  const Verdict verdict = compareShallow(a, b, byKind);
  if (verdict != Verdict::kLookInside) return verdict == Verdict::kSame;
  return compareInside(a, b, byKind);
}

}  // namespace

bool operator==(const Value& a, const Value& b) { return compare(a, b, /*byKind=*/false); }

bool Value::identical(const Value& a, const Value& b) { return compare(a, b, /*byKind=*/true); }

}  // namespace thmp
