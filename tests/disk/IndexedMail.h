// SPDX-License-Identifier: Apache-2.0
//
// A little mail with its library and index, for tests that take the process or the power away while
// they are written: each operation opens both anew, as a start of the host does. Besides, what
// library IDs have been told to whom, and the check that all is right afterwards.
//
// One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "host/index/Indexer.h"
#include "host/store/ChangeFeed.h"
#include "host/store/test_support.h"

namespace thmp::disk {

/// The subject of a message, which is its own, to its library ID.
using KnownIDs = std::map<std::string, std::int64_t>;

class IndexedMail {
 public:
  IndexedMail();

  const std::string& root() const { return folder_.path(); }
  /// Library and index, and nothing else, are below it.
  std::string state() const { return folder_ / "state"; }

  // The mail, and nothing of library and index. Messages are named by their numbers.
  void deliver(int number);
  void flag(int number);
  void remove(int number);

  // Scenes: mail, and what library and index have of it.
  /// Mail that no index has seen.
  void makeNewMail();
  /// Mail that has come, was flagged and went since the index was up to date, for follow().
  void makeChangedMail();
  /// An index of which most is gone, for makeAnew().
  void makeStaleIndex();

  // Operations. `told` hears of each library ID that anybody could have heard of.
  using Told = std::function<void(const std::string& subject, std::int64_t id)>;
  void update(const Told& told = {});
  /// Brings up to date what makeChangedMail() has changed.
  void follow(const Told& told = {});
  /// Makes the index anew, as after very many changes.
  void makeAnew(const Told& told = {});

  /// The next start: library and index can be opened, keep the IDs of `known`, and are after an
  /// update what the mail is. Adds to `known`.
  void checkNextStart(KnownIDs known);
  KnownIDs idsOfNow();

 private:
  struct Opened;
  Opened open(IndexerOptions options, const Told& told);
  std::string box(int number) const;

  testing_support::TemporaryFolder folder_;
  std::map<int, std::string> paths_;
  MailChanges changes_;
};

}  // namespace thmp::disk
