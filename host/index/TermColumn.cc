// SPDX-License-Identifier: Apache-2.0
#include "host/index/TermColumn.h"

#include "host/index/message_record.h"
#include "host/query/fold.h"

namespace thmp {

std::uint64_t TermColumn::foldHash(std::string_view text) {
  thread_local query::FoldedText scratch;
  scratch.assign(text, {.foldCase = true, .dropMarks = true});
  return fingerprint(scratch.bytes());
}

TermColumn::Term& TermColumn::termOf(const Text& text) {
  const auto [first, isNew] = byFold_.try_emplace(foldHash(text), 0);
  for (std::uint32_t at = first->second; at != 0; at = terms_[at - 1].nextLike) {
    if (terms_[at - 1].text == text) return terms_[at - 1];
  }
  terms_.push_back({text, {}, 0, first->second});
  first->second = static_cast<std::uint32_t>(terms_.size());
  return terms_.back();
}

void TermColumn::add(Row row, const Text& text) {
  Term& term = termOf(text);
  if (!term.rows.empty() && term.last == row) return;
  std::uint32_t step = row - term.last;
  for (; step >= 0x80; step >>= 7) term.rows.push_back(static_cast<char>(step | 0x80));
  term.rows.push_back(static_cast<char>(step));
  term.last = row;
  present_.insert(row);
}

void TermColumn::addRows(const Term& term, RowSet& rows) {
  Row row = 0;
  std::uint32_t step = 0;
  unsigned shift = 0;
  for (const char byte : term.rows) {
    step |= static_cast<std::uint32_t>(byte & 0x7F) << shift;
    shift += 7;
    if ((byte & 0x80) != 0) continue;
    row += step;
    rows.insert(row);
    step = 0;
    shift = 0;
  }
}

RowSet TermColumn::rowsWith(const std::function<bool(const Text& text)>& holds) const {
  RowSet rows;
  for (const Term& term : terms_) {
    if (holds(term.text)) addRows(term, rows);
  }
  return rows;
}

RowSet TermColumn::rowsLike(std::string_view text,
                            const std::function<bool(const Text& text)>& holds) const {
  RowSet rows;
  const auto first = byFold_.find(foldHash(text));
  if (first == byFold_.end()) return rows;
  for (std::uint32_t at = first->second; at != 0; at = terms_[at - 1].nextLike) {
    if (holds(terms_[at - 1].text)) addRows(terms_[at - 1], rows);
  }
  return rows;
}

}  // namespace thmp
