// SPDX-License-Identifier: Apache-2.0
#include "host/index/SubjectColumn.h"

#include <algorithm>
#include <bit>

#include "host/index/message_record.h"
#include "host/index/probing.h"

namespace thmp {

bool SubjectColumn::add(Row row, std::string_view folded) {
  if (folded.find(kEnd) != std::string_view::npos ||
      texts_.size() + folded.size() + 1 > UINT32_MAX) {
    return false;
  }
  numbers_[row] = numberOf(folded) + 1;
  return true;
}

void SubjectColumn::shrink() {
  texts_.shrink_to_fit();
  begins_.shrink_to_fit();
  numbers_.shrink_to_fit();
}

RowSet SubjectColumn::rowsWith(std::string_view needle) const {
  RowSet rows;
  if (needle.find(kEnd) != std::string_view::npos) return rows;
  std::vector<bool> holds(begins_.size() + 1, needle.empty());
  holds[0] = false;
  for (std::size_t at = needle.empty() ? std::string::npos : texts_.find(needle);
       at != std::string::npos;) {
    const auto after =
        std::upper_bound(begins_.begin(), begins_.end(), static_cast<std::uint32_t>(at));
    holds[static_cast<std::size_t>(after - begins_.begin())] = true;
    at = after == begins_.end() ? std::string::npos : texts_.find(needle, *after);
  }
  for (Row row = 0; row < numbers_.size(); ++row) {
    if (holds[numbers_[row]]) rows.insert(row);
  }
  return rows;
}

void SubjectColumn::write(ByteWriter& out) const {
  out.put(texts_);
  out.put(numbers_);
}

bool SubjectColumn::read(ByteReader& in, Row end) {
  texts_ = in.text();
  in.get(numbers_);
  if (!in.ok() || numbers_.size() != end || texts_.size() > UINT32_MAX) return false;
  if (!texts_.empty() && texts_.back() != kEnd) return false;
  begins_.reserve(static_cast<std::size_t>(std::count(texts_.begin(), texts_.end(), kEnd)));
  for (std::size_t begin = 0; begin < texts_.size(); begin = texts_.find(kEnd, begin) + 1) {
    begins_.push_back(static_cast<std::uint32_t>(begin));
  }
  return std::all_of(numbers_.begin(), numbers_.end(),
                     [this](std::uint32_t number) { return number <= begins_.size(); });
}

std::string_view SubjectColumn::textOf(std::uint32_t number) const {
  const std::size_t begin = begins_[number];
  const std::size_t end = number + 1 < begins_.size() ? begins_[number + 1] : texts_.size();
  return std::string_view(texts_).substr(begin, end - begin - 1);
}

std::uint32_t SubjectColumn::numberOf(std::string_view folded) {
  if (2 * (begins_.size() + 1) > slots_.size()) makeSlots();
  std::uint32_t* const slot = slotFor(folded);
  if (slot != nullptr && *slot != 0) return *slot - 1;
  begins_.push_back(static_cast<std::uint32_t>(texts_.size()));
  texts_ += folded;
  texts_ += kEnd;
  const auto number = static_cast<std::uint32_t>(begins_.size() - 1);
  if (slot != nullptr) *slot = number + 1;
  return number;
}

/// Where the number of the text stands, or where it is to be put; null for neither: then it is kept
/// as often as it comes.
std::uint32_t* SubjectColumn::slotFor(std::string_view folded) {
  return probe(slots_, fingerprint(folded),
               [&](std::uint32_t slot) { return textOf(slot - 1) == folded; });
}

void SubjectColumn::makeSlots() {
  constexpr std::size_t kFewest = 16;
  slots_.assign(std::max(kFewest, std::bit_ceil(4 * begins_.size())), 0);
  for (std::uint32_t number = 0; number < begins_.size(); ++number) {
    std::uint32_t* const slot = slotFor(textOf(number));
    if (slot != nullptr && *slot == 0) *slot = number + 1;
  }
}

}  // namespace thmp
