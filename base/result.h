// SPDX-License-Identifier: Apache-2.0
//
// A value or the Error that stands in its place; what the host's and the client's own operations
// return.
#pragma once

#include <utility>
#include <variant>

#include "base/error.h"

namespace thmp {

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const noexcept { return state_.index() == 0; }
  /// REQUIRES: the result holds a value.
  T& operator*() & { return std::get<0>(state_); }
  const T& operator*() const& { return std::get<0>(state_); }
  T&& operator*() && { return std::get<0>(std::move(state_)); }
  T* operator->() { return &std::get<0>(state_); }
  const T* operator->() const { return &std::get<0>(state_); }
  /// REQUIRES: the result holds an error.
  const Error& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

/// Success without a value is an Error that is not set.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const noexcept { return !error_.isSet(); }
  const Error& error() const { return error_; }

 private:
  Error error_;
};

}  // namespace thmp
