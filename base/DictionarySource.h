// SPDX-License-Identifier: Apache-2.0
//
// A dictionary that is made when it is looked into, and written into a property list without being
// made at all: for those that come by the thousand and are mostly written and dropped.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "base/value.h"

namespace thmp {

/// What dictionaries of one kind have in common: their keys, and the values that do not differ. The
/// keys are in the order of their bytes; a null value is an open one, which each has for itself.
struct EntryLayout {
  std::vector<Text> keys;
  std::vector<Value> values;
};

class EntrySink;

/// A value that is known by the address of what it is made from, which lives as long as the
/// dictionary's source. `give` gives it once, as an element and with no lent values in it; on the
/// thread of the sink, and it may throw std::bad_alloc.
struct LentValue {
  const void* address;
  void (*give)(const void* address, EntrySink& sink);
};

/// Takes the entries of one dictionary. What is lent lives as long as the dictionary's source, so
/// that it need not be counted. May throw std::bad_alloc. One thread.
class EntrySink {
 public:
  /// Stands for a value that was given, as long as the dictionary is.
  using Handle = std::uint32_t;

  virtual ~EntrySink() = default;

  /// First of all, once. The layout is lent; what two dictionaries give as one object is the same.
  /// The open values follow in their order; those that do not follow are empty texts.
  virtual void begin(const EntryLayout& layout) = 0;

  virtual Handle add(Value value) = 0;
  /// A text of which there is no object.
  virtual Handle addText(std::string_view bytes) = 0;
  virtual Handle addLent(const Value& value) = 0;
  virtual Handle addLent(const LentValue& value) = 0;
  virtual void addAgain(Handle value) = 0;

  /// What follows up to end() are the elements of an array, or by turns the keys and values of a
  /// dictionary. Keys are texts; a last one without a value is left out.
  virtual void beginArray() = 0;
  virtual void beginDictionary() = 0;
  virtual Handle end() = 0;
};

/// The entries of a dictionary: the same at each call. Any thread.
class DictionarySource {
 public:
  virtual ~DictionarySource() = default;
  virtual void give(EntrySink& sink) const = 0;
  /// One of them; the null value when there is none.
  virtual Value entry(std::string_view key) const = 0;
  /// Whether there is one.
  virtual bool has(std::string_view key) const = 0;
};

}  // namespace thmp
