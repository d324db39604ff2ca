// SPDX-License-Identifier: Apache-2.0
#include "base/DictionaryBuilder.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>
#include <utility>

#include "base/value_nodes.h"

namespace thmp {

namespace {

using value_internal::Access;
using value_internal::ContainerNode;
using value_internal::entriesOf;
using value_internal::Loan;
using value_internal::loanOf;
using value_internal::Node;

using Entry = Dictionary::Entry;
using Kind = Value::Kind;

static_assert(DictionaryBuilder::kMostEntries <= Loan::kMostEntries);

constexpr std::size_t kStep = 8;  // of Node::place

std::size_t textSize(std::size_t bytes) {
  return (sizeof(Node) + bytes + kStep - 1) / kStep * kStep;
}

}  // namespace

DictionaryBuilder::DictionaryBuilder(std::size_t entries, std::size_t textBytes,
                                     const Dictionary& lender) {
  entries = std::min(entries, kMostEntries);
  used_ = sizeof(ContainerNode) + entries * sizeof(Entry);
  allocated_ = used_ + textBytes;
  auto* loan = new (::operator new(sizeof(Loan) + allocated_)) Loan;
  loan->lender = Access::node(lender);
  value_internal::retainNode(loan->lender);
  auto* node = new (static_cast<void*>(loan + 1)) ContainerNode;
  node->kind = static_cast<std::uint8_t>(Kind::kDictionary);
  node->hasLoan = true;
  node->capacity = entries;
  node_ = node;
}

DictionaryBuilder::~DictionaryBuilder() { value_internal::releaseNode(node_); }

Value DictionaryBuilder::text(std::string_view bytes) {
  const std::size_t size = textSize(bytes.size());
  const bool fits = node_ != nullptr && !bytes.empty() && size <= allocated_ - used_ &&
                    used_ / kStep < value_internal::kForever;
  if (!fits) return Value(bytes);
  auto* text = new (reinterpret_cast<char*>(node_) + used_) Node;
  text->kind = static_cast<std::uint8_t>(Kind::kText);
  text->place = static_cast<std::uint16_t>(used_ / kStep);
  text->size = bytes.size();
  text->references.store(0, std::memory_order_relaxed);  // entries of the dictionary
  std::memcpy(value_internal::bytesOf(text), bytes.data(), bytes.size());
  used_ += size;
  value_internal::retainUnpublished(text);
  return Access::value(Kind::kText, text);
}

std::size_t DictionaryBuilder::size() const noexcept { return node_ == nullptr ? 0 : node_->size; }

const Entry* DictionaryBuilder::begin() const noexcept {
  return node_ == nullptr ? nullptr : entriesOf(node_);
}

bool DictionaryBuilder::isOwn(const Node* node) const noexcept {
  return node != nullptr && node->place != 0 &&
         value_internal::counterOf(const_cast<Node*>(node)) == node_;
}

void DictionaryBuilder::append(const Text& key, Value value) {
  assert(size() < static_cast<ContainerNode*>(node_)->capacity && !value.isNull());
  Node* held = value.kind() < Kind::kData ? nullptr : Access::node(value);
  const Entry* entry = new (entriesOf(node_) + node_->size) Entry{key, std::move(value)};
  assert(node_->size == 0 || (entry - 1)->key < entry->key);
  static_cast<void>(entry);
  if (isOwn(held)) {
    // The dictionary does not count what it holds of itself.
    loanOf(node_)->lent.set(node_->size);
    held->references.store(held->references.load(std::memory_order_relaxed) + 1,
                           std::memory_order_relaxed);
    node_->references.store(node_->references.load(std::memory_order_relaxed) - 1,
                            std::memory_order_relaxed);
  }
  ++node_->size;
}

void DictionaryBuilder::appendLent(const Entry& lent) {
  assert(size() < static_cast<ContainerNode*>(node_)->capacity);
  const Value& value = lent.value;
  Entry* place = entriesOf(node_) + node_->size;
  if (value.kind() < Kind::kData) {
    new (place) Entry{lent.key, value};
  } else {
    new (place) Entry{lent.key, Access::value(value.kind(), Access::node(value))};
  }
  loanOf(node_)->lent.set(node_->size);
  ++node_->size;
}

Dictionary DictionaryBuilder::finish() noexcept {
  Node* node = std::exchange(node_, nullptr);
  if (node == nullptr || node->size > 0) return Access::dictionary(node);
  value_internal::releaseNode(node);
  return {};
}

}  // namespace thmp
