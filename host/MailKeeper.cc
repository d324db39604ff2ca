// SPDX-License-Identifier: Apache-2.0
#include "host/MailKeeper.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <exception>
#include <utility>

namespace thmp {
namespace {

void merge(MailChanges& into, const MailChanges& changes) {
  into.everything = into.everything || changes.everything;
  into.mailboxes.insert(changes.mailboxes.begin(), changes.mailboxes.end());
  into.trees.insert(changes.trees.begin(), changes.trees.end());
}

}  // namespace

MailKeeper::MailKeeper(Library& library, Index& index, std::vector<std::string> roots,
                       SystemLog& log)
    : index_(index),
      log_(log),
      indexer_(library, index),
      feed_(
          roots,
          [this](const MailChanges& changes) {
            {
              const Lock lock(mutex_);
              merge(changes_, changes);
            }
            wake_.notify_one();
          },
          [this](std::string_view line) { say(std::string(line)); }) {
  indexer_.setRoots(std::move(roots));
  changes_.everything = true;
}

MailKeeper::~MailKeeper() { stop(); }

void MailKeeper::start() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  // Watched first, then listed: a change in between is told twice rather than never.
  feed_.start();
  thread_ = std::thread([this] { work(); });
  pthread_setname_np(thread_.native_handle(), "mail-keeper");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void MailKeeper::stop() {
  {
    const Lock lock(mutex_);
    stopped_ = true;
  }
  wake_.notify_one();
  indexer_.stop();
  feed_.stop();
  if (thread_.joinable()) thread_.join();
}

bool MailKeeper::indexUnreadable() {
  const Lock lock(mutex_);
  remakeWanted_ = true;
  wake_.notify_one();
  return !lost_;
}

void MailKeeper::work() noexcept {
  // Before a search has to wait for an update.
  if (const Result<void> prepared = index_.prepareColumns(); !prepared) {
    say("the index cannot be read: " + prepared.error().text());
  }
  while (true) {
    MailChanges changes;
    bool remakeNow = false;
    {
      const Lock lock(mutex_);
      while (!stopped_ && !remakeWanted_ && changes_.empty()) wake_.wait(mutex_);
      if (stopped_) return;
      changes = std::exchange(changes_, {});
      remakeNow = std::exchange(remakeWanted_, false);
    }
    try {
      if (remakeNow || index_.isDamaged()) remake();
      if (changes.everything) {
        updateAll();
      } else if (!changes.empty()) {
        update(changes);
      }
    } catch (const std::exception& failure) {
      say(fmt::format("the index could not be brought up to date: {}", failure.what()));
    }
  }
}

void MailKeeper::updateAll() {
  const auto begun = std::chrono::steady_clock::now();
  const Result<Coverage> coverage = indexer_.update();
  if (!coverage) {
    say("the index could not be brought up to date: " + coverage.error().text());
    return;
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
  say(
      fmt::format("the index is up to date: seen {}, indexed {}, unchanged {}, removed {}, "
                  "incomplete {}, failed {} in "
                  "{:.2f} s",
                  coverage->seen, coverage->indexed, coverage->unchanged, coverage->removed,
                  coverage->incomplete, coverage->failed, elapsed.count()));
}

void MailKeeper::update(const MailChanges& changes) {
  if (const Result<Coverage> coverage = indexer_.update(changes); !coverage) {
    say("the index could not be brought up to date: " + coverage.error().text());
  }
}

void MailKeeper::remake() {
  if (!index_.isDamaged()) return;
  say("the index is damaged; it is set aside and made anew from the mail");
  const Result<void> made = index_.makeAnew();
  {
    const Lock lock(mutex_);
    lost_ = !made;
  }
  if (made) {
    updateAll();
  } else {
    say("the index could not be made anew: " + made.error().text());
  }
}

void MailKeeper::say(const std::string& line) { log_.write("tallyhive: " + line); }

}  // namespace thmp
