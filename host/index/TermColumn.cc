// SPDX-License-Identifier: Apache-2.0
#include "host/index/TermColumn.h"

#include <bit>

#include "host/index/message_record.h"
#include "host/query/fold.h"

namespace thmp {

std::uint32_t TextTable::numberOf(const Text& text) {
  const auto [place, isNew] =
      numbers_.try_emplace(text.view(), static_cast<std::uint32_t>(texts_.size()));
  if (isNew) texts_.push_back(text);
  return place->second;
}

void TextTable::write(ByteWriter& out) const {
  out.put(std::uint64_t{texts_.size()});
  for (const Text& text : texts_) out.put(text.view());
}

void TextTable::read(ByteReader& in) {
  for (auto count = in.number<std::uint64_t>(); count > 0 && in.ok(); --count) {
    texts_.emplace_back(in.text());
  }
}

std::uint32_t TermColumn::foldHash(std::string_view text) {
  thread_local query::FoldedText scratch;
  scratch.assign(text, {.foldCase = true, .dropMarks = true});
  return static_cast<std::uint32_t>(fingerprint(scratch.bytes()) >> 32);
}

void TermColumn::link(std::uint32_t number) {
  std::uint32_t& slot = slotOf(terms_[number].fold);
  terms_[number].next = slot;
  slot = number + 1;
}

void TermColumn::makeSlots(std::size_t terms) {
  if (terms <= slots_.size()) return;
  slots_.assign(std::bit_ceil(terms), 0);
  for (std::uint32_t number = 0; number < terms_.size(); ++number) link(number);
}

TermColumn::Term& TermColumn::termOf(const Text& text) {
  const std::uint32_t fold = foldHash(text);
  makeSlots(terms_.size() + 1);
  for (std::uint32_t at = slotOf(fold); at != 0; at = terms_[at - 1].next) {
    Term& term = terms_[at - 1];
    if (term.fold == fold && term.text == text) return term;
  }
  terms_.push_back({text, {}, 0, fold, 0});
  link(static_cast<std::uint32_t>(terms_.size() - 1));
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

void TermColumn::shrink() {
  terms_.shrink_to_fit();
  for (Term& term : terms_) term.rows.shrink_to_fit();
  present_.shrink();
}

void TermColumn::write(ByteWriter& out, TextTable& texts) const {
  out.put(std::uint64_t{terms_.size()});
  for (const Term& term : terms_) {
    out.put(texts.numberOf(term.text));
    out.put(term.fold);
    out.put(term.rows);
  }
}

bool TermColumn::read(ByteReader& in, const TextTable& texts, Row end) {
  const auto count = in.number<std::uint64_t>();
  for (std::uint64_t i = 0; i < count && in.ok(); ++i) {
    Term term;
    term.text = texts.at(in.number<std::uint32_t>());
    term.fold = in.number<std::uint32_t>();
    term.rows = in.text();
    const bool isSound = forEachRow(term, [&](Row row) {
      if (row >= end || row < term.last) return false;
      present_.insert(row);
      term.last = row;
      return true;
    });
    if (!isSound || term.text.empty()) return false;
    terms_.push_back(std::move(term));
  }
  if (!in.ok()) return false;
  terms_.shrink_to_fit();
  makeSlots(terms_.size());
  return true;
}

template <typename Visit>
bool TermColumn::forEachRow(const Term& term, const Visit& visit) {
  Row row = 0;
  std::uint32_t step = 0;
  unsigned shift = 0;
  for (const char byte : term.rows) {
    step |= static_cast<std::uint32_t>(byte & 0x7F) << (shift & 31);
    shift += 7;
    if ((byte & 0x80) != 0) continue;
    row += step;
    if (!visit(row)) return false;
    step = 0;
    shift = 0;
  }
  return true;
}

void TermColumn::addRows(const Term& term, RowSet& rows) {
  forEachRow(term, [&rows](Row row) {
    rows.insert(row);
    return true;
  });
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
  if (slots_.empty()) return rows;
  const std::uint32_t fold = foldHash(text);
  for (std::uint32_t at = slots_[fold & (slots_.size() - 1)]; at != 0; at = terms_[at - 1].next) {
    const Term& term = terms_[at - 1];
    if (term.fold == fold && holds(term.text)) addRows(term, rows);
  }
  return rows;
}

}  // namespace thmp
