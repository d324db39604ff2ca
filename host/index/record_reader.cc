// SPDX-License-Identifier: Apache-2.0
#include "host/index/record_reader.h"

#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "host/store/message_attributes.h"

namespace thmp {

using namespace record_format;

bool RecordReader::isText() const {
  switch (tag()) {
    case kText:
    case kEarlier:
    case kAngled:
    case kMessageUrl:
      return true;
    default:
      return false;
  }
}

Value RecordReader::value(int depth) {
  const std::size_t begin = place();
  switch (byte()) {
    case kFalse:
      return Value(false);
    case kTrue:
      return Value(true);
    case kInteger:
      return Value(signedNumber());
    case kUnsigned:
      return Value(number());
    case kReal:
      return Value(real());
    case kWholeDate:
      return Value(Date{static_cast<double>(signedNumber())});
    case kDate:
      return Value(Date{real()});
    case kData:
      return Value(Data{std::string(bytes())});
    case kText:
    case kEarlier:
    case kAngled:
    case kMessageUrl:
      goTo(begin);
      return Value(text());
    case kArray:
      return array(depth);
    case kDictionary:
      return dictionary(depth);
    case kPooled:
      goTo(begin);
      if (const auto number = pooled()) return pool_->at(*number)->value;
      break;
    default:
      break;
  }
  ok_ = false;
  return {};
}

void RecordReader::skipValue(int depth) {
  switch (byte()) {
    case kFalse:
    case kTrue:
      return;
    case kInteger:
    case kUnsigned:
    case kWholeDate:
      number();
      return;
    case kReal:
    case kDate:
      real();
      return;
    case kData:
    case kText:
      bytes();
      return;
    case kArray:
      for (std::size_t left = count(depth); left > 0 && ok_; --left) skipValue(depth + 1);
      return;
    case kDictionary:
      for (std::size_t left = count(depth); left > 0 && ok_; --left) {
        if (tag() != kText) ok_ = false;
        skipValue(depth + 1);
        skipValue(depth + 1);
      }
      return;
    default:
      break;
  }
  ok_ = false;
}

std::string_view RecordReader::text() {
  const std::size_t begin = place();
  switch (byte()) {
    case kText:
      return bytes();
    case kEarlier:
      return earlier(begin);
    case kAngled:
      composed_ = '<';
      composed_ += earlier(begin);
      return composed_ += '>';
    case kMessageUrl:
      setMessageUrl(earlier(begin), composed_);
      return composed_;
    default:
      ok_ = false;
      return {};
  }
}

std::optional<std::uint32_t> RecordReader::pooled() {
  byte();
  const std::uint64_t number = this->number();
  if (pool_ != nullptr && number < pool_->size()) return static_cast<std::uint32_t>(number);
  ok_ = false;
  return std::nullopt;
}

std::size_t RecordReader::count(int depth) {
  const std::uint64_t many = number();
  if (depth >= kMostDepth && many > 0) ok_ = false;
  return need(many) ? static_cast<std::size_t>(many) : 0;
}

double RecordReader::real() {
  double value = 0;
  if (!need(sizeof value)) return value;
  std::memcpy(&value, at_, sizeof value);
  at_ += sizeof value;
  return value;
}

std::string_view RecordReader::bytes() {
  const std::uint64_t size = number();
  if (!need(size)) return {};
  const std::string_view found(at_, size);
  at_ += size;
  return found;
}

// The text that stands at a place before `begin`; an empty one when there is none.
std::string_view RecordReader::earlier(std::size_t begin) {
  const std::uint64_t place = number();
  if (place < begin) {
    RecordReader reader({whole_, begin}, static_cast<std::size_t>(place), begin, nullptr);
    const bool isText = reader.byte() == kText;
    const std::string_view found = reader.bytes();
    if (isText && reader.ok()) return found;
  }
  ok_ = false;
  return {};
}

Value RecordReader::array(int depth) {
  const std::size_t size = count(depth);
  Array values;
  values.reserve(size);
  for (std::size_t i = 0; i < size && ok_; ++i) values.push_back(value(depth + 1));
  return Value(std::move(values));
}

Value RecordReader::dictionary(int depth) {
  const std::size_t size = count(depth);
  std::vector<Dictionary::Entry> entries;
  entries.reserve(size);
  for (std::size_t i = 0; i < size && ok_; ++i) {
    const std::optional<Text> key = value(depth + 1).asSharedText();
    if (!key) ok_ = false;
    if (ok_) entries.push_back({*key, value(depth + 1)});
  }
  return Value(Dictionary(std::move(entries)));
}

}  // namespace thmp
