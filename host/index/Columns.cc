// SPDX-License-Identifier: Apache-2.0
#include "host/index/Columns.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "host/index/message_record.h"
#include "host/query/fold.h"

namespace thmp {

namespace {

constexpr query::Folding kAll{.foldCase = true, .dropMarks = true};

// Whole seconds, or bytes, that fit.
std::optional<std::int32_t> smallNumber(const Value& value) {
  const std::optional<Date> date = value.asDate();
  const double number = date ? date->secondsSinceReference : value.numberValue().value_or(NAN);
  if (!(number > INT32_MIN && number <= INT32_MAX) || number != std::floor(number)) return {};
  return static_cast<std::int32_t>(number);
}

std::uint32_t identifierHash(std::string_view identifier) {
  if (identifier.starts_with('<')) identifier.remove_prefix(1);
  if (identifier.ends_with('>')) identifier.remove_suffix(1);
  const auto hash =
      static_cast<std::uint32_t>(fingerprint(query::foldText(identifier, kAll)) >> 32);
  return hash == 0 ? 1 : hash;
}

}  // namespace

// Where an attribute is kept. Several that always have the same value share a column; a message
// where they differ is irregular.
struct Columns::Place {
  ColumnKind kind = ColumnKind::kNone;
  std::uint8_t column = 0;
};

const std::array<Columns::Place, 256>& Columns::places() {
  static const std::array<Place, 256> kPlaces = [] {
    using Key = AttributeKey;
    std::array<Place, 256> places{};
    for (std::size_t key = 0; key < places.size(); ++key) {
      if (isShapeAttribute(static_cast<Key>(key))) places[key] = {ColumnKind::kShape, 0};
    }
    const auto put = [&places](ColumnKind kind, const std::vector<std::vector<Key>>& columns) {
      for (std::size_t column = 0; column < columns.size(); ++column) {
        for (const Key key : columns[column]) {
          places[static_cast<std::size_t>(key)] = {kind, static_cast<std::uint8_t>(column)};
        }
      }
    };
    put(ColumnKind::kNumber, {{Key::kDateReceived, Key::kMailDateReceived, Key::kInterestingDate},
                              {Key::kContentCreationDate},
                              {Key::kContentModificationDate, Key::kFSContentChangeDate,
                               Key::kContentChangeDate, Key::kModtime},
                              {Key::kFSCreationDate, Key::kCreationDate},
                              {Key::kDateAdded},
                              {Key::kFSSize, Key::kLogicalSize}});
    put(ColumnKind::kTerms, {{Key::kAuthors},
                             {Key::kAuthorEmailAddresses, Key::kAuthorAddresses},
                             {Key::kRecipients},
                             {Key::kRecipientEmailAddresses, Key::kRecipientAddresses},
                             {Key::kPrimaryRecipients},
                             {Key::kPrimaryRecipientEmailAddresses},
                             {Key::kAdditionalRecipients},
                             {Key::kAdditionalRecipientEmailAddresses},
                             {Key::kHiddenAdditionalRecipients},
                             {Key::kHiddenAdditionalRecipientEmailAddresses},
                             {Key::kEmailAddresses},
                             {Key::kKeywords},
                             {Key::kAttachmentNames, Key::kMailAttachmentNames},
                             {Key::kComment}});
    put(ColumnKind::kSubject, {{Key::kSubject, Key::kDisplayName, Key::kTitle}});
    put(ColumnKind::kIdentifier, {{Key::kIdentifier, Key::kMessageID}});
    return places;
  }();
  return kPlaces;
}

ColumnKind Columns::kindOf(AttributeKey key) noexcept {
  return places()[static_cast<std::size_t>(key)].kind;
}

bool Columns::isInOwnColumn(AttributeKey key) noexcept {
  const ColumnKind kind = kindOf(key);
  return kind != ColumnKind::kNone && kind != ColumnKind::kShape;
}

const std::vector<AttributeKey>& Columns::termAttributes() {
  static const std::vector<AttributeKey> kKeys = [] {
    std::vector<AttributeKey> keys;
    std::array<bool, kTermColumns> seen{};
    for (std::size_t key = 0; key < places().size(); ++key) {
      const Place place = places()[key];
      if (place.kind != ColumnKind::kTerms || std::exchange(seen[place.column], true)) continue;
      keys.push_back(static_cast<AttributeKey>(key));
    }
    return keys;
  }();
  return kKeys;
}

// One record as it is put into the columns. What several attributes share is put in once, when all
// of them have been seen to have it.
class Columns::Reading {
 public:
  Reading(Columns& columns, Row row) : columns_(columns), row_(row) {}

  void read(AttributeKey key, const Value& value) {
    const Place place = places()[static_cast<std::size_t>(key)];
    switch (place.kind) {
      case ColumnKind::kNumber:
        return number(place.column, value);
      case ColumnKind::kTerms:
        return share(terms_[place.column], value);
      case ColumnKind::kSubject:
        return share(subject_, value);
      case ColumnKind::kIdentifier:
        return identifier(value);
      case ColumnKind::kShape:
      case ColumnKind::kNone:
        return;
    }
  }

  /// Whether the columns say all of the message.
  bool end() {
    for (std::size_t column = 0; column < kNumberColumns; ++column) {
      if (numbers_[column] == 0) continue;
      fits_ = fits_ && numbers_[column] == sharers(ColumnKind::kNumber, column);
    }
    for (std::size_t column = 0; column < kTermColumns; ++column) {
      const Shared& shared = terms_[column];
      if (shared.count == 0) continue;
      fits_ = fits_ && shared.count == sharers(ColumnKind::kTerms, column);
      putTerms(columns_.terms_[column], shared.value);
    }
    if (subject_.count > 0) {
      fits_ = fits_ && subject_.count == sharers(ColumnKind::kSubject, 0);
      putSubject();
    }
    if (identifiers_ > 0) fits_ = fits_ && identifiers_ == sharers(ColumnKind::kIdentifier, 0);
    return fits_;
  }

 private:
  struct Shared {
    Value value;
    std::size_t count = 0;
  };

  static std::size_t sharers(ColumnKind kind, std::size_t column) {
    static const auto kCounts = [] {
      std::array<std::array<std::uint8_t, kTermColumns>, 6> counts{};
      for (const Place place : places()) {
        if (place.column < kTermColumns) {
          ++counts[static_cast<std::size_t>(place.kind)][place.column];
        }
      }
      return counts;
    }();
    return kCounts[static_cast<std::size_t>(kind)][column];
  }

  void share(Shared& shared, const Value& value) {
    if (shared.count++ == 0) {
      shared.value = value;
    } else if (!Value::identical(shared.value, value)) {
      fits_ = false;
    }
  }

  void number(std::size_t column, const Value& value) {
    const auto small = smallNumber(value);
    std::int32_t& kept = columns_.numbers_[column][row_];
    if (!small || (numbers_[column]++ > 0 && kept != *small)) {
      fits_ = false;
    } else {
      kept = *small;
    }
  }

  void identifier(const Value& value) {
    const auto text = value.asText();
    const std::uint32_t hash = text ? identifierHash(*text) : 0;
    std::uint32_t& kept = columns_.identifiers_[row_];
    if (hash == 0 || (identifiers_++ > 0 && kept != hash)) fits_ = false;
    kept = hash;
  }

  void putTerms(TermColumn& column, const Value& value) {
    const auto putOne = [&](const Value& one) {
      const auto text = one.asSharedText();
      if (!text) {
        fits_ = false;
      } else if (!text->empty()) {
        column.add(row_, *text);
      }
    };
    const auto array = value.asArray();
    if (!array) return putOne(value);
    std::for_each(array->begin(), array->end(), putOne);
  }

  void putSubject() {
    const auto text = subject_.value.asText();
    if (!text) {
      fits_ = false;
      return;
    }
    thread_local query::FoldedText folded;
    folded.assign(*text, kAll);
    fits_ = columns_.subjects_.add(row_, folded.bytes()) && fits_;
  }

  Columns& columns_;
  const Row row_;
  bool fits_ = true;
  std::array<std::size_t, kNumberColumns> numbers_{};
  std::array<Shared, kTermColumns> terms_;
  Shared subject_;
  std::size_t identifiers_ = 0;
};

bool Columns::areAlike(std::string_view recordA, std::string_view recordB, const ValuePool& pool) {
  std::array<Value, 256> values;
  std::size_t count = 0;
  forEachInRecord(recordA, pool, isInOwnColumn, [&](AttributeKey key, const Value& value) {
    values[static_cast<std::size_t>(key)] = value;
    ++count;
    return true;
  });
  bool alike = true;
  forEachInRecord(recordB, pool, isInOwnColumn, [&](AttributeKey key, const Value& value) {
    alike = Value::identical(values[static_cast<std::size_t>(key)], value);
    --count;
    return alike;
  });
  return alike && count == 0;
}

bool Columns::contains(std::int64_t id) const {
  return id > 0 && id <= kMostRow && present_.contains(static_cast<Row>(id));
}

bool Columns::put(std::int64_t id, std::int64_t mailbox, std::string_view record,
                  const ValuePool& pool) {
  if (id <= 0 || id > kMostRow) return false;
  const Row row = static_cast<Row>(id);
  if (!present_.contains(row)) ++count_;
  present_.insert(row);
  if (row < end_) {
    setMailbox(row, mailbox);
    setIrregular(id);
    return true;
  }
  grow(row);
  setMailbox(row, mailbox);
  const bool hasShape = setShape(row, record);
  Reading reading(*this, row);
  forEachInRecord(record, pool, isInOwnColumn, [&](AttributeKey key, const Value& value) {
    reading.read(key, value);
    return true;
  });
  const bool fits = reading.end();
  if (!hasShape || !fits) setIrregular(id);
  return true;
}

void Columns::putShape(std::int64_t id, std::int64_t mailbox, std::string_view record) {
  if (!contains(id)) return;
  const Row row = static_cast<Row>(id);
  setMailbox(row, mailbox);
  if (!setShape(row, record)) setIrregular(id);
}

void Columns::setIrregular(std::int64_t id) {
  if (contains(id)) irregular_.insert(static_cast<Row>(id));
}

void Columns::remove(std::int64_t id) {
  if (!contains(id)) return;
  const Row row = static_cast<Row>(id);
  present_.erase(row);
  irregular_.erase(row);
  hidden_.erase(row);
  --count_;
}

void Columns::hide(const std::unordered_set<std::int64_t>& mailboxes) {
  hiddenMailboxes_ = mailboxes;
  hidden_.clear();
  if (mailboxes.empty()) return;
  for (Row row = 0; row < end_; ++row) {
    if (mailboxes_[row] != 0 && mailboxes.contains(mailboxNumbers_[mailboxes_[row] - 1])) {
      hidden_.insert(row);
    }
  }
}

void Columns::grow(Row row) {
  const std::size_t size = std::size_t{row} + 1;
  shapes_.resize(size);
  mailboxes_.resize(size);
  identifiers_.resize(size);
  for (std::vector<std::int32_t>& column : numbers_) column.resize(size, kNoNumber);
  end_ = row + 1;
  subjects_.growTo(end_);
}

bool Columns::setShape(Row row, std::string_view record) {
  const auto number = recordShape(record);
  shapes_[row] = 0;
  if (!number) return false;
  const auto [place, isNew] =
      shapeOrdinals_.try_emplace(*number, static_cast<std::uint32_t>(shapeNumbers_.size() + 1));
  if (isNew) shapeNumbers_.push_back(*number);
  shapes_[row] = place->second;
  return true;
}

void Columns::setMailbox(Row row, std::int64_t mailbox) {
  const auto [place, isNew] =
      mailboxOrdinals_.try_emplace(mailbox, static_cast<std::uint32_t>(mailboxNumbers_.size() + 1));
  if (isNew) mailboxNumbers_.push_back(mailbox);
  mailboxes_[row] = place->second;
  if (hiddenMailboxes_.contains(mailbox)) {
    hidden_.insert(row);
  } else {
    hidden_.erase(row);
  }
}

RowSet Columns::rowsOfShapes(
    const RowSet& within, const ValuePool& pool,
    const std::function<bool(const ValuePool::Entry& shape)>& holds) const {
  enum class Verdict : std::uint8_t { kUnknown, kHolds, kFails };
  std::vector<Verdict> verdicts(shapeNumbers_.size() + 1);
  verdicts[0] = Verdict::kFails;
  RowSet rows = within;
  within.forEachDescending([&](Row row) {
    const std::uint32_t ordinal = row < end_ ? shapes_[row] : 0;
    Verdict& verdict = verdicts[ordinal];
    if (verdict == Verdict::kUnknown) {
      const ValuePool::Entry* shape = pool.at(shapeNumbers_[ordinal - 1]);
      verdict = shape != nullptr && holds(*shape) ? Verdict::kHolds : Verdict::kFails;
    }
    if (verdict == Verdict::kFails) rows.erase(row);
    return true;
  });
  return rows;
}

RowSet Columns::rowsWithNumber(AttributeKey key, const std::vector<double>& breaks,
                               const std::function<bool(const Value& number)>& holds) const {
  constexpr std::int64_t kLeast = std::int64_t{INT32_MIN} + 1;
  constexpr std::int64_t kMost = INT32_MAX;
  std::vector<std::int64_t> points{kLeast, kMost};
  for (const double at : breaks) {
    if (!(at >= INT32_MIN && at <= INT32_MAX)) continue;
    const auto floor = static_cast<std::int64_t>(std::floor(at));
    for (std::int64_t point = floor - 1; point <= floor + 2; ++point) {
      points.push_back(std::clamp(point, kLeast, kMost));
    }
  }
  std::sort(points.begin(), points.end());
  points.erase(std::unique(points.begin(), points.end()), points.end());

  const bool isNumber = key == AttributeKey::kFSSize || key == AttributeKey::kLogicalSize ||
                        key == AttributeKey::kModtime;
  const auto holdsAt = [&](std::int64_t point) {
    return holds(isNumber ? Value(point) : Value(Date{static_cast<double>(point)}));
  };
  struct Range {
    std::int64_t low;
    std::int64_t high;
  };
  std::vector<Range> ranges;
  const auto add = [&ranges](std::int64_t low, std::int64_t high) {
    if (!ranges.empty() && ranges.back().high + 1 == low) {
      ranges.back().high = high;
    } else {
      ranges.push_back({low, high});
    }
  };
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (holdsAt(points[i])) add(points[i], points[i]);
    if (i + 1 == points.size() || points[i] + 1 == points[i + 1]) continue;
    if (holdsAt(points[i] + 1)) add(points[i] + 1, points[i + 1] - 1);
  }
  RowSet rows;
  const std::vector<std::int32_t>& column =
      numbers_[places()[static_cast<std::size_t>(key)].column];
  for (const Range& range : ranges) {
    for (Row row = 0; row < end_; ++row) {
      if (column[row] >= range.low && column[row] <= range.high) rows.insert(row);
    }
  }
  return rows;
}

const TermColumn& Columns::terms(AttributeKey key) const {
  return terms_[places()[static_cast<std::size_t>(key)].column];
}

RowSet Columns::rowsWithIdentifier(std::optional<std::string_view> identifier) const {
  const std::uint32_t hash = identifier ? identifierHash(*identifier) : 0;
  RowSet rows;
  for (Row row = 0; row < end_; ++row) {
    if (identifier ? identifiers_[row] == hash : identifiers_[row] != 0) rows.insert(row);
  }
  return rows;
}

void Columns::shrink() {
  present_.shrink();
  shapes_.shrink_to_fit();
  mailboxes_.shrink_to_fit();
  identifiers_.shrink_to_fit();
  for (std::vector<std::int32_t>& column : numbers_) column.shrink_to_fit();
  for (TermColumn& column : terms_) column.shrink();
  subjects_.shrink();
}

void Columns::write(ByteWriter& out) const {
  present_.write(out);
  irregular_.write(out);
  out.put(end_);
  out.put(shapes_);
  out.put(shapeNumbers_);
  out.put(mailboxes_);
  out.put(mailboxNumbers_);
  for (const std::vector<std::int32_t>& column : numbers_) out.put(column);
  TextTable texts;
  ByteWriter terms;
  for (const TermColumn& column : terms_) column.write(terms, texts);
  texts.write(out);
  out.put(terms.bytes());
  out.put(identifiers_);
  subjects_.write(out);
}

std::unique_ptr<Columns> Columns::read(ByteReader& in) {
  auto made = std::make_unique<Columns>();
  made->present_.read(in);
  made->irregular_.read(in);
  made->count_ = made->present_.size();
  made->end_ = in.number<Row>();
  in.get(made->shapes_);
  in.get(made->shapeNumbers_);
  in.get(made->mailboxes_);
  in.get(made->mailboxNumbers_);
  for (std::vector<std::int32_t>& column : made->numbers_) in.get(column);
  TextTable texts;
  texts.read(in);
  ByteReader terms(in.text());
  for (TermColumn& column : made->terms_) {
    if (!column.read(terms, texts, made->end_)) return nullptr;
  }
  in.get(made->identifiers_);
  if (!made->subjects_.read(in, made->end_) || !made->isSound()) return nullptr;
  for (std::size_t i = 0; i < made->shapeNumbers_.size(); ++i) {
    made->shapeOrdinals_.emplace(made->shapeNumbers_[i], static_cast<std::uint32_t>(i + 1));
  }
  for (std::size_t i = 0; i < made->mailboxNumbers_.size(); ++i) {
    made->mailboxOrdinals_.emplace(made->mailboxNumbers_[i], static_cast<std::uint32_t>(i + 1));
  }
  return made;
}

// Whether nothing refers to what is not there.
bool Columns::isSound() const {
  const auto atMost = [](const std::vector<std::uint32_t>& ordinals, std::size_t most) {
    return std::all_of(ordinals.begin(), ordinals.end(), [most](auto one) { return one <= most; });
  };
  const auto isBelowEnd = [this](const RowSet& rows) {
    bool below = true;
    rows.forEachDescending([&](Row highest) {
      below = highest < end_;
      return false;
    });
    return below;
  };
  return end_ <= kMostRow + 1 && isBelowEnd(present_) && isBelowEnd(irregular_) &&
         shapes_.size() == end_ && mailboxes_.size() == end_ && identifiers_.size() == end_ &&
         std::all_of(numbers_.begin(), numbers_.end(),
                     [this](const auto& column) { return column.size() == end_; }) &&
         atMost(shapes_, shapeNumbers_.size()) && atMost(mailboxes_, mailboxNumbers_.size());
}

RowSet Columns::present() const {
  RowSet rows = present_;
  rows -= hidden_;
  return rows;
}

RowSet Columns::irregular() const {
  RowSet rows = irregular_;
  rows -= hidden_;
  return rows;
}

}  // namespace thmp
