// SPDX-License-Identifier: Apache-2.0
//
// The stored form of a message's attributes: a checksum, then for each attribute its number, its
// length and its value, so that one can be read without the others. Attributes with the same value
// object are stored once. Whatever the bytes are, reading them is safe. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/value.h"
#include "host/store/attribute_keys.h"

namespace thmp {

/// REQUIRES: all names are known attributes; others are left out.
std::string encodeRecord(const Dictionary& attributes, const Dictionary& queryOnly);

/// Whether the bytes are as they were written.
bool isIntactRecord(std::string_view record) noexcept;

/// Null when the attribute is absent.
Value recordValue(std::string_view record, AttributeKey key);

/// Calls `visit` with each attribute in the order of the numbers, until it returns false. Shared
/// values stay shared.
void forEachInRecord(std::string_view record,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit);

/// A number that stands for `bytes`; the same on every machine.
std::uint64_t fingerprint(std::string_view bytes) noexcept;

}  // namespace thmp
