// SPDX-License-Identifier: Apache-2.0
//
// The search index: the attributes and the words of every message, under its library ID, in one
// SQLite file in the cache folder, and the columns that queries are answered from in memory. It can
// be deleted at any time and is then made anew from the mail; so is one that is damaged or of
// another schema version. A damaged file is set aside under its name with ".damaged-" and a number.
//
// Any thread. Writers wait for each other; readers use connections of their own and never wait for
// a writer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/result.h"
#include "base/value.h"
#include "host/index/RecordEntries.h"
#include "host/index/RowSet.h"
#include "host/index/index_types.h"
#include "host/query/query.h"
#include "host/store/MailFolders.h"
#include "host/store/attribute_keys.h"

namespace thmp {

class Index;
class ValuePool;
struct Candidates;

/// The attributes of these names that a found item can carry.
AttributeSelection selectAttributes(std::span<const std::string> names);

/// One message as it was when it was read from the index. A copy is independent of later changes,
/// but for the text, which is read from the mail when asked for. The index outlives it.
class IndexedMessage {
 public:
  std::int64_t id() const noexcept { return id_; }
  std::int64_t mailbox() const noexcept { return mailbox_; }

  /// What the message has under an attribute's full name: fetched, query-only or the text. Null
  /// when it has none. Decodes that attribute only.
  Value value(std::string_view attribute) const;
  Value value(AttributeKey key) const;

  /// Whether value() is not null, for any attribute but the text.
  bool has(AttributeKey key) const;
  /// Gives `sink` those of `entries` that the message has. Both outlive what `sink` makes of them.
  void give(const RecordEntries& entries, EntrySink& sink) const;

  /// Calls `visit` with each attribute it has, query-only ones included but not the text, until it
  /// returns false.
  void forEachAttribute(
      const std::function<bool(AttributeKey key, const Value& value)>& visit) const;

 private:
  friend class Index;
  std::int64_t id_ = 0;
  std::int64_t mailbox_ = 0;
  std::string record_;
  std::shared_ptr<const ValuePool> pool_;
  const Index* index_ = nullptr;
};

/// Those of `entries` that the message has, made when they are asked for.
Dictionary attributesOf(IndexedMessage message, std::shared_ptr<const RecordEntries> entries);
/// All that a found item can carry.
Dictionary attributesOf(IndexedMessage message);

class Index {
 public:
  enum class Access : bool { kReadOnly, kReadWrite };
  using ChangeListener = std::function<void(const IndexChange& change)>;
  /// Reads a message's text from the mail; empty when it has none or is not there.
  using TextSource = std::function<std::string(std::int64_t id, std::int64_t mailbox)>;

  /// Opens the index in the file at `path`. For writing it is made when missing, and made anew when
  /// damaged or of another version. For reading only, those are errors.
  static Result<std::unique_ptr<Index>> open(const std::string& path, Access access);
  ~Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  /// The index keeps words but no texts; where those count, it asks `source`, on the thread that
  /// asks the index. Before the index is used by a second thread.
  void setTextSource(TextSource source);

  /// Makes the columns, which the first query would otherwise wait for. Waits for a writer.
  Result<void> prepareColumns();

  /// Calls `visit` with every message that matches and is not hidden, by descending ID, until it
  /// returns false. Otherwise like forEachDescending().
  Result<void> forEachMatch(const query::Query& query,
                            const std::function<bool(const IndexedMessage& message)>& visit) const;

  class MatchedMessages;
  using PortionVisitor = std::function<bool(const std::shared_ptr<MatchedMessages>& portion)>;
  /// The same, `most` messages at a time, until `visit` returns false or `cancelled` is set. A
  /// portion that somebody keeps is read to its end after `visit`; while it runs, makeAnew() waits.
  Result<void> forEachPortion(const query::Query& query, std::size_t most,
                              const std::atomic<bool>& cancelled,
                              const PortionVisitor& visit) const;

  /// Calls `visit` with every message that is not hidden, by descending ID, until it returns false.
  /// Sees what was committed before the call; of later commits, some. No lock or transaction is
  /// held while `visit` runs. An error when the index cannot be read to its end; what could be read
  /// has been visited.
  Result<void> forEachDescending(
      const std::function<bool(const IndexedMessage& message)>& visit) const;

  /// Empty for a message that is hidden or not in the index, and when it cannot be read.
  std::optional<IndexedMessage> get(std::int64_t id) const;
  bool contains(std::int64_t id) const;
  /// `kMDItemTextContent`; empty when there is none.
  std::string textContent(std::int64_t id, std::int64_t mailbox) const;

  /// Hidden ones included.
  Result<std::uint64_t> count() const;
  /// What the index remembers of each file of a mailbox, by ID.
  Result<std::unordered_map<std::int64_t, IndexedFile>> files(std::int64_t mailbox) const;
  /// Empty for a message that is not in the index.
  Result<std::optional<IndexedFile>> file(std::int64_t id) const;
  Result<std::vector<std::int64_t>> mailboxes() const;
  /// By their IDs.
  Result<std::unordered_map<std::int64_t, IndexedMailbox>> mailboxStates() const;
  /// By ascending ID.
  Result<std::vector<IncompleteMessage>> incomplete() const;
  /// Files that could not be opened at all, by path.
  Result<std::vector<UnreadablePath>> failed() const;
  /// When an update last came to its end; empty before the first.
  std::optional<Date> lastUpdate() const;

  /// Messages of these mailboxes are not found until the next call. Of mailboxes that were hidden
  /// and no longer are, the messages are told to listeners as added.
  void hideMailboxes(const std::vector<std::int64_t>& mailboxes);

  /// How a change is made lasting. What waits for later is seen by nobody, and is lost when a
  /// later change fails.
  enum class Commit : bool { kNow, kWithOthers };

  // Each is one transaction, and tells the listeners after it.
  /// REQUIRES: no two entries of one ID.
  Result<void> put(std::span<const IndexEntry> entries, Commit commit = Commit::kNow);
  Result<void> remove(std::span<const std::int64_t> ids);
  /// Takes out every message of a mailbox.
  Result<void> removeMailbox(std::int64_t mailbox);

  /// Remembers how a mailbox's folders looked, or with an empty stamp forgets it. Lasting with a
  /// later change.
  Result<void> setStamp(std::int64_t mailbox, const std::string& stamp);

  /// The files that could not be opened when `source`, a mailbox or the like, was looked through,
  /// in place of those known from it before.
  Result<void> setFailed(const std::string& source, const std::vector<UnreadablePath>& failed);
  /// Forgets failed files of all other sources.
  Result<void> keepFailed(const std::vector<std::string>& sources);
  Result<void> setLastUpdate(Date date);

  /// After many changes: makes columns that have become slow anew, and keeps them in a file for the
  /// next start.
  Result<void> settle();
  /// Messages that are gone or were replaced, and whose words still take up place.
  Result<std::uint64_t> staleCount() const;

  /// Whether the file turned out to be damaged since it was opened, or is no longer there.
  bool isDamaged() const noexcept;
  /// Sets the damaged file aside, or takes a sound one away, and begins an empty one. Waits for
  /// readers in the middle of a step. Listeners are told nothing: the messages come back under
  /// their IDs. After an error the index stays damaged, and this can be tried again.
  Result<void> makeAnew();
  /// What was lost when the file was opened or made anew, told once. A file that was never there
  /// counts as missing.
  IndexLoss takeLoss() noexcept;

  /// `listener` is called after each commit, in the order of commits, on a thread that writes,
  /// under no lock of the index. Returns the number to remove it by.
  std::uint64_t addListener(ChangeListener listener);
  /// A call that has begun on another thread may still be running when this returns.
  void removeListener(std::uint64_t number);

 private:
  struct State;
  class ChunkReader;
  Result<Candidates> candidates(const query::Query& query) const;
  Result<void> keepMatching(const query::Query& query, const RowSet& doubtful,
                            std::vector<Row>& rows) const;
  explicit Index(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace thmp
