// SPDX-License-Identifier: Apache-2.0
//
// What went wrong, as a value. Operations that can fail return bool, null or an empty optional and
// take `Error* error = nullptr` as their last argument; a null pointer means that the caller does
// not ask.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace thmp {

inline constexpr std::string_view kPosixErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view kFileErrorDomain = "NSCocoaErrorDomain";

/// A default-made Error is "no error".
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;
  std::shared_ptr<const Error> underlying;

  bool isSet() const noexcept { return !domain.empty(); }

  /// `Error Domain=D Code=N "description"`, followed by ` (underlying)` when there is one.
  std::string text() const;

  /// An error of the operating system. `what` says in words what could not be done, and to which
  /// file.
  static Error posix(int errorNumber, std::string_view what);
  /// An error of the file system while something is read; the operating system's lies under it.
  static Error fileRead(int errorNumber, std::string_view what);

  friend bool operator==(const Error& a, const Error& b);
};

/// Stores `value` where the caller asked for it. Returns false, so that a failing operation can end
/// with it.
bool fail(Error* error, Error value);

}  // namespace thmp
