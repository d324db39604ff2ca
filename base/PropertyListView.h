// SPDX-License-Identifier: Apache-2.0
//
// A binary property list that is looked at where it stands: checked as a whole, and nothing of it
// built. For what comes by the thousand and is written out again in another form, and as the first
// half of reading values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/big_endian.h"
#include "base/error.h"
#include "base/plist.h"
#include "base/value.h"

namespace thmp {

/// The bytes live as long as the view. Any thread.
class PropertyListView {
 public:
  /// The number of an object that the root reaches. REQUIRES, everywhere: of this list.
  using Object = std::uint32_t;

  /// Of an array or a dictionary. Valid as long as the view.
  class Members {
   public:
    std::size_t size() const noexcept { return count_; }
    /// REQUIRES: index < size().
    Object operator[](std::size_t index) const noexcept {
      const std::size_t place = order_ == nullptr ? index : order_[index];
      return static_cast<Object>(loadBig(references_ + place * width_, width_));
    }

   private:
    friend class PropertyListView;
    Members(const unsigned char* references, std::size_t width, std::size_t count,
            const std::uint32_t* order) noexcept
        : references_(references), width_(width), count_(count), order_(order) {}

    const unsigned char* references_;
    std::size_t width_;
    std::size_t count_;
    const std::uint32_t* order_;  // of their places in the file; null for that in which they stand
  };

  /// In the order of their keys, each key once.
  struct Entries {
    Members keys;
    Members values;
  };

  /// Empty, with `error` filled, when the bytes are no binary property list or pass a limit.
  static std::optional<PropertyListView> open(std::string_view bytes,
                                              const PropertyListLimits& limits,
                                              Error* error = nullptr);

  Object root() const noexcept { return root_; }
  /// All numbers of objects are less.
  std::size_t objectCount() const noexcept { return slots_.size(); }
  /// What the root reaches, each object once and behind all that it holds.
  const std::vector<Object>& reached() const noexcept { return reached_; }

  Value::Kind kind(Object object) const noexcept { return slots_[object].kind; }
  /// REQUIRES: a boolean, a number or a date.
  Value plain(Object object) const noexcept;
  /// Data, or a text in UTF-8; one that is UTF-16 in the list is put into `room`. REQUIRES: it is
  /// one of them. Valid as long as the view, and as `room` is left alone.
  std::string_view bytes(Object object, std::string& room) const;
  /// REQUIRES: an array.
  Members elements(Object array) const noexcept;
  /// REQUIRES: a dictionary.
  Entries entries(Object dictionary) const noexcept;
  /// The member of a dictionary; empty when there is none, or when `object` is no dictionary.
  std::optional<Object> find(Object object, std::string_view key) const;

  /// What the list stands for, which needs the bytes no longer; shared objects stay shared. May
  /// throw std::bad_alloc.
  Value value() const;

 private:
  friend class PropertyListCheck;

  /// What is known of an object.
  struct Slot {
    /// Where its bytes or references stand, or the bits of a plain value.
    std::uint64_t content = 0;
    std::size_t count = 0;     // of bytes, UTF-16 units, elements or entries
    std::uint32_t nodes = 0;   // after expansion; 0 when it was not looked at
    std::uint32_t height = 0;  // 1 for a scalar
    std::uint32_t order = 0;   // of a dictionary that is arranged: a place in `orders_`, + 1
    Value::Kind kind = Value::Kind::kNull;
    bool isWide = false;  // UTF-16
  };

  PropertyListView() = default;

  const unsigned char* bytes_ = nullptr;
  std::size_t referenceSize_ = 0;
  Object root_ = 0;
  std::vector<Slot> slots_;
  std::vector<Object> reached_;
  /// Of each dictionary that is not in the order of its keys: how many entries the file has, and
  /// the places of those that count.
  std::vector<std::uint32_t> orders_;
};

}  // namespace thmp
