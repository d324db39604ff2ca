// SPDX-License-Identifier: Apache-2.0
//
// Property lists as bytes: the wire format of the exchange, of batches and of the user defaults.
// Written in the binary encoding, read in the binary or the XML one. What is read is hostile until
// checked: every reader is bounded in bytes, nodes and depth, in time linear in the input, and
// without recursion.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/value.h"

namespace thmp {

inline constexpr std::string_view kPropertyListErrorDomain = "THMPPropertyList";

/// The codes of errors in that domain. The description says what, and at which byte or line.
enum class PropertyListError : std::int64_t {
  kDamaged = 1,      // not what the encoding prescribes
  kTooLarge = 2,     // past a limit on bytes, nodes or depth
  kUnsupported = 3,  // well-formed, but of a kind or range that values have no place for
  kNotWritable = 4,  // a value that property lists have no form for
};

struct PropertyListLimits {
  std::size_t maxBytes;
  /// Counted after expansion, that is as often as a shared object is referred to; dictionary keys
  /// count too.
  std::size_t maxNodes;
  /// A scalar root has depth 1.
  std::size_t maxDepth;
};

inline constexpr PropertyListLimits kMessageLimits{std::size_t{16} << 20, 1'000'000, 512};
inline constexpr PropertyListLimits kBatchLimits{std::size_t{256} << 20, 8'000'000, 512};

/// Reads either encoding, told apart by the first bytes. Empty, with `error` filled, when the bytes
/// are no property list or pass a limit. Shared objects stay shared.
std::optional<Value> readPropertyList(std::string_view bytes, const PropertyListLimits& limits,
                                      Error* error = nullptr);

/// As readPropertyList, for one encoding.
std::optional<Value> readBinaryPropertyList(std::string_view bytes,
                                            const PropertyListLimits& limits,
                                            Error* error = nullptr);
std::optional<Value> readXmlPropertyList(std::string_view bytes, const PropertyListLimits& limits,
                                         Error* error = nullptr);

/// The binary encoding of `root`; equal scalars are written once. Empty, with `error` filled, when
/// a null value stands anywhere in it, for which property lists have no form, or a date that is
/// infinite or NaN. A text that is not UTF-8 is written with U+FFFD in place of what cannot be
/// read, a lone surrogate as itself. A thread that ends before this returns helps with some
/// hundreds of dictionaries in a row; those with a source are then asked on either.
std::optional<std::string> writeBinaryPropertyList(const Value& root, Error* error = nullptr);

}  // namespace thmp
