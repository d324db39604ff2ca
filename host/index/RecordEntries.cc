// SPDX-License-Identifier: Apache-2.0
#include "host/index/RecordEntries.h"

#include <algorithm>
#include <array>
#include <utility>

#include "host/index/message_record.h"
#include "host/index/record_reader.h"

namespace thmp {

namespace {

using namespace record_format;

// The attributes that stand in a record itself: where their values begin.
struct Standing {
  std::array<char, kKeys> keys;
  std::array<std::uint32_t, kKeys> begins;
  std::size_t count = 0;

  explicit Standing(RecordWalk& walk) {
    while (count < kKeys && walk.next()) {
      keys[count] = static_cast<char>(walk.key());
      begins[count++] = static_cast<std::uint32_t>(walk.begin());
    }
  }
  AttributeKey key(std::size_t i) const {
    return static_cast<AttributeKey>(static_cast<std::uint8_t>(keys[i]));
  }
};

// Gives the values of one record.
class Giver {
 public:
  Giver(std::string_view record, const ValuePool* pool, EntrySink& sink)
      : record_(record), pool_(pool), sink_(sink), reader_(record, 0, record.size(), pool) {}

  void giveAttribute(AttributeKey key, std::size_t begin) {
    reader_.goTo(begin);
    if (reader_.tag() != kSameAs) {
      give(0);
      isGiven_.set(static_cast<std::size_t>(key));
      handles_[static_cast<std::size_t>(key)] = last_;
      return;
    }
    reader_.byte();
    const std::size_t other = reader_.byte();
    if (isGiven_[other]) {
      sink_.addAgain(handles_[other]);
    } else if (Value value = recordValue(record_, key, *pool_); !value.isNull()) {  // not wanted
      sink_.add(std::move(value));
    } else {
      sink_.addText({});
    }
  }

  // What is not well formed becomes an empty text.
  void give(int depth) {
    const std::size_t begin = reader_.place();
    switch (reader_.tag()) {
      case kText:
        last_ = sink_.addText(reader_.text());
        if (knownCount_ < known_.size()) known_[knownCount_++] = {begin, last_};
        return;
      case kEarlier:
        giveEarlier(begin);
        return;
      case kAngled:
      case kMessageUrl:
        last_ = sink_.addText(reader_.text());
        return;
      case kArray:
      case kDictionary:
        giveContainer(depth);
        return;
      case kPooled:
        if (givePooled(/*isKey=*/false)) return;
        break;
      default:
        if (Value value = reader_.value(); reader_.ok()) {
          last_ = sink_.add(std::move(value));
          return;
        }
    }
    last_ = sink_.addText({});
  }

 private:
  struct KnownText {
    std::size_t place;
    EntrySink::Handle handle;
  };

  void giveEarlier(std::size_t begin) {
    const std::size_t place = reader_.earlierPlace();
    const auto* end = known_.begin() + knownCount_;
    const auto* known = std::find_if(
        known_.cbegin(), end, [place](const KnownText& text) { return text.place == place; });
    if (known != end) {
      last_ = known->handle;
      sink_.addAgain(last_);
    } else {
      reader_.goTo(begin);
      last_ = sink_.addText(reader_.text());
    }
  }

  void giveContainer(int depth) {
    const bool isArray = reader_.byte() == kArray;
    const std::size_t count = reader_.count(depth) * (isArray ? 1 : 2);
    if (isArray) {
      sink_.beginArray();
    } else {
      sink_.beginDictionary();
    }
    for (std::size_t i = 0; i < count && reader_.ok(); ++i) {
      if (isArray || i % 2 != 0) {
        give(depth + 1);
      } else if (!giveKey(depth + 1)) {
        break;
      }
    }
    last_ = sink_.end();
  }

  // False for what is no text.
  bool giveKey(int depth) {
    if (reader_.tag() == kPooled) return givePooled(/*isKey=*/true);
    const bool isText = reader_.isText();
    if (isText) give(depth);
    return isText;
  }

  bool givePooled(bool isKey) {
    const auto number = reader_.pooled();
    if (!number || (isKey && pool_->bytes(*number).front() != kText)) return false;
    last_ = sink_.addLent(pool_->lent(*number));
    return true;
  }

  const std::string_view record_;
  const ValuePool* const pool_;  // null for a value by itself
  EntrySink& sink_;
  RecordReader reader_;
  AttributeSelection isGiven_;
  std::array<EntrySink::Handle, kKeys> handles_;  // of those that are given, by key
  std::array<KnownText, 16> known_;  // texts of the record that were given, the first ones
  std::size_t knownCount_ = 0;
  EntrySink::Handle last_ = 0;  // of the value given last
};

}  // namespace

void giveValue(std::string_view bytes, EntrySink& sink) { Giver(bytes, nullptr, sink).give(0); }

void RecordEntries::give(std::string_view record, const ValuePool& pool,
                         std::string_view identifier, EntrySink& sink) const {
  RecordWalk walk(record, pool);
  const Standing standing(walk);
  const Layout& layout = layoutOf(walk.shape(), {standing.keys.data(), standing.count});
  sink.begin(layout.entries);
  Giver giver(record, &pool, sink);
  for (std::size_t i = 0; i < standing.count; ++i) {
    if (i == layout.identifierBefore) sink.addText(identifier);
    if (layout.isGiven[i]) giver.giveAttribute(standing.key(i), standing.begins[i]);
  }
  if (layout.identifierBefore == standing.count) sink.addText(identifier);
}

std::size_t RecordEntries::layoutCount() const {
  const Lock lock(mutex_);
  return layouts_.size();
}

const RecordEntries::Layout& RecordEntries::layoutOf(const ValuePool::Entry* shape,
                                                     std::string_view keys) const {
  const std::uint64_t hash = fingerprint(keys) ^ reinterpret_cast<std::uintptr_t>(shape);
  const Lock lock(mutex_);
  const auto [first, last] = layouts_.equal_range(hash);
  for (auto known = first; known != last; ++known) {
    const Layout& layout = *known->second;
    if (layout.shape == shape && layout.own == keys) return layout;
  }
  return *layouts_.emplace(hash, std::make_unique<const Layout>(makeLayout(shape, keys)))->second;
}

RecordEntries::Layout RecordEntries::makeLayout(const ValuePool::Entry* shape,
                                                std::string_view keys) const {
  struct Place {
    AttributeKey key;
    const Value* shared;  // null for an open one
  };
  std::vector<Place> places;
  places.reserve(keys.size() + 1 + (shape != nullptr ? shape->keys.size() : 0));
  const auto add = [&](AttributeKey key, const Value* shared) {
    if (wanted_[static_cast<std::size_t>(key)]) places.push_back({key, shared});
  };
  Layout layout;
  layout.shape = shape;
  layout.own = keys;
  layout.isGiven.reserve(keys.size());
  int last = -1;
  for (const char byte : keys) {
    // A record that is not what was written has attributes in any order, or twice.
    const auto key = static_cast<AttributeKey>(static_cast<std::uint8_t>(byte));
    const bool isNext = rankOf(key) > last && key != AttributeKey::kExternalID;
    if (isNext) last = rankOf(key);
    layout.isGiven.push_back(isNext && wanted_[static_cast<std::size_t>(key)]);
    if (isNext) add(key, nullptr);
  }
  add(AttributeKey::kExternalID, nullptr);
  if (shape != nullptr) {
    const Dictionary attributes = *shape->value.asDictionary();  // the pool keeps its values
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      add(shape->keys[i], &attributes.begin()[i].value);
    }
  }
  std::sort(places.begin(), places.end(),
            [](const Place& a, const Place& b) { return rankOf(a.key) < rankOf(b.key); });
  layout.entries.keys.reserve(places.size());
  layout.entries.values.reserve(places.size());
  for (const Place& place : places) {
    layout.entries.keys.push_back(keyText(place.key));
    layout.entries.values.push_back(place.shared != nullptr ? *place.shared : Value());
  }
  if (wanted_[static_cast<std::size_t>(AttributeKey::kExternalID)]) {
    layout.identifierBefore = static_cast<std::size_t>(
        std::find_if(keys.begin(), keys.end(),
                     [](char byte) {
                       return rankOf(static_cast<AttributeKey>(static_cast<std::uint8_t>(byte))) >
                              rankOf(AttributeKey::kExternalID);
                     }) -
        keys.begin());
  }
  return layout;
}

}  // namespace thmp
