// SPDX-License-Identifier: Apache-2.0
#include "plugin/PasteboardPool.h"

#include <algorithm>
#include <utility>

namespace thmp {

std::shared_ptr<LentPasteboard> PasteboardPool::pasteboardFromPool() {
  const RecursiveLock lock(mutex_);
  if (quitting_) return nullptr;
  std::shared_ptr<LentPasteboard> pasteboard;
  if (!idle_.empty()) {
    pasteboard = std::move(idle_.front());
    idle_.erase(idle_.begin());
  } else {
    std::shared_ptr<Pasteboard> made = system_.makeUnique();
    if (!made) return nullptr;
    pasteboard = std::make_shared<LentPasteboard>(std::move(made));
    pasteboards_.push_back(pasteboard);
  }
  lent_[pasteboard->name()] = pasteboard;
  return pasteboard;
}

void PasteboardPool::pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard) {
  if (pasteboard) pasteboard->board().clearContents();
  const RecursiveLock lock(mutex_);
  if (pasteboard && lent_.erase(pasteboard->name()) > 0) {
    pasteboard->clearOwnerTags();
    if (quitting_) {
      pasteboard->board().releaseGlobally();
    } else {
      idle_.push_back(pasteboard);
    }
  }
  while (idle_.size() > kMaxIdle) {
    const std::shared_ptr<LentPasteboard> oldest = std::move(idle_.front());
    idle_.erase(idle_.begin());
    // Deliberate: it stays in pasteboards_ and is released once more at quit.
    oldest->board().releaseGlobally();
  }
}

std::shared_ptr<LentPasteboard> PasteboardPool::lentPasteboardWithName(
    std::string_view name) const {
  const RecursiveLock lock(mutex_);
  const auto found = lent_.find(name);
  return found == lent_.end() ? nullptr : found->second;
}

void PasteboardPool::quit() {
  const RecursiveLock lock(mutex_);
  quitting_ = true;
  for (const auto& pasteboard : pasteboards_) pasteboard->board().releaseGlobally();
  pasteboards_.clear();
  idle_.clear();
}

void PasteboardPool::releaseAll() {
  const RecursiveLock lock(mutex_);
  for (const auto& pasteboard : pasteboards_) {
    pasteboard->clearOwnerTags();
    pasteboard->board().releaseGlobally();
  }
}

PasteboardPool::List PasteboardPool::pasteboards() const {
  const RecursiveLock lock(mutex_);
  return pasteboards_;
}

void PasteboardPool::setPasteboards(List pasteboards) {
  const RecursiveLock lock(mutex_);
  pasteboards_ = std::move(pasteboards);
  findLent();
}

PasteboardPool::List PasteboardPool::pasteboardPool() const {
  const RecursiveLock lock(mutex_);
  return idle_;
}

void PasteboardPool::setPasteboardPool(List idle) {
  const RecursiveLock lock(mutex_);
  idle_ = std::move(idle);
  findLent();
}

void PasteboardPool::findLent() {
  lent_.clear();
  for (const auto& pasteboard : pasteboards_) {
    if (std::find(idle_.begin(), idle_.end(), pasteboard) == idle_.end()) {
      lent_[pasteboard->name()] = pasteboard;
    }
  }
}

}  // namespace thmp
