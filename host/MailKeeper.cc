// SPDX-License-Identifier: Apache-2.0
#include "host/MailKeeper.h"

#include <fmt/format.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "host/HostFolders.h"
#include "host/progress_text.h"

namespace thmp {
namespace {

// How long a first update goes on without a word.
constexpr std::chrono::seconds kBetweenLines{10};

// After an update that failed, twice as long after each retry.
constexpr std::chrono::seconds kLastRetry{60};

// It stands back: neither a search nor the mail program itself shall feel it.
IndexerOptions optionsFor(std::function<void(const std::string& line)> tell) {
  IndexerOptions options;
  options.isPolite = true;
  options.tell = std::move(tell);
  return options;
}

}  // namespace

MailKeeper::MailKeeper(Library& library, Index& index, std::vector<std::string> roots,
                       SystemLog& log)
    : library_(library),
      index_(index),
      roots_(roots),
      log_(log),
      indexer_(library, index, optionsFor([this](const std::string& line) { say(line); })),
      feed_(
          roots,
          [this](const MailChanges& changes) {
            {
              const Lock lock(mutex_);
              changes_.addAll(changes);
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
    {
      const Lock lock(mutex_);
      if (!waitForWork()) return;
      // News of more mail is no reason to wait longer for the next try.
      const bool isRetry = changes_.empty() && !inHand_.empty();
      nextRetry_ = isRetry ? std::min(nextRetry_ * 2, kLastRetry) : nextRetry_;
      inHand_.addAll(std::exchange(changes_, {}));
      remakeWanted_ = false;
    }
    try {
      // An update makes a damaged index anew.
      if (index_.isDamaged()) inHand_.everything = true;
      settle(inHand_.everything ? updateAll() : update(inHand_));
    } catch (const std::exception& failure) {
      settle(std::string(failure.what()));
    }
  }
}

bool MailKeeper::waitForWork() {
  const auto retry = std::chrono::steady_clock::now() + nextRetry_;
  while (!stopped_ && !remakeWanted_ && changes_.empty()) {
    if (inHand_.empty()) {
      wake_.wait(mutex_);
    } else if (wake_.wait_until(mutex_, retry) == std::cv_status::timeout) {
      break;
    }
  }
  return !stopped_;
}

void MailKeeper::settle(const std::string& failure) {
  {
    const Lock lock(mutex_);
    lost_ = index_.isDamaged();
  }
  if (failure.empty()) {
    if (!failure_.empty()) say("the index is brought up to date again");
    inHand_ = {};
    nextRetry_ = kFirstRetry;
  } else {
    // The same reason again is no news.
    if (failure != failure_) say("the index could not be brought up to date: " + failure);
  }
  failure_ = failure;
}

std::string MailKeeper::updateAll() {
  const auto begun = std::chrono::steady_clock::now();
  Pace pace(kBetweenLines, begun);
  const Result<Coverage> coverage = indexer_.update([&](const IndexProgress& progress) {
    if (pace.isDue(std::chrono::steady_clock::now())) say("indexing: " + progressText(progress));
  });
  if (!coverage) return coverage.error().text();
  if (coverage->stopped) {
    say(fmt::format("told to quit with {} messages looked at; the next start goes on from here",
                    coverage->seen));
    return {};
  }
  tellOfUnreachableFolders();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begun;
  say(
      fmt::format("the index is up to date: seen {}, indexed {}, unchanged {}, removed {}, "
                  "incomplete {}, failed {} in "
                  "{:.2f} s",
                  coverage->seen, coverage->indexed, coverage->unchanged, coverage->removed,
                  coverage->incomplete, coverage->failed, elapsed.count()));
  // What an update of all mail took for a while goes back to the system.
  ::malloc_trim(0);
  return {};
}

void MailKeeper::tellOfUnreachableFolders() {
  std::vector<std::string> lines;
  for (const std::string& root : roots_) {
    const std::string why = library_.whyUnreachable(root);
    if (!why.empty()) lines.push_back(unreachableFolderText(root, why));
  }
  if (lines == unreachable_) return;
  for (const std::string& line : lines) say(line);
  unreachable_ = std::move(lines);
}

std::string MailKeeper::update(const MailChanges& changes) {
  if (changes.empty()) return {};
  const Result<Coverage> coverage = indexer_.update(changes);
  return coverage ? std::string() : coverage.error().text();
}

void MailKeeper::say(const std::string& line) { log_.write("tallyhive: " + line); }

}  // namespace thmp
