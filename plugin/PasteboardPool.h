// SPDX-License-Identifier: Apache-2.0
//
// The pasteboards that carry batches: lent, returned, lent again. A long search reuses a handful of
// them, and at most five wait idle after a burst.
//
// Any thread. One recursive lock guards everything; it is held while a pasteboard is made or
// released, which call nothing back, and never while one is cleared on return. Lock order: this
// lock, then a single pasteboard's.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "platform/pasteboard.h"
#include "search/LentPasteboard.h"

namespace thmp {

class PasteboardPool {
 public:
  using List = std::vector<std::shared_ptr<LentPasteboard>>;
  static constexpr std::size_t kMaxIdle = 5;

  explicit PasteboardPool(Pasteboards& system) : system_(system) {}
  PasteboardPool(const PasteboardPool&) = delete;
  PasteboardPool& operator=(const PasteboardPool&) = delete;

  /// pasteboardFromPool
  /// The one that has been idle longest, else a new one. Its contents are the borrower's to clear.
  /// Null when the system gives none, and once the host quits.
  std::shared_ptr<LentPasteboard> pasteboardFromPool();

  /// pasteboardToPool:
  /// Takes back what was lent; of a null pointer, and of a pasteboard that is not out, only the
  /// trimming is left. Once the host quits it is released instead.
  void pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard);

  /// The pasteboard of that name that is out, null without one. A name out of a message is looked
  /// up here and never reaches the system.
  std::shared_ptr<LentPasteboard> lentPasteboardWithName(std::string_view name) const;

  /// The host quits: releases every pasteboard ever made and forgets them. Nothing is lent from
  /// here on.
  void quit();

  /// The end of the plug-in's instance: takes the tags off every pasteboard and releases it.
  void releaseAll();

  // Snapshots; changing them changes nothing here. The setters replace a list.
  /// pasteboards
  /// Every one ever made, in the order of making, with those that the pool has dropped.
  List pasteboards() const;
  /// setPasteboards:
  void setPasteboards(List pasteboards);
  /// pasteboardPool
  /// The idle ones, the longest idle first.
  List pasteboardPool() const;
  /// setPasteboardPool:
  void setPasteboardPool(List idle);

 private:
  void findLent() THMP_REQUIRES(mutex_);

  Pasteboards& system_;
  mutable RecursiveMutex mutex_;
  List pasteboards_ THMP_GUARDED_BY(mutex_);
  List idle_ THMP_GUARDED_BY(mutex_);
  // Those that are out; the keys are the pasteboards' own names. Being in here is what makes a
  // pasteboard returnable, so that none is pooled twice and lent to two clients.
  std::unordered_map<std::string_view, std::shared_ptr<LentPasteboard>> lent_
      THMP_GUARDED_BY(mutex_);
  bool quitting_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace thmp
