// SPDX-License-Identifier: Apache-2.0
#include "host/index/Indexer.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>

#include "host/index/BoundedQueue.h"
#include "host/index/MailboxSight.h"
#include "host/index/MessageFileReader.h"
#include "host/index/file_marks.h"
#include "host/index/index_tables.h"

namespace thmp {

namespace {

using Clock = std::chrono::steady_clock;

// The calling thread lets others go first, from now on.
void standBack() noexcept {
  constexpr int kNice = 10;
  // Best effort, the last in its class; the C library has no function and no names for it.
  constexpr int kThisThread = 1;
  constexpr int kLastInClass = (2 << 13) | 7;
  ::setpriority(PRIO_PROCESS, 0, kNice);
  ::syscall(SYS_ioprio_set, kThisThread, 0, kLastInClass);
}

// Entries that are stored. The thread that reads destroys them: an allocator is quick with what its
// own thread took, and the other one has more to do. Any thread.
class StoredEntries {
 public:
  void add(std::vector<IndexEntry> entries) {
    const Lock lock(mutex_);
    entries_.swap(entries);
  }
  void destroy() { add({}); }

 private:
  Mutex mutex_;
  std::vector<IndexEntry> entries_ THMP_GUARDED_BY(mutex_);
};

}  // namespace

// One update, from its beginning to its end.
class Indexer::Run {
 public:
  Run(Indexer& indexer, const std::vector<std::string>& roots, const Progress& progress,
      bool dryRun)
      : library_(indexer.library_),
        index_(indexer.index_),
        options_(indexer.options_),
        stopped_(indexer.stopped_),
        reader_(indexer.options_.limits),
        roots_(roots),
        progress_(progress),
        dryRun_(dryRun) {}

  Result<Coverage> all() {
    if (!learnMailboxes()) return error_;
    std::map<std::string, MailFolder> found;
    for (const std::string& root : roots_) walk(root, root, found);
    recognise(found);
    countTotal(found);
    for (const LibraryMailbox& mailbox : known_) {
      if (found.contains(mailbox.folder.path)) continue;
      if (!isKept(mailbox.folder)) removeMailbox(mailbox);
    }
    updateFound(found);
    dropStrays();
    if (good() && !isStopped() && !dryRun_) note(index_.keepFailed(sources_));
    if (good() && !dryRun_) note(index_.settle());
    return end();
  }

  Result<Coverage> some(const MailChanges& changes) {
    if (!learnMailboxes()) return error_;
    std::map<std::string, MailFolder> found;
    std::set<std::string> trees = changes.trees;
    for (const std::string& path : changes.mailboxes) {
      const auto mailbox = std::find_if(known_.begin(), known_.end(),
                                        [&](const auto& one) { return one.folder.path == path; });
      if (mailbox == known_.end()) {
        trees.insert(path);
      } else {
        found.emplace(path, mailbox->folder);
      }
    }
    for (const auto& [path, files] : changes.files) {
      const auto mailbox =
          std::find_if(known_.begin(), known_.end(),
                       [&, &at = path](const auto& one) { return one.folder.path == at; });
      if (mailbox == known_.end()) {
        trees.insert(path);
      } else if (!found.contains(path) && !updateFiles(*mailbox, files)) {
        found.emplace(path, mailbox->folder);
      }
    }
    for (const std::string& tree : trees) updateTree(tree, found);
    updateFound(found);
    if (good()) note(index_.settle());
    for (const std::string& path : goneMailboxes_) {
      std::map<std::string, MailFolder> none;
      updateTree(path, none);
      updateFound(none);
    }
    return end();
  }

 private:
  bool good() const { return !error_.isSet(); }
  bool isStopped() const { return stopped_.load(std::memory_order_relaxed); }

  template <typename T>
  bool note(const Result<T>& result) {
    if (result) return true;
    if (good()) error_ = result.error();
    return false;
  }

  Result<Coverage> end() {
    coverage_.stopped = isStopped();
    if (good() && !coverage_.stopped && !dryRun_) {
      note(index_.setLastUpdate(Date::fromUnixSeconds(static_cast<double>(
          std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())))));
    }
    if (!good()) return error_;
    return coverage_;
  }

  bool learnMailboxes() {
    auto mailboxes = library_.mailboxes();
    if (!note(mailboxes)) return false;
    known_ = std::move(*mailboxes);
    if (!dryRun_) index_.hideMailboxes(library_.unreachableMailboxes());
    return true;
  }

  void lookForRoot(const std::string& root) {
    if (!library_.whyUnreachable(root).empty()) missingRoots_.insert(root);
  }

  // What stands at or below `folder`; the innermost named folder counts as a mailbox's own.
  void walk(const std::string& root, const std::string& folder,
            std::map<std::string, MailFolder>& found) {
    lookForRoot(root);
    MailTree tree = walkMail(root, folder);
    // Went while it was walked: what was not seen then is not gone.
    lookForRoot(root);
    if (folder == root && !tree.rootIsThere) missingRoots_.insert(root);
    if (folder == root && !tree.mailboxes.empty() && !dryRun_) {
      note(library_.keepRoot(root, tree.rootIdentity));
    }
    unreadable_.insert(tree.vanished.begin(), tree.vanished.end());
    for (MailFolder& mailbox : tree.mailboxes) {
      std::string path = mailbox.path;
      found.insert_or_assign(std::move(path), std::move(mailbox));
    }
    for (const UnreadablePath& one : tree.unreadable) unreadable_.insert(one.path);
    std::vector<UnreadablePath> failed = std::move(tree.failed);
    for (UnreadablePath& one : tree.unreadable) {
      if (one.path != root) failed.push_back(std::move(one));
    }
    coverage_.failed += failed.size();
    coverage_.seen += failed.size();
    setFailed(folder + "/", failed);
  }

  void setFailed(const std::string& source, const std::vector<UnreadablePath>& failed) {
    if (dryRun_) return;
    sources_.push_back(source);
    note(index_.setFailed(source, failed));
  }

  // Whether a known mailbox that was not found stays as it is: its place cannot be looked at now.
  bool isKept(const MailFolder& mailbox) {
    if (std::find(roots_.begin(), roots_.end(), mailbox.root) == roots_.end()) return false;
    lookForRoot(mailbox.root);  // which may lie in the one that was walked
    if (missingRoots_.contains(mailbox.root)) return true;
    return std::any_of(unreadable_.begin(), unreadable_.end(),
                       [&](const std::string& path) { return isAtOrBelow(mailbox.path, path); });
  }

  std::string rootOf(const std::string& path) const {
    std::string best;
    for (const std::string& root : roots_) {
      if (isAtOrBelow(path, root) && root.size() > best.size()) best = root;
    }
    return best;
  }

  void updateTree(const std::string& tree, std::map<std::string, MailFolder>& found) {
    const std::string root = rootOf(tree);
    if (root.empty()) return;
    std::map<std::string, MailFolder> here;
    walk(root, tree, here);
    for (const std::string& inner : roots_) {
      if (inner != root && isAtOrBelow(inner, tree)) walk(inner, inner, here);
    }
    for (const LibraryMailbox& mailbox : known_) {
      const std::string& path = mailbox.folder.path;
      if (mailbox.folder.format == MessageFormat::kEmlx && path != tree &&
          isAtOrBelow(tree, path)) {
        here.emplace(path, mailbox.folder);
      }
      if (!isAtOrBelow(path, tree) || here.contains(path) || isKept(mailbox.folder)) continue;
      found.erase(path);
      removeMailbox(mailbox);
    }
    found.merge(here);
  }

  // Of mailboxes whose folders are as they were, each file is as it was.
  void recognise(const std::map<std::string, MailFolder>& found) {
    const auto tallies = library_.tallies();
    const auto states = index_.mailboxStates();
    if (!note(tallies) || !note(states)) return;
    for (const LibraryMailbox& mailbox : known_) {
      const auto folder = found.find(mailbox.folder.path);
      const auto state = states->find(mailbox.id);
      if (folder == found.end() || folder->second != mailbox.folder || state == states->end() ||
          state->second.stamp.empty()) {
        continue;
      }
      // Where the two do not agree, one of them is not the one that was seen then.
      const auto tally = tallies->find(mailbox.id);
      const bool agree =
          state->second.tally == (tally == tallies->end() ? MailboxTally() : tally->second);
      if (agree && mailboxStamp(mailbox.folder) == state->second.stamp) {
        unchanged_.emplace(mailbox.folder.path, state->second);
      }
    }
  }

  void passUnchanged(const std::string& path, const IndexedMailbox& mailbox) {
    coverage_.seen += mailbox.tally.messages;
    coverage_.unchanged += mailbox.tally.messages;
    coverage_.incomplete += mailbox.incomplete;
    sources_.push_back(path);
  }

  void countTotal(const std::map<std::string, MailFolder>& found) {
    if (!progress_) return;
    for (const auto& [path, folder] : found) {
      if (isStopped()) return;
      if (const auto same = unchanged_.find(path); same != unchanged_.end()) {
        total_ += same->second.tally.messages;
        continue;
      }
      const auto listing = listMailbox(folder);
      if (listing) total_ += listing->entries.size() + listing->failed.size();
    }
  }

  void report() {
    if (!progress_) return;
    const std::chrono::duration<double> passed = Clock::now() - began_;
    const double rate =
        passed.count() > 0 ? static_cast<double>(coverage_.seen) / passed.count() : 0;
    progress_({coverage_.seen, std::max(total_, coverage_.seen), rate});
  }

  void removeMailbox(const LibraryMailbox& mailbox) {
    if (!good() || isStopped()) return;
    if (dryRun_) {
      const auto messages = library_.messages(mailbox.id);
      if (note(messages)) coverage_.removed += messages->size();
      return;
    }
    const auto removed = library_.removeMailbox(mailbox.id);
    if (!note(removed)) return;
    coverage_.removed += removed->size();
    note(index_.removeMailbox(mailbox.id));
    note(index_.setFailed(mailbox.folder.path, {}));
  }

  // Mail in the index that the library does not know, after an interruption between the two.
  void dropStrays() {
    if (!good() || isStopped() || dryRun_) return;
    const auto indexed = index_.mailboxes();
    const auto mailboxes = library_.mailboxes();
    if (!note(indexed) || !note(mailboxes)) return;
    for (const std::int64_t mailbox : *indexed) {
      const bool isKnown = std::any_of(mailboxes->begin(), mailboxes->end(),
                                       [&](const auto& one) { return one.id == mailbox; });
      if (!isKnown) note(index_.removeMailbox(mailbox));
    }
  }

  void updateFound(const std::map<std::string, MailFolder>& found) {
    for (const auto& [path, folder] : found) {
      if (!good() || isStopped()) return;
      if (const auto same = unchanged_.find(path); same != unchanged_.end()) {
        passUnchanged(path, same->second);
        continue;
      }
      const auto known =
          std::find_if(known_.begin(), known_.end(),
                       [&, &at = path](const auto& one) { return one.folder.path == at; });
      LibraryMailbox mailbox{known == known_.end() ? 0 : known->id, folder};
      if (!dryRun_ && (known == known_.end() || known->folder != folder)) {
        const auto id = library_.addMailbox(folder);
        if (!note(id)) return;
        mailbox.id = *id;
      }
      updateMailbox(mailbox);
      report();
    }
  }

  // Empty when it could not be seen, which is noted.
  std::optional<MailboxSight> look(const LibraryMailbox& mailbox,
                                   const std::vector<LibraryMessage>& messages) {
    auto sight = lookAtMailbox(mailbox.folder, messages);
    const std::string& path = mailbox.folder.path;
    if (!sight) {
      unreadableMailbox(mailbox, {{path, sight.error().description}});
      return std::nullopt;
    }
    if (!*sight) goneMailboxes_.insert(path);
    return *std::move(sight);
  }

  void unreadableMailbox(const LibraryMailbox& mailbox, const std::vector<UnreadablePath>& failed) {
    setFailed(mailbox.folder.path, failed);
    coverage_.failed += failed.size();
    coverage_.seen += failed.size();
  }

  // Mail that came or was renamed, without a look at the rest. False, and nothing is done, where
  // more may have happened: only a listing of all tells that a message is gone.
  bool updateFiles(const LibraryMailbox& mailbox, const std::set<std::string>& files) {
    if (mailbox.folder.format != MessageFormat::kMaildir || hasFailed(mailbox)) return false;
    MailboxListing listing;
    std::set<std::string> names;
    for (const std::string& file : files) {
      const std::size_t slash = file.find('/');
      auto entry = maildirEntry(std::string_view(file).substr(0, slash),
                                std::string_view(file).substr(slash + 1));
      if (!entry) return false;
      names.insert(entry->name);
      if (stampOf(messagePath(mailbox.folder.path, entry->part, entry->file))) {
        listing.entries.push_back(std::move(*entry));
      }
    }
    std::vector<LibraryMessage> messages;
    std::unordered_map<std::int64_t, IndexedFile> indexed;
    for (const std::string& name : names) {
      auto message = library_.message(mailbox.id, name);
      if (!note(message)) return false;
      if (!*message) continue;
      const auto file = index_.file((*message)->id);
      if (!note(file)) return false;
      if (*file) indexed.emplace((*message)->id, **file);
      listing.entries.push_back((*message)->entry);
      messages.push_back(std::move(**message));
    }
    std::sort(listing.entries.begin(), listing.entries.end());
    listing.entries.erase(std::unique(listing.entries.begin(), listing.entries.end()),
                          listing.entries.end());
    MailboxSight sight = sightOf(mailbox.folder, messages, listing);
    const bool isPlain = sight.failed.empty() &&
                         std::all_of(sight.files.begin(), sight.files.end(),
                                     [](const SeenFile& file) { return file.stamp.has_value(); });
    if (!isPlain) return false;
    commit_ = Index::Commit::kNow;
    bringUpToDate(mailbox, messages, indexed, sight);
    commit_ = Index::Commit::kWithOthers;
    return failed_.empty();
  }

  // Whether some of its files could not be opened: whether they can be now only a full look tells.
  bool hasFailed(const LibraryMailbox& mailbox) {
    const auto failed = index_.failed();
    return !note(failed) ||
           std::any_of(failed->begin(), failed->end(), [&](const UnreadablePath& one) {
             return isAtOrBelow(one.path, mailbox.folder.path);
           });
  }

  void updateMailbox(const LibraryMailbox& mailbox) {
    auto messages = mailbox.id == 0
                        ? Result<std::vector<LibraryMessage>>(std::vector<LibraryMessage>())
                        : library_.messages(mailbox.id);
    auto files = index_.files(mailbox.id);
    if (!note(messages) || !note(files)) return;
    std::optional<MailboxSight> sight = look(mailbox, *messages);
    if (!sight) return;
    if (!dryRun_) note(index_.setStamp(mailbox.id, {}));

    isWhole_ = true;
    bringUpToDate(mailbox, *messages, *files, *sight);
    coverage_.failed += failed_.size();
    if (dryRun_) return;
    if (good() && !isStopped() && isWhole_ && failed_.empty() && !sight->stamp.empty()) {
      note(index_.setStamp(mailbox.id, sight->stamp));
    }
    setFailed(mailbox.folder.path, failed_);
  }

  // What was seen of the mailbox goes into library and index; `messages` and `files` are what those
  // have of it.
  void bringUpToDate(const LibraryMailbox& mailbox, const std::vector<LibraryMessage>& messages,
                     const std::unordered_map<std::int64_t, IndexedFile>& files,
                     MailboxSight& sight) {
    LibraryChanges changes;
    std::vector<FileToRead> renamed;
    std::vector<FileToRead> toRead;
    compare(messages, files, mailbox.folder, sight, changes, renamed, toRead);
    failed_ = std::move(sight.failed);
    coverage_.seen += failed_.size();
    coverage_.removed += changes.removed.size();
    if (dryRun_) {
      coverage_.indexed += toRead.size();
      coverage_.seen += toRead.size();
      return;
    }
    applyChanges(mailbox, messages, files, changes);
    renameAll(mailbox, files, renamed);
    readAll(mailbox, toRead);
    readVanished(mailbox);
  }

  void compare(const std::vector<LibraryMessage>& messages,
               const std::unordered_map<std::int64_t, IndexedFile>& files, const MailFolder& folder,
               const MailboxSight& sight, LibraryChanges& changes, std::vector<FileToRead>& renamed,
               std::vector<FileToRead>& toRead) {
    changes.removed = sight.gone;
    auto message = messages.begin();
    for (const SeenFile& file : sight.files) {
      while (message != messages.end() && message->entry.name < file.entry.name) ++message;
      if (message == messages.end() || message->entry.name != file.entry.name) {
        if (file.stamp) {
          toRead.push_back({file.entry, *file.stamp, 0});
        } else {
          isWhole_ = false;
          vanished_.push_back({file.entry, {}, 0});
        }
        continue;
      }
      const auto indexed = files.find(message->id);
      if (!file.stamp) {
        // Renamed again meanwhile: it is there, and where exactly the next update will see.
        isWhole_ = false;
        ++coverage_.seen;
        ++coverage_.unchanged;
        if (indexed == files.end()) vanished_.push_back({file.entry, {}, message->id});
        continue;
      }
      if (message->entry != file.entry) changes.moved.push_back({message->id, file.entry});
      const FileToRead work{file.entry, *file.stamp, message->id};
      const bool isRead =
          indexed != files.end() && indexed->second.content == contentMark(*file.stamp);
      const bool isInPlace = isRead && indexed->second.place == placeMark(folder, file.entry);
      if (!isRead || (!isInPlace && folder.format != MessageFormat::kMaildir)) {
        toRead.push_back(work);
        continue;
      }
      if (!isInPlace) renamed.push_back(work);
      ++coverage_.seen;
      ++coverage_.unchanged;
      coverage_.incomplete += indexed->second.incomplete;
    }
    // Those with an ID first, then the new ones in the order in which they came.
    std::sort(toRead.begin(), toRead.end(), [](const FileToRead& a, const FileToRead& b) {
      const auto key = [](const FileToRead& work) {
        const std::int64_t delivered = deliverySecond(work.entry.file);
        return std::tuple(work.id == 0, work.id, delivered >= 0 ? delivered : work.stamp.seconds,
                          std::string_view(work.entry.name));
      };
      return key(a) < key(b);
    });
  }

  void applyChanges(const LibraryMailbox& mailbox, const std::vector<LibraryMessage>& messages,
                    const std::unordered_map<std::int64_t, IndexedFile>& files,
                    const LibraryChanges& changes) {
    if (!good()) return;
    if (!changes.moved.empty() || !changes.removed.empty()) {
      if (!note(library_.apply(mailbox.id, changes))) return;
    }
    std::vector<std::int64_t> removed;
    for (const std::int64_t id : changes.removed) {
      if (files.contains(id)) removed.push_back(id);
    }
    std::set<std::int64_t> known;
    for (const LibraryMessage& message : messages) known.insert(known.end(), message.id);
    for (const auto& [id, file] : files) {
      if (!known.contains(id)) removed.push_back(id);
    }
    if (!removed.empty()) note(index_.remove(removed));
  }

  // A rename changes flags and names; the message need not be read again.
  void renameAll(const LibraryMailbox& mailbox,
                 const std::unordered_map<std::int64_t, IndexedFile>& files,
                 const std::vector<FileToRead>& renamed) {
    std::vector<IndexEntry> entries;
    for (const FileToRead& work : renamed) {
      if (!good()) return;
      const auto message = index_.get(work.id);
      if (!message) continue;
      IndexEntry entry;
      entry.id = work.id;
      entry.mailbox = mailbox.id;
      entry.file = files.at(work.id);
      entry.file.place = placeMark(mailbox.folder, work.entry);
      message->forEachAttribute([&](AttributeKey key, const Value& value) {
        if (key == AttributeKey::kExternalID) return true;
        (isQueryOnly(key) ? entry.queryOnly : entry.attributes).set(keyText(key), value);
        return true;
      });
      renameMessage(placeOf(mailbox.folder, work.entry, {}), entry.attributes, entry.queryOnly);
      entries.push_back(std::move(entry));
      if (entries.size() >= options_.batchSize) {
        note(index_.put(entries));
        entries.clear();
      }
    }
    if (good() && !entries.empty()) note(index_.put(entries));
  }

  // Reads and stores in batches; a batch in hand is stored even when the update is stopped. Where
  // there is much to read, another thread reads while this one stores.
  void readAll(const LibraryMailbox& mailbox, const std::vector<FileToRead>& toRead) {
    constexpr std::size_t kMuch = 64;
    // So much that reading goes on while words are written, which takes the longest.
    constexpr std::size_t kReadAhead = 1500;
    constexpr std::size_t kBytesAhead = std::size_t{24} << 20;
    Batch batch;
    if (toRead.size() < kMuch) {
      for (const FileToRead& work : toRead) {
        if (!good() || isStopped()) break;
        take(mailbox, work, reader_.read(mailbox, work), batch);
      }
      return store(mailbox, batch);
    }
    BoundedQueue<ReadFile> read(kReadAhead, kBytesAhead);
    std::thread reader([&]() noexcept {
      if (options_.isPolite) standBack();
      for (const FileToRead& work : toRead) {
        if (isStopped()) break;
        stored_.destroy();
        ReadFile file = reader_.read(mailbox, work);
        const std::size_t bytes = bytesOf(file);
        if (!read.put(std::move(file), bytes)) break;
      }
      read.close();
    });
    pthread_setname_np(reader.native_handle(), "mail-reader");
    for (const FileToRead& work : toRead) {
      if (!good() || isStopped()) break;
      std::optional<ReadFile> file = read.take();
      if (!file) break;
      take(mailbox, work, std::move(*file), batch);
    }
    read.close();
    reader.join();
    store(mailbox, batch);
    stored_.destroy();
  }

  // What is stored in one go.
  struct Batch {
    std::vector<FileToRead> read;
    std::vector<IndexEntry> entries;
    std::size_t bytes = 0;
  };

  void take(const LibraryMailbox& mailbox, const FileToRead& work, ReadFile file, Batch& batch) {
    if (!file.entry) {
      // Without a reason it went or was renamed since it was listed.
      if (file.failure.empty()) {
        isWhole_ = false;
        vanished_.push_back(work);
        return;
      }
      ++coverage_.seen;
      failed_.push_back({messagePath(mailbox.folder.path, work.entry.part, work.entry.file),
                         std::move(file.failure)});
      return;
    }
    ++coverage_.seen;
    isWhole_ = isWhole_ && file.entry->file.content != kUnsettledMark;
    batch.bytes += file.entry->textContent->size();
    batch.read.push_back(work);
    batch.entries.push_back(std::move(*file.entry));
    if (batch.entries.size() >= options_.batchSize || batch.bytes >= options_.batchBytes) {
      store(mailbox, batch);
    }
  }

  // Files that were renamed between their listing and their reading, under their new names.
  void readVanished(const LibraryMailbox& mailbox) {
    constexpr int kMostRounds = 3;
    for (int round = 0; round < kMostRounds && !vanished_.empty(); ++round) {
      const auto listing = listMailbox(mailbox.folder);
      if (!listing) break;
      std::vector<FileToRead> again;
      for (FileToRead& work : vanished_) {
        const auto now = std::lower_bound(listing->entries.begin(), listing->entries.end(),
                                          MessageEntry{work.entry.name, {}, {}});
        if (now == listing->entries.end() || now->name != work.entry.name) continue;
        again.push_back({*now, work.stamp, work.id});
      }
      vanished_.clear();
      readAll(mailbox, again);
    }
    vanished_.clear();
  }

  void store(const LibraryMailbox& mailbox, Batch& batch) {
    if (!good() || batch.entries.empty()) return;
    LibraryChanges changes;
    for (const FileToRead& work : batch.read) {
      if (work.id == 0) changes.added.push_back(work.entry);
    }
    if (!changes.added.empty()) {
      const auto ids = library_.apply(mailbox.id, changes);
      if (!note(ids)) return;
      auto id = ids->begin();
      for (IndexEntry& entry : batch.entries) {
        if (entry.id == 0) entry.id = *id++;
      }
    }
    if (!note(index_.put(batch.entries, commit_))) return;
    coverage_.indexed += batch.entries.size();
    for (const IndexEntry& entry : batch.entries) coverage_.incomplete += entry.file.incomplete;
    stored_.add(std::move(batch.entries));
    batch = {};
    report();
  }

  Library& library_;
  Index& index_;
  const IndexerOptions& options_;
  const std::atomic<bool>& stopped_;
  const MessageFileReader reader_;
  const std::vector<std::string>& roots_;
  const Progress& progress_;
  const bool dryRun_;
  const Clock::time_point began_ = Clock::now();

  std::vector<LibraryMailbox> known_;
  std::map<std::string, IndexedMailbox> unchanged_;  // by path
  std::set<std::string> missingRoots_;
  std::set<std::string> unreadable_;
  std::set<std::string> goneMailboxes_;
  std::vector<std::string> sources_;
  StoredEntries stored_;
  // Of the mailbox in hand.
  std::vector<UnreadablePath> failed_;
  std::vector<FileToRead> vanished_;
  bool isWhole_ = true;  // each file was caught and need not be read again
  // What is told of a mailbox at the end of a look at it makes all before it lasting.
  Index::Commit commit_ = Index::Commit::kWithOthers;
  std::uint64_t total_ = 0;
  Coverage coverage_;
  Error error_;
};

Indexer::Indexer(Library& library, Index& index, IndexerOptions options)
    : library_(library), index_(index), options_(std::move(options)) {}

void Indexer::setRoots(std::vector<std::string> roots) {
  for (std::string& root : roots) {
    while (root.size() > 1 && root.back() == '/') root.pop_back();
  }
  // An outer folder before those in it.
  std::sort(roots.begin(), roots.end());
  roots.erase(std::unique(roots.begin(), roots.end()), roots.end());
  const Lock lock(running_);
  roots_ = std::move(roots);
}

Result<Coverage> Indexer::update(const Progress& progress) {
  const Lock lock(running_);
  auto done = updateAll(progress);
  // Damage that the update met, whether it came to its end or not.
  return index_.isDamaged() ? updateAll(progress) : done;
}

Result<Coverage> Indexer::updateAll(const Progress& progress) {
  if (const Result<void> sound = makeSound(); !sound) return sound.error();
  return Run(*this, roots_, progress, /*dryRun=*/false).all();
}

Result<void> Indexer::makeSound() {
  if (!index_.isDamaged() && isMostlyStale()) {
    if (options_.tell) {
      options_.tell("most words in the index are of mail that is gone; it is made anew");
    }
    Result<void> made = index_.makeAnew();
    index_.takeLoss();  // which this was not
    return made;
  }
  Result<void> made;
  if (index_.isDamaged()) made = index_.makeAnew();
  tellOfLoss();
  return made;
}

bool Indexer::isMostlyStale() const {
  const auto stale = index_.staleCount();
  const auto count = index_.count();
  return stale && count && *stale > *count + options_.mostStale;
}

void Indexer::tellOfLoss() {
  const auto why = [this]() -> const char* {
    switch (index_.takeLoss()) {
      case IndexLoss::kNone:
        return nullptr;
      case IndexLoss::kMissing: {
        const auto known = library_.messageCount();
        return known && *known > 0 ? "the index is gone; it is made anew from the mail" : nullptr;
      }
      case IndexLoss::kDamaged:
        return "the index is damaged; it is set aside and made anew from the mail";
      case IndexLoss::kOtherVersion:
        return "the index is of another version of this program; it is made anew from the mail";
    }
    return nullptr;
  }();
  if (why != nullptr && options_.tell) options_.tell(why);
}

Result<Coverage> Indexer::update(const MailChanges& changes) {
  if (changes.everything) return update();
  {
    const Lock lock(running_);
    if (!index_.isDamaged()) {
      auto done = Run(*this, roots_, {}, /*dryRun=*/false).some(changes);
      if (!index_.isDamaged()) return done;
    }
  }
  return update();
}

Result<Coverage> Indexer::count() {
  const Lock lock(running_);
  return Run(*this, roots_, {}, /*dryRun=*/true).all();
}

}  // namespace thmp
