// SPDX-License-Identifier: Apache-2.0
#include "host/index/MailboxSight.h"

#include <sys/stat.h>

#include <algorithm>
#include <span>
#include <tuple>
#include <utility>

namespace thmp {

namespace {

// A name is believed gone after this many listings at the latest, all of which missed it.
constexpr int kMostListings = 12;

bool byName(const SeenFile& a, const SeenFile& b) { return a.entry.name < b.entry.name; }

// Of several files with one name: the one that the library knows, else a complete one in `cur`.
void addBest(const MailFolder& folder, const std::vector<LibraryMessage>& messages,
             std::span<const MessageEntry> entries, std::vector<SeenFile>& files,
             std::vector<UnreadablePath>& failed) {
  const auto known = std::lower_bound(
      messages.begin(), messages.end(), entries[0].name,
      [](const LibraryMessage& one, const std::string& name) { return one.entry.name < name; });
  const auto rank = [&](const MessageEntry& entry) {
    const bool isKnown = known != messages.end() && known->entry == entry;
    const bool isPartial = entry.file.ends_with(".partial.emlx");
    return std::tuple(!isPartial, isKnown, entry.part == "cur");
  };
  std::vector<const MessageEntry*> order;
  for (const MessageEntry& entry : entries) order.push_back(&entry);
  std::stable_sort(order.begin(), order.end(), [&](const MessageEntry* a, const MessageEntry* b) {
    return rank(*a) > rank(*b);
  });
  for (const MessageEntry* entry : order) {
    const std::string path = messagePath(folder.path, entry->part, entry->file);
    const auto stamp = stampOf(path);
    if (stamp) {
      files.push_back({*entry, stamp});
      return;
    }
    struct stat link {};
    if (::lstat(path.c_str(), &link) == 0) {
      failed.push_back({path, "it leads nowhere"});
      return;
    }
  }
  files.push_back({*order.front(), std::nullopt});
}

// Adds what the listing shows and `sight` lacks. A name that was listed is there, even when its
// file cannot be caught under it.
void addSeen(const MailFolder& folder, const std::vector<LibraryMessage>& messages,
             const MailboxListing& listing, MailboxSight& sight) {
  sight.failed = listing.failed;
  std::vector<SeenFile> files;
  files.reserve(listing.entries.size());
  std::vector<SeenFile> before = std::move(sight.files);
  auto have = before.begin();
  for (std::size_t i = 0; i < listing.entries.size();) {
    std::size_t next = i + 1;
    while (next < listing.entries.size() && listing.entries[next].name == listing.entries[i].name) {
      ++next;
    }
    const std::string& name = listing.entries[i].name;
    for (; have != before.end() && have->entry.name < name; ++have) files.push_back(*have);
    if (have != before.end() && have->entry.name == name) {
      files.push_back(*have++);
    } else {
      addBest(folder, messages, {listing.entries.data() + i, next - i}, files, sight.failed);
    }
    i = next;
  }
  files.insert(files.end(), have, before.end());
  sight.files = std::move(files);
}

void findGone(const std::vector<LibraryMessage>& messages, MailboxSight& sight) {
  sight.gone.clear();
  auto file = sight.files.begin();
  for (const LibraryMessage& message : messages) {
    while (file != sight.files.end() && file->entry.name < message.entry.name) ++file;
    if (file == sight.files.end() || file->entry.name != message.entry.name) {
      sight.gone.push_back(message.id);
    }
  }
}

void keepThoseThere(const MailFolder& folder, const std::vector<LibraryMessage>& messages,
                    MailboxSight& sight) {
  if (sight.gone.empty()) return;
  std::vector<std::int64_t> gone;
  auto next = sight.gone.begin();
  for (const LibraryMessage& message : messages) {
    if (next == sight.gone.end()) break;
    if (message.id != *next) continue;
    ++next;
    const auto stamp = stampOf(messagePath(folder.path, message.entry.part, message.entry.file));
    if (stamp) {
      sight.files.push_back({message.entry, stamp});
    } else {
      gone.push_back(message.id);
    }
  }
  std::sort(sight.files.begin(), sight.files.end(), byName);
  sight.gone = std::move(gone);
}

}  // namespace

MailboxSight sightOf(const MailFolder& folder, const std::vector<LibraryMessage>& messages,
                     const MailboxListing& listing) {
  MailboxSight sight;
  addSeen(folder, messages, listing, sight);
  return sight;
}

Result<std::optional<MailboxSight>> lookAtMailbox(const MailFolder& folder,
                                                  const std::vector<LibraryMessage>& messages) {
  MailboxSight sight;
  for (int listings = 1;; ++listings) {
    auto listing = listMailbox(folder);
    if (!listing) return listing.error();
    if (listing->gone) return std::optional<MailboxSight>();
    addSeen(folder, messages, *listing, sight);
    findGone(messages, sight);
    if (sight.gone.empty()) {
      if (listings == 1) sight.stamp = std::move(listing->stamp);
      return std::optional(std::move(sight));
    }
    if ((listings > 1 && listing->quiet) || listings == kMostListings) break;
  }
  keepThoseThere(folder, messages, sight);
  return std::optional(std::move(sight));
}

}  // namespace thmp
