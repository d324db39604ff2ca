// SPDX-License-Identifier: Apache-2.0
//
// The stored form of a message's attributes: a checksum; the number of its shape, which is the
// dictionary of all attributes that tell kinds of messages apart (flags, types, mailboxes, owners)
// and so is shared by many; then for each other attribute its key, its length and its value, so
// that one can be read without the others. Values that other messages have too are numbers of the
// pool, and a text that stands in the record twice is stored once. Whatever the bytes are, reading
// them is safe. Any thread, but for what the pool asks.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/value.h"
#include "host/store/attribute_keys.h"

namespace thmp {

class ValuePool;

/// Whether the attribute is part of a message's shape.
bool isShapeAttribute(AttributeKey key) noexcept;

/// REQUIRES: all names are known attributes; others are left out. Takes new values into the pool.
std::string encodeRecord(const Dictionary& attributes, const Dictionary& queryOnly,
                         ValuePool& pool);

/// Whether the bytes are as they were written.
bool isIntactRecord(std::string_view record) noexcept;

/// The pool's number of the record's shape; empty when the record has all by itself.
std::optional<std::uint32_t> recordShape(std::string_view record) noexcept;

/// Null when the attribute is absent.
Value recordValue(std::string_view record, AttributeKey key, const ValuePool& pool);

/// Whether recordValue() is not null, for a record that is intact.
bool hasRecordValue(std::string_view record, AttributeKey key, const ValuePool& pool);

/// Calls `visit` with each attribute in the order of the names, until it returns false. Shared
/// values stay shared.
void forEachInRecord(std::string_view record, const ValuePool& pool,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit);

/// The same for those attributes alone that `isWanted` names; the others are not read.
void forEachInRecord(std::string_view record, const ValuePool& pool,
                     const std::function<bool(AttributeKey key)>& isWanted,
                     const std::function<bool(AttributeKey key, const Value& value)>& visit);

/// One value by itself, as the pool stores it. Null when the bytes are none.
std::string encodeValue(const Value& value);
Value decodeValue(std::string_view bytes);
/// Whether they are a value that the pool may have: if a dictionary, one of attributes. Makes
/// nothing.
bool isPoolValue(std::string_view bytes);

/// A number that stands for `bytes`; the same on every machine.
std::uint64_t fingerprint(std::string_view bytes) noexcept;

}  // namespace thmp
